// A SQLite VFS for tests that fails the Nth write, sync or lock of the
// process, in the manner of SQLite's own I/O-error tests. Installed, it is
// the default VFS of every connection the process opens (the engine's too)
// and passes everything through to the platform's VFS until it is armed.
#pragma once

#include <cstdint>

namespace zorv::test {

enum class FaultOp { Write, Sync, Lock };

struct FaultPlan {
    FaultOp op = FaultOp::Write;
    uint64_t at = 0;  // the at-th operation of that kind fails; 0 counts without failing
    int error = 0;    // what it answers: SQLITE_FULL, an SQLITE_IOERR code or SQLITE_BUSY
    // From the failing operation on, every write, sync, truncate and delete
    // fails too: the process died there, and nothing more reaches the disk.
    bool crash = false;
};

class FaultVfs {
public:
    // Idempotent.
    static void Install();
    // Restarts the counts.
    static void Arm(const FaultPlan& plan);
    static void Disarm();
    // Operations of the kind seen since the last Arm.
    static uint64_t Seen(FaultOp op);
    static bool Fired();
};

}  // namespace zorv::test
