#include <windows.h>
#include <fcntl.h>
#include <io.h>

#include <cstdio>

#include <algorithm>
#include <cstring>

#include "HostFiles.h"

namespace zorv::host {

namespace {

std::string WindowsError(DWORD code) {
    char text[256] = {};
    const DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0,
                                        text, sizeof text, nullptr);
    std::string message(text, length);
    while (!message.empty() && (message.back() == '\n' || message.back() == '\r' || message.back() == '.'))
        message.pop_back();
    return message.empty() ? "Windows error " + std::to_string(code) : message;
}

bool Stamp(HANDLE file, FileStamp& stamp) {
    FILE_BASIC_INFO basic{};
    LARGE_INTEGER size{};
    if (!GetFileInformationByHandleEx(file, FileBasicInfo, &basic, sizeof basic) || !GetFileSizeEx(file, &size))
        return false;
    stamp.size = static_cast<uint64_t>(size.QuadPart);
    stamp.modified = basic.LastWriteTime.QuadPart * 100;
    stamp.changed = basic.ChangeTime.QuadPart * 100;
    return true;
}

constexpr DWORD kBufferSize = 1 << 20;

}  // namespace

bool ReadAndDigest(const std::filesystem::path& file, Digester& digester, std::vector<uint8_t>& buffer,
                   FileRead& out, std::string& error) {
    if (buffer.size() < kBufferSize) buffer.resize(kBufferSize);
    // Sharing everything: the scan must never stand in the way of a program
    // that writes or deletes the file meanwhile; the stamps catch that.
    HANDLE handle = CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN | FILE_FLAG_OPEN_REPARSE_POINT,
                                nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        error = WindowsError(GetLastError());
        return false;
    }
    bool ok = Stamp(handle, out.before);
    out.headLength = 0;
    while (ok) {
        DWORD got = 0;
        if (!ReadFile(handle, buffer.data(), static_cast<DWORD>(buffer.size()), &got, nullptr)) {
            ok = false;
            break;
        }
        if (got == 0) break;
        if (out.headLength < sizeof out.head) {
            const size_t take = std::min(sizeof out.head - out.headLength, static_cast<size_t>(got));
            std::memcpy(out.head + out.headLength, buffer.data(), take);
            out.headLength += take;
        }
        digester.Update(buffer.data(), got);
    }
    if (ok) ok = Stamp(handle, out.after);
    if (!ok) error = WindowsError(GetLastError());
    CloseHandle(handle);
    out.digests = digester.Finish();
    return ok;
}

bool ReadHead(const std::filesystem::path& file, uint8_t head[4], size_t& length, std::string& error) {
    HANDLE handle = CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                nullptr, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        error = WindowsError(GetLastError());
        return false;
    }
    DWORD got = 0;
    const bool ok = ReadFile(handle, head, 4, &got, nullptr) != 0;
    if (!ok) error = WindowsError(GetLastError());
    CloseHandle(handle);
    length = ok ? got : 0;
    return ok;
}

// The volume's serial number, read on a handle to the folder itself. The
// handle follows a mount point or junction to the volume it leads to, so a
// volume mounted in a folder shows its own serial, as st_dev does on POSIX.
// The serial is kept with a bit above it: a volume whose serial is 0 must
// still differ from "not known".
uint64_t DeviceOf(const std::filesystem::path& path) {
    HANDLE handle = CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                                FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return 0;
    BY_HANDLE_FILE_INFORMATION information{};
    const bool ok = GetFileInformationByHandle(handle, &information) != 0;
    CloseHandle(handle);
    return ok ? (uint64_t{1} << 32) | information.dwVolumeSerialNumber : 0;
}

void SetBinaryStdout() {
    std::fflush(stdout);
    _setmode(_fileno(stdout), _O_BINARY);
}

bool IsTerminal(int fd) { return _isatty(fd) != 0; }

}  // namespace zorv::host
