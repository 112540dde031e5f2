#include "log/log.h"

namespace tarvex::itx::log {

namespace {
constexpr const char* kPrefix = "Func:  ";
}

ScopeTracer::ScopeTracer(LogHandle trace, const char* function)
    : trace_(trace), function_(function) {
  LUMO_LOG_EMIT_RAW(trace_, LUMO_LOG_TYPE_DEBUG, "%{public}s Entering: %{public}s \n ", kPrefix,
                    function_);
}

ScopeTracer::~ScopeTracer() {
  LUMO_LOG_EMIT_RAW(trace_, LUMO_LOG_TYPE_DEBUG, "%{public}s Exiting: %{public}s \n ", kPrefix,
                    function_);
}

}  // namespace tarvex::itx::log
