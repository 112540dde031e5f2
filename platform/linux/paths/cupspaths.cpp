#include "observers/cupspaths.h"

namespace endpointsecurity {

// Debian's CUPS layout.
const CupsPaths& cupsPaths() {
  static const CupsPaths paths{
      "/run/cups/cups.sock",
      "/var/spool/cups/d",
      {"/usr/lib/cups/filter/", "/usr/lib/cups/backend/", "/usr/lib/cups/monitor/"},
  };
  return paths;
}

}  // namespace endpointsecurity
