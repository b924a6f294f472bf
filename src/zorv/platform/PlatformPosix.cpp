// POSIX implementation of Platform.h.
//
// Divisions: error mapping; OplockReader (change detection instead of an
// oplock); FileWriter; AppendFile; clock; file status and attributes.
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "../ZorvLogger.h"
#include "../ZorvText.h"
#include "Platform.h"

namespace zorv::platform {

namespace {

constexpr char16_t kLogSource[] = u"src/zorv/platform/PlatformPosix";

// The one place a POSIX error becomes the engine's (Windows) error number.
uint32_t PosixError(int error) {
    switch (error) {
        case ENOENT: return kErrorFileNotFound;
        case ENOTDIR: return kErrorPathNotFound;
        case EACCES:
        case EPERM:
        case EISDIR:
        case EROFS: return kErrorAccessDenied;
        case EBADF: return kErrorInvalidHandle;
        case EBUSY:
        case ETXTBSY: return kErrorSharingViolation;
        case ENOTSUP: return kErrorNotSupported;
        default: return kErrorGenFailure;
    }
}

// Owns a file descriptor; closes it exactly once.
class ScopedFd {
public:
    ScopedFd() = default;
    explicit ScopedFd(int fd) : m_fd(fd) {}
    ~ScopedFd() { Reset(); }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }
    int Release() {
        const int fd = m_fd;
        m_fd = -1;
        return fd;
    }
    void Reset(int fd = -1) {
        if (m_fd >= 0) ::close(m_fd);
        m_fd = fd;
    }

private:
    int m_fd = -1;
};

std::string NativePath(std::u16string_view path) { return Utf16ToUtf8(path); }

int OpenRetrying(const std::string& path, int flags, mode_t mode = 0) {
    int fd;
    do {
        fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

// Opens a file an untrusted party may control, for reading, in a way that can
// neither block nor be redirected: O_NONBLOCK returns at once from a FIFO
// without a writer, O_NOFOLLOW refuses a link in the last component, and
// anything but a regular file (FIFO, device, socket, directory) is refused.
// The error is set and -1 returned on refusal.
int OpenRegularFile(const std::string& path, uint32_t& error, struct stat& st) {
    ScopedFd fd(OpenRetrying(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW));
    if (!fd.valid()) {
        // A link in the last component fails with ELOOP: not a file we read.
        error = errno == ELOOP ? kErrorAccessDenied : PosixError(errno);
        return -1;
    }
    if (::fstat(fd.get(), &st) != 0) {
        error = PosixError(errno);
        return -1;
    }
    if (!S_ISREG(st.st_mode)) {
        error = kErrorAccessDenied;
        return -1;
    }
    return fd.Release();
}

// What must not change while a guarded read is under way.
struct Identity {
    off_t size = 0;
    struct timespec mtime {};
    struct timespec ctime {};

    static bool Of(int fd, Identity& out) {
        struct stat st {};
        if (::fstat(fd, &st) != 0) return false;
        out.size = st.st_size;
        out.mtime = st.st_mtim;
        out.ctime = st.st_ctim;
        return true;
    }
    bool operator==(const Identity& o) const {
        return size == o.size && mtime.tv_sec == o.mtime.tv_sec && mtime.tv_nsec == o.mtime.tv_nsec &&
               ctime.tv_sec == o.ctime.tv_sec && ctime.tv_nsec == o.ctime.tv_nsec;
    }
};

}  // namespace

// ---- OplockReader -------------------------------------------------------

struct OplockReader::Native {
    ScopedFd fd;
    uint64_t offset = 0;
    Identity opened;
};

OplockReader::OplockReader() = default;
OplockReader::~OplockReader() { Close(); }

bool OplockReader::Open(std::u16string_view path) {
    Close();
    m_error = 0;
    auto native = std::make_unique<Native>();
    struct stat st {};
    native->fd.Reset(OpenRegularFile(NativePath(path), m_error, st));
    if (!native->fd.valid()) return false;
    Identity::Of(native->fd.get(), native->opened);
    m_native = std::move(native);
    return true;
}

uint64_t OplockReader::Size() const { return m_native ? static_cast<uint64_t>(m_native->opened.size) : 0; }

bool OplockReader::IsOpen() const { return m_native != nullptr && m_native->fd.valid(); }

size_t OplockReader::Read(void* buffer, size_t count) {
    if (!IsOpen() || buffer == nullptr || count == 0) {
        Close();
        return 0;
    }
    ssize_t n;
    do {
        n = ::pread(m_native->fd.get(), buffer, count, static_cast<off_t>(m_native->offset));
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        m_error = PosixError(errno);
        Close();
        return 0;
    }
    // Without oplocks, a writer is noticed by what it leaves behind: any change of
    // size, mtime or ctime since the open means another program wants the file.
    Identity now;
    if (!Identity::Of(m_native->fd.get(), now) || !(now == m_native->opened)) {
        m_error = kErrorSharingViolation;
        ZORV_LOG(kLogWarning, u"fileread", u"Interrupted oplock");
        Close();
        return 0;
    }
    if (n == 0) {
        Close();
        return 0;
    }
    m_native->offset += static_cast<uint64_t>(n);
    return static_cast<size_t>(n);
}

void OplockReader::Close() { m_native.reset(); }

// ---- FileWriter ---------------------------------------------------------

struct FileWriter::Native {
    ScopedFd fd;
};

FileWriter::FileWriter() = default;
FileWriter::~FileWriter() { Close(); }

bool FileWriter::Open(std::u16string_view path) {
    Close();
    m_error = 0;
    auto native = std::make_unique<Native>();
    native->fd.Reset(OpenRetrying(NativePath(path), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK, 0644));
    if (!native->fd.valid()) {
        m_error = PosixError(errno);
        return false;
    }
    m_native = std::move(native);
    return true;
}

bool FileWriter::IsOpen() const { return m_native != nullptr && m_native->fd.valid(); }

size_t FileWriter::Write(const void* buffer, size_t count) {
    if (!IsOpen()) {
        m_error = kErrorInvalidHandle;
        return 0;
    }
    const auto* bytes = static_cast<const char*>(buffer);
    size_t done = 0;
    // POSIX may write less than asked; Windows' synchronous WriteFile does not.
    while (done < count) {
        const ssize_t n = ::write(m_native->fd.get(), bytes + done, count - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            m_error = n < 0 ? PosixError(errno) : kErrorGenFailure;
            Close();
            return 0;
        }
        done += static_cast<size_t>(n);
    }
    return done;
}

void FileWriter::Close() { m_native.reset(); }

// ---- AppendFile ---------------------------------------------------------

struct AppendFile::Native {
    ScopedFd fd;
    uint64_t size = 0;
};

AppendFile::AppendFile() = default;
AppendFile::~AppendFile() = default;

bool AppendFile::Open(std::u16string_view path) {
    Close();
    auto native = std::make_unique<Native>();
    native->fd.Reset(OpenRetrying(NativePath(path), O_WRONLY | O_CREAT | O_APPEND | O_NOFOLLOW | O_NONBLOCK, 0644));
    if (!native->fd.valid()) return false;
    struct stat st {};
    if (::fstat(native->fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    native->size = static_cast<uint64_t>(st.st_size);
    m_native = std::move(native);
    return true;
}

uint64_t AppendFile::Size() const { return m_native ? m_native->size : 0; }

void AppendFile::Close() { m_native.reset(); }

bool AppendFile::IsOpen() const { return m_native != nullptr && m_native->fd.valid(); }

bool AppendFile::Write(const void* data, size_t count) {
    if (!IsOpen()) return false;
    const auto* bytes = static_cast<const char*>(data);
    size_t done = 0;
    while (done < count) {
        const ssize_t n = ::write(m_native->fd.get(), bytes + done, count - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// ---- Clock --------------------------------------------------------------

bool LocalTime(int64_t secondsSince1970, std::tm& out) {
    const time_t t = static_cast<time_t>(secondsSince1970);
    return ::localtime_r(&t, &out) != nullptr;
}

bool OtherThreadsEnded() { return false; }

uint64_t NowMilliseconds() {
    struct timespec ts {};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    const uint64_t ticks = static_cast<uint64_t>(ts.tv_sec) * 10000000u + static_cast<uint64_t>(ts.tv_nsec) / 100u;
    return ticks / 10000u;
}

// ---- File status and attributes -----------------------------------------

bool StatFile(std::u16string_view path, FileStatus& out) {
    struct stat st {};
    if (::stat(NativePath(path).c_str(), &st) != 0) return false;
    out.size = static_cast<uint64_t>(st.st_size);
    out.lastAccessTime = static_cast<int64_t>(st.st_atim.tv_sec);
    out.lastWriteTime = static_cast<int64_t>(st.st_mtim.tv_sec);
    out.changeTime = static_cast<int64_t>(st.st_ctim.tv_sec);
    out.isDirectory = S_ISDIR(st.st_mode);
    return true;
}

namespace {

// Seconds between 1601-01-01 and 1970-01-01, the offset of Windows file times.
constexpr int64_t kSecondsFrom1601To1970 = 11644473600;

uint64_t ToFileTime(const struct timespec& t) {
    return static_cast<uint64_t>(static_cast<int64_t>(t.tv_sec) + kSecondsFrom1601To1970) * 10000000u +
           static_cast<uint64_t>(t.tv_nsec) / 100u;
}

}  // namespace

bool GetFileTimes(std::u16string_view path, FileTimes& out, uint32_t& error, bool& openFailed) {
    error = 0;
    openFailed = false;
    // No open at all: opening a FIFO waits for a writer, for ever. lstat also
    // leaves a link unresolved, and only a regular file has times we trust.
    struct stat st {};
    if (::lstat(NativePath(path).c_str(), &st) != 0) {
        error = PosixError(errno);
        openFailed = true;
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        error = kErrorAccessDenied;
        openFailed = true;
        return false;
    }
    out.lastAccess = ToFileTime(st.st_atim);
    out.lastWrite = ToFileTime(st.st_mtim);
    return true;
}

EntryKind KindOfEntry(std::u16string_view path) {
    struct stat st {};
    if (::lstat(NativePath(path).c_str(), &st) != 0) return errno == ENOENT ? EntryKind::Missing : EntryKind::Other;
    return S_ISREG(st.st_mode) ? EntryKind::Regular : EntryKind::Other;
}

bool RemoveFile(std::u16string_view path) { return ::unlink(NativePath(path).c_str()) == 0; }

bool RenameOver(std::u16string_view from, std::u16string_view to, uint32_t& error) {
    error = 0;
    if (::rename(NativePath(from).c_str(), NativePath(to).c_str()) == 0) return true;
    error = PosixError(errno);
    return false;
}

bool IsReparsePoint(std::u16string_view path) {
    // lstat, not stat: the link itself is the question, not what it points to.
    struct stat st {};
    return ::lstat(NativePath(path).c_str(), &st) == 0 && S_ISLNK(st.st_mode);
}

bool IsProtectedSystemFile(std::u16string_view) { return false; }

}  // namespace zorv::platform
