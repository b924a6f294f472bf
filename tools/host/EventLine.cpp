#include "EventLine.h"

#include <cjson/cJSON.h>

#include <cmath>
#include <memory>
#include <optional>

#include "HostEngine.h"

namespace zorv::host {

namespace {

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};

// JSON numbers arrive as doubles: only integers a double holds exactly pass.
bool ReadUnsigned(const cJSON* item, uint64_t limit, uint64_t& value) {
    if (!cJSON_IsNumber(item)) return false;
    const double number = item->valuedouble;
    if (!(number >= 0) || number != std::floor(number) || number > 9007199254740992.0) return false;
    value = static_cast<uint64_t>(number);
    return value <= limit;
}

template <typename Table>
int FindField(const Table& table, std::string_view name) {
    for (size_t i = 0; i < std::size(table); ++i)
        if (name == table[i].name) return static_cast<int>(i);
    return -1;
}

}  // namespace

bool ParseEventLine(std::string_view line, EventRecord& record, std::string& error) {
    record.Clear();
    std::unique_ptr<cJSON, JsonDeleter> root(cJSON_ParseWithLength(line.data(), line.size()));
    if (!root) {
        error = "not valid JSON";
        return false;
    }
    if (!cJSON_IsObject(root.get())) {
        error = "not a JSON object";
        return false;
    }
    AppCtlEvent& numbers = record.Numbers();
    for (const cJSON* item = root->child; item != nullptr; item = item->next) {
        const std::string_view key = item->string;
        uint64_t value = 0;
        int index = -1;
        if (key == "type") {
            if (!ReadUnsigned(item, UINT32_MAX, value)) {
                error = "\"type\": expected an operation code (unsigned 32-bit integer)";
                return false;
            }
            numbers.type = static_cast<uint32_t>(value);
        } else if ((index = FindField(kNumberFields, key)) >= 0) {
            if (!ReadUnsigned(item, UINT64_MAX, value)) {
                error = "\"" + std::string(key) + "\": expected an unsigned integer";
                return false;
            }
            numbers.*(kNumberFields[index].member) = value;
        } else if ((index = FindField(kByteFields, key)) >= 0) {
            if (cJSON_IsBool(item)) {
                value = cJSON_IsTrue(item) ? 1 : 0;
            } else if (!ReadUnsigned(item, 255, value)) {
                error = "\"" + std::string(key) + "\": expected true, false or 0..255";
                return false;
            }
            numbers.*(kByteFields[index].member) = static_cast<uint8_t>(value);
        } else if ((index = FindField(kTextFields, key)) >= 0) {
            if (!cJSON_IsString(item)) {
                error = "\"" + std::string(key) + "\": expected a string";
                return false;
            }
            std::optional<ZString> text = Utf8ToZ(item->valuestring);
            if (!text) {
                error = "\"" + std::string(key) + "\": not valid UTF-8";
                return false;
            }
            record.SetText(static_cast<size_t>(index), std::move(*text));
        } else if ((index = FindField(kDigestFields, key)) >= 0) {
            uint8_t bytes[32];
            const size_t length = kDigestFields[index].length;
            if (!cJSON_IsString(item) || !FromHex(item->valuestring, bytes, length)) {
                error = "\"" + std::string(key) + "\": expected " + std::to_string(length * 2) + " hex digits";
                return false;
            }
            record.SetDigest(static_cast<size_t>(index), bytes);
        } else {
            error = "unknown field \"" + std::string(key) + "\"";
            return false;
        }
    }
    return true;
}

void AppendJsonString(std::string& out, std::string_view utf8) {
    static const char kDigits[] = "0123456789abcdef";
    out.push_back('"');
    for (const char c : utf8) {
        const auto byte = static_cast<unsigned char>(c);
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (byte < 0x20) {
                    out += "\\u00";
                    out.push_back(kDigits[byte >> 4]);
                    out.push_back(kDigits[byte & 0x0F]);
                } else {
                    out.push_back(c);
                }
        }
    }
    out.push_back('"');
}

namespace {
void AppendKey(std::string& out, const char* key) {
    out += out.size() > 1 ? ",\"" : "\"";
    out += key;
    out += "\":";
}
}  // namespace

std::string FormatEventLine(const AppCtlEvent& event) {
    std::string out = "{";
    AppendKey(out, "type");
    out += std::to_string(event.type);
    for (const NumberField& field : kNumberFields) {
        if (event.*(field.member) == 0) continue;
        AppendKey(out, field.name);
        out += std::to_string(event.*(field.member));
    }
    for (const ByteField& field : kByteFields) {
        const uint8_t value = event.*(field.member);
        if (value == 0) continue;
        AppendKey(out, field.name);
        out += value == 1 ? std::string("true") : std::to_string(value);
    }
    for (const TextField& field : kTextFields) {
        const ZorvChar* text = event.*(field.member);
        if (text == nullptr) continue;
        AppendKey(out, field.name);
        AppendJsonString(out, ZToUtf8(text));
    }
    for (const DigestField& field : kDigestFields) {
        const uint8_t* bytes = event.*(field.member);
        if (bytes == nullptr) continue;
        AppendKey(out, field.name);
        out += '"' + ToHex(bytes, field.length) + '"';
    }
    out += "}";
    return out;
}

std::string FormatDecisionLine(uint64_t lineNumber, const AppCtlEvent& event, uint32_t status,
                               const AppCtlResult& result, uint64_t latencyNs) {
    std::string out = "{";
    AppendKey(out, "line");
    out += std::to_string(lineNumber);
    AppendKey(out, "pid");
    out += std::to_string(event.pid);
    AppendKey(out, "name");
    AppendJsonString(out, ZToUtf8(event.name));
    AppendKey(out, "status");
    out += std::to_string(status);
    AppendKey(out, "decision");
    AppendJsonString(out, DecisionName(result.action));
    AppendKey(out, "reason");
    AppendJsonString(out, ReasonName(result.isAuthorized));
    AppendKey(out, "source");
    out += std::to_string(result.source);
    AppendKey(out, "eventType");
    out += std::to_string(result.eventType);
    AppendKey(out, "dbVerdict");
    out += std::to_string(result.dbVerdict);
    AppendKey(out, "text");
    AppendJsonString(out, ZToUtf8(result.text));
    AppendKey(out, "latencyNs");
    out += std::to_string(latencyNs);
    out += "}";
    return out;
}

}  // namespace zorv::host
