#pragma once

#include <string>

namespace tarvex::itx::rtnmac {

// Prefixed to every product path that folder recovery and the install test
// look at. Empty in the product; tests point it at a scratch directory.
// Set it before those run, never while they do.
void setProductRoot(std::string root);
const std::string& productRoot();

// The product path as seen under the current root.
std::string underProductRoot(const std::string& path);

}  // namespace tarvex::itx::rtnmac
