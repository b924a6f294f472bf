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
// of word operations per unit, whatever the pattern. Positions are the points
// between units that step ('?' and literals); a '*' or "**\" is a loop on the
// position it follows, not a position of its own, so a list that fits needs
// at most five words. The cost is linear in the text and in the list's length
// over 64; `kMaxPatternUnits` bounds the latter so that the worst case stays
// small even against the longest path Windows accepts.
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
    struct Builder;
    size_t RowIndex(char16_t unit) const;
    bool EndsLikeAnyPattern(std::u16string_view text) const;
    const uint64_t* Row(char16_t unit) const;
    static WildcardPattern Build(Builder& builder);

    // Patterns without wildcards, and the raw text of every pattern: equality
    // with either is a match before any rewriting. Each text is preceded by
    // its length in one unit, so a list of short names fits the string's own
    // buffer and a plain list needs nothing else.
    std::u16string m_exact;
    // The automaton, only for lists with a wildcard, in one block of words so
    // that rule sets of many thousand lists stay cheap to build and small:
    //   - a 128-byte row index for ASCII units,
    //   - an open-addressed table of other units, two 32-bit slots a word
    //     (unit in the low half, row in the high half; row 0 marks a free slot),
    //   - the masks start, accept, loop ('*'), levels ("**\\") and eps
    //     (positions always accompanied by the next), m_words each,
    //   - the step rows, m_words each; row 0 serves every unit no literal names.
    // Bit i of each mask describes the automaton's position i. Positions are
    // those of every pattern in turn, each pattern's last one accepting.
    std::vector<uint64_t> m_block;
    uint16_t m_words = 0;
    uint16_t m_otherSlots = 0;
    uint16_t m_rowsAt = 0;
    // Which of the costlier loops (levels, eps) the list has at all.
    uint8_t m_features = 0;
};

}  // namespace zorv
