#include "setup/entryoptions.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifndef LUMO_VERSION
#define LUMO_VERSION "unknown"
#endif

namespace tarvex::itx::rtn::linux_platform {

namespace {

constexpr const char* kUsageLine = "Usage: lumo-es [--help | --version]\n";

constexpr const char* kHelp =
    "Runs the Endpoint Security extension of Tarvex Lumo: watches the machine's\n"
    "processes, files and printing and reports them to the protection daemon.\n"
    "It runs as root under systemd (lumo-es.service) and takes no options;\n"
    "everything it applies comes from the daemon. Signals: SIGTERM uninstalls\n"
    "(a plain stop is SIGKILL), SIGUSR2 puts it to sleep, SIGUSR1 wakes it.\n"
    "\n"
    "  --help       this text\n"
    "  --version    the version\n"
    "\n"
    "Environment: LUMO_METRICS_FILE, LUMO_LOG_DEBUG, LUMO_LOG_STDERR,\n"
    "LUMO_PRODUCT_ROOT, LUMO_RUNTIME_DIR, LUMO_PROCESS_TIER (see the README).\n";

}  // namespace

EntryRequest parseEntryOptions(int argc, char* const* argv) {
  if (argc <= 1) return {};
  const char* const arg = argv[1];
  // One request at a time: "--help --version" is as wrong as "--bogus".
  if (argc == 2 && std::strcmp(arg, "--help") == 0) {
    return {0, std::string(kUsageLine) + kHelp};
  }
  if (argc == 2 && std::strcmp(arg, "--version") == 0) {
    return {0, std::string("lumo-es ") + LUMO_VERSION + "\n"};
  }
  const char* const bad = argc == 2 || (std::strcmp(arg, "--help") != 0 &&
                                        std::strcmp(arg, "--version") != 0)
                              ? arg
                              : argv[2];
  const bool option = bad[0] == '-';
  return {2, std::string("lumo-es: ") + (option ? "unknown option " : "unexpected argument ") +
                 "'" + bad + "'\n" + kUsageLine};
}

void answerEntryOptions(int argc, char* const* argv) {
  const EntryRequest request = parseEntryOptions(argc, argv);
  if (!request.exitStatus) return;
  std::fputs(request.text.c_str(), *request.exitStatus == 0 ? stdout : stderr);
  std::fflush(stdout);
  std::exit(*request.exitStatus);
}

}  // namespace tarvex::itx::rtn::linux_platform
