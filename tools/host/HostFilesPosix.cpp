#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "HostFiles.h"

namespace zorv::host {

namespace {

FileStamp StampOf(const struct stat& info) {
    FileStamp stamp;
    stamp.size = static_cast<uint64_t>(info.st_size);
    stamp.modified = static_cast<int64_t>(info.st_mtim.tv_sec) * 1000000000 + info.st_mtim.tv_nsec;
    stamp.changed = static_cast<int64_t>(info.st_ctim.tv_sec) * 1000000000 + info.st_ctim.tv_nsec;
    return stamp;
}

constexpr size_t kBufferSize = 1 << 20;

}  // namespace

bool ReadAndDigest(const std::filesystem::path& file, Digester& digester, std::vector<uint8_t>& buffer,
                   FileRead& out, std::string& error) {
    if (buffer.size() < kBufferSize) buffer.resize(kBufferSize);
    // O_NONBLOCK: a file swapped for a FIFO after the walk saw it must not hang the read.
    const int fd = ::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        error = std::strerror(errno);
        return false;
    }
    struct stat info {};
    bool ok = ::fstat(fd, &info) == 0;
    if (ok && !S_ISREG(info.st_mode)) {
        error = "not a regular file";
        ::close(fd);
        return false;
    }
    out.before = StampOf(info);
    out.headLength = 0;
#ifdef POSIX_FADV_SEQUENTIAL
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
#endif
    while (ok) {
        const ssize_t got = ::read(fd, buffer.data(), buffer.size());
        if (got < 0) {
            if (errno == EINTR) continue;
            ok = false;
            break;
        }
        if (got == 0) break;
        if (out.headLength < sizeof out.head) {
            const size_t take = std::min(sizeof out.head - out.headLength, static_cast<size_t>(got));
            std::memcpy(out.head + out.headLength, buffer.data(), take);
            out.headLength += take;
        }
        digester.Update(buffer.data(), static_cast<size_t>(got));
    }
    if (ok) ok = ::fstat(fd, &info) == 0;
    if (!ok) error = std::strerror(errno);
    out.after = StampOf(info);
    ::close(fd);
    out.digests = digester.Finish();
    return ok;
}

bool ReadHead(const std::filesystem::path& file, uint8_t head[4], size_t& length, std::string& error) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        error = std::strerror(errno);
        return false;
    }
    ssize_t got;
    do {
        got = ::pread(fd, head, 4, 0);
    } while (got < 0 && errno == EINTR);
    if (got < 0) error = std::strerror(errno);
    ::close(fd);
    length = got < 0 ? 0 : static_cast<size_t>(got);
    return got >= 0;
}

uint64_t DeviceOf(const std::filesystem::path& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return 0;
    return static_cast<uint64_t>(info.st_dev);
}

bool IsTerminal(int fd) { return ::isatty(fd) != 0; }

}  // namespace zorv::host
