// EngineEvent: the engine's own record of one event, read and annotated by
// every layer below the exports (the engine, the rule store, the query tables).
// A plain record with no behaviour, kept apart so that no lower layer includes
// the engine's header to reach it.
#pragma once

#include <cstdint>
#include <string>

#include "ZorvUtilWindows.h"

namespace zorv {

// The engine's own record of one event, built per call and annotated by every
// step. Field order follows the plug-in record where it is copied.
struct EngineEvent {
    // Numbers copied from the plug-in record, and the engine's own.
    uint64_t pid = 0;
    uint64_t processValue = 0;     // copied, not interpreted
    uint64_t flags = 0;
    uint64_t ignoreChange = 0;
    uint64_t eventId = 0;          // the event's id in log lines, when the abstraction sets one
    uint64_t copiedValue40 = 0;    // copied, not interpreted
    uint64_t size = 0;
    uint64_t unusedValue = 0;      // never set by the engine
    uint64_t mode = 0;
    uint64_t copiedValue64 = 0;    // copied, not interpreted
    uint64_t statusTime = 0;       // drift scan: a time (ms) from the target's status record
    uint64_t trustOrigin = 0;      // 4 when a trust rule accepted the event
    uint64_t recordTime = 0;       // drift scan: the record time
    uint64_t examined = 0;         // non-zero once drift trust has looked at the event
    uint64_t rulesGeneration = 0;  // the rule store's rules generation when the event began

    uint8_t dirty = 0;
    uint8_t isExec = 0;
    uint8_t blockedByLockdown = 0;
    uint8_t copiedFlag74 = 0;
    uint8_t copiedFlag75 = 0;
    uint8_t storeFault = 0;         // a lookup for this event could not read the rule store

    uint32_t action = 0;            // AC_DECISION_*
    uint32_t eventType = 0;         // AC_EVENT_* after abstraction
    uint32_t changeKind = 0;        // plug-in code, then 4/5/6/7, 10 blocked, 11 allowed log-only
    uint32_t passThroughFirst = 0;  // carried to AppCtlResult unchanged
    uint32_t dbVerdict = 0;         // AC_DB_*
    uint32_t passThroughSecond = 1; // carried to AppCtlResult unchanged
    uint32_t source = 0;            // inventory source of what decided
    uint32_t isAuthorized = 0;      // AC_REASON_*

    std::u16string processName;
    std::u16string processRecord;   // what the process map knows of the acting process
    std::u16string fileName;        // last component of name
    std::u16string name;            // full path of the target
    std::u16string extension;       // of fileName, without the dot
    std::u16string path;            // directory part of name
    std::u16string secondExtension; // of name, for changes and deletes
    std::u16string oldName;
    std::u16string lookupName;
    std::u16string storedItemName;
    std::u16string user;
    std::u16string group;
    std::u16string unusedText;      // never set by the engine
    std::u16string resultText;      // returned to the host in AppCtlResult.text
    std::u16string cmdLine;
    std::u16string processSignerName;
    std::u16string processIssuer[6];  // CN, C, S, L, O, OU
    std::u16string processCompanyName;
    std::u16string processProductName;
    std::u16string fileSignerName;
    std::u16string fileIssuer[6];     // CN, C, S, L, O, OU
    std::u16string fileCompanyName;
    std::u16string fileProductName;
    std::u16string ruleset;           // ruleset of the item or rule that matched

    // Used by the rule store's lookups and by auto-authorization.
    uint64_t inventoryItemId = 0;
    uint64_t createTime = 0;
    uint64_t modifiedTime = 0;

    SHA256Hash fileSha256;
    SHA1Hash fileSha1;
    MD5Hash fileMd5;
    SHA256Hash processSha256;
};

}  // namespace zorv
