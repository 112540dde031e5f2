#pragma once

#include <string>
#include <vector>

namespace endpointsecurity {

// Where the printing system keeps its socket, spool and programs. Each
// platform supplies its own values.
struct CupsPaths {
  // The scheduler's local socket, matched exactly.
  std::string socket;
  // Prefix of job data files in the spool directory.
  std::string spoolPrefix;
  // Filter, backend and monitor directories, each ending in "/".
  std::vector<std::string> programDirs;
};

const CupsPaths& cupsPaths();

}  // namespace endpointsecurity
