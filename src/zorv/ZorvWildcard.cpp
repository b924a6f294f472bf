// The trust-rule wildcard matcher: patterns compiled to a small automaton
// whose reachable positions are kept as bit sets, so a match costs at most
// text length times pattern length and never recurses.
#include "ZorvWildcard.h"

#include <algorithm>
#include <array>
#include <bit>

namespace zorv {

namespace {

bool IsSeparator(char16_t unit) { return unit == u'\\' || unit == u'/'; }

// A set of pattern positions, one bit each, over words the caller provides.
class StateSet {
public:
    StateSet(uint64_t* words, size_t wordCount) : m_words(words), m_count(wordCount) { Clear(); }
    bool Test(size_t i) const { return (m_words[i / 64] >> (i % 64)) & 1u; }
    void Set(size_t i) { m_words[i / 64] |= uint64_t{1} << (i % 64); }
    void Clear() { std::fill(m_words, m_words + m_count, 0); }
    bool Empty() const {
        for (size_t i = 0; i < m_count; ++i) {
            if (m_words[i] != 0) return false;
        }
        return true;
    }
    // Index of the first set bit at or after `from`, or `limit` when none.
    size_t Next(size_t from, size_t limit) const {
        while (from < limit) {
            const uint64_t word = m_words[from / 64] >> (from % 64);
            if (word != 0) return from + static_cast<size_t>(std::countr_zero(word));
            from = (from / 64 + 1) * 64;
        }
        return limit;
    }
    void Swap(StateSet& other) { std::swap(m_words, other.m_words); }

private:
    uint64_t* m_words;
    size_t m_count;
};

using Element = WildcardPattern::Element;

// The elements that may match nothing let the position after them be reached
// too. Positions only move forward, so one ascending pass closes the set.
template <typename Steps>
void CloseOverEmptyRuns(const Steps& steps, StateSet& states) {
    const size_t count = steps.size();
    for (size_t i = states.Next(0, count); i < count; i = states.Next(i + 1, count)) {
        if (steps[i].kind == Element::AnyRun) states.Set(i + 1);
        // At a level boundary the levels may end: skip the inside position too.
        if (steps[i].kind == Element::AnyLevels) states.Set(i + 2);
    }
}

}  // namespace

WildcardPattern::WildcardPattern(std::u16string_view pattern) : m_text(pattern) {
    // Without wildcards only equality can match; the separator rewriting below
    // must not turn a plain directory name into a pattern.
    m_wildcard = pattern.find_first_of(u"*?") != std::u16string_view::npos;
    if (!m_wildcard) return;

    std::u16string rewritten(pattern);
    // "dir\**" means everything below dir, and "dir\" the files directly in it.
    if (rewritten.size() >= 2 && rewritten.compare(rewritten.size() - 2, 2, u"**") == 0) rewritten += u"\\*";
    if (!rewritten.empty() && IsSeparator(rewritten.back())) rewritten += u'*';

    m_steps.reserve(rewritten.size());
    for (size_t i = 0; i < rewritten.size(); ++i) {
        const char16_t unit = rewritten[i];
        Element kind = Element::Literal;
        if (unit == u'?') {
            kind = Element::AnyOne;
        } else if (unit == u'*') {
            if (i + 2 < rewritten.size() && rewritten[i + 1] == u'*' && IsSeparator(rewritten[i + 2])) {
                kind = Element::AnyLevels;
                i += 2;
            } else {
                kind = Element::AnyRun;
            }
        }
        // Adjacent runs of '*' accept the same texts as one; folding them keeps
        // the state set small for patterns like "a***b".
        if (kind == Element::AnyRun && !m_steps.empty() && m_steps.back().kind == Element::AnyRun) continue;
        m_steps.push_back({unit, kind});
        if (kind == Element::AnyLevels) m_steps.push_back({unit, Element::LevelsMid});
    }
    const size_t count = m_steps.size();
    while (m_prefix < count && m_steps[m_prefix].kind == Element::Literal) ++m_prefix;
    while (m_suffix < count - m_prefix && m_steps[count - 1 - m_suffix].kind == Element::Literal) ++m_suffix;
    for (const Step& step : m_steps) {
        if (step.kind == Element::Literal || step.kind == Element::AnyOne) ++m_minLength;
    }
}

size_t WildcardPattern::HeapBytes() const {
    // A short text lives inside the string object itself.
    const size_t text = m_text.capacity() > 7 ? (m_text.capacity() + 1) * sizeof(char16_t) : 0;
    return text + m_steps.capacity() * sizeof(Step);
}

bool WildcardPattern::Matches(std::u16string_view text) const {
    if (text == m_text) return true;
    if (!m_wildcard) return false;
    if (text.size() < m_minLength) return false;
    // The last unit of the prefix first: rules that differ in a numbered name
    // differ there, so most of them are rejected by one comparison.
    const auto sameUnit = [](const Step& step, char16_t unit) { return step.unit == unit; };
    if (m_prefix != 0 && (text[m_prefix - 1] != m_steps[m_prefix - 1].unit ||
                          !std::equal(m_steps.begin(), m_steps.begin() + m_prefix, text.begin(), sameUnit))) {
        return false;
    }
    if (m_suffix != 0 && !std::equal(m_steps.end() - m_suffix, m_steps.end(), text.end() - m_suffix, sameUnit)) {
        return false;
    }
    return MatchElements(text);
}

// Simulates the pattern as an automaton over the text: each text unit moves
// every reachable position at once.
bool WildcardPattern::MatchElements(std::u16string_view text) const {
    const size_t count = m_steps.size();
    const size_t words = (count + 1 + 63) / 64;
    // Patterns of up to 255 elements, nearly all of them, need no allocation.
    std::array<uint64_t, 8> small{};
    std::vector<uint64_t> large;
    uint64_t* storage = small.data();
    if (2 * words > small.size()) {
        large.resize(2 * words);
        storage = large.data();
    }
    StateSet current(storage, words);
    StateSet next(storage + words, words);
    current.Set(0);
    CloseOverEmptyRuns(m_steps, current);
    for (const char16_t unit : text) {
        next.Clear();
        const bool separator = IsSeparator(unit);
        for (size_t i = current.Next(0, count); i < count; i = current.Next(i + 1, count)) {
            switch (m_steps[i].kind) {
                case Element::Literal:
                    if (m_steps[i].unit == unit) next.Set(i + 1);
                    break;
                case Element::AnyOne:
                    if (!separator) next.Set(i + 1);
                    break;
                case Element::AnyRun:
                    if (!separator) next.Set(i);
                    break;
                case Element::AnyLevels:
                    next.Set(separator ? i : i + 1);
                    break;
                case Element::LevelsMid:
                    next.Set(separator ? i - 1 : i);
                    break;
            }
        }
        if (next.Empty()) return false;
        CloseOverEmptyRuns(m_steps, next);
        current.Swap(next);
    }
    return current.Test(count);
}

}  // namespace zorv
