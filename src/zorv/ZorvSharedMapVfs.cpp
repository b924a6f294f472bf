// The shared-mapping VFS: the default VFS's files, with the main database
// file's pages fetched from mappings that every connection on it shares.
#include "ZorvSharedMapVfs.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zorv {

namespace {

constexpr char kVfsName[] = "zorv-shared-map";

// char* before SQLite 3.41, sqlite3_filename after.
using FileName = decltype(sqlite3_create_filename(nullptr, nullptr, nullptr, 0, nullptr));

// One mapping of the store file at one size, made by a file of the default
// VFS opened only to be mapped: its xFetch maps the whole file, once. It never
// changes; when the file's size does, the next connection to look makes a new
// one, and an old one is unmapped once no connection reads from it.
struct Generation {
    Generation() = default;
    Generation(const Generation&) = delete;
    Generation& operator=(const Generation&) = delete;
    ~Generation();

    std::unique_ptr<unsigned char[]> storage;
    sqlite3_file* file = nullptr;  // in `storage`
    // The default VFS keeps a pointer to the name its file was opened with.
    FileName name = nullptr;
    unsigned char* base = nullptr;
    sqlite3_int64 size = 0;
    int connections = 0;  // reading from it; guarded by the mapping's lock
};

// One per store file with connections open through this VFS.
struct SharedMapping {
    std::string path;  // as the connections name it
    sqlite3_vfs* vfs = nullptr;  // the default VFS
    int users = 0;     // connections sharing it; guarded by the registry's lock
    std::mutex lock;   // guards the generations and their connection counts
    std::vector<std::unique_ptr<Generation>> generations;  // the last is the newest
};

struct Registry {
    std::mutex lock;  // guards `byPath` and each mapping's `users`
    // The mapping new connections on a path join. One whose file was
    // replaced at the path leaves this map but lives on for its users.
    std::map<std::string, SharedMapping*> byPath;
};

// Never destroyed: a connection may be closed after static destructors
// have run when the host exits without stopping the engine.
Registry& TheRegistry() {
    static Registry* registry = new Registry;
    return *registry;
}

// A connection's file. Its pages are counted here, by the one thread that
// uses the connection, so that a lookup touches nothing other threads write.
struct ShimFile {
    sqlite3_file base;       // pMethods: kMethods, or null when the open failed
    sqlite3_file* real;      // the default VFS's file, right after this object
    SharedMapping* shared;   // main database files only; else null
    Generation* generation;  // where this connection's pages come from; null: read them
    int fetched;             // pages of `generation` handed out and not yet given back
    bool recheck;            // look for the newest generation once no page is out (set at open)
    sqlite3_int64 limit;     // the largest mapping this connection allows
};

constexpr size_t kRealOffset = (sizeof(ShimFile) + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) *
                               alignof(std::max_align_t);

sqlite3_vfs* Base(sqlite3_vfs* vfs) { return static_cast<sqlite3_vfs*>(vfs->pAppData); }
ShimFile* Shim(sqlite3_file* file) { return reinterpret_cast<ShimFile*>(file); }
sqlite3_file* Real(sqlite3_file* file) { return Shim(file)->real; }
const sqlite3_io_methods* RealMethods(sqlite3_file* file) { return Real(file)->pMethods; }

// Whether the path no longer names the file open (POSIX: unlinked or renamed
// over). Windows keeps an open store from being moved and does not answer.
bool Moved(sqlite3_file* file) {
    int moved = 0;
    return file->pMethods->xFileControl(file, SQLITE_FCNTL_HAS_MOVED, &moved) == SQLITE_OK && moved != 0;
}

// Closing the file unmaps it.
Generation::~Generation() {
    if (file != nullptr && file->pMethods != nullptr) file->pMethods->xClose(file);
    sqlite3_free_filename(name);
}

// The file at `path` mapped over its first `size` bytes; null when it cannot
// be (the file is shorter now, or mapping failed).
std::unique_ptr<Generation> MapGeneration(sqlite3_vfs* vfs, const std::string& path, sqlite3_int64 size) {
    auto generation = std::make_unique<Generation>();
    generation->name = sqlite3_create_filename(path.c_str(), "", "", 0, nullptr);
    if (generation->name == nullptr) return nullptr;
    generation->storage = std::make_unique<unsigned char[]>(static_cast<size_t>(vfs->szOsFile));
    sqlite3_file* file = reinterpret_cast<sqlite3_file*>(generation->storage.get());
    int flags = 0;
    const int rc = vfs->xOpen(vfs, generation->name, file, SQLITE_OPEN_READONLY | SQLITE_OPEN_MAIN_DB, &flags);
    generation->file = file;
    if (rc != SQLITE_OK || file->pMethods == nullptr || file->pMethods->iVersion < 3) return nullptr;
    // The default VFS maps the file's size at the first fetch, up to its
    // limit. Its first and last byte both answering proves the mapping covers
    // `size`; the pages are then handed out from here, never through its
    // xFetch again, and it keeps the mapping until closed.
    sqlite3_int64 limit = size;
    void* first = nullptr;
    void* last = nullptr;
    if (file->pMethods->xFileControl(file, SQLITE_FCNTL_MMAP_SIZE, &limit) == SQLITE_OK &&
        file->pMethods->xFetch(file, 0, 1, &first) == SQLITE_OK && first != nullptr &&
        file->pMethods->xFetch(file, size - 1, 1, &last) == SQLITE_OK && last != nullptr) {
        generation->base = static_cast<unsigned char*>(first);
        generation->size = size;
    }
    if (last != nullptr) file->pMethods->xUnfetch(file, size - 1, last);
    if (first != nullptr) file->pMethods->xUnfetch(file, 0, first);
    if (generation->base == nullptr) return nullptr;
    return generation;
}

// With the mapping's lock held: the connection stops reading from its
// generation, which is unmapped if it was the last to and a newer one exists.
void LetGo(SharedMapping& mapping, ShimFile& shim) {
    Generation* old = shim.generation;
    shim.generation = nullptr;
    if (old == nullptr || --old->connections > 0 || old == mapping.generations.back().get()) return;
    // Older and unread: unmapped now.
    for (auto it = mapping.generations.begin(); it != mapping.generations.end(); ++it) {
        if (it->get() == old) {
            mapping.generations.erase(it);
            return;
        }
    }
}

// With no page out: the connection moves to the newest generation, made now
// if the file's size is no longer the one mapped. On failure it reads its pages.
void Adopt(ShimFile& shim) {
    SharedMapping& mapping = *shim.shared;
    shim.recheck = false;
    sqlite3_int64 size = -1;
    if (shim.real->pMethods->xFileSize(shim.real, &size) != SQLITE_OK) size = -1;
    size = std::min(size, shim.limit);
    std::lock_guard<std::mutex> lock(mapping.lock);
    // Pages come only from a mapping of the connection's own file: the path
    // must name it, and then the mapping's file, or a mapping opened by path.
    if (Moved(shim.real)) {
        LetGo(mapping, shim);
        return;
    }
    Generation* newest = mapping.generations.empty() ? nullptr : mapping.generations.back().get();
    if (newest == nullptr || newest->size != size || Moved(newest->file)) {
        std::unique_ptr<Generation> made = size > 0 ? MapGeneration(mapping.vfs, mapping.path, size) : nullptr;
        if (made != nullptr && Moved(shim.real)) made.reset();
        if (made == nullptr) {
            LetGo(mapping, shim);
            return;
        }
        if (newest != nullptr && newest->connections == 0) mapping.generations.pop_back();
        mapping.generations.push_back(std::move(made));
        newest = mapping.generations.back().get();
    }
    if (shim.generation == newest) return;
    LetGo(mapping, shim);
    ++newest->connections;
    shim.generation = newest;
}

// The mapping of the file `real` has open at `path`; null when it cannot be
// told to be the same file, and the connection maps on its own.
SharedMapping* Join(sqlite3_vfs* vfs, const char* path, sqlite3_file* real) {
    // The real file is the one at the path both before and after the mapping's
    // newest file is found to be: so both are the same file.
    if (Moved(real)) return nullptr;
    Registry& registry = TheRegistry();
    std::lock_guard<std::mutex> lock(registry.lock);
    auto found = registry.byPath.find(path);
    SharedMapping* mapping = found != registry.byPath.end() ? found->second : nullptr;
    if (mapping != nullptr) {
        std::lock_guard<std::mutex> guard(mapping->lock);
        if (!mapping->generations.empty() && Moved(mapping->generations.back()->file)) {
            registry.byPath.erase(found);
            mapping = nullptr;
        }
    }
    if (mapping == nullptr) {
        mapping = new SharedMapping;
        mapping->path = path;
        mapping->vfs = vfs;
        registry.byPath[path] = mapping;
    }
    if (Moved(real)) {
        if (mapping->users == 0) {
            registry.byPath.erase(path);
            delete mapping;
        }
        return nullptr;
    }
    ++mapping->users;
    return mapping;
}

void Leave(ShimFile& shim) {
    SharedMapping* mapping = shim.shared;
    {
        std::lock_guard<std::mutex> lock(mapping->lock);
        LetGo(*mapping, shim);
    }
    Registry& registry = TheRegistry();
    {
        std::lock_guard<std::mutex> lock(registry.lock);
        if (--mapping->users > 0) return;
        auto found = registry.byPath.find(mapping->path);
        if (found != registry.byPath.end() && found->second == mapping) registry.byPath.erase(found);
    }
    delete mapping;
}

// sqlite3_io_methods: forwarded to the real file, but for the mapping.

int Close(sqlite3_file* file) {
    ShimFile* shim = Shim(file);
    const int rc = shim->real->pMethods->xClose(shim->real);
    if (shim->shared != nullptr) Leave(*shim);
    shim->shared = nullptr;
    return rc;
}

int Read(sqlite3_file* file, void* buffer, int amount, sqlite3_int64 offset) {
    return RealMethods(file)->xRead(Real(file), buffer, amount, offset);
}

int Write(sqlite3_file* file, const void* buffer, int amount, sqlite3_int64 offset) {
    return RealMethods(file)->xWrite(Real(file), buffer, amount, offset);
}

int Truncate(sqlite3_file* file, sqlite3_int64 size) { return RealMethods(file)->xTruncate(Real(file), size); }

int Sync(sqlite3_file* file, int flags) { return RealMethods(file)->xSync(Real(file), flags); }

int FileSize(sqlite3_file* file, sqlite3_int64* size) { return RealMethods(file)->xFileSize(Real(file), size); }

int Lock(sqlite3_file* file, int level) { return RealMethods(file)->xLock(Real(file), level); }

int Unlock(sqlite3_file* file, int level) { return RealMethods(file)->xUnlock(Real(file), level); }

int CheckReservedLock(sqlite3_file* file, int* out) {
    return RealMethods(file)->xCheckReservedLock(Real(file), out);
}

int FileControl(sqlite3_file* file, int op, void* arg) {
    // A negative limit only asks for the limit.
    const sqlite3_int64 asked = op == SQLITE_FCNTL_MMAP_SIZE ? *static_cast<sqlite3_int64*>(arg) : -1;
    // The real file keeps the limit too, though it never maps while it shares.
    const int rc = RealMethods(file)->xFileControl(Real(file), op, arg);
    if (asked >= 0 && rc == SQLITE_OK) {
        Shim(file)->limit = asked;
        Shim(file)->recheck = true;
    }
    return rc;
}

int SectorSize(sqlite3_file* file) { return RealMethods(file)->xSectorSize(Real(file)); }

int DeviceCharacteristics(sqlite3_file* file) { return RealMethods(file)->xDeviceCharacteristics(Real(file)); }

int ShmMap(sqlite3_file* file, int region, int size, int extend, void volatile** out) {
    if (RealMethods(file)->iVersion < 2) return SQLITE_IOERR_SHMMAP;
    return RealMethods(file)->xShmMap(Real(file), region, size, extend, out);
}

int ShmLock(sqlite3_file* file, int offset, int n, int flags) {
    if (RealMethods(file)->iVersion < 2) return SQLITE_IOERR_SHMLOCK;
    return RealMethods(file)->xShmLock(Real(file), offset, n, flags);
}

void ShmBarrier(sqlite3_file* file) {
    if (RealMethods(file)->iVersion >= 2) RealMethods(file)->xShmBarrier(Real(file));
}

int ShmUnmap(sqlite3_file* file, int deleteFlag) {
    if (RealMethods(file)->iVersion < 2) return SQLITE_OK;
    return RealMethods(file)->xShmUnmap(Real(file), deleteFlag);
}

int Fetch(sqlite3_file* file, sqlite3_int64 offset, int amount, void** page) {
    *page = nullptr;
    ShimFile* shim = Shim(file);
    if (shim->shared == nullptr) {
        if (RealMethods(file)->iVersion < 3) return SQLITE_OK;
        return RealMethods(file)->xFetch(Real(file), offset, amount, page);
    }
    // Looked at again only when SQLite says the file may have changed: a
    // connection that found no mapping to use reads its pages until then,
    // rather than trying again at every page.
    if (shim->fetched == 0 && shim->recheck) {
        if (shim->limit <= 0) return SQLITE_OK;
        Adopt(*shim);
    }
    // Past the mapped size SQLite reads the page with xRead, as it does past
    // the default VFS's own mapping.
    const Generation* generation = shim->generation;
    if (generation == nullptr || offset < 0 || offset + amount > generation->size) return SQLITE_OK;
    *page = generation->base + offset;
    ++shim->fetched;
    return SQLITE_OK;
}

int Unfetch(sqlite3_file* file, sqlite3_int64 offset, void* page) {
    ShimFile* shim = Shim(file);
    if (shim->shared == nullptr) {
        if (RealMethods(file)->iVersion < 3) return SQLITE_OK;
        return RealMethods(file)->xUnfetch(Real(file), offset, page);
    }
    if (page != nullptr) {
        --shim->fetched;
    } else {
        // SQLite's word that the file may have been truncated or grown since
        // this connection last read it.
        shim->recheck = true;
    }
    return SQLITE_OK;
}

const sqlite3_io_methods kMethods = {
    .iVersion = 3,
    .xClose = Close,
    .xRead = Read,
    .xWrite = Write,
    .xTruncate = Truncate,
    .xSync = Sync,
    .xFileSize = FileSize,
    .xLock = Lock,
    .xUnlock = Unlock,
    .xCheckReservedLock = CheckReservedLock,
    .xFileControl = FileControl,
    .xSectorSize = SectorSize,
    .xDeviceCharacteristics = DeviceCharacteristics,
    .xShmMap = ShmMap,
    .xShmLock = ShmLock,
    .xShmBarrier = ShmBarrier,
    .xShmUnmap = ShmUnmap,
    .xFetch = Fetch,
    .xUnfetch = Unfetch,
};

// sqlite3_vfs: the default VFS's, but for opening files.

int Open(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    sqlite3_vfs* base = Base(vfs);
    ShimFile* shim = Shim(file);
    shim->base.pMethods = nullptr;
    shim->real = reinterpret_cast<sqlite3_file*>(reinterpret_cast<unsigned char*>(file) + kRealOffset);
    shim->shared = nullptr;
    shim->generation = nullptr;
    shim->fetched = 0;
    shim->recheck = true;
    shim->limit = 0;
    const int rc = base->xOpen(base, name, shim->real, flags, outFlags);
    // SQLite closes a file whose methods are set, even after a failed open.
    if (shim->real->pMethods == nullptr) return rc;
    shim->base.pMethods = &kMethods;
    if (rc == SQLITE_OK && (flags & SQLITE_OPEN_MAIN_DB) != 0 && name != nullptr &&
        shim->real->pMethods->iVersion >= 3) {
        shim->shared = Join(base, name, shim->real);
    }
    return rc;
}

int Delete(sqlite3_vfs* vfs, const char* name, int syncDir) { return Base(vfs)->xDelete(Base(vfs), name, syncDir); }

int Access(sqlite3_vfs* vfs, const char* name, int flags, int* out) {
    return Base(vfs)->xAccess(Base(vfs), name, flags, out);
}

int FullPathname(sqlite3_vfs* vfs, const char* name, int size, char* out) {
    return Base(vfs)->xFullPathname(Base(vfs), name, size, out);
}

void* DlOpen(sqlite3_vfs* vfs, const char* name) { return Base(vfs)->xDlOpen(Base(vfs), name); }

void DlError(sqlite3_vfs* vfs, int size, char* out) { Base(vfs)->xDlError(Base(vfs), size, out); }

void (*DlSym(sqlite3_vfs* vfs, void* handle, const char* symbol))(void) {
    return Base(vfs)->xDlSym(Base(vfs), handle, symbol);
}

void DlClose(sqlite3_vfs* vfs, void* handle) { Base(vfs)->xDlClose(Base(vfs), handle); }

int Randomness(sqlite3_vfs* vfs, int size, char* out) { return Base(vfs)->xRandomness(Base(vfs), size, out); }

int Sleep(sqlite3_vfs* vfs, int microseconds) { return Base(vfs)->xSleep(Base(vfs), microseconds); }

int CurrentTime(sqlite3_vfs* vfs, double* out) { return Base(vfs)->xCurrentTime(Base(vfs), out); }

int GetLastError(sqlite3_vfs* vfs, int size, char* out) { return Base(vfs)->xGetLastError(Base(vfs), size, out); }

int CurrentTimeInt64(sqlite3_vfs* vfs, sqlite3_int64* out) {
    return Base(vfs)->xCurrentTimeInt64(Base(vfs), out);
}

int SetSystemCall(sqlite3_vfs* vfs, const char* name, sqlite3_syscall_ptr call) {
    return Base(vfs)->xSetSystemCall(Base(vfs), name, call);
}

sqlite3_syscall_ptr GetSystemCall(sqlite3_vfs* vfs, const char* name) {
    return Base(vfs)->xGetSystemCall(Base(vfs), name);
}

const char* NextSystemCall(sqlite3_vfs* vfs, const char* name) { return Base(vfs)->xNextSystemCall(Base(vfs), name); }

// Registered for as long as this library is loaded: a copy unloaded while
// still in SQLite's list would leave it pointing at code that is gone.
struct Registration {
    sqlite3_vfs vfs{};
    bool registered = false;

    Registration() {
        sqlite3_vfs* base = sqlite3_vfs_find(nullptr);
        if (base == nullptr || base->iVersion < 2 || base->szOsFile <= 0) return;
        vfs.iVersion = std::min(base->iVersion, 3);
        vfs.szOsFile = static_cast<int>(kRealOffset) + base->szOsFile;
        vfs.mxPathname = base->mxPathname;
        vfs.zName = kVfsName;
        vfs.pAppData = base;
        vfs.xOpen = Open;
        vfs.xDelete = Delete;
        vfs.xAccess = Access;
        vfs.xFullPathname = FullPathname;
        vfs.xDlOpen = base->xDlOpen != nullptr ? DlOpen : nullptr;
        vfs.xDlError = base->xDlError != nullptr ? DlError : nullptr;
        vfs.xDlSym = base->xDlSym != nullptr ? DlSym : nullptr;
        vfs.xDlClose = base->xDlClose != nullptr ? DlClose : nullptr;
        vfs.xRandomness = Randomness;
        vfs.xSleep = Sleep;
        vfs.xCurrentTime = CurrentTime;
        vfs.xGetLastError = GetLastError;
        vfs.xCurrentTimeInt64 = base->xCurrentTimeInt64 != nullptr ? CurrentTimeInt64 : nullptr;
        if (vfs.iVersion >= 3) {
            vfs.xSetSystemCall = base->xSetSystemCall != nullptr ? SetSystemCall : nullptr;
            vfs.xGetSystemCall = base->xGetSystemCall != nullptr ? GetSystemCall : nullptr;
            vfs.xNextSystemCall = base->xNextSystemCall != nullptr ? NextSystemCall : nullptr;
        }
        registered = sqlite3_vfs_register(&vfs, 0) == SQLITE_OK;
    }
    ~Registration() {
        if (registered) sqlite3_vfs_unregister(&vfs);
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;
};

}  // namespace

const char* SharedMapVfsName() {
    static Registration registration;
    return registration.registered ? kVfsName : nullptr;
}

}  // namespace zorv
