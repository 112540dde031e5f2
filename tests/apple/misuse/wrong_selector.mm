// A selector the daemon's protocol does not declare is refused.
// expect: handleFileEvents:
#import "xpc/protocols.h"

void send(id<ProtectionDaemonXPCInterface> daemon, NSDictionary* event) {
#if LUMO_MISUSE
  [daemon handleFileEvents:event];
#else
  [daemon handleFileEvent:event];
#endif
}
