#pragma once

#include <optional>
#include <string>

namespace tarvex::itx::rtn::linux_platform {

// What the command line asks of lumo-es. The extension itself takes no
// options: with none it runs; --help and --version answer and exit; anything
// else is refused before a monitor starts.
struct EntryRequest {
  std::optional<int> exitStatus;  // set: print `text` and exit with it
  std::string text;               // for stdout on status 0, else stderr
};

EntryRequest parseEntryOptions(int argc, char* const* argv);

// Carries out the request: returns only when the extension is to run.
void answerEntryOptions(int argc, char* const* argv);

}  // namespace tarvex::itx::rtn::linux_platform
