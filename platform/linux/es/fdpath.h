#pragma once

#include <string>

namespace endpointsecurity::linux_es {

// The path the kernel shows for one of our descriptors (as its
// /proc/self/fd link reads, " (deleted)" included); empty when unreadable.
std::string pathOfFd(int fd);

}  // namespace endpointsecurity::linux_es
