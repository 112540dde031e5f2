#pragma once

namespace endpointsecurity {
class IEndpointSecurityApi;
}
namespace tarvex::itx::xpc {
class IXPCConnector;
}

namespace tarvex::itx::rtn {

class IDispatch;
class IClock;
class IOpenScope;

// The operating-system seams the core runs on. The entry point installs the
// platform's implementations before building any component; tests install
// fakes. Components take their pointers at construction.
struct Platform {
  endpointsecurity::IEndpointSecurityApi* es = nullptr;
  IDispatch* dispatch = nullptr;
  IClock* clock = nullptr;
  xpc::IXPCConnector* xpc = nullptr;
  IOpenScope* opens = nullptr;  // optional
};

Platform& platform();
void setPlatform(const Platform& seams);

// Builds this platform's seams and the log sink and installs them; the
// process entry calls it first. False when the process can't go on.
bool installPlatform(int argc, char** argv);

}  // namespace tarvex::itx::rtn
