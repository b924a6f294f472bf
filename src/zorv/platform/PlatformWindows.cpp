// Windows implementation of Platform.h.
//
// Divisions: error and path helpers; OplockReader (a read/handle-caching
// oplock that makes the engine step aside for any other opener); FileWriter;
// AppendFile; clock; file status and attributes.
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#include <sfc.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <winioctl.h>

#include <string>

#include "../ZorvLogger.h"
#include "Platform.h"

namespace zorv::platform {

namespace {

constexpr char16_t kLogSource[] = u"src/zorv/platform/PlatformWindows";

// The one place a native failure is read; Windows codes are the engine's codes.
uint32_t WindowsError() { return static_cast<uint32_t>(::GetLastError()); }

std::wstring NativePath(std::u16string_view path) { return std::wstring(path.begin(), path.end()); }

// Owns a kernel handle; closes it exactly once. Both INVALID_HANDLE_VALUE
// (CreateFileW) and null (CreateEventW) mean "no handle".
class ScopedHandle {
public:
    ScopedHandle() = default;
    explicit ScopedHandle(HANDLE handle) : m_handle(handle) {}
    ~ScopedHandle() { Reset(); }
    ScopedHandle(const ScopedHandle&) = delete;
    ScopedHandle& operator=(const ScopedHandle&) = delete;

    HANDLE get() const { return m_handle; }
    bool valid() const { return m_handle != nullptr && m_handle != INVALID_HANDLE_VALUE; }
    void Reset(HANDLE handle = nullptr) {
        if (valid()) ::CloseHandle(m_handle);
        m_handle = handle;
    }

private:
    HANDLE m_handle = nullptr;
};

// A disk file that is neither a directory nor a reparse point: named pipes,
// consoles and other devices report another type, and backup semantics open
// directories too, whose overlapped reads may never complete.
bool IsRegularDiskFile(HANDLE file) {
    if (::GetFileType(file) != FILE_TYPE_DISK) return false;
    BY_HANDLE_FILE_INFORMATION info{};
    if (!::GetFileInformationByHandle(file, &info)) return false;
    return (info.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) == 0;
}

}  // namespace

// ---- OplockReader -------------------------------------------------------

struct OplockReader::Native {
    ScopedHandle file;
    ScopedHandle oplockEvent;
    ScopedHandle readEvent;
    OVERLAPPED oplock{};
    OVERLAPPED read{};
    REQUEST_OPLOCK_INPUT_BUFFER request{};
    REQUEST_OPLOCK_OUTPUT_BUFFER answer{};
    bool holdsOplock = false;  // false: the volume has no oplocks, plain shared read
    uint64_t size = 0;

    ~Native() {
        // The kernel may still write into the OVERLAPPED blocks of a pending
        // oplock request or read; cancel and let them finish before they are freed.
        if (file.valid()) {
            ::CancelIoEx(file.get(), nullptr);
            DWORD ignored = 0;
            if (holdsOplock) ::GetOverlappedResult(file.get(), &oplock, &ignored, TRUE);
            if (!HasOverlappedIoCompleted(&read)) ::GetOverlappedResult(file.get(), &read, &ignored, TRUE);
        }
        // Members close in reverse order: read event, oplock event, file.
    }
};

OplockReader::OplockReader() = default;
OplockReader::~OplockReader() { Close(); }

bool OplockReader::Open(std::u16string_view path) {
    Close();
    m_error = 0;
    auto native = std::make_unique<Native>();
    native->oplockEvent.Reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    native->readEvent.Reset(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!native->oplockEvent.valid() || !native->readEvent.valid()) {
        m_error = WindowsError();
        return false;
    }
    native->oplock.hEvent = native->oplockEvent.get();
    native->read.hEvent = native->readEvent.get();

    const std::wstring nativePath = NativePath(path);
    // The reparse point itself is opened, never what it points to, and the
    // handle is checked before any read: only a plain disk file is read.
    native->file.Reset(::CreateFileW(nativePath.c_str(), GENERIC_READ,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                     FILE_FLAG_OVERLAPPED | FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_SEQUENTIAL_SCAN |
                                         FILE_FLAG_OPEN_REPARSE_POINT,
                                     nullptr));
    if (!native->file.valid()) {
        m_error = WindowsError();
        return false;
    }
    if (!IsRegularDiskFile(native->file.get())) {
        m_error = kErrorAccessDenied;
        return false;
    }
    LARGE_INTEGER size{};
    if (::GetFileSizeEx(native->file.get(), &size)) native->size = static_cast<uint64_t>(size.QuadPart);

    native->request.StructureVersion = REQUEST_OPLOCK_CURRENT_VERSION;
    native->request.StructureLength = sizeof(REQUEST_OPLOCK_INPUT_BUFFER);
    native->request.RequestedOplockLevel = OPLOCK_LEVEL_CACHE_READ | OPLOCK_LEVEL_CACHE_HANDLE;
    native->request.Flags = REQUEST_OPLOCK_INPUT_FLAG_REQUEST;
    native->answer.StructureVersion = REQUEST_OPLOCK_CURRENT_VERSION;
    native->answer.StructureLength = sizeof(REQUEST_OPLOCK_OUTPUT_BUFFER);

    const BOOL done = ::DeviceIoControl(native->file.get(), FSCTL_REQUEST_OPLOCK, &native->request,
                                        sizeof(native->request), &native->answer, sizeof(native->answer), nullptr,
                                        &native->oplock);
    const DWORD error = done ? ERROR_SUCCESS : ::GetLastError();
    if (!done && error == ERROR_IO_PENDING) {
        // Granted: the request stays pending until somebody else wants the file.
        native->holdsOplock = true;
    } else if (done) {
        // Completed at once: the oplock broke before we got it, the file is in use.
        m_error = kErrorSharingViolation;
        return false;
    } else if (error == ERROR_NOT_SUPPORTED || error == ERROR_INVALID_FUNCTION ||
               error == ERROR_INVALID_PARAMETER) {
        // Volumes without oplocks (some network and emulated file systems) would
        // otherwise make every ruleset unreadable; a plain shared read still
        // lets the other program write, it only loses the early warning.
        ZORV_LOG(kLogTrace, u"fileread", u"Oplocks not supported (error %u), reading %s without one", error,
                 std::u16string(path));
    } else {
        m_error = error;
        return false;
    }
    m_native = std::move(native);
    return true;
}

bool OplockReader::IsOpen() const { return m_native != nullptr && m_native->file.valid(); }

uint64_t OplockReader::Size() const { return m_native ? m_native->size : 0; }

size_t OplockReader::Read(void* buffer, size_t count) {
    if (!IsOpen() || buffer == nullptr || count == 0) {
        Close();
        return 0;
    }
    Native& n = *m_native;
    const DWORD ask = count > MAXDWORD ? MAXDWORD : static_cast<DWORD>(count);
    DWORD got = 0;
    BOOL done = ::ReadFile(n.file.get(), buffer, ask, &got, &n.read);
    if (!done && ::GetLastError() == ERROR_IO_PENDING) {
        const HANDLE waitOn[2] = {n.oplockEvent.get(), n.readEvent.get()};
        // Without an oplock the oplock event never fires; wait on the read alone.
        const DWORD wait = n.holdsOplock ? ::WaitForMultipleObjects(2, waitOn, FALSE, INFINITE)
                                         : ::WaitForSingleObject(n.readEvent.get(), INFINITE);
        if (wait == WAIT_FAILED) {
            m_error = WindowsError();
        } else if (wait == WAIT_TIMEOUT) {
            m_error = kErrorWaitTimeout;
        } else if (n.holdsOplock && HasOverlappedIoCompleted(&n.oplock)) {
            m_error = kErrorSharingViolation;
            ZORV_LOG(kLogWarning, u"fileread", u"Interrupted oplock");
        } else if (::GetOverlappedResult(n.file.get(), &n.read, &got, FALSE)) {
            ::ResetEvent(n.readEvent.get());
            done = TRUE;
        } else if (::GetLastError() != ERROR_HANDLE_EOF) {
            m_error = WindowsError();
        }
    } else if (!done) {
        const DWORD error = ::GetLastError();
        if (error != ERROR_HANDLE_EOF) m_error = error;
    }
    if (!done || got == 0) {
        Close();
        return 0;
    }
    ULARGE_INTEGER offset;
    offset.LowPart = n.read.Offset;
    offset.HighPart = n.read.OffsetHigh;
    offset.QuadPart += got;
    n.read.Offset = offset.LowPart;
    n.read.OffsetHigh = offset.HighPart;
    return got;
}

void OplockReader::Close() { m_native.reset(); }

// ---- FileWriter ---------------------------------------------------------

struct FileWriter::Native {
    ScopedHandle file;
};

FileWriter::FileWriter() = default;
FileWriter::~FileWriter() { Close(); }

bool FileWriter::Open(std::u16string_view path) {
    Close();
    m_error = 0;
    auto native = std::make_unique<Native>();
    const std::wstring nativePath = NativePath(path);
    // CREATE_NEW fails on any existing name, a reparse point included.
    native->file.Reset(::CreateFileW(nativePath.c_str(), GENERIC_WRITE,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, CREATE_NEW,
                                     FILE_FLAG_OPEN_REPARSE_POINT | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!native->file.valid()) {
        m_error = WindowsError();
        return false;
    }
    m_native = std::move(native);
    return true;
}

bool FileWriter::IsOpen() const { return m_native != nullptr && m_native->file.valid(); }

size_t FileWriter::Write(const void* buffer, size_t count) {
    if (!IsOpen()) {
        m_error = kErrorInvalidHandle;
        return 0;
    }
    const auto* bytes = static_cast<const char*>(buffer);
    size_t done = 0;
    // One WriteFile takes at most 4 GiB; larger buffers go in pieces.
    while (done < count) {
        const size_t left = count - done;
        const DWORD ask = left > MAXDWORD ? MAXDWORD : static_cast<DWORD>(left);
        DWORD wrote = 0;
        if (!::WriteFile(m_native->file.get(), bytes + done, ask, &wrote, nullptr) || wrote == 0) {
            m_error = WindowsError();
            Close();
            return 0;
        }
        done += wrote;
    }
    return done;
}

void FileWriter::Close() { m_native.reset(); }

// ---- AppendFile ---------------------------------------------------------

struct AppendFile::Native {
    ScopedHandle file;
    uint64_t size = 0;
};

AppendFile::AppendFile() = default;
AppendFile::~AppendFile() = default;

bool AppendFile::Open(std::u16string_view path) {
    Close();
    auto native = std::make_unique<Native>();
    const std::wstring nativePath = NativePath(path);
    // FILE_APPEND_DATA alone makes every write land at the current end, even
    // with the agent or a log viewer writing the same file. FILE_READ_ATTRIBUTES
    // lets the handle be checked before anything is written through it.
    native->file.Reset(::CreateFileW(nativePath.c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_ALWAYS,
                                     FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!native->file.valid() || !IsRegularDiskFile(native->file.get())) return false;
    LARGE_INTEGER size{};
    if (::GetFileSizeEx(native->file.get(), &size)) native->size = static_cast<uint64_t>(size.QuadPart);
    m_native = std::move(native);
    return true;
}

uint64_t AppendFile::Size() const { return m_native ? m_native->size : 0; }

void AppendFile::Close() { m_native.reset(); }

bool AppendFile::IsOpen() const { return m_native != nullptr && m_native->file.valid(); }

bool AppendFile::Write(const void* data, size_t count) {
    if (!IsOpen() || count > MAXDWORD) return false;
    DWORD wrote = 0;
    return ::WriteFile(m_native->file.get(), data, static_cast<DWORD>(count), &wrote, nullptr) && wrote == count;
}

// ---- Clock --------------------------------------------------------------

bool LocalTime(int64_t secondsSince1970, std::tm& out) {
    const __time64_t t = secondsSince1970;
    return ::_localtime64_s(&out, &t) == 0;
}

bool OtherThreadsEnded() {
    // ntdll tells whether the loader is tearing the process down; by then
    // ExitProcess has ended every other thread, whatever locks they held.
    using ShutdownInProgress = BOOLEAN(NTAPI*)();
    static const auto inProgress = reinterpret_cast<ShutdownInProgress>(reinterpret_cast<void*>(
        ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "RtlDllShutdownInProgress")));
    return inProgress != nullptr && inProgress() != 0;
}

uint64_t NowMilliseconds() {
    FILETIME now{};
    ::GetSystemTimeAsFileTime(&now);
    ULARGE_INTEGER ticks;
    ticks.LowPart = now.dwLowDateTime;
    ticks.HighPart = now.dwHighDateTime;
    // 100-ns ticks since 1601 to milliseconds since 1970.
    return (ticks.QuadPart - 116444736000000000ull) / 10000u;
}

// ---- File status and attributes -----------------------------------------

bool StatFile(std::u16string_view path, FileStatus& out) {
    struct _stat64 st {};
    if (::_wstat64(NativePath(path).c_str(), &st) != 0) return false;
    out.size = static_cast<uint64_t>(st.st_size);
    out.lastAccessTime = st.st_atime;
    out.lastWriteTime = st.st_mtime;
    out.changeTime = st.st_ctime;
    out.isDirectory = (st.st_mode & _S_IFDIR) != 0;
    return true;
}

namespace {

uint64_t ToTicks(const FILETIME& time) {
    ULARGE_INTEGER ticks;
    ticks.LowPart = time.dwLowDateTime;
    ticks.HighPart = time.dwHighDateTime;
    return ticks.QuadPart;
}

}  // namespace

bool GetFileTimes(std::u16string_view path, FileTimes& out, uint32_t& error, bool& openFailed) {
    error = 0;
    openFailed = false;
    // The directory entry answers without an open, which a named pipe could
    // hold up; it also describes a reparse point itself, not its target.
    WIN32_FILE_ATTRIBUTE_DATA data{};
    if (!::GetFileAttributesExW(NativePath(path).c_str(), GetFileExInfoStandard, &data)) {
        error = WindowsError();
        openFailed = true;
        return false;
    }
    if ((data.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DEVICE)) !=
        0) {
        error = kErrorAccessDenied;
        openFailed = true;
        return false;
    }
    out.lastAccess = ToTicks(data.ftLastAccessTime);
    out.lastWrite = ToTicks(data.ftLastWriteTime);
    return true;
}

EntryKind KindOfEntry(std::u16string_view path) {
    const DWORD attributes = ::GetFileAttributesW(NativePath(path).c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        const DWORD error = ::GetLastError();
        return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? EntryKind::Missing : EntryKind::Other;
    }
    const DWORD notRegular = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DEVICE;
    return (attributes & notRegular) == 0 ? EntryKind::Regular : EntryKind::Other;
}

bool RemoveFile(std::u16string_view path) { return ::DeleteFileW(NativePath(path).c_str()) != FALSE; }

bool RenameOver(std::u16string_view from, std::u16string_view to, uint32_t& error) {
    error = 0;
    if (::MoveFileExW(NativePath(from).c_str(), NativePath(to).c_str(), MOVEFILE_REPLACE_EXISTING)) return true;
    error = WindowsError();
    return false;
}

bool IsReparsePoint(std::u16string_view path) {
    const DWORD attributes = ::GetFileAttributesW(NativePath(path).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

bool IsProtectedSystemFile(std::u16string_view path) {
    // A null RPC handle asks the local protection service.
    return ::SfcIsFileProtected(nullptr, NativePath(path).c_str()) != FALSE;
}

}  // namespace zorv::platform
