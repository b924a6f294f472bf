#include "EventLine.h"

#include <memory>
#include <optional>

#include "HostEngine.h"

namespace zorv::host {

namespace {

// Event lines are flat objects, so they are read by a scanner of their own
// instead of a general JSON tree: no allocation per member, which is most of
// the cost of a replay's reading.
class LineScanner {
public:
    explicit LineScanner(std::string_view text) : m_text(text) {}

    void SkipSpace() {
        while (m_at < m_text.size() &&
               (m_text[m_at] == ' ' || m_text[m_at] == '\t' || m_text[m_at] == '\r' || m_text[m_at] == '\n'))
            ++m_at;
    }
    bool Take(char c) {
        SkipSpace();
        if (m_at < m_text.size() && m_text[m_at] == c) {
            ++m_at;
            return true;
        }
        return false;
    }
    char Peek() {
        SkipSpace();
        return m_at < m_text.size() ? m_text[m_at] : '\0';
    }
    bool AtEnd() {
        SkipSpace();
        return m_at == m_text.size();
    }

    // A JSON string, escapes decoded to UTF-8 bytes (validated later).
    bool String(std::string& out) {
        out.clear();
        if (!Take('"')) return false;
        while (m_at < m_text.size()) {
            const char c = m_text[m_at++];
            if (c == '"') return true;
            if (static_cast<unsigned char>(c) < 0x20) return false;
            if (c != '\\') {
                out.push_back(c);
                continue;
            }
            if (m_at >= m_text.size()) return false;
            const char escape = m_text[m_at++];
            switch (escape) {
                case '"': out.push_back('"'); break;
                case '\\': out.push_back('\\'); break;
                case '/': out.push_back('/'); break;
                case 'b': out.push_back('\b'); break;
                case 'f': out.push_back('\f'); break;
                case 'n': out.push_back('\n'); break;
                case 'r': out.push_back('\r'); break;
                case 't': out.push_back('\t'); break;
                case 'u': {
                    uint32_t code = 0;
                    if (!Hex4(code)) return false;
                    if (code >= 0xD800 && code <= 0xDBFF) {
                        uint32_t low = 0;
                        if (m_at + 2 > m_text.size() || m_text[m_at] != '\\' || m_text[m_at + 1] != 'u') return false;
                        m_at += 2;
                        if (!Hex4(low) || low < 0xDC00 || low > 0xDFFF) return false;
                        code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                    } else if (code >= 0xDC00 && code <= 0xDFFF) {
                        return false;
                    }
                    AppendUtf8(out, code);
                    break;
                }
                default: return false;
            }
        }
        return false;
    }

    enum class Kind { kUnsigned, kOtherNumber, kTrue, kFalse, kNull, kString, kComposite, kInvalid };

    // Classifies the next value and consumes it unless it is a string (the
    // caller reads that with String) or composite (an error for every field).
    Kind Value(uint64_t& number) {
        const char c = Peek();
        if (c == '"') return Kind::kString;
        if (c == '{' || c == '[') return Kind::kComposite;
        if (Word("true")) return Kind::kTrue;
        if (Word("false")) return Kind::kFalse;
        if (Word("null")) return Kind::kNull;
        if (c != '-' && (c < '0' || c > '9')) return Kind::kInvalid;
        bool negative = false, overflow = false, fraction = false;
        if (m_text[m_at] == '-') negative = true, ++m_at;
        if (m_at >= m_text.size() || m_text[m_at] < '0' || m_text[m_at] > '9') return Kind::kInvalid;
        if (m_text[m_at] == '0' && m_at + 1 < m_text.size() && m_text[m_at + 1] >= '0' && m_text[m_at + 1] <= '9')
            return Kind::kInvalid;
        number = 0;
        while (m_at < m_text.size() && m_text[m_at] >= '0' && m_text[m_at] <= '9') {
            const uint64_t digit = static_cast<uint64_t>(m_text[m_at++] - '0');
            if (number > (UINT64_MAX - digit) / 10) overflow = true;
            number = number * 10 + digit;
        }
        if (m_at < m_text.size() && m_text[m_at] == '.') {
            fraction = true, ++m_at;
            if (!Digits()) return Kind::kInvalid;
        }
        if (m_at < m_text.size() && (m_text[m_at] == 'e' || m_text[m_at] == 'E')) {
            fraction = true, ++m_at;
            if (m_at < m_text.size() && (m_text[m_at] == '+' || m_text[m_at] == '-')) ++m_at;
            if (!Digits()) return Kind::kInvalid;
        }
        return negative || overflow || fraction ? Kind::kOtherNumber : Kind::kUnsigned;
    }

private:
    bool Word(std::string_view word) {
        if (m_text.substr(m_at, word.size()) != word) return false;
        m_at += word.size();
        return true;
    }
    bool Digits() {
        const size_t begin = m_at;
        while (m_at < m_text.size() && m_text[m_at] >= '0' && m_text[m_at] <= '9') ++m_at;
        return m_at > begin;
    }
    bool Hex4(uint32_t& code) {
        if (m_at + 4 > m_text.size()) return false;
        code = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = m_text[m_at++];
            const int value = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10
                              : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
            if (value < 0) return false;
            code = code << 4 | static_cast<uint32_t>(value);
        }
        return true;
    }

    std::string_view m_text;
    size_t m_at = 0;
};

template <typename Table>
int FindField(const Table& table, std::string_view name) {
    for (size_t i = 0; i < std::size(table); ++i)
        if (name == table[i].name) return static_cast<int>(i);
    return -1;
}

std::string Quoted(std::string_view key) { return "\"" + std::string(key) + "\""; }

}  // namespace

bool ParseEventLine(std::string_view line, EventRecord& record, std::string& error) {
    record.Clear();
    LineScanner scan(line);
    if (scan.Peek() != '{') {
        error = scan.Peek() == '[' || scan.Peek() == '"' ? "not a JSON object" : "not valid JSON";
        return false;
    }
    scan.Take('{');
    AppCtlEvent& numbers = record.Numbers();
    std::string key, text;
    bool first = true;
    while (!scan.Take('}')) {
        if (!first && !scan.Take(',')) {
            error = "not valid JSON";
            return false;
        }
        first = false;
        if (!scan.String(key) || !scan.Take(':')) {
            error = "not valid JSON";
            return false;
        }
        uint64_t value = 0;
        const LineScanner::Kind kind = scan.Value(value);
        if (kind == LineScanner::Kind::kInvalid) {
            error = "not valid JSON";
            return false;
        }
        if (kind == LineScanner::Kind::kString && !scan.String(text)) {
            error = "not valid JSON";
            return false;
        }
        int index = -1;
        if (key == "type") {
            if (kind != LineScanner::Kind::kUnsigned || value > UINT32_MAX) {
                error = "\"type\": expected an operation code (unsigned 32-bit integer)";
                return false;
            }
            numbers.type = static_cast<uint32_t>(value);
        } else if ((index = FindField(kNumberFields, key)) >= 0) {
            if (kind != LineScanner::Kind::kUnsigned) {
                error = Quoted(key) + ": expected an unsigned integer";
                return false;
            }
            numbers.*(kNumberFields[index].member) = value;
        } else if ((index = FindField(kByteFields, key)) >= 0) {
            if (kind == LineScanner::Kind::kTrue || kind == LineScanner::Kind::kFalse) {
                value = kind == LineScanner::Kind::kTrue ? 1 : 0;
            } else if (kind != LineScanner::Kind::kUnsigned || value > 255) {
                error = Quoted(key) + ": expected true, false or 0..255";
                return false;
            }
            numbers.*(kByteFields[index].member) = static_cast<uint8_t>(value);
        } else if ((index = FindField(kTextFields, key)) >= 0) {
            if (kind != LineScanner::Kind::kString) {
                error = Quoted(key) + ": expected a string";
                return false;
            }
            if (!Utf8ToZ(text, record.TextSlot(static_cast<size_t>(index)))) {
                error = Quoted(key) + ": not valid UTF-8";
                return false;
            }
        } else if ((index = FindField(kDigestFields, key)) >= 0) {
            uint8_t bytes[32];
            const size_t length = kDigestFields[index].length;
            if (kind != LineScanner::Kind::kString || !FromHex(text, bytes, length)) {
                error = Quoted(key) + ": expected " + std::to_string(length * 2) + " hex digits";
                return false;
            }
            record.SetDigest(static_cast<size_t>(index), bytes);
        } else {
            error = "unknown field " + Quoted(key);
            return false;
        }
    }
    if (!scan.AtEnd()) {
        error = "not valid JSON";
        return false;
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
