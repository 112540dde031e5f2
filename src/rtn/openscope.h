#pragma once

#include <string>
#include <vector>

namespace tarvex::itx::rtn {

// Where file opens are wanted at all. The file observer reports an open
// only on a volume the daemon registered as removable or network, and tells
// the platform which those are whenever its table changes, so that a
// platform able to may leave every other open unreported at the source.
// Optional: without one, every open is delivered and dropped later.
class IOpenScope {
 public:
  virtual ~IOpenScope() = default;
  // Opens of files whose paths begin with one of these volumes and "/" are
  // wanted; others may be left out. Replaces the previous list.
  virtual void wantOpensUnder(const std::vector<std::string>& volumes) = 0;
};

}  // namespace tarvex::itx::rtn
