#include "../LoadedLibrary.h"

#include <windows.h>

#include <cstdio>
#include <cstdlib>

namespace zorv::abi {

namespace {

// zorv.dll sits beside the test executable.
std::wstring LibraryPath() {
    wchar_t path[MAX_PATH] = {};
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path, length);
    folder.resize(folder.find_last_of(L"\\/") + 1);
    return folder + L"zorv.dll";
}

}  // namespace

LoadedLibrary::LoadedLibrary() {
    m_handle = LoadLibraryW(LibraryPath().c_str());
    if (m_handle == nullptr) m_error = "LoadLibraryW failed: " + std::to_string(GetLastError());
}

LoadedLibrary::~LoadedLibrary() {
    if (m_handle != nullptr) FreeLibrary(static_cast<HMODULE>(m_handle));
}

std::string LoadedLibrary::Error() const { return m_error; }

void* LoadedLibrary::Address(const char* name) const {
    return m_handle ? reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(m_handle), name)) : nullptr;
}

// Every name in the module's export directory.
std::set<std::string> ExportedNames() {
    std::set<std::string> names;
    LoadedLibrary library;
    const HMODULE module = GetModuleHandleW(LibraryPath().c_str());
    if (!library.Loaded() || module == nullptr) return names;
    auto base = reinterpret_cast<const unsigned char*>(module);
    auto dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    auto nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& entry = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
    if (entry.VirtualAddress == 0) return names;
    auto directory = reinterpret_cast<const IMAGE_EXPORT_DIRECTORY*>(base + entry.VirtualAddress);
    auto nameOffsets = reinterpret_cast<const DWORD*>(base + directory->AddressOfNames);
    for (DWORD i = 0; i < directory->NumberOfNames; ++i)
        names.insert(reinterpret_cast<const char*>(base + nameOffsets[i]));
    return names;
}

TempFolder::TempFolder() {
    char temp[MAX_PATH] = {};
    if (GetTempPathA(MAX_PATH, temp) == 0) return;
    static int counter = 0;
    m_path = std::string(temp) + "zorv-abi-" + std::to_string(GetCurrentProcessId()) + "-" + std::to_string(++counter);
    CreateDirectoryA(m_path.c_str(), nullptr);
}

TempFolder::~TempFolder() {
    if (m_path.empty()) return;
    WIN32_FIND_DATAA found;
    const HANDLE search = FindFirstFileA((m_path + "\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) DeleteFileA(File(found.cFileName).c_str());
        } while (FindNextFileA(search, &found));
        FindClose(search);
    }
    RemoveDirectoryA(m_path.c_str());
}

std::string TempFolder::File(const std::string& name) const { return m_path + "\\" + name; }

bool ThreadsEndBeforeTeardown() { return true; }

int RunSelf(const std::string& filter, const std::string& variable, const std::string& value, std::string& output) {
    char self[MAX_PATH] = {};
    if (GetModuleFileNameA(nullptr, self, MAX_PATH) == 0) return -1;
    if (_putenv_s(variable.c_str(), value.c_str()) != 0) return -1;
    const std::string run = "\"\"" + std::string(self) + "\" --gtest_filter=" + filter + " 2>&1\"";
    FILE* pipe = _popen(run.c_str(), "r");
    int status = -1;
    if (pipe != nullptr) {
        char buffer[4096];
        size_t n = 0;
        while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
        status = _pclose(pipe);
    }
    _putenv_s(variable.c_str(), "");
    return status;
}

}  // namespace zorv::abi
