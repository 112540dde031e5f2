// Event data is read from the member of the union that belongs to the type.
// expect: no member named 'destination' in 'es_event_close_t'
#include "esclient/esapi.h"

const char* closedPath(const es_message_t* message) {
#if LUMO_MISUSE
  return message->event.close.destination->path.data;
#else
  return message->event.close.target->path.data;
#endif
}
