#include "support/cancelled_context.h"

#include <atomic>

namespace lumo::testing {

namespace {

// gRPC offers no public way to cancel a context without a live call. An
// explicit instantiation may name a private member, which lets this reach
// the flag that a failed read sets.
std::atomic_bool& markedCancelled(grpc::ServerContextBase& context);

template <std::atomic_bool grpc::ServerContextBase::*Flag>
struct CancelFlag {
  friend std::atomic_bool& markedCancelled(grpc::ServerContextBase& context) {
    return context.*Flag;
  }
};
template struct CancelFlag<&grpc::ServerContextBase::marked_cancelled_>;

}  // namespace

CancelledContext::CancelledContext() { markedCancelled(*this).store(true); }

}  // namespace lumo::testing
