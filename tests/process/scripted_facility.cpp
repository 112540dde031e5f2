// The test build's facility: events come from the FIFO named by
// LUMO_SCRIPT_FIFO.
#include <cstdio>
#include <cstdlib>

#include "process/scripted_es.h"
#include "setup/facility.h"

namespace tarvex::itx::rtn::linux_platform {

endpointsecurity::IEndpointSecurityApi* makeEndpointSecurity(IClock& clock, IDispatch&) {
  const char* fifo = std::getenv("LUMO_SCRIPT_FIFO");
  if (fifo == nullptr) {
    std::fprintf(stderr, "LUMO_SCRIPT_FIFO is not set\n");
    return nullptr;
  }
  return new lumo::testing::ScriptedEndpointSecurity(fifo, clock);
}

}  // namespace tarvex::itx::rtn::linux_platform
