// The mount table as the kernel shows it, and what the daemon makes of each
// kind of filesystem: watched, never watched, or watched only when listed.
#pragma once

#include <istream>
#include <string>
#include <vector>

namespace zorvd {

struct MountEntry {
    std::string point;
    std::string type;
};

// The lines of a /proc/PID/mountinfo, in the kernel's order (a mount after
// the one it is mounted on), mount points with their \ooo escapes undone.
std::vector<MountEntry> ParseMountInfo(std::istream& table);
// This mount namespace's.
std::vector<MountEntry> ReadMounts();

// Filesystems left out unless a `watch` path names them: those nothing runs
// from, and the network and FUSE ones (IsRemoteFilesystem), whose reads the
// daemon's own digests would wait on.
bool IsPseudoFilesystem(const std::string& type);
// Network and FUSE filesystems: programs run from them like from a disk.
bool IsRemoteFilesystem(const std::string& type);

// `path` is `prefix` or lies below it.
bool IsAtOrBelow(const std::string& path, const std::string& prefix);

// The network and FUSE filesystems of `mounts` inside the watched tree (all
// of it with no `watch` list; at or below a listed path with one) that no
// `watch` path names (a listed path at or below the mount point marks its
// filesystem) and `ignore` does not leave out: what runs from them is not
// seen.
std::vector<MountEntry> UnwatchedRemoteMounts(const std::vector<MountEntry>& mounts,
                                              const std::vector<std::string>& watch,
                                              const std::vector<std::string>& ignore);

}  // namespace zorvd
