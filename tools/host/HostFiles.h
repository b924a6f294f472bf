// Reading a file once for its digests, with the file's stamp taken on the
// open handle before and after, so a caller can tell a file that changed
// while it was read. POSIX in HostFilesPosix.cpp, Windows in
// HostFilesWindows.cpp. Thread-safe; each call owns its handle.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "Digest.h"

namespace zorv::host {

struct FileStamp {
    uint64_t size = 0;
    int64_t modified = 0;  // nanoseconds, platform epoch
    int64_t changed = 0;   // inode change (POSIX) or attribute change (Windows)
    bool operator==(const FileStamp&) const = default;
};

struct FileRead {
    FileStamp before;
    FileStamp after;
    FileDigests digests;
    uint8_t head[4] = {};  // the first bytes, for telling executables by their magic
    size_t headLength = 0;
};

// Reads `file` through `buffer` (grown to 1 MiB if smaller) into `digester`.
// False with `error` set (the system's reason) when it cannot be opened or read.
bool ReadAndDigest(const std::filesystem::path& file, Digester& digester, std::vector<uint8_t>& buffer,
                   FileRead& out, std::string& error);

// The first bytes of `file` (up to 4), for telling executables by their magic.
bool ReadHead(const std::filesystem::path& file, uint8_t head[4], size_t& length, std::string& error);

// The device a path lives on, for --one-file-system; 0 where not known.
uint64_t DeviceOf(const std::filesystem::path& path);

// Whether standard output / standard error is a terminal.
bool IsTerminal(int fd);

}  // namespace zorv::host
