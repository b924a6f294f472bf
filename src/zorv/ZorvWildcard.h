// Path patterns of trust rules, compiled once and matched many times.
//
// A pattern list is one or more patterns separated by ';' (no escaping);
// empty patterns are skipped and an empty list matches nothing. In a pattern
// '?' is one unit that is not a separator ('\' or '/'), '*' any run of such
// units, "**\" or "**/" any number of whole levels (also none), and every
// other unit itself. A pattern without '*' or '?' matches only a text equal
// to it; one ending in "**" gets "\*" appended, and one ending in a separator
// gets '*', so that "c:\tools\" means the files directly in c:\tools.
//
// Matching runs every pattern of the list at once as one automaton whose
// states are bits of a few machine words: one pass over the text, a handful
// of word operations per unit, whatever the pattern. The cost is therefore
// linear in the text and in the list's length over 64; `kMaxPatternUnits`
// bounds the latter so that the worst case stays small even against the
// longest path Windows accepts.
//
// A compiled pattern is immutable: Match may run on many threads at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zorv {

class WildcardPattern {
public:
    // The longest pattern list a trust rule may hold, in UTF-16 units: the
    // classic Windows path limit, so one full path always fits. Longer rules
    // are refused at import.
    static constexpr size_t kMaxPatternUnits = 260;

    WildcardPattern() = default;

    // Compiles a ';' list as it stands (no case folding: callers compare
    // lower-cased texts with lower-cased patterns). A list longer than
    // kMaxPatternUnits compiles to one that matches nothing; check Fits first.
    static WildcardPattern CompileList(std::u16string_view patterns);
    // One pattern; ';' in it is an ordinary unit.
    static WildcardPattern CompileOne(std::u16string_view pattern);

    static bool Fits(std::u16string_view patterns) { return patterns.size() <= kMaxPatternUnits; }

    // Whether any pattern of the list accepts the whole text.
    bool Match(std::u16string_view text) const;
    bool Empty() const { return m_exact.empty() && m_words == 0; }

private:
    void Add(std::u16string_view pattern);
    void Finish();
    const uint64_t* Row(char16_t unit) const;

    // Patterns without wildcards, and the raw text of every pattern: equality
    // with either is a match before any rewriting.
    std::vector<std::u16string> m_exact;
    // Bit i of each mask (words of 64 bits, m_words per mask) describes the
    // automaton's position i. Positions are the elements of every pattern in
    // turn, each pattern followed by its accepting position.
    size_t m_words = 0;
    size_t m_positions = 0;
    std::vector<uint64_t> m_start;     // the first position of each pattern
    std::vector<uint64_t> m_accept;    // the last position of each pattern
    std::vector<uint64_t> m_anyOne;    // '?'
    std::vector<uint64_t> m_anyRun;    // '*'
    std::vector<uint64_t> m_anyLevels; // "**\": at a level boundary
    std::vector<uint64_t> m_empty;     // elements that may match nothing: '*' and "**\"
    // Literal positions per unit: row 0 is all zero, ASCII units index their
    // row directly, other units are found in a small open-addressed table.
    std::vector<uint64_t> m_rows;
    uint16_t m_asciiRow[128] = {};
    std::vector<char16_t> m_otherKeys;
    std::vector<uint16_t> m_otherRows;  // 0 marks a free slot
    // Building state.
    std::vector<uint8_t> m_kinds;
    std::vector<char16_t> m_units;
    std::vector<size_t> m_starts, m_accepts;
};

}  // namespace zorv
