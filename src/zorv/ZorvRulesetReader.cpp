#include "ZorvRulesetReader.h"

#include <cstdint>
#include <cstring>
#include <memory>

namespace zorv {

namespace {

// How many arrays and objects are open at the deepest point of `item`,
// itself included.
int Nesting(const cJSON* item) {
    if (!cJSON_IsArray(item) && !cJSON_IsObject(item)) return 0;
    int deepest = 0;
    for (const cJSON* child = item->child; child != nullptr; child = child->next) {
        const int depth = Nesting(child);
        if (depth > deepest) deepest = depth;
    }
    return deepest + 1;
}

}  // namespace

RulesetReader::RulesetReader(std::string_view text, const char* const* keys, size_t keyCount)
    : m_text(text.data()),
      m_end(text.size()),
      m_keys(keys),
      m_keyCount(keyCount < 32 ? keyCount : 32) {
    // cJSON reads a C string: whatever follows a NUL byte is not there.
    if (const void* nul = std::memchr(m_text, '\0', m_end)) m_end = static_cast<size_t>(static_cast<const char*>(nul) - m_text);
}

void RulesetReader::SkipSpace() {
    while (m_pos < m_end && static_cast<unsigned char>(m_text[m_pos]) <= 32) ++m_pos;
}

bool RulesetReader::Fail() {
    m_error = m_text + (m_pos < m_end ? m_pos : m_end);
    return false;
}

cJSON* RulesetReader::Value(int open) {
    // cJSON skips a byte-order mark at the start of the text it is given: here
    // that would be the middle of the document, where the mark is an error.
    if (static_cast<unsigned char>(At()) == 0xEF) {
        Fail();
        return nullptr;
    }
    // The length takes in the NUL after the text, as cJSON_ParseWithOpts does.
    const char* end = nullptr;
    cJSON* value = cJSON_ParseWithLengthOpts(m_text + m_pos, m_end + 1 - m_pos, &end, 0);
    if (value == nullptr) {
        m_error = end != nullptr ? end : m_text + m_pos;
        return nullptr;
    }
    // Parsed on its own the value started with nothing open; inside the
    // document the same nesting limit counts the containers around it too.
    if (open + Nesting(value) > CJSON_NESTING_LIMIT) {
        cJSON_Delete(value);
        Fail();
        return nullptr;
    }
    m_pos = static_cast<size_t>(end - m_text);
    return value;
}

bool RulesetReader::Container(int open, size_t key, const Visitor& visit) {
    if (open >= CJSON_NESTING_LIMIT) return Fail();
    const bool isObject = At() == '{';
    const char close = isObject ? '}' : ']';
    ++m_pos;
    SkipSpace();
    if (At() == close) {
        ++m_pos;
        return true;
    }
    for (;;) {
        if (isObject) {
            if (At() != '"') return Fail();
            const std::unique_ptr<cJSON, Deleter> name(Value(open + 1));
            if (!name) return false;
            SkipSpace();
            if (At() != ':') return Fail();
            ++m_pos;
            SkipSpace();
        }
        const std::unique_ptr<cJSON, Deleter> child(Value(open + 1));
        if (!child) return false;
        if (key != kNone && !visit(key, *child)) {
            m_stopped = true;
            return false;
        }
        SkipSpace();
        if (At() != ',') break;
        ++m_pos;
        SkipSpace();
    }
    if (At() != close) return Fail();
    ++m_pos;
    return true;
}

bool RulesetReader::TopObject(const Visitor& visit) {
    uint32_t seen = 0;
    ++m_pos;
    SkipSpace();
    if (At() == '}') {
        ++m_pos;
        return true;
    }
    for (;;) {
        if (At() != '"') return Fail();
        const std::unique_ptr<cJSON, Deleter> name(Value(1));
        if (!name) return false;
        SkipSpace();
        if (At() != ':') return Fail();
        ++m_pos;
        SkipSpace();
        // cJSON_GetObjectItemCaseSensitive finds the first member whose name
        // compares equal as a C string, whatever its value; later ones with
        // that name are read only to be checked.
        size_t key = kNone;
        const char* text = name->valuestring != nullptr ? name->valuestring : "";
        for (size_t i = 0; i < m_keyCount; ++i) {
            if (std::strcmp(m_keys[i], text) != 0) continue;
            if ((seen & (uint32_t{1} << i)) == 0) key = i;
            seen |= uint32_t{1} << i;
            break;
        }
        if (At() == '[' || At() == '{') {
            if (!Container(1, key, visit)) return false;
        } else {
            const std::unique_ptr<cJSON, Deleter> value(Value(1));
            if (!value) return false;
        }
        SkipSpace();
        if (At() != ',') break;
        ++m_pos;
        SkipSpace();
    }
    if (At() != '}') return Fail();
    ++m_pos;
    return true;
}

RulesetReader::Outcome RulesetReader::Read(const Visitor& visit) {
    m_pos = 0;
    m_error = nullptr;
    m_stopped = false;
    // cJSON looks for the mark only when the text (with its NUL) has five bytes.
    if (m_end >= 4 && std::memcmp(m_text, "\xEF\xBB\xBF", 3) == 0) m_pos = 3;
    SkipSpace();
    const bool isObject = At() == '{';
    bool ok;
    if (isObject) {
        ok = TopObject(visit);
    } else if (At() == '[') {
        ok = Container(0, kNone, visit);
    } else {
        const std::unique_ptr<cJSON, Deleter> value(Value(0));
        ok = value != nullptr;
    }
    if (m_stopped) return Outcome::Stopped;
    if (ok) {
        SkipSpace();
        if (m_pos != m_end) ok = Fail();
    }
    if (!ok) return Outcome::Malformed;
    return isObject ? Outcome::Object : Outcome::NotObject;
}

}  // namespace zorv
