// Reads a ruleset document a piece at a time instead of as one tree.
//
// A ruleset of a million rows parsed whole is a tree four or five times the
// size of its text. The reader walks the top-level object itself and hands
// the children of the keys an import reads (the elements of an array, the
// values of an object) to the caller one by one, each parsed by cJSON on its
// own and freed once the caller returns. Every other value is parsed and
// dropped the same way, so no more than one child's tree is alive at a time.
//
// The verdict is cJSON's, byte for byte: a document is an object exactly when
// cJSON_ParseWithOpts(text, nullptr, 1) would give an object, including
// cJSON's reading of a byte-order mark, of a NUL byte (the text ends there),
// of white space (every byte up to 32) and of its nesting limit. The children
// handed out are those cJSON_GetObjectItemCaseSensitive would reach: the
// first member of a duplicated key, compared as a C string. Since the verdict
// is known only at the end, a caller that acts on children as they come must
// be able to undo them (the import runs in one transaction).
#pragma once

#include <cjson/cJSON.h>

#include <cstddef>
#include <functional>
#include <string_view>

namespace zorv {

class RulesetReader {
public:
    enum class Outcome {
        Object,     // the document is one JSON object and nothing else
        NotObject,  // valid JSON, but an array, a string, a number...
        Malformed,  // not JSON: ErrorPosition() says where reading stopped
        Stopped,    // the caller's visitor asked to stop
    };

    // Called with the index (into `keys`) of the key whose child it is; false
    // stops the reading. The child is freed when the call returns.
    using Visitor = std::function<bool(size_t key, const cJSON& child)>;

    // `text` must be followed by a NUL byte, as a std::string's data is.
    RulesetReader(std::string_view text, const char* const* keys, size_t keyCount);

    Outcome Read(const Visitor& visit);

    // Where a Malformed document stopped the reading, inside the text; at
    // least one NUL-terminated byte is readable from there.
    const char* ErrorPosition() const { return m_error; }

private:
    struct Deleter {
        void operator()(cJSON* json) const { cJSON_Delete(json); }
    };

    char At() const { return m_pos < m_end ? m_text[m_pos] : '\0'; }
    void SkipSpace();
    bool Fail();
    // One value parsed by cJSON where the walk stands, as it would be parsed
    // inside `open` enclosing arrays and objects; null when it fails.
    cJSON* Value(int open);
    // An array or object whose children are parsed one at a time; `key` is
    // the index of the key they belong to, or kNone to drop them.
    bool Container(int open, size_t key, const Visitor& visit);
    bool TopObject(const Visitor& visit);

    static constexpr size_t kNone = static_cast<size_t>(-1);

    const char* m_text;
    size_t m_end;  // the first NUL byte, or the text's size
    size_t m_pos = 0;
    const char* const* m_keys;
    size_t m_keyCount;
    const char* m_error = nullptr;
    bool m_stopped = false;
};

}  // namespace zorv
