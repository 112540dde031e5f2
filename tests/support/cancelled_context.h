#pragma once

#include <grpcpp/server_context.h>

namespace lumo::testing {

// A request context whose call the client has cancelled.
class CancelledContext : public grpc::ServerContext {
 public:
  CancelledContext();
};

}  // namespace lumo::testing
