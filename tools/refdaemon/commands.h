#pragma once

#include <string>
#include <string_view>

#include "refdaemon/refdaemon.h"

namespace lumo::refdaemon {

// What the command lines typed on stdin can say.
extern const char* const kCommandHelp;

struct CommandResult {
  std::string error;  // what was wrong with the line; empty when it was carried out
  bool help = false;  // the line asked for kCommandHelp
  bool quit = false;
  bool stats = false;  // the line asked for the daemon's statsLine()
  std::string output;  // a line to print in answer, if any
};

// Carries out one command line on the daemon; blank lines do nothing.
CommandResult runCommand(std::string_view line, RefDaemon& daemon);

}  // namespace lumo::refdaemon
