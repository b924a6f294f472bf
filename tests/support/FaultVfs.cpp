#include "FaultVfs.h"

#include <sqlite3.h>

#include <atomic>
#include <cstring>
#include <mutex>

namespace zorv::test {

namespace {

struct State {
    std::atomic<bool> armed{false};
    std::atomic<bool> fired{false};
    std::atomic<bool> crashed{false};
    std::atomic<uint64_t> seen[3]{};
    FaultOp op = FaultOp::Write;
    uint64_t at = 0;
    int error = 0;
    bool crash = false;
};

State& Faults() {
    static State state;
    return state;
}

sqlite3_vfs* g_real = nullptr;
sqlite3_vfs g_vfs;

struct FaultFile {
    sqlite3_file base;
    sqlite3_file* real;
};

sqlite3_file* Real(sqlite3_file* file) { return reinterpret_cast<FaultFile*>(file)->real; }

// Counts an operation; the error it must answer, or SQLITE_OK to go ahead.
int Check(FaultOp op, int crashError) {
    State& s = Faults();
    if (s.crashed) return crashError;
    if (!s.armed) return SQLITE_OK;
    const uint64_t n = ++s.seen[static_cast<int>(op)];
    if (op != s.op || n != s.at) return SQLITE_OK;
    s.fired = true;
    if (s.crash) s.crashed = true;
    return s.error;
}

int Close(sqlite3_file* f) { return Real(f)->pMethods->xClose(Real(f)); }
int Read(sqlite3_file* f, void* buffer, int amount, sqlite3_int64 offset) {
    return Real(f)->pMethods->xRead(Real(f), buffer, amount, offset);
}
int Write(sqlite3_file* f, const void* buffer, int amount, sqlite3_int64 offset) {
    const int rc = Check(FaultOp::Write, SQLITE_IOERR_WRITE);
    if (rc != SQLITE_OK) return rc;
    return Real(f)->pMethods->xWrite(Real(f), buffer, amount, offset);
}
int Truncate(sqlite3_file* f, sqlite3_int64 size) {
    if (Faults().crashed) return SQLITE_IOERR_TRUNCATE;
    return Real(f)->pMethods->xTruncate(Real(f), size);
}
int Sync(sqlite3_file* f, int flags) {
    const int rc = Check(FaultOp::Sync, SQLITE_IOERR_FSYNC);
    if (rc != SQLITE_OK) return rc;
    return Real(f)->pMethods->xSync(Real(f), flags);
}
int FileSize(sqlite3_file* f, sqlite3_int64* size) { return Real(f)->pMethods->xFileSize(Real(f), size); }
int Lock(sqlite3_file* f, int level) {
    const int rc = Check(FaultOp::Lock, SQLITE_IOERR_LOCK);
    if (rc != SQLITE_OK) return rc;
    return Real(f)->pMethods->xLock(Real(f), level);
}
int Unlock(sqlite3_file* f, int level) { return Real(f)->pMethods->xUnlock(Real(f), level); }
int CheckReservedLock(sqlite3_file* f, int* out) { return Real(f)->pMethods->xCheckReservedLock(Real(f), out); }
int FileControl(sqlite3_file* f, int op, void* arg) { return Real(f)->pMethods->xFileControl(Real(f), op, arg); }
int SectorSize(sqlite3_file* f) { return Real(f)->pMethods->xSectorSize(Real(f)); }
int DeviceCharacteristics(sqlite3_file* f) { return Real(f)->pMethods->xDeviceCharacteristics(Real(f)); }
int ShmMap(sqlite3_file* f, int region, int size, int extend, void volatile** out) {
    return Real(f)->pMethods->xShmMap(Real(f), region, size, extend, out);
}
// Only the exclusive locks of the write-ahead log count as lock operations:
// they are the ones another writer contends for.
int ShmLock(sqlite3_file* f, int offset, int n, int flags) {
    if ((flags & SQLITE_SHM_LOCK) != 0 && (flags & SQLITE_SHM_EXCLUSIVE) != 0) {
        const int rc = Check(FaultOp::Lock, SQLITE_IOERR_SHMLOCK);
        if (rc != SQLITE_OK) return rc;
    }
    return Real(f)->pMethods->xShmLock(Real(f), offset, n, flags);
}
void ShmBarrier(sqlite3_file* f) { Real(f)->pMethods->xShmBarrier(Real(f)); }
int ShmUnmap(sqlite3_file* f, int deleteFlag) { return Real(f)->pMethods->xShmUnmap(Real(f), deleteFlag); }
int Fetch(sqlite3_file* f, sqlite3_int64 offset, int amount, void** out) {
    return Real(f)->pMethods->xFetch(Real(f), offset, amount, out);
}
int Unfetch(sqlite3_file* f, sqlite3_int64 offset, void* page) {
    return Real(f)->pMethods->xUnfetch(Real(f), offset, page);
}

const sqlite3_io_methods kMethods = {
    3,     Close,   Read,         Write,      Truncate,   Sync,   FileSize,  Lock,  Unlock, CheckReservedLock,
    FileControl, SectorSize, DeviceCharacteristics, ShmMap, ShmLock, ShmBarrier, ShmUnmap, Fetch, Unfetch,
};

int Open(sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
    auto* wrapper = reinterpret_cast<FaultFile*>(file);
    wrapper->real = reinterpret_cast<sqlite3_file*>(wrapper + 1);
    wrapper->base.pMethods = nullptr;
    const int rc = g_real->xOpen(g_real, name, wrapper->real, flags, outFlags);
    if (wrapper->real->pMethods != nullptr) wrapper->base.pMethods = &kMethods;
    return rc;
}

int Delete(sqlite3_vfs*, const char* name, int syncDir) {
    if (Faults().crashed) return SQLITE_IOERR_DELETE;
    return g_real->xDelete(g_real, name, syncDir);
}

}  // namespace

void FaultVfs::Install() {
    static std::once_flag once;
    std::call_once(once, [] {
        g_real = sqlite3_vfs_find(nullptr);
        g_vfs = *g_real;
        g_vfs.iVersion = g_real->iVersion;
        g_vfs.szOsFile = static_cast<int>(sizeof(FaultFile)) + g_real->szOsFile;
        g_vfs.zName = "zorv-fault";
        g_vfs.pNext = nullptr;
        g_vfs.xOpen = Open;
        g_vfs.xDelete = Delete;
        sqlite3_vfs_register(&g_vfs, 1);
    });
}

void FaultVfs::Arm(const FaultPlan& plan) {
    State& s = Faults();
    s.armed = false;
    for (auto& n : s.seen) n = 0;
    s.op = plan.op;
    s.at = plan.at;
    s.error = plan.error;
    s.crash = plan.crash;
    s.fired = false;
    s.crashed = false;
    s.armed = true;
}

void FaultVfs::Disarm() {
    State& s = Faults();
    s.armed = false;
    s.crashed = false;
}

uint64_t FaultVfs::Seen(FaultOp op) { return Faults().seen[static_cast<int>(op)]; }

bool FaultVfs::Fired() { return Faults().fired; }

}  // namespace zorv::test
