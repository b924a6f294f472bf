// What the ABI tests need from the operating system, behind one seam: loading
// the built library the way an agent does, listing its exports, a scratch
// folder, and running this test binary again as a child process.
#pragma once

#include <set>
#include <string>

namespace zorv::abi {

class LoadedLibrary {
public:
    LoadedLibrary();
    ~LoadedLibrary();
    LoadedLibrary(const LoadedLibrary&) = delete;
    LoadedLibrary& operator=(const LoadedLibrary&) = delete;

    bool Loaded() const { return m_handle != nullptr; }
    // Why the library did not load, in the system's words.
    std::string Error() const;
    // The export `name` as a function of type F, or null.
    template <typename F>
    F Symbol(const char* name) const {
        return reinterpret_cast<F>(Address(name));
    }

private:
    void* Address(const char* name) const;

    void* m_handle = nullptr;
    std::string m_error;
};

// Every name the library exports; empty when the system cannot list them.
std::set<std::string> ExportedNames();

// A fresh folder, removed with what is in it.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    // `name` inside the folder, in the system's own spelling.
    std::string File(const std::string& name) const;

private:
    std::string m_path;
};

// Whether the system ends a process's other threads before a library's
// teardown at exit (Windows), rather than letting them run on (POSIX).
bool ThreadsEndBeforeTeardown();

// Runs this test binary again on `filter` alone, with `variable` set to
// `value`, and answers its exit status; its output lands in `output`.
int RunSelf(const std::string& filter, const std::string& variable, const std::string& value, std::string& output);

}  // namespace zorv::abi
