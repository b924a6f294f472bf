/*
 * zorv.h - the whole public surface of the Zorv application-control engine.
 *
 * Conventions:
 *  - Plain C (C11 and C++). Every record has the x64 layout the agent was
 *    built against; sizes and offsets are pinned below with static_assert so a
 *    padding mistake breaks our build, never the host.
 *  - Text is NUL-terminated UTF-16: wchar_t on Windows, char16_t elsewhere.
 *  - Every export returns a 32-bit status (AC_OK, AC_BLOCKED or AC_E_*).
 *  - Any export may be called from many threads at once. engine_stop may
 *    overlap other calls: it waits for those already running to return (at
 *    most 60 s; past that it answers AC_E_FAILED and frees nothing), and from
 *    the moment it begins every other export answers AC_E_NOT_STARTED until a
 *    later engine_start. engine_start and engine_stop run one at a time.
 *  - app_ctl answers AC_E_FAILED (decision 8) when no decision can be made:
 *    the rule store could not be read, or the event carries no SHA-256 to
 *    look up. The host applies its own failure policy; the metrics' "dbinfo"
 *    says "StoreHealthy": false while the store cannot be read.
 */
#ifndef ZORV_ZORV_H_
#define ZORV_ZORV_H_

#include <assert.h> /* static_assert in C11 */
#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#if defined(ZORV_BUILDING_LIBRARY)
#define ZORV_EXPORT __declspec(dllexport)
#else
#define ZORV_EXPORT __declspec(dllimport)
#endif
typedef wchar_t ZorvChar;
#else
#if defined(ZORV_BUILDING_LIBRARY)
#define ZORV_EXPORT __attribute__((visibility("default")))
#else
#define ZORV_EXPORT
#endif
#if !defined(__cplusplus)
#include <uchar.h>
#endif
typedef char16_t ZorvChar;
#endif

#if defined(__cplusplus)
extern "C" {
#endif

/* ---- Status codes returned by every export ---------------------------- */
#define AC_OK                   0x00000000u
#define AC_BLOCKED              0x00000001u /* app_ctl only: block the operation */
#define AC_E_FAILED             0xC0000000u
#define AC_E_NULL_SIZE          0xC0000001u /* get_metrics_mem: no size pointer */
#define AC_E_NOT_STARTED        0xC0000002u
#define AC_E_INVALID_ARG        0xC0000004u
#define AC_E_DB_OPEN            0xC0000006u
#define AC_E_LOGGER             0xC0000007u
#define AC_E_NO_ENGINE          0xC000000Au
#define AC_E_NULL_EVENT         0xC000000Bu
#define AC_E_ITEM_INCOMPLETE    0xC000000Cu
#define AC_E_NULL_BUFFER        0xC000000Du
#define AC_E_NULL_PARAMS        0xC000000Eu
#define AC_E_BUFFER_TOO_SMALL   0xC000000Fu /* get_metrics_mem: size written back */

/* ---- Decision codes (AppCtlResult.action) ----------------------------- */
#define AC_DECISION_IGNORED 7u
#define AC_DECISION_ERROR   8u
#define AC_DECISION_ALLOW   9u
#define AC_DECISION_BLOCK   10u

/* ---- Reason codes (AppCtlResult.isAuthorized) ------------------------- */
#define AC_REASON_NONE        0u
#define AC_REASON_MAINTENANCE 1u
#define AC_REASON_BLOCKED     2u
#define AC_REASON_APPROVED    3u
#define AC_REASON_TRUSTED     4u
#define AC_REASON_EXCLUDED    5u

/* ---- Inventory verdict (AppCtlResult.dbVerdict) ----------------------- */
#define AC_DB_NOT_KNOWN 0u
#define AC_DB_ALLOWED   1u
#define AC_DB_BLOCKED   2u

/* ---- Engine event types after abstraction (AppCtlResult.eventType) ---- */
#define AC_EVENT_CACHE_CHECK   0u
#define AC_EVENT_PROCESS_START 1u
#define AC_EVENT_FILE_CHANGE   4u
#define AC_EVENT_DELETE        7u
#define AC_EVENT_SCRIPT_START  8u
#define AC_EVENT_EXEC_MAPPING  9u

/* ---- Operation codes of the monitoring plug-in (AppCtlEvent.type) ----- */
#define AC_OP_CACHE_CHECK      0u
#define AC_OP_CREATE_PRE       15u
#define AC_OP_CREATE_POST      16u
#define AC_OP_CHANGE_DIRTY     17u
#define AC_OP_PROCESS_CREATE   23u
#define AC_OP_CREATE_PRE_2     29u
#define AC_OP_OPEN_POST        30u
#define AC_OP_CHANGE_32        32u
#define AC_OP_CHANGE_34        34u
#define AC_OP_CHANGE_36        36u
#define AC_OP_RENAME           40u
#define AC_OP_CHANGE_42        42u
#define AC_OP_CHANGE_44        44u
#define AC_OP_CHANGE_46        46u
#define AC_OP_CHANGE_48        48u
#define AC_OP_DELETE           50u
#define AC_OP_SECTION_MAP      53u
#define AC_OP_DELETE_2         57u

/* ---- Inventory sources (AppCtlResult.source, InventoryItemRecord.source) */
#define AC_SOURCE_AGENT_RULES     1u
#define AC_SOURCE_EXECUTION_RULES 2u
#define AC_SOURCE_SCANNED         3u
#define AC_SOURCE_APPROVED_DRIFT  4u
#define AC_SOURCE_PRELINK         5u
#define AC_SOURCE_TRUST_RULE      6u

/* ---- Log levels (single bits; a callback may see combinations) -------- */
#define AC_LOG_INFO    1u
#define AC_LOG_WARNING 2u
#define AC_LOG_ERROR   4u
#define AC_LOG_TRACE   8u

/*
 * The host's log function. Called from any thread that is inside the engine,
 * possibly several at once. `length` is the message length in UTF-16 units
 * without the terminator.
 */
typedef void (*ZorvLogCallback)(uint32_t level, uint32_t line, const ZorvChar* function,
                                const ZorvChar* sourcePath, const ZorvChar* message,
                                uint32_t length);

/* Parameters of engine_start; the engine reads dbPath, logLevel and logCallback. */
typedef struct EngineStartParams {
    uint64_t reserved0;
    const ZorvChar* dbPath;      /* database file, or NULL to keep the current one */
    uint32_t logLevel;           /* level mask, used only with logCallback */
    uint8_t reserved20[20];
    ZorvLogCallback logCallback; /* NULL: log to "LogFile.log" in the current directory */
} EngineStartParams;

static_assert(sizeof(EngineStartParams) == 48, "EngineStartParams is 48 bytes on x64");
static_assert(offsetof(EngineStartParams, dbPath) == 8, "dbPath at byte 8");
static_assert(offsetof(EngineStartParams, logLevel) == 16, "logLevel at byte 16");
static_assert(offsetof(EngineStartParams, logCallback) == 40, "logCallback at byte 40");

/* One operation observed by the monitoring plug-in. The engine never writes to it. */
typedef struct AppCtlEvent {
    uint64_t reserved0;
    uint64_t pid;               /* acting process */
    uint64_t processValue;      /* copied, not interpreted */
    uint64_t flags;             /* operation flags */
    uint64_t ignoreChange;      /* non-zero: leave change/rename/delete unabstracted */
    uint64_t copiedValue40;     /* copied, not interpreted */
    uint64_t size;              /* target size in bytes */
    uint64_t mode;              /* access mode; bit value 4 on a mapping = execute */
    uint64_t copiedValue64;     /* copied, not interpreted */
    uint8_t dirty;              /* the file was written */
    uint8_t isExec;             /* the target is an executable image */
    uint8_t copiedFlag74;       /* copied, not interpreted */
    uint8_t copiedFlag75;       /* copied, not interpreted */
    uint32_t type;              /* plug-in operation code (AC_OP_*) */
    const ZorvChar* processName;
    const ZorvChar* name;       /* full path of the target */
    const ZorvChar* cmdLine;
    const ZorvChar* processSignerName;
    const ZorvChar* processIssuerCN;
    const ZorvChar* processIssuerC;
    const ZorvChar* processIssuerS;
    const ZorvChar* processIssuerL;
    const ZorvChar* processIssuerO;
    const ZorvChar* processIssuerOU;
    const ZorvChar* processCompanyName;
    const ZorvChar* processProductName;
    const ZorvChar* fileSignerName;
    const ZorvChar* fileIssuerCN;
    const ZorvChar* fileIssuerC;
    const ZorvChar* fileIssuerS;
    const ZorvChar* fileIssuerL;
    const ZorvChar* fileIssuerO;
    const ZorvChar* fileIssuerOU;
    const ZorvChar* fileCompanyName;
    const ZorvChar* fileProductName;
    const uint8_t* fileSha256;  /* 32 raw bytes or NULL */
    const uint8_t* fileSha1;    /* 20 raw bytes or NULL */
    const uint8_t* fileMd5;     /* 16 raw bytes or NULL */
    const uint8_t* processSha256; /* 32 raw bytes or NULL */
    const ZorvChar* user;
    const ZorvChar* group;
    const ZorvChar* oldName;    /* previous full path of a renamed target */
} AppCtlEvent;

static_assert(sizeof(AppCtlEvent) == 304, "AppCtlEvent is 304 bytes on x64");
static_assert(offsetof(AppCtlEvent, pid) == 8, "pid at byte 8");
static_assert(offsetof(AppCtlEvent, processValue) == 16, "processValue at byte 16");
static_assert(offsetof(AppCtlEvent, flags) == 24, "flags at byte 24");
static_assert(offsetof(AppCtlEvent, ignoreChange) == 32, "ignoreChange at byte 32");
static_assert(offsetof(AppCtlEvent, copiedValue40) == 40, "copiedValue40 at byte 40");
static_assert(offsetof(AppCtlEvent, size) == 48, "size at byte 48");
static_assert(offsetof(AppCtlEvent, mode) == 56, "mode at byte 56");
static_assert(offsetof(AppCtlEvent, copiedValue64) == 64, "copiedValue64 at byte 64");
static_assert(offsetof(AppCtlEvent, dirty) == 72, "dirty at byte 72");
static_assert(offsetof(AppCtlEvent, isExec) == 73, "isExec at byte 73");
static_assert(offsetof(AppCtlEvent, copiedFlag74) == 74, "copiedFlag74 at byte 74");
static_assert(offsetof(AppCtlEvent, copiedFlag75) == 75, "copiedFlag75 at byte 75");
static_assert(offsetof(AppCtlEvent, type) == 76, "type at byte 76");
static_assert(offsetof(AppCtlEvent, processName) == 80, "processName at byte 80");
static_assert(offsetof(AppCtlEvent, name) == 88, "name at byte 88");
static_assert(offsetof(AppCtlEvent, cmdLine) == 96, "cmdLine at byte 96");
static_assert(offsetof(AppCtlEvent, processSignerName) == 104, "processSignerName at byte 104");
static_assert(offsetof(AppCtlEvent, processIssuerCN) == 112, "process issuer fields at byte 112");
static_assert(offsetof(AppCtlEvent, processIssuerOU) == 152, "processIssuerOU at byte 152");
static_assert(offsetof(AppCtlEvent, processCompanyName) == 160, "processCompanyName at byte 160");
static_assert(offsetof(AppCtlEvent, processProductName) == 168, "processProductName at byte 168");
static_assert(offsetof(AppCtlEvent, fileSignerName) == 176, "fileSignerName at byte 176");
static_assert(offsetof(AppCtlEvent, fileIssuerCN) == 184, "file issuer fields at byte 184");
static_assert(offsetof(AppCtlEvent, fileIssuerOU) == 224, "fileIssuerOU at byte 224");
static_assert(offsetof(AppCtlEvent, fileCompanyName) == 232, "fileCompanyName at byte 232");
static_assert(offsetof(AppCtlEvent, fileProductName) == 240, "fileProductName at byte 240");
static_assert(offsetof(AppCtlEvent, fileSha256) == 248, "fileSha256 at byte 248");
static_assert(offsetof(AppCtlEvent, fileSha1) == 256, "fileSha1 at byte 256");
static_assert(offsetof(AppCtlEvent, fileMd5) == 264, "fileMd5 at byte 264");
static_assert(offsetof(AppCtlEvent, processSha256) == 272, "processSha256 at byte 272");
static_assert(offsetof(AppCtlEvent, user) == 280, "user at byte 280");
static_assert(offsetof(AppCtlEvent, group) == 288, "group at byte 288");
static_assert(offsetof(AppCtlEvent, oldName) == 296, "oldName at byte 296");

#define AC_RESULT_TEXT_UNITS 80

/* The engine's answer to one event, filled by app_ctl. */
typedef struct AppCtlResult {
    uint32_t action;              /* AC_DECISION_* */
    uint32_t passThroughSecond;   /* set by no engine path: always 1 */
    uint32_t source;              /* AC_SOURCE_* of what decided */
    uint32_t isAuthorized;        /* AC_REASON_* */
    uint32_t eventType;           /* AC_EVENT_* (or the unabstracted plug-in code) */
    uint32_t passThroughFirst;    /* set by no engine path: always 0 */
    uint32_t dbVerdict;           /* AC_DB_* */
    ZorvChar text[AC_RESULT_TEXT_UNITS]; /* NUL-terminated; empty when there is no text */
    uint8_t reserved188[12];
} AppCtlResult;

static_assert(sizeof(AppCtlResult) == 200, "AppCtlResult is 200 bytes");
static_assert(offsetof(AppCtlResult, passThroughSecond) == 4, "passThroughSecond at byte 4");
static_assert(offsetof(AppCtlResult, source) == 8, "source at byte 8");
static_assert(offsetof(AppCtlResult, isAuthorized) == 12, "isAuthorized at byte 12");
static_assert(offsetof(AppCtlResult, eventType) == 16, "eventType at byte 16");
static_assert(offsetof(AppCtlResult, passThroughFirst) == 20, "passThroughFirst at byte 20");
static_assert(offsetof(AppCtlResult, dbVerdict) == 24, "dbVerdict at byte 24");
static_assert(offsetof(AppCtlResult, text) == 28, "text starts at byte 28");
static_assert(offsetof(AppCtlResult, reserved188) == 188, "reserved tail at byte 188");

/* One inventory item handed to store_item. */
typedef struct InventoryItemRecord {
    uint64_t reserved0;
    uint8_t md5[16];
    uint8_t sha1[20];
    uint8_t sha256[32];
    uint32_t source;              /* AC_SOURCE_* */
    uint64_t reserved80;
    const ZorvChar* fileName;     /* required */
    const ZorvChar* path;         /* directory, required */
    const ZorvChar* fullPath;     /* required */
    uint64_t size;
    uint64_t reserved120;
    uint8_t isAuthorized;         /* non-zero: on the allow list */
    uint8_t reserved129[7];
    const ZorvChar* ruleset;      /* required */
} InventoryItemRecord;

static_assert(sizeof(InventoryItemRecord) == 144, "InventoryItemRecord is 144 bytes on x64");
static_assert(offsetof(InventoryItemRecord, md5) == 8, "md5 at byte 8");
static_assert(offsetof(InventoryItemRecord, sha1) == 24, "sha1 at byte 24");
static_assert(offsetof(InventoryItemRecord, sha256) == 44, "sha256 at byte 44");
static_assert(offsetof(InventoryItemRecord, source) == 76, "source at byte 76");
static_assert(offsetof(InventoryItemRecord, fileName) == 88, "fileName at byte 88");
static_assert(offsetof(InventoryItemRecord, path) == 96, "path at byte 96");
static_assert(offsetof(InventoryItemRecord, fullPath) == 104, "fullPath at byte 104");
static_assert(offsetof(InventoryItemRecord, size) == 112, "size at byte 112");
static_assert(offsetof(InventoryItemRecord, isAuthorized) == 128, "isAuthorized at byte 128");
static_assert(offsetof(InventoryItemRecord, ruleset) == 136, "ruleset at byte 136");

/* ---- set_config flags -------------------------------------------------- */
#define AC_CONFIG_LOCKDOWN            1u
#define AC_CONFIG_INVENTORY_EXISTS    2u
#define AC_CONFIG_RULESET_EXISTS      4u
#define AC_CONFIG_AUTO_AUTHORIZE      8u
#define AC_CONFIG_ALLOWLIST_INVENTORY 16u

/* ---- The thirteen exports ---------------------------------------------- */
ZORV_EXPORT uint32_t app_ctl(void* reserved, const AppCtlEvent* event, AppCtlResult* result);
ZORV_EXPORT uint32_t engine_start(const EngineStartParams* params);
ZORV_EXPORT uint32_t engine_stop(void);
ZORV_EXPORT uint32_t set_config(uint32_t flags, uint64_t autoAuthorizeStartTime,
                                uint64_t autoAuthorizeEndTime);
ZORV_EXPORT uint32_t set_loglevel(uint32_t mask);
ZORV_EXPORT uint32_t set_ruleset(uint8_t append, const ZorvChar* path, const ZorvChar* name);
ZORV_EXPORT uint32_t set_ruleset_buffer(uint8_t append, const ZorvChar* buffer,
                                        const ZorvChar* name);
ZORV_EXPORT uint32_t store_item(const InventoryItemRecord* item, uint8_t viaBuffer);
ZORV_EXPORT uint32_t get_inventory(uint64_t afterItemId, uint64_t limit, uint32_t source,
                                   const ZorvChar* payloadPath, const ZorvChar* scanUuid);
ZORV_EXPORT uint32_t get_metrics_mem(void* buffer, uint32_t* size);
ZORV_EXPORT uint32_t purge_db(uint32_t what);
ZORV_EXPORT uint32_t delete_db(void);
ZORV_EXPORT uint32_t flush_db_buffer(void);

#if defined(__cplusplus)
}
#endif

#endif /* ZORV_ZORV_H_ */
