#pragma once

#include <string>

#include "refdaemon/refdaemon.h"

namespace lumo::refdaemon {

struct Options {
  RefDaemon::Settings settings;
  std::string serviceName = "com.tarvex.lumo.protectiond.xpc";
  std::string runtimeDir;  // empty: $LUMO_RUNTIME_DIR, else /run/tarvex
  bool privileged = true;
  std::string metricsFile;  // the extension's, for stats
  bool announceMounts = false;
  bool verbose = false;
  bool help = false;
};

extern const char* const kUsage;

// Parses the command line; empty on success, else what is wrong with it.
std::string parseOptions(int argc, char* const* argv, Options* options);

}  // namespace lumo::refdaemon
