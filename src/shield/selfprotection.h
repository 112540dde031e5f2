#pragma once

#include <string>

#include "director/managable.h"

namespace endpointsecurity {

// Holds the self-protection observer's place among the director's
// components. Guarding the product's own services lives elsewhere; this
// slot only lets policy and lifecycle reach it.
class SelfProtectionObserver : public ISysExtManagable {
 public:
  bool start() override { return true; }
  bool stop() override { return true; }
  bool init() override { return true; }
  void uninit() override {}
  std::string getName() const override { return "SelfProtectionObserver"; }
  void setName(const std::string&) override {}
  bool switchMode(const flag_set<CLIENT_OBSERVER_TAGS>&, bool) override { return true; }
};

}  // namespace endpointsecurity
