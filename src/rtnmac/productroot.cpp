#include "rtnmac/productroot.h"

#include <utility>

namespace tarvex::itx::rtnmac {

namespace {
std::string& root() {
  static std::string value;
  return value;
}
}  // namespace

void setProductRoot(std::string value) { root() = std::move(value); }

const std::string& productRoot() { return root(); }

std::string underProductRoot(const std::string& path) { return root() + path; }

}  // namespace tarvex::itx::rtnmac
