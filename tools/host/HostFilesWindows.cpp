#include <windows.h>
#include <io.h>

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

// Folders cannot be told apart by volume here without opening them; a scan
// on Windows crosses mount points as the walk finds them.
uint64_t DeviceOf(const std::filesystem::path&) { return 0; }

bool IsTerminal(int fd) { return _isatty(fd) != 0; }

}  // namespace zorv::host
