#include "observers/cupspaths.h"

namespace endpointsecurity {

// CUPS as macOS ships it. Endpoint Security reports resolved paths, so the
// socket and the spool are under /private, not their /var symlinks.
const CupsPaths& cupsPaths() {
  static const CupsPaths paths{
      "/private/var/run/cupsd",
      "/private/var/spool/cups/d",
      {"/usr/libexec/cups/filter/", "/usr/libexec/cups/backend/", "/usr/libexec/cups/monitor/"},
  };
  return paths;
}

}  // namespace endpointsecurity
