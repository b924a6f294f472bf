// Windows-only platform behaviour: share modes, protected system files and
// reparse points have no POSIX counterpart to test against.
#include <windows.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "TestSupport.h"
#include "platform/Platform.h"

namespace zorv::platform {
namespace {

using test::PathText;
using test::TempDir;

// Wine answers some system queries with stubs; tests of those skip there.
bool RunningUnderWine() {
    const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    return ntdll != nullptr && ::GetProcAddress(ntdll, "wine_get_version") != nullptr;
}

struct HandleCloser {
    void operator()(HANDLE handle) const { ::CloseHandle(handle); }
};
// Another program's handle on the file; empty when the open was refused.
std::unique_ptr<void, HandleCloser> OpenElsewhere(const std::filesystem::path& path, DWORD access, DWORD share) {
    HANDLE handle = ::CreateFileW(path.wstring().c_str(), access, share, nullptr, OPEN_EXISTING, 0, nullptr);
    return std::unique_ptr<void, HandleCloser>(handle == INVALID_HANDLE_VALUE ? nullptr : handle);
}

// The times come from the directory entry, with no open that a named pipe
// could hold up: a file held with no sharing at all still answers.
TEST(PlatformFileTimes, AnsweredWithoutOpeningTheFile) {
    TempDir dir;
    const auto path = dir / "installer.exe";
    test::WriteFile(path, "MZ");
    FileTimes times;
    uint32_t error = 0;
    bool openFailed = false;
    auto holder = OpenElsewhere(path, GENERIC_READ | GENERIC_WRITE, 0);
    ASSERT_TRUE(holder);
    EXPECT_TRUE(GetFileTimes(PathText(path), times, error, openFailed)) << error;
    EXPECT_GT(times.lastWrite, 0u);
}

// A named pipe is not a file: nothing that reads or appends may open it, and
// asking must not wait for the pipe's server.
TEST(PlatformFiles, NamedPipesAreRefusedWithoutWaiting) {
    const std::wstring name = L"\\\\.\\pipe\\zorv-test-" + std::to_wstring(::GetCurrentProcessId());
    HANDLE pipe = ::CreateNamedPipeW(name.c_str(), PIPE_ACCESS_DUPLEX, PIPE_TYPE_BYTE | PIPE_WAIT, 4, 4096, 4096, 0,
                                     nullptr);
    ASSERT_NE(pipe, INVALID_HANDLE_VALUE) << ::GetLastError();
    const std::unique_ptr<void, HandleCloser> owner(pipe);
    const std::u16string path(name.begin(), name.end());
    test::WithinSeconds(20, "opening a named pipe", [&] {
        OplockReader reader;
        EXPECT_FALSE(reader.Open(path));
        AppendFile append;
        EXPECT_FALSE(append.Open(path));
        EXPECT_NE(KindOfEntry(path), EntryKind::Regular);
    });
}

TEST(PlatformAttributes, SystemLibraryIsProtected) {
    wchar_t system[MAX_PATH];
    const UINT length = ::GetSystemDirectoryW(system, MAX_PATH);
    ASSERT_TRUE(length > 0 && length < MAX_PATH);
    const std::wstring library = std::wstring(system, length) + L"\\kernel32.dll";
    const std::u16string path(library.begin(), library.end());

    const bool isProtected = IsProtectedSystemFile(path);
    if (!isProtected && RunningUnderWine())
        GTEST_SKIP() << "Wine's SfcIsFileProtected protects nothing; covered on real Windows only";
    EXPECT_TRUE(isProtected);
}

TEST(PlatformAttributes, SymbolicLinkIsAReparsePoint) {
    TempDir dir;
    const auto target = dir / "target.exe";
    const auto link = dir / "link.exe";
    test::WriteFile(target, "MZ");
    // Without the privilege or developer mode Windows refuses to make links.
    constexpr DWORD kAllowUnprivilegedCreate = 0x2;
    if (!::CreateSymbolicLinkW(link.wstring().c_str(), target.wstring().c_str(), kAllowUnprivilegedCreate))
        GTEST_SKIP() << "cannot create symbolic links here (error " << ::GetLastError() << ")";
    // Wine's CreateSymbolicLinkW reports success without making anything.
    if (::GetFileAttributesW(link.wstring().c_str()) == INVALID_FILE_ATTRIBUTES)
        GTEST_SKIP() << "CreateSymbolicLinkW succeeded but made no link; covered on real Windows only";
    EXPECT_TRUE(IsReparsePoint(PathText(link)));
    EXPECT_FALSE(IsReparsePoint(PathText(target)));
}

}  // namespace
}  // namespace zorv::platform
