#include "EventLine.h"

#include <array>
#include <bit>
#include <cstring>
#include <memory>
#include <optional>

#include "HostEngine.h"

namespace zorv::host {

namespace {

// How many characters at the start of `text` need no decoding: none is '"',
// '\\' or a control character. Eight at a step: most of a line is the texts
// and digests inside its strings.
size_t PlainRun(std::string_view text) {
    constexpr uint64_t kOnes = 0x0101010101010101ull, kHighs = 0x8080808080808080ull;
    size_t at = 0;
    for (; at + 8 <= text.size(); at += 8) {
        uint64_t word;
        std::memcpy(&word, text.data() + at, sizeof word);
        const uint64_t quote = word ^ (kOnes * '"'), backslash = word ^ (kOnes * '\\');
        // A byte's high bit is set where it was zero, or below 0x20; the
        // lowest one set is always a true match (a borrow only runs upward
        // from one).
        const uint64_t found = ((quote - kOnes) & ~quote) | ((backslash - kOnes) & ~backslash) |
                               ((word - kOnes * 0x20) & ~word);
        const uint64_t hits = found & kHighs;
        if (hits != 0) {
            if constexpr (std::endian::native == std::endian::little) return at + std::countr_zero(hits) / 8;
            break;
        }
    }
    while (at < text.size() && text[at] != '"' && text[at] != '\\' && static_cast<unsigned char>(text[at]) >= 0x20)
        ++at;
    return at;
}

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

    // A JSON string as a view: into the line when it has no escape (most
    // have none), else into `storage` with the escapes decoded.
    bool StringView(std::string_view& out, std::string& storage) {
        SkipSpace();
        if (m_at < m_text.size() && m_text[m_at] == '"') {
            const size_t end = m_at + 1 + PlainRun(m_text.substr(m_at + 1));
            if (end < m_text.size() && m_text[end] == '"') {
                out = m_text.substr(m_at + 1, end - m_at - 1);
                m_at = end + 1;
                return true;
            }
        }
        if (!String(storage)) return false;
        out = storage;
        return true;
    }

    // A JSON string, escapes decoded to UTF-8 bytes (validated later).
    bool String(std::string& out) {
        out.clear();
        if (!Take('"')) return false;
        while (m_at < m_text.size()) {
            // A run of plain characters is taken whole: most strings have no escape.
            const size_t plain = m_at + PlainRun(m_text.substr(m_at));
            out.append(m_text.data() + m_at, plain - m_at);
            m_at = plain;
            if (m_at >= m_text.size()) return false;
            const char c = m_text[m_at++];
            if (c == '"') return true;
            if (static_cast<unsigned char>(c) < 0x20) return false;
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
        switch (c) {
            case '"': return Kind::kString;
            case '{':
            case '[': return Kind::kComposite;
            case 't': return Word("true") ? Kind::kTrue : Kind::kInvalid;
            case 'f': return Word("false") ? Kind::kFalse : Kind::kInvalid;
            case 'n': return Word("null") ? Kind::kNull : Kind::kInvalid;
            default: break;
        }
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

// Every member name of an event line, in a small open-addressed table built
// once: a replay looks up millions of names, and a general hash map spent
// more on hashing and comparing them than on the rest of the line.
struct FieldRef {
    enum Kind : uint8_t { kType, kNumber, kByte, kText, kDigest } kind;
    uint8_t index;
};

class FieldTable {
public:
    FieldTable() {
        Add("type", FieldRef{FieldRef::kType, 0});
        const auto add = [this](const auto& table, FieldRef::Kind kind) {
            for (size_t i = 0; i < std::size(table); ++i) Add(table[i].name, FieldRef{kind, static_cast<uint8_t>(i)});
        };
        add(kNumberFields, FieldRef::kNumber);
        add(kByteFields, FieldRef::kByte);
        add(kTextFields, FieldRef::kText);
        add(kDigestFields, FieldRef::kDigest);
    }

    const FieldRef* Find(std::string_view key) const {
        if (key.empty()) return nullptr;
        for (size_t slot = Slot(key);; slot = (slot + 1) % kSlots) {
            const Entry& entry = m_entries[slot];
            if (entry.name.empty()) return nullptr;
            if (Same(entry.name, key)) return &entry.ref;
        }
    }

private:
    // Fewer than a third of the slots are used, so a probe ends quickly.
    static constexpr size_t kSlots = 128;
    struct Entry {
        std::string_view name;
        FieldRef ref{};
    };

    static size_t Slot(std::string_view key) {
        const auto at = [&key](size_t i) { return static_cast<size_t>(static_cast<unsigned char>(key[i])); };
        return (key.size() * 31 + at(0) * 7 + at(key.size() - 1) * 13 + at(key.size() / 2)) % kSlots;
    }
    // Names are short: a plain loop beats a call to memcmp.
    static bool Same(std::string_view a, std::string_view b) {
        if (a.size() != b.size()) return false;
        for (size_t i = 0; i < a.size(); ++i)
            if (a[i] != b[i]) return false;
        return true;
    }
    void Add(std::string_view name, FieldRef ref) {
        size_t slot = Slot(name);
        while (!m_entries[slot].name.empty()) slot = (slot + 1) % kSlots;
        m_entries[slot] = Entry{name, ref};
    }

    std::array<Entry, kSlots> m_entries{};
};

const FieldTable& Fields() {
    static const FieldTable fields;
    return fields;
}

// A key is the line's own text: escaped, the error stays one printable line.
std::string Quoted(std::string_view key) { return "\"" + Printable(key) + "\""; }

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
    std::string keyStorage, textStorage;
    std::string_view key, text;
    bool first = true;
    while (!scan.Take('}')) {
        if (!first && !scan.Take(',')) {
            error = "not valid JSON";
            return false;
        }
        first = false;
        if (!scan.StringView(key, keyStorage) || !scan.Take(':')) {
            error = "not valid JSON";
            return false;
        }
        uint64_t value = 0;
        const LineScanner::Kind kind = scan.Value(value);
        if (kind == LineScanner::Kind::kInvalid) {
            error = "not valid JSON";
            return false;
        }
        if (kind == LineScanner::Kind::kString && !scan.StringView(text, textStorage)) {
            error = "not valid JSON";
            return false;
        }
        const FieldRef* found = Fields().Find(key);
        if (found == nullptr) {
            error = "unknown field " + Quoted(key);
            return false;
        }
        const size_t index = found->index;
        switch (found->kind) {
            case FieldRef::kType:
                if (kind != LineScanner::Kind::kUnsigned || value > UINT32_MAX) {
                    error = "\"type\": expected an operation code (unsigned 32-bit integer)";
                    return false;
                }
                numbers.type = static_cast<uint32_t>(value);
                break;
            case FieldRef::kNumber:
                if (kind != LineScanner::Kind::kUnsigned) {
                    error = Quoted(key) + ": expected an unsigned integer";
                    return false;
                }
                numbers.*(kNumberFields[index].member) = value;
                break;
            case FieldRef::kByte:
                if (kind == LineScanner::Kind::kTrue || kind == LineScanner::Kind::kFalse) {
                    value = kind == LineScanner::Kind::kTrue ? 1 : 0;
                } else if (kind != LineScanner::Kind::kUnsigned || value > 255) {
                    error = Quoted(key) + ": expected true, false or 0..255";
                    return false;
                }
                numbers.*(kByteFields[index].member) = static_cast<uint8_t>(value);
                break;
            case FieldRef::kText:
                if (kind != LineScanner::Kind::kString) {
                    error = Quoted(key) + ": expected a string";
                    return false;
                }
                if (!Utf8ToZ(text, record.TextSlot(index))) {
                    error = Quoted(key) + ": not valid UTF-8";
                    return false;
                }
                break;
            case FieldRef::kDigest: {
                uint8_t bytes[32];
                const size_t length = kDigestFields[index].length;
                if (kind != LineScanner::Kind::kString || !FromHex(text, bytes, length)) {
                    error = Quoted(key) + ": expected " + std::to_string(length * 2) + " hex digits";
                    return false;
                }
                record.SetDigest(index, bytes);
                break;
            }
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
