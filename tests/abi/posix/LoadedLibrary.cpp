#include "../LoadedLibrary.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>

namespace zorv::abi {

LoadedLibrary::LoadedLibrary() {
    m_handle = dlopen(ZORV_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL);
    if (m_handle == nullptr) m_error = dlerror();
}

LoadedLibrary::~LoadedLibrary() {
    if (m_handle != nullptr) dlclose(m_handle);
}

std::string LoadedLibrary::Error() const { return m_error; }

void* LoadedLibrary::Address(const char* name) const { return m_handle ? dlsym(m_handle, name) : nullptr; }

// The defined dynamic symbols, as `nm -D --defined-only` lists them. The
// version node is an ABS symbol, which nm does not list as T/D/B.
std::set<std::string> ExportedNames() {
    std::set<std::string> names;
    const std::string command = std::string("nm -D --defined-only '") + ZORV_LIBRARY_FILE + "' 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return names;
    char line[512];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        char type = 0;
        char name[400] = {};
        if (sscanf(line, "%*s %c %399s", &type, name) == 2 && (type == 'T' || type == 'D' || type == 'B')) {
            std::string symbol(name);
            names.insert(symbol.substr(0, symbol.find('@')));
        }
    }
    pclose(pipe);
    return names;
}

TempFolder::TempFolder() {
    char folder[] = "/tmp/zorv-abi-XXXXXX";
    if (mkdtemp(folder) != nullptr) m_path = folder;
}

TempFolder::~TempFolder() {
    if (!m_path.empty()) std::system(("rm -rf '" + m_path + "'").c_str());
}

std::string TempFolder::File(const std::string& name) const { return m_path + "/" + name; }

bool ThreadsEndBeforeTeardown() { return false; }

int RunSelf(const std::string& filter, const std::string& variable, const std::string& value, std::string& output) {
    // The test binary by its real name (the shell's /proc/self is the shell).
    char self[4096] = {};
    if (readlink("/proc/self/exe", self, sizeof self - 1) <= 0) return -1;
    const std::string run = variable + "='" + value + "' timeout 60 '" + self + "' --gtest_filter=" + filter + " 2>&1";
    FILE* pipe = popen(run.c_str(), "r");
    if (pipe == nullptr) return -1;
    char buffer[4096];
    size_t n = 0;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
    return pclose(pipe);
}

}  // namespace zorv::abi
