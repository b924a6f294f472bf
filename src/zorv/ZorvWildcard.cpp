#include "ZorvWildcard.h"

#include <algorithm>
#include <array>

namespace zorv {

namespace {

bool IsSeparator(char16_t unit) { return unit == u'\\' || unit == u'/'; }

enum Kind : uint8_t { kLiteral, kAnyOne, kAnyRun, kAnyLevels, kAccept };

void SetBit(std::vector<uint64_t>& mask, size_t i) { mask[i / 64] |= uint64_t{1} << (i % 64); }

size_t OtherSlot(char16_t unit, size_t mask) { return (static_cast<size_t>(unit) * 40503u >> 4) & mask; }

// One step of the automaton over W words. S holds the positions reached; M
// the "**\" elements whose current level has begun (inside a level they may
// not end, so they live apart from S until the next separator).
template <size_t W>
bool Run(std::u16string_view text, size_t words, const uint64_t* start, const uint64_t* accept,
         const uint64_t* anyRun, const uint64_t* anyLevels, const uint64_t* empty, const auto& row) {
    // W == 0 is the general case: the size is known only at run time.
    const size_t n = W == 0 ? words : W;
    constexpr size_t kCap = W == 0 ? 64 : W;
    std::array<uint64_t, kCap> s{}, m{};

    // Positions after elements that may match nothing are reached too. Adding
    // the reached ones to the runs of such elements carries a bit from each to
    // the end of its run: (runs + reached) ^ runs marks every position from a
    // reached one up to the one after its run. One pass, low word first.
    uint64_t closeCarry = 0;
    const auto close = [&](uint64_t reached, size_t w) {
        const uint64_t runs = empty[w];
        const uint64_t sum = runs + (reached & runs);
        const uint64_t total = sum + closeCarry;
        closeCarry = (sum < runs) | (total < sum);
        return reached | (total ^ runs);
    };

    for (size_t w = 0; w < n; ++w) s[w] = close(start[w], w);
    for (const char16_t unit : text) {
        // A row holds the positions the unit moves on: its literals, and for a
        // unit that is not a separator, every '?' as well.
        const uint64_t* moves = row(unit);
        uint64_t alive = 0;
        uint64_t carry = 0;
        closeCarry = 0;
        if (IsSeparator(unit)) {
            // A separator ends every begun level of "**": back to its boundary.
            for (size_t w = 0; w < n; ++w) {
                const uint64_t moving = s[w] & moves[w];
                const uint64_t next = (moving << 1) | carry | (s[w] & anyLevels[w]) | m[w];
                carry = moving >> 63;
                m[w] = 0;
                s[w] = close(next, w);
                alive |= next;
            }
        } else {
            for (size_t w = 0; w < n; ++w) {
                const uint64_t moving = s[w] & moves[w];
                const uint64_t next = (moving << 1) | carry | (s[w] & anyRun[w]);
                carry = moving >> 63;
                m[w] = (s[w] | m[w]) & anyLevels[w];
                s[w] = close(next, w);
                alive |= next | m[w];
            }
        }
        if (alive == 0) return false;
    }
    for (size_t w = 0; w < n; ++w) {
        if ((s[w] & accept[w]) != 0) return true;
    }
    return false;
}

}  // namespace

WildcardPattern WildcardPattern::CompileList(std::u16string_view patterns) {
    WildcardPattern compiled;
    if (!Fits(patterns)) return compiled;
    size_t start = 0;
    while (start <= patterns.size()) {
        size_t end = patterns.find(u';', start);
        if (end == std::u16string_view::npos) end = patterns.size();
        if (end > start) compiled.Add(patterns.substr(start, end - start));
        start = end + 1;
    }
    compiled.Finish();
    return compiled;
}

WildcardPattern WildcardPattern::CompileOne(std::u16string_view pattern) {
    WildcardPattern compiled;
    if (!Fits(pattern)) return compiled;
    compiled.Add(pattern);
    compiled.Finish();
    return compiled;
}

void WildcardPattern::Add(std::u16string_view pattern) {
    m_exact.emplace_back(pattern);
    if (pattern.find_first_of(u"*?") == std::u16string_view::npos) return;

    std::u16string rewritten(pattern);
    // "dir\**" means everything below dir, and "dir\" the files directly in it.
    if (rewritten.size() >= 2 && rewritten.compare(rewritten.size() - 2, 2, u"**") == 0) rewritten += u"\\*";
    if (!rewritten.empty() && IsSeparator(rewritten.back())) rewritten += u'*';

    m_starts.push_back(m_kinds.size());
    for (size_t i = 0; i < rewritten.size(); ++i) {
        const char16_t unit = rewritten[i];
        Kind kind = kLiteral;
        if (unit == u'?') {
            kind = kAnyOne;
        } else if (unit == u'*') {
            if (i + 2 < rewritten.size() && rewritten[i + 1] == u'*' && IsSeparator(rewritten[i + 2])) {
                kind = kAnyLevels;
                i += 2;
            } else {
                kind = kAnyRun;
            }
        }
        // Adjacent runs of '*' accept the same texts as one.
        if (kind == kAnyRun && m_kinds.size() > m_starts.back() && m_kinds.back() == kAnyRun) continue;
        m_kinds.push_back(kind);
        m_units.push_back(unit);
    }
    m_accepts.push_back(m_kinds.size());
    m_kinds.push_back(kAccept);
    m_units.push_back(0);
}

void WildcardPattern::Finish() {
    m_positions = m_kinds.size();
    m_words = (m_positions + 63) / 64;
    if (m_words == 0) return;
    for (auto* mask : {&m_start, &m_accept, &m_anyOne, &m_anyRun, &m_anyLevels, &m_empty}) {
        mask->assign(m_words, 0);
    }
    for (size_t i : m_starts) SetBit(m_start, i);
    for (size_t i : m_accepts) SetBit(m_accept, i);

    // Row 0 serves units no literal names; separators always get rows of
    // their own, since '?' never moves on them.
    std::vector<char16_t> distinct{u'\\', u'/'};
    for (size_t i = 0; i < m_positions; ++i) {
        switch (m_kinds[i]) {
            case kAnyOne: SetBit(m_anyOne, i); break;
            case kAnyRun: SetBit(m_anyRun, i); SetBit(m_empty, i); break;
            case kAnyLevels: SetBit(m_anyLevels, i); SetBit(m_empty, i); break;
            case kLiteral: distinct.push_back(m_units[i]); break;
            default: break;
        }
    }
    std::sort(distinct.begin(), distinct.end());
    distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
    m_rows.assign((distinct.size() + 1) * m_words, 0);
    size_t others = 0;
    for (char16_t unit : distinct) others += unit >= 128 ? 1 : 0;
    size_t slots = 1;
    while (slots < others * 2) slots *= 2;
    if (others > 0) {
        m_otherKeys.assign(slots, 0);
        m_otherRows.assign(slots, 0);
    }
    for (size_t r = 0; r < distinct.size(); ++r) {
        const char16_t unit = distinct[r];
        const auto row = static_cast<uint16_t>(r + 1);
        if (unit < 128) {
            m_asciiRow[unit] = row;
        } else {
            size_t slot = OtherSlot(unit, slots - 1);
            while (m_otherRows[slot] != 0) slot = (slot + 1) & (slots - 1);
            m_otherKeys[slot] = unit;
            m_otherRows[slot] = row;
        }
    }
    for (size_t i = 0; i < m_positions; ++i) {
        if (m_kinds[i] != kLiteral) continue;
        const uint64_t* row = Row(m_units[i]);
        const size_t r = static_cast<size_t>(row - m_rows.data()) / m_words;
        m_rows[r * m_words + i / 64] |= uint64_t{1} << (i % 64);
    }
    for (size_t r = 0; r <= distinct.size(); ++r) {
        if (r > 0 && IsSeparator(distinct[r - 1])) continue;
        for (size_t w = 0; w < m_words; ++w) m_rows[r * m_words + w] |= m_anyOne[w];
    }
    m_kinds.clear();
    m_kinds.shrink_to_fit();
    m_units.clear();
    m_units.shrink_to_fit();
    m_starts.clear();
    m_accepts.clear();
}

const uint64_t* WildcardPattern::Row(char16_t unit) const {
    if (unit < 128) return m_rows.data() + m_asciiRow[unit] * m_words;
    if (m_otherRows.empty()) return m_rows.data();
    const size_t mask = m_otherRows.size() - 1;
    for (size_t slot = OtherSlot(unit, mask);; slot = (slot + 1) & mask) {
        if (m_otherRows[slot] == 0) return m_rows.data();
        if (m_otherKeys[slot] == unit) return m_rows.data() + m_otherRows[slot] * m_words;
    }
}

bool WildcardPattern::Match(std::u16string_view text) const {
    for (const std::u16string& exact : m_exact) {
        if (exact == text) return true;
    }
    if (m_words == 0) return false;
    const auto row = [this](char16_t unit) { return Row(unit); };
    const uint64_t* masks[] = {m_start.data(), m_accept.data(), m_anyRun.data(), m_anyLevels.data(),
                               m_empty.data()};
    switch (m_words) {
#define ZORV_WILDCARD_WORDS(W) \
    case W: return Run<W>(text, W, masks[0], masks[1], masks[2], masks[3], masks[4], row);
        ZORV_WILDCARD_WORDS(1)
        ZORV_WILDCARD_WORDS(2)
        ZORV_WILDCARD_WORDS(3)
        ZORV_WILDCARD_WORDS(4)
        ZORV_WILDCARD_WORDS(5)
        ZORV_WILDCARD_WORDS(6)
        ZORV_WILDCARD_WORDS(7)
        ZORV_WILDCARD_WORDS(8)
#undef ZORV_WILDCARD_WORDS
        default: return Run<0>(text, m_words, masks[0], masks[1], masks[2], masks[3], masks[4], row);
    }
}

}  // namespace zorv
