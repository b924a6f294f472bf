// The event-line reader of the hosts (zorv replay), a scanner of its own
// rather than a JSON library, fed any bytes.
// Oracle:
//   - a refused line gets a reason, and the reason is one printable line;
//   - a line it reads is JSON that cJSON reads as an object too (the scanner
//     never takes what JSON refuses), with the members the record holds;
//   - the record written back (FormatEventLine) reads again to the very same
//     record, and writes the very same line.
#include <cjson/cJSON.h>

#include <cstring>
#include <string>
#include <string_view>

#include "EventLine.h"
#include "EventRecord.h"
#include "FuzzSupport.h"
#include "HostText.h"

namespace zorv::fuzz {
namespace {

using host::EventRecord;

// Hex as the writer spells it, to compare without the reader's own decoder.
std::string LowerHex(std::string text) {
    for (char& c : text) c = c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c;
    return text;
}

void CheckAgainstCjson(std::string_view line, const AppCtlEvent& event) {
    const std::string copy(line);
    const char* end = nullptr;
    const Json root(cJSON_ParseWithLengthOpts(copy.c_str(), copy.size(), &end, false));
    ZORV_FUZZ_CHECK(root != nullptr && cJSON_IsObject(root.get()), "read a line cJSON refuses: %s",
                    host::Printable(copy).c_str());
    ZORV_FUZZ_CHECK(copy.find_first_not_of(" \t\r\n", static_cast<size_t>(end - copy.c_str())) == std::string::npos,
                    "read a line with more after its object: %s", host::Printable(copy).c_str());
    // The last of duplicate members is the one the record holds.
    for (const cJSON* member = root->child; member != nullptr; member = member->next) {
        bool later = false;
        for (const cJSON* next = member->next; next != nullptr; next = next->next)
            later = later || std::strcmp(next->string, member->string) == 0;
        if (later) continue;
        const std::string_view name = member->string;
        if (name == "type") {
            ZORV_FUZZ_CHECK(cJSON_IsNumber(member) && member->valuedouble == static_cast<double>(event.type),
                            "type %u against %s", event.type, host::Printable(copy).c_str());
            continue;
        }
        for (const host::TextField& field : host::kTextFields)
            if (name == field.name)
                ZORV_FUZZ_CHECK(cJSON_IsString(member) && host::ZToUtf8(event.*(field.member)) == member->valuestring,
                                "%s differs in %s", field.name, host::Printable(copy).c_str());
        for (const host::NumberField& field : host::kNumberFields)
            if (name == field.name && event.*(field.member) < (uint64_t{1} << 53))
                ZORV_FUZZ_CHECK(cJSON_IsNumber(member) &&
                                    member->valuedouble == static_cast<double>(event.*(field.member)),
                                "%s differs in %s", field.name, host::Printable(copy).c_str());
        for (const host::ByteField& field : host::kByteFields)
            if (name == field.name)
                ZORV_FUZZ_CHECK(cJSON_IsBool(member) ? (cJSON_IsTrue(member) ? 1 : 0) == event.*(field.member)
                                                     : member->valuedouble == event.*(field.member),
                                "%s differs in %s", field.name, host::Printable(copy).c_str());
        for (const host::DigestField& field : host::kDigestFields)
            if (name == field.name)
                ZORV_FUZZ_CHECK(cJSON_IsString(member) && event.*(field.member) != nullptr &&
                                    host::ToHex(event.*(field.member), field.length) == LowerHex(member->valuestring),
                                "%s differs in %s", field.name, host::Printable(copy).c_str());
    }
}

void CheckLine(std::string_view line) {
    EventRecord record;
    std::string error;
    if (!host::ParseEventLine(line, record, error)) {
        ZORV_FUZZ_CHECK(!error.empty(), "refused without a reason: %s", host::Printable(line).c_str());
        ZORV_FUZZ_CHECK(host::Printable(error) == error, "a reason that is not one printable line: %s",
                        host::Printable(error).c_str());
        return;
    }
    const AppCtlEvent& event = record.Raw();
    CheckAgainstCjson(line, event);
    const std::string written = host::FormatEventLine(event);
    EventRecord again;
    ZORV_FUZZ_CHECK(host::ParseEventLine(written, again, error), "its own line refused (%s): %s", error.c_str(),
                    host::Printable(written).c_str());
    const std::string rewritten = host::FormatEventLine(again.Raw());
    ZORV_FUZZ_CHECK(rewritten == written, "written twice differently:\n  %s\n  %s", host::Printable(written).c_str(),
                    host::Printable(rewritten).c_str());
}

}  // namespace
}  // namespace zorv::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    // One input may hold several lines, as a file does.
    size_t start = 0;
    while (start <= input.size()) {
        const size_t end = std::min(input.find('\n', start), input.size());
        zorv::fuzz::CheckLine(input.substr(start, end - start));
        start = end + 1;
    }
    return 0;
}
