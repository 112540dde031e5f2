// A call newer than the deployment target needs an availability check.
// expect: 'es_mute_path' is only available on macOS 12.0 or newer
#include "esclient/esapi.h"

es_return_t mutePrefix(es_client_t* client, const char* prefix) {
#if LUMO_MISUSE
  return es_mute_path(client, prefix, ES_MUTE_PATH_TYPE_PREFIX);
#else
  if (@available(macOS 12.0, *)) return es_mute_path(client, prefix, ES_MUTE_PATH_TYPE_PREFIX);
  return ES_RETURN_ERROR;
#endif
}
