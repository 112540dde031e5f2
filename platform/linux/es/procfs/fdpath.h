#pragma once

#include <string>

namespace endpointsecurity::linux_es {

// The path the kernel shows for one of our descriptors (as its
// /proc/self/fd link reads, " (deleted)" included); empty when unreadable.
std::string pathOfFd(int fd);

// Takes the tail the kernel adds to the link of a deleted or replaced file
// off path; true when there was one.
bool stripDeletedTail(std::string& path);

}  // namespace endpointsecurity::linux_es
