// The engine's single door to the operating system. PlatformPosix.cpp and
// PlatformWindows.cpp implement it and CMake compiles exactly one of them;
// no other file includes a system header.
//
// Errors are reported as Windows error numbers on every platform (2 file not
// found, 5 access denied, 32 sharing violation, ...), so callers and tests see
// the same values wherever they run.
//
// Free functions are thread-safe. A reader, writer or append file belongs to
// one thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string_view>

namespace zorv::platform {

inline constexpr uint32_t kErrorFileNotFound = 2;
inline constexpr uint32_t kErrorPathNotFound = 3;
inline constexpr uint32_t kErrorAccessDenied = 5;
inline constexpr uint32_t kErrorInvalidHandle = 6;
inline constexpr uint32_t kErrorGenFailure = 31;
inline constexpr uint32_t kErrorSharingViolation = 32;
inline constexpr uint32_t kErrorNotSupported = 50;
inline constexpr uint32_t kErrorWaitTimeout = 258;

// Reads a file sequentially while yielding to every other program that wants
// it. On Windows the reader holds a read/handle-caching oplock and stops when
// it breaks; on POSIX, which has no oplocks, it stops when the file's size or
// times change between reads. Either way a yielded read ends with error 32 and
// the file closed. The file is also closed after end of file and any failure.
class OplockReader {
public:
    OplockReader();
    ~OplockReader();
    OplockReader(const OplockReader&) = delete;
    OplockReader& operator=(const OplockReader&) = delete;

    // False when the file cannot be opened (or, on Windows, the oplock is
    // refused). The files read are named by events and hosts, so the open can
    // neither block nor be redirected: a link (reparse point) in the last
    // component, a FIFO (named pipe), a device or a directory is refused with
    // error 5 and never read.
    bool Open(std::u16string_view path);
    bool IsOpen() const;
    // The file's size when it was opened; 0 when not open.
    uint64_t Size() const;
    // Bytes read; 0 at end of file or on failure, and the reader is then closed.
    size_t Read(void* buffer, size_t count);
    // Safe to call twice.
    void Close();
    // The last failure, 0 while healthy.
    uint32_t Error() const { return m_error; }

private:
    struct Native;
    std::unique_ptr<Native> m_native;
    uint32_t m_error = 0;
};

// Writes a new file, shared so that other programs may read it meanwhile.
// Open creates the file and fails when anything already has the name (a
// file, a link, a FIFO): it never writes through a link or into an existing
// file, which is what makes write-beside-then-RenameOver safe in a folder
// others can write to.
class FileWriter {
public:
    FileWriter();
    ~FileWriter();
    FileWriter(const FileWriter&) = delete;
    FileWriter& operator=(const FileWriter&) = delete;

    bool Open(std::u16string_view path);
    bool IsOpen() const;
    // Bytes written; 0 on failure, and the writer is then closed.
    size_t Write(const void* buffer, size_t count);
    void Close();
    uint32_t Error() const { return m_error; }

private:
    struct Native;
    std::unique_ptr<Native> m_native;
    uint32_t m_error = 0;
};

// An unbuffered append-only file that other programs may open, read and write
// at the same time (the log file). Each Write lands as one append. Open
// creates the file when missing, and refuses a link (reparse point) in the
// last component or anything but a regular file, without blocking on a FIFO.
class AppendFile {
public:
    AppendFile();
    ~AppendFile();
    AppendFile(const AppendFile&) = delete;
    AppendFile& operator=(const AppendFile&) = delete;

    bool Open(std::u16string_view path);
    bool IsOpen() const;
    bool Write(const void* data, size_t count);
    // The size when opened; 0 when not open.
    uint64_t Size() const;
    void Close();

private:
    struct Native;
    std::unique_ptr<Native> m_native;
};

// What a directory entry is, without following a link in its last component.
enum class EntryKind {
    Missing,  // nothing has the name (or its folder is missing)
    Regular,  // a regular file
    Other     // a link (reparse point), directory, FIFO (named pipe), device...
};
EntryKind KindOfEntry(std::u16string_view path);

// Removes a name; a link is removed itself, never what it points to.
bool RemoveFile(std::u16string_view path);

// Gives `from` the name `to` in one step, replacing what had it (a link is
// replaced itself, never written through). `error` holds the Windows error.
bool RenameOver(std::u16string_view from, std::u16string_view to, uint32_t& error);

// Local calendar time of a moment given in seconds since 1970-01-01 UTC.
bool LocalTime(int64_t secondsSince1970, std::tm& out);

// The system clock in milliseconds since 1970-01-01 UTC (100-ns ticks / 10000).
uint64_t NowMilliseconds();

// True while the process is exiting and the library's static objects are
// being destroyed after every other thread was ended (Windows ends them
// before a library's teardown; POSIX threads live on through exit, so there
// it is always false).
bool OtherThreadsEnded();

// What the runtime library's file status call reports (_wstat64 on Windows,
// stat on POSIX). Times are seconds since 1970-01-01 UTC.
struct FileStatus {
    uint64_t size = 0;
    int64_t lastAccessTime = 0;
    int64_t lastWriteTime = 0;
    int64_t changeTime = 0;  // POSIX ctime; the creation time on Windows
    bool isDirectory = false;
};
// False when the path cannot be queried (missing, no access).
bool StatFile(std::u16string_view path, FileStatus& out);

// A file's last-access and last-write times as Windows file times (100-ns
// ticks since 1601-01-01 UTC), read from the directory entry without opening
// the file, which could block (a FIFO, a named pipe). Only a regular file
// answers: a link (reparse point), directory or other special file gives
// error 5. On failure `error` holds the Windows error number and
// `openFailed` says whether the path or the time query failed.
struct FileTimes {
    uint64_t lastAccess = 0;
    uint64_t lastWrite = 0;
};
bool GetFileTimes(std::u16string_view path, FileTimes& out, uint32_t& error, bool& openFailed);

// Whether the path is a reparse point (Windows) or a symbolic link (POSIX).
// A path whose attributes cannot be read is not one.
bool IsReparsePoint(std::u16string_view path);

// Whether Windows File Protection guards the file. POSIX has no protected
// system files: always false there.
bool IsProtectedSystemFile(std::u16string_view path);

}  // namespace zorv::platform
