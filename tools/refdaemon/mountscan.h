#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "refdaemon/pushconfig.h"

namespace lumo::refdaemon {

// Whether the block device major:minor is removable; nullopt when unknown.
using RemovableLookup = std::function<std::optional<bool>(unsigned major, unsigned minor)>;

// The mounts of a mountinfo text (proc(5)) worth announcing, in its order:
// network file systems (nfs, nfs4, cifs, smb3, sshfs, fuse.sshfs, 9p, ceph,
// glusterfs) as network, block-device mounts as removable or regular by
// `removable`; pseudo and memory file systems are left out. Mount points
// are unescaped (\040 and the like).
std::vector<Mount> classifyMounts(std::string_view mountinfo, const RemovableLookup& removable);

// /sys's word on a device: the "removable" flag of its disk (the parent of a
// partition), as under /sys/block/<disk>/removable.
std::optional<bool> sysfsRemovable(unsigned major, unsigned minor);

// The mounts of this machine, from /proc/self/mountinfo; empty with `error`
// set when it can't be read.
std::vector<Mount> scanMounts(std::string* error);

}  // namespace lumo::refdaemon
