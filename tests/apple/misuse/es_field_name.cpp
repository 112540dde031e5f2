// A message field spelled wrong does not build against the SDK's headers.
// expect: no member named 'exectuable'
#include "esclient/esapi.h"

const char* executablePath(const es_message_t* message) {
#if LUMO_MISUSE
  return message->process->exectuable->path.data;
#else
  return message->process->executable->path.data;
#endif
}
