// WildcardPattern: one trust-rule pattern compiled once, matched many times.
//
// Immutable after construction, so one instance may be matched from every
// thread at once. The rule store's WildcardMatch compiles one per call; the
// in-memory trust rules keep theirs for the life of the rule set.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zorv {

class WildcardPattern {
public:
    // `pattern` is already lower-case, as the trust-rule matcher passes it.
    explicit WildcardPattern(std::u16string_view pattern);

    // Equal texts match; a pattern without '*' or '?' matches nothing else.
    // Otherwise "dir\**" reads as "dir\**\*" and "dir\" as "dir\*", then '*'
    // and '?' never cross a separator and "**\" or "**/" span any number of
    // levels. `text` is lower-case too.
    bool Matches(std::u16string_view text) const;

    // What every text the pattern can match has, for a caller that rejects
    // candidates before calling Matches: a length of at least MinLength() and,
    // when PrefixLength() is not 0, PrefixLast() at PrefixLength() - 1. A text
    // equal to the pattern has both too. Meaningful only when IsWildcard().
    bool IsWildcard() const { return m_wildcard; }
    uint32_t MinLength() const { return m_minLength; }
    uint32_t PrefixLength() const { return m_prefix; }
    char16_t PrefixLast() const { return m_prefix != 0 ? m_steps[m_prefix - 1].unit : u'\0'; }

    // The pattern as given, for the log.
    const std::u16string& Text() const { return m_text; }
    // Heap bytes this pattern holds beyond its own size.
    size_t HeapBytes() const;

    // One element of the compiled form. A "**" followed by a separator
    // becomes two: the position at a level boundary, where the element may
    // end, and the position inside a level, where it may not, so that only
    // whole levels match.
    enum class Element : uint8_t {
        Literal,    // the unit itself
        AnyOne,     // '?': one unit that is not a separator
        AnyRun,     // '*': any run of units that are not separators
        AnyLevels,  // "**\" or "**/": empty, or any run ending in a separator
        LevelsMid   // inside a level of the AnyLevels element just before it
    };

private:
    bool MatchElements(std::u16string_view text) const;

    std::u16string m_text;
    bool m_wildcard = false;
    struct Step {
        char16_t unit;  // the literal of a Literal element
        Element kind;
    };
    std::vector<Step> m_steps;
    // Cheap rejections before the automaton runs: every match starts with the
    // leading literals, ends with the trailing ones and is at least this long.
    uint32_t m_prefix = 0;     // leading Literal elements
    uint32_t m_suffix = 0;     // trailing Literal elements
    uint32_t m_minLength = 0;  // Literal and AnyOne elements
};

}  // namespace zorv
