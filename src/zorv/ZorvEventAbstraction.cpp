#include "ZorvEventAbstraction.h"

#include <atomic>

#include "ZorvLogger.h"
#include "ZorvText.h"

namespace zorv {

namespace {

constexpr char16_t kLogSource[] = u"src/zorv/ZorvEventAbstraction";

// Read by every event thread without a lock; engine_start and engine_stop are
// the only writers and never overlap another call.
std::atomic<ZorvEngine*> g_currentEngine{nullptr};

constexpr const char16_t* kIssuerSuffix[6] = {u"IssuerCN", u"IssuerC", u"IssuerS",
                                              u"IssuerL",  u"IssuerO", u"IssuerOU"};

// Copies one optional host text; returns false (and leaves `out` empty) for null.
bool CopyText(const ZorvChar* in, std::u16string& out) {
    if (in == nullptr) return false;
    out = FromHostText(in);
    return true;
}

}  // namespace

ZorvEngine::ZorvEngine() { g_currentEngine.store(this, std::memory_order_release); }

ZorvEngine::~ZorvEngine() {
    ZorvEngine* self = this;
    g_currentEngine.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
}

ZorvEngine* ZorvEngine::GetEngine() { return g_currentEngine.load(std::memory_order_acquire); }

void ZorvEngine::ConvertEvent(const AppCtlEvent* in, EngineEvent* out) {
    constexpr const char16_t* kFn = u"ZorvEngine::ConvertEvent";
    ZORV_LOG(kLogTrace, kFn, u"Start ConvertEvent");

    out->pid = in->pid;
    out->processValue = in->processValue;
    out->flags = in->flags;
    out->ignoreChange = in->ignoreChange;
    out->copiedValue40 = in->copiedValue40;
    out->size = in->size;
    out->mode = in->mode;
    out->copiedValue64 = in->copiedValue64;
    out->dirty = in->dirty;
    out->isExec = in->isExec;
    out->copiedFlag74 = in->copiedFlag74;
    out->copiedFlag75 = in->copiedFlag75;
    out->eventType = in->type;
    out->changeKind = in->type;

    if (CopyText(in->processName, out->processName))
        ZORV_LOG(kLogTrace, kFn, u"processName from plugin:'%s'", out->processName);
    if (CopyText(in->user, out->user)) ZORV_LOG(kLogTrace, kFn, u"user from plugin:'%s'", out->user);
    if (CopyText(in->group, out->group)) ZORV_LOG(kLogTrace, kFn, u"group from plugin:'%s'", out->group);
    if (CopyText(in->name, out->name)) ZORV_LOG(kLogTrace, kFn, u"name from plugin:'%s'", out->name);
    if (CopyText(in->oldName, out->oldName)) ZORV_LOG(kLogTrace, kFn, u"oldName from plugin:'%s'", out->oldName);
    if (CopyText(in->cmdLine, out->cmdLine)) ZORV_LOG(kLogTrace, kFn, u"cmdLine from plugin:'%s'", out->cmdLine);
    if (CopyText(in->processSignerName, out->processSignerName))
        ZORV_LOG(kLogTrace, kFn, u"processSignerName from plugin:'%s'", out->processSignerName);

    const ZorvChar* const processIssuers[6] = {in->processIssuerCN, in->processIssuerC, in->processIssuerS,
                                               in->processIssuerL,  in->processIssuerO, in->processIssuerOU};
    for (int i = 0; i < 6; ++i) {
        if (CopyText(processIssuers[i], out->processIssuer[i]))
            ZORV_LOG(kLogTrace, kFn, u"process%s from plugin:'%s'", kIssuerSuffix[i], out->processIssuer[i]);
    }

    // Company and product names come padded from version resources; the log
    // shows what the plug-in sent, the record keeps the trimmed text.
    if (CopyText(in->processCompanyName, out->processCompanyName)) {
        ZORV_LOG(kLogTrace, kFn, u"processCompanyName from plugin:'%s'", out->processCompanyName);
        TrimTrailingBlanks(out->processCompanyName);
    }
    if (CopyText(in->processProductName, out->processProductName)) {
        ZORV_LOG(kLogTrace, kFn, u"processProductName from plugin:'%s'", out->processProductName);
        TrimTrailingBlanks(out->processProductName);
    }
    if (in->processSha256 != nullptr) {
        out->processSha256.SetFromBytes(in->processSha256);
        ZORV_LOG(kLogTrace, kFn, u"processSha256 from plugin: %s", out->processSha256.Hex());
    }

    if (CopyText(in->fileSignerName, out->fileSignerName))
        ZORV_LOG(kLogTrace, kFn, u"fileSignerName from plugin:'%s'", out->fileSignerName);
    const ZorvChar* const fileIssuers[6] = {in->fileIssuerCN, in->fileIssuerC, in->fileIssuerS,
                                            in->fileIssuerL,  in->fileIssuerO, in->fileIssuerOU};
    for (int i = 0; i < 6; ++i) {
        if (CopyText(fileIssuers[i], out->fileIssuer[i]))
            ZORV_LOG(kLogTrace, kFn, u"file%s from plugin:'%s'", kIssuerSuffix[i], out->fileIssuer[i]);
    }
    if (CopyText(in->fileCompanyName, out->fileCompanyName)) {
        ZORV_LOG(kLogTrace, kFn, u"fileCompanyName from plugin:'%s'", out->fileCompanyName);
        TrimTrailingBlanks(out->fileCompanyName);
    }
    if (CopyText(in->fileProductName, out->fileProductName)) {
        ZORV_LOG(kLogTrace, kFn, u"fileProductName from plugin:'%s'", out->fileProductName);
        TrimTrailingBlanks(out->fileProductName);
    }
    if (in->fileSha256 != nullptr) {
        out->fileSha256.SetFromBytes(in->fileSha256);
        ZORV_LOG(kLogTrace, kFn, u"fileSha256 from plugin: %s", out->fileSha256.Hex());
    }
    out->fileSha1.SetFromBytes(in->fileSha1);
    out->fileMd5.SetFromBytes(in->fileMd5);
}

bool ZorvEngine::ProcessEvent(EngineEvent& event) {
    // Until the decision pipeline exists every event takes the dispatcher's
    // default: an event type the engine cannot judge.
    ZORV_LOG(kLogWarning, u"ZorvEngine::HandleEvent", u"Unknown event type %d", event.eventType);
    event.action = AC_DECISION_ERROR;
    return false;
}

}  // namespace zorv
