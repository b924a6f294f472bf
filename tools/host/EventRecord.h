// An AppCtlEvent that owns its texts and digests. Fields are named as in
// zorv.h; the tables below are the one list of them that the event-line
// format, the builders and the printers share. Not thread-safe; Raw()'s
// record points into the object and lives as long as it stays unchanged.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "HostText.h"
#include "zorv/zorv.h"

namespace zorv::host {

struct NumberField {
    const char* name;
    uint64_t AppCtlEvent::*member;
};
struct ByteField {
    const char* name;
    uint8_t AppCtlEvent::*member;
};
struct TextField {
    const char* name;
    const ZorvChar* AppCtlEvent::*member;
};
struct DigestField {
    const char* name;
    const uint8_t* AppCtlEvent::*member;
    size_t length;
};

inline constexpr NumberField kNumberFields[] = {
    {"pid", &AppCtlEvent::pid},
    {"processValue", &AppCtlEvent::processValue},
    {"flags", &AppCtlEvent::flags},
    {"ignoreChange", &AppCtlEvent::ignoreChange},
    {"copiedValue40", &AppCtlEvent::copiedValue40},
    {"size", &AppCtlEvent::size},
    {"mode", &AppCtlEvent::mode},
    {"copiedValue64", &AppCtlEvent::copiedValue64},
};
inline constexpr ByteField kByteFields[] = {
    {"dirty", &AppCtlEvent::dirty},
    {"isExec", &AppCtlEvent::isExec},
    {"copiedFlag74", &AppCtlEvent::copiedFlag74},
    {"copiedFlag75", &AppCtlEvent::copiedFlag75},
};
inline constexpr TextField kTextFields[] = {
    {"name", &AppCtlEvent::name},
    {"processName", &AppCtlEvent::processName},
    {"cmdLine", &AppCtlEvent::cmdLine},
    {"user", &AppCtlEvent::user},
    {"group", &AppCtlEvent::group},
    {"oldName", &AppCtlEvent::oldName},
    {"processSignerName", &AppCtlEvent::processSignerName},
    {"processIssuerCN", &AppCtlEvent::processIssuerCN},
    {"processIssuerC", &AppCtlEvent::processIssuerC},
    {"processIssuerS", &AppCtlEvent::processIssuerS},
    {"processIssuerL", &AppCtlEvent::processIssuerL},
    {"processIssuerO", &AppCtlEvent::processIssuerO},
    {"processIssuerOU", &AppCtlEvent::processIssuerOU},
    {"processCompanyName", &AppCtlEvent::processCompanyName},
    {"processProductName", &AppCtlEvent::processProductName},
    {"fileSignerName", &AppCtlEvent::fileSignerName},
    {"fileIssuerCN", &AppCtlEvent::fileIssuerCN},
    {"fileIssuerC", &AppCtlEvent::fileIssuerC},
    {"fileIssuerS", &AppCtlEvent::fileIssuerS},
    {"fileIssuerL", &AppCtlEvent::fileIssuerL},
    {"fileIssuerO", &AppCtlEvent::fileIssuerO},
    {"fileIssuerOU", &AppCtlEvent::fileIssuerOU},
    {"fileCompanyName", &AppCtlEvent::fileCompanyName},
    {"fileProductName", &AppCtlEvent::fileProductName},
};
inline constexpr DigestField kDigestFields[] = {
    {"sha256", &AppCtlEvent::fileSha256, 32},
    {"sha1", &AppCtlEvent::fileSha1, 20},
    {"md5", &AppCtlEvent::fileMd5, 16},
    {"processSha256", &AppCtlEvent::processSha256, 32},
};
inline constexpr size_t kTextFieldCount = std::size(kTextFields);
inline constexpr size_t kDigestFieldCount = std::size(kDigestFields);
static_assert(kTextFieldCount <= 32 && kDigestFieldCount <= 8, "presence bits");

class EventRecord {
public:
    // Forgets every field but keeps the texts' storage, so a record reused
    // line after line stops allocating.
    void Clear() {
        m_event = AppCtlEvent{};
        m_textsPresent = 0;
        m_digestsPresent = 0;
    }

    // Numbers, bytes and `type` are set here; Raw() keeps them.
    AppCtlEvent& Numbers() { return m_event; }

    // The storage of a text field, marked present; fill it in place.
    ZString& TextSlot(size_t field) {
        m_textsPresent |= uint32_t{1} << field;
        return m_texts[field];
    }
    void SetText(size_t field, ZString value) {
        m_texts[field] = std::move(value);
        m_textsPresent |= uint32_t{1} << field;
    }
    void SetDigest(size_t field, const uint8_t* bytes) {
        std::copy(bytes, bytes + kDigestFields[field].length, m_digests[field].begin());
        m_digestsPresent |= uint8_t(1u << field);
    }
    // By the field's name in the tables above; false for a name not there.
    bool SetTextByName(std::string_view name, ZString value);

    // The record with its pointers aimed at this object's storage.
    const AppCtlEvent& Raw();

    uint64_t Pid() const { return m_event.pid; }

private:
    AppCtlEvent m_event{};
    std::array<ZString, kTextFieldCount> m_texts;
    std::array<std::array<uint8_t, 32>, kDigestFieldCount> m_digests{};
    // Which fields are set, as bits: Raw() visits only those, not the
    // storage of the two dozen texts a line leaves out.
    uint32_t m_textsPresent = 0;
    uint8_t m_digestsPresent = 0;
};

}  // namespace zorv::host
