#pragma once

#include <string>

namespace endpointsecurity::linux_es {

// What an exec image's first bytes say about the call: whether the kernel
// will open another file for exec on its behalf (a script's interpreter,
// an ELF's loader, a binfmt_misc handler).
enum class ExecFormat {
  kSelfContained,     // a static ELF, or one whose loader is already known
  kNeedsInterpreter,  // "#!", an ELF with a loader, or a format we can't tell
};

// The ELF loader a file names (PT_INTERP), empty for none or no ELF.
std::string elfInterpreter(int fd);

// Reads fd's header with pread, so the event's file position is untouched.
// knownLoader: a loader the kernel no longer reports, compared with the
// image's PT_INTERP as written.
ExecFormat execFormatOf(int fd, const std::string& knownLoader);

}  // namespace endpointsecurity::linux_es
