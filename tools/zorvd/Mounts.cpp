#include "Mounts.h"

#include <cctype>
#include <fstream>
#include <sstream>

namespace zorvd {

namespace {

// The mount table's fields escape space, tab, newline and backslash as \ooo.
std::string UnescapeMountField(const std::string& field) {
    std::string out;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && std::isdigit(static_cast<unsigned char>(field[i + 1])) &&
            std::isdigit(static_cast<unsigned char>(field[i + 2])) &&
            std::isdigit(static_cast<unsigned char>(field[i + 3]))) {
            out.push_back(static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0')));
            i += 3;
        } else {
            out.push_back(field[i]);
        }
    }
    return out;
}

}  // namespace

std::vector<MountEntry> ParseMountInfo(std::istream& table) {
    std::vector<MountEntry> mounts;
    std::string line;
    while (std::getline(table, line)) {
        // ID PARENT MAJOR:MINOR ROOT POINT OPTIONS [OPTIONAL...] - TYPE SOURCE SUPER-OPTIONS
        std::istringstream fields(line);
        std::string skip, point, field, type;
        if (!(fields >> skip >> skip >> skip >> skip >> point)) continue;
        while (fields >> field && field != "-") {
        }
        if (!(fields >> type)) continue;
        mounts.push_back({UnescapeMountField(point), type});
    }
    return mounts;
}

std::vector<MountEntry> ReadMounts() {
    std::ifstream table("/proc/self/mountinfo");
    return ParseMountInfo(table);
}

bool IsRemoteFilesystem(const std::string& type) {
    static const char* const kRemote[] = {"nfs", "nfs4", "cifs", "smb3", "9p", "ceph", "fuse", "sshfs"};
    for (const char* remote : kRemote)
        if (type == remote) return true;
    return type.rfind("fuse.", 0) == 0;
}

bool IsPseudoFilesystem(const std::string& type) {
    static const char* const kPseudo[] = {"proc",     "sysfs",   "cgroup",     "cgroup2",     "devpts",
                                          "devtmpfs", "debugfs", "tracefs",    "securityfs",  "pstore",
                                          "bpf",      "mqueue",  "hugetlbfs",  "configfs",    "fusectl",
                                          "autofs",   "binfmt_misc", "rpc_pipefs", "nsfs",     "efivarfs"};
    for (const char* pseudo : kPseudo)
        if (type == pseudo) return true;
    return IsRemoteFilesystem(type);
}

bool IsAtOrBelow(const std::string& path, const std::string& prefix) {
    if (path == prefix) return true;
    return !prefix.empty() && path.size() > prefix.size() && path.compare(0, prefix.size(), prefix) == 0 &&
           (prefix.back() == '/' || path[prefix.size()] == '/');
}

std::vector<MountEntry> UnwatchedRemoteMounts(const std::vector<MountEntry>& mounts,
                                              const std::vector<std::string>& watch,
                                              const std::vector<std::string>& ignore) {
    std::vector<MountEntry> found;
    for (const MountEntry& mount : mounts) {
        if (!IsRemoteFilesystem(mount.type)) continue;
        bool inTree = watch.empty(), named = false, ignored = false, again = false;
        for (const std::string& path : watch) {
            inTree = inTree || IsAtOrBelow(mount.point, path);
            named = named || IsAtOrBelow(path, mount.point);  // the start marks the filesystem a path lies on
        }
        for (const std::string& path : ignore) ignored = ignored || IsAtOrBelow(mount.point, path);
        for (const MountEntry& seen : found) again = again || seen.point == mount.point;
        if (inTree && !named && !ignored && !again) found.push_back(mount);
    }
    return found;
}

}  // namespace zorvd
