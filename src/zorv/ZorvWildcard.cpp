#include "ZorvWildcard.h"

#include <algorithm>
#include <array>

namespace zorv {

namespace {

bool IsSeparator(char16_t unit) { return unit == u'\\' || unit == u'/'; }

enum Kind : uint8_t { kLiteral, kAnyOne, kAnyRun, kAnyLevels, kAccept };

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

// Building state, on the stack: a pattern of n units yields at most n + 2
// elements and an accepting position, so a list that fits has at most four
// positions per unit.
struct WildcardPattern::Builder {
    static constexpr size_t kMaxPositions = 4 * kMaxPatternUnits;
    std::u16string exact;
    std::array<uint8_t, kMaxPositions> kinds;
    std::array<char16_t, kMaxPositions> units;
    std::array<uint16_t, kMaxPatternUnits> starts, accepts;
    size_t positions = 0;
    size_t patterns = 0;
    bool wild = false;

    void Add(std::u16string_view pattern);
};

void WildcardPattern::Builder::Add(std::u16string_view pattern) {
    exact += static_cast<char16_t>(pattern.size());
    exact += pattern;
    if (pattern.find_first_of(u"*?") == std::u16string_view::npos) return;
    wild = true;

    std::u16string rewritten(pattern);
    // "dir\**" means everything below dir, and "dir\" the files directly in it.
    if (rewritten.size() >= 2 && rewritten.compare(rewritten.size() - 2, 2, u"**") == 0) rewritten += u"\\*";
    if (!rewritten.empty() && IsSeparator(rewritten.back())) rewritten += u'*';

    const size_t first = positions;
    starts[patterns] = static_cast<uint16_t>(first);
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
        if (kind == kAnyRun && positions > first && kinds[positions - 1] == kAnyRun) continue;
        kinds[positions] = kind;
        units[positions] = unit;
        ++positions;
    }
    accepts[patterns] = static_cast<uint16_t>(positions);
    kinds[positions] = kAccept;
    units[positions] = 0;
    ++positions;
    ++patterns;
}

WildcardPattern WildcardPattern::CompileList(std::u16string_view patterns) {
    if (!Fits(patterns)) return {};
    Builder builder;
    size_t start = 0;
    while (start <= patterns.size()) {
        size_t end = patterns.find(u';', start);
        if (end == std::u16string_view::npos) end = patterns.size();
        if (end > start) builder.Add(patterns.substr(start, end - start));
        start = end + 1;
    }
    return Build(builder);
}

WildcardPattern WildcardPattern::CompileOne(std::u16string_view pattern) {
    if (!Fits(pattern)) return {};
    Builder builder;
    builder.Add(pattern);
    return Build(builder);
}

WildcardPattern WildcardPattern::Build(Builder& b) {
    WildcardPattern compiled;
    compiled.m_exact = std::move(b.exact);
    // A list without wildcards is only its texts.
    if (!b.wild) return compiled;

    const size_t positions = b.positions;
    const size_t words = (positions + 63) / 64;

    // Row 0 serves units no literal names; separators always get rows of
    // their own, since '?' never moves on them.
    std::array<char16_t, Builder::kMaxPositions + 2> distinct;
    size_t count = 0;
    distinct[count++] = u'\\';
    distinct[count++] = u'/';
    for (size_t i = 0; i < positions; ++i) {
        if (b.kinds[i] == kLiteral) distinct[count++] = b.units[i];
    }
    std::sort(distinct.begin(), distinct.begin() + count);
    count = static_cast<size_t>(std::unique(distinct.begin(), distinct.begin() + count) - distinct.begin());
    size_t others = 0;
    for (size_t r = 0; r < count; ++r) others += distinct[r] >= 128 ? 1 : 0;
    size_t slots = 0;
    if (others > 0) {
        slots = 1;
        while (slots < others * 2) slots *= 2;
    }

    constexpr size_t kAsciiWords = 128 / sizeof(uint64_t);
    const size_t masksAt = kAsciiWords + (slots + 1) / 2;
    const size_t rowsAt = masksAt + 5 * words;
    compiled.m_words = static_cast<uint16_t>(words);
    compiled.m_otherSlots = static_cast<uint16_t>(slots);
    compiled.m_rowsAt = static_cast<uint16_t>(rowsAt);
    std::vector<uint64_t>& block = compiled.m_block;
    block.assign(rowsAt + (count + 1) * words, 0);
    uint64_t* const start = block.data() + masksAt;
    uint64_t* const accept = start + words;
    uint64_t* const anyRun = accept + words;
    uint64_t* const anyLevels = anyRun + words;
    uint64_t* const empty = anyLevels + words;
    uint64_t* const rows = block.data() + rowsAt;
    const auto set = [](uint64_t* mask, size_t i) { mask[i / 64] |= uint64_t{1} << (i % 64); };

    for (size_t p = 0; p < b.patterns; ++p) {
        set(start, b.starts[p]);
        set(accept, b.accepts[p]);
    }
    std::array<uint64_t, (Builder::kMaxPositions + 63) / 64> anyOne{};
    for (size_t i = 0; i < positions; ++i) {
        switch (b.kinds[i]) {
            case kAnyOne: set(anyOne.data(), i); break;
            case kAnyRun: set(anyRun, i); set(empty, i); break;
            case kAnyLevels: set(anyLevels, i); set(empty, i); break;
            default: break;
        }
    }

    // distinct is sorted, so ASCII units take rows 1..128 and fit a byte.
    auto* const asciiRow = reinterpret_cast<uint8_t*>(block.data());
    for (size_t r = 0; r < count; ++r) {
        const char16_t unit = distinct[r];
        const size_t row = r + 1;
        if (unit < 128) {
            asciiRow[unit] = static_cast<uint8_t>(row);
        } else {
            size_t slot = OtherSlot(unit, slots - 1);
            while (((block[kAsciiWords + slot / 2] >> (32 * (slot % 2))) >> 16 & 0xFFFF) != 0) {
                slot = (slot + 1) & (slots - 1);
            }
            block[kAsciiWords + slot / 2] |= (uint64_t{unit} | uint64_t{row} << 16) << (32 * (slot % 2));
        }
    }
    for (size_t i = 0; i < positions; ++i) {
        if (b.kinds[i] != kLiteral) continue;
        const uint64_t* row = compiled.Row(b.units[i]);
        const size_t r = static_cast<size_t>(row - rows) / words;
        rows[r * words + i / 64] |= uint64_t{1} << (i % 64);
    }
    for (size_t r = 0; r <= count; ++r) {
        if (r > 0 && IsSeparator(distinct[r - 1])) continue;
        for (size_t w = 0; w < words; ++w) rows[r * words + w] |= anyOne[w];
    }
    return compiled;
}

const uint64_t* WildcardPattern::Row(char16_t unit) const {
    const uint64_t* const rows = m_block.data() + m_rowsAt;
    if (unit < 128) return rows + reinterpret_cast<const uint8_t*>(m_block.data())[unit] * size_t{m_words};
    if (m_otherSlots == 0) return rows;
    constexpr size_t kAsciiWords = 128 / sizeof(uint64_t);
    const size_t mask = m_otherSlots - 1;
    for (size_t slot = OtherSlot(unit, mask);; slot = (slot + 1) & mask) {
        const uint64_t entry = m_block[kAsciiWords + slot / 2] >> (32 * (slot % 2));
        const size_t row = (entry >> 16) & 0xFFFF;
        if (row == 0) return rows;
        if (static_cast<char16_t>(entry) == unit) return rows + row * m_words;
    }
}

bool WildcardPattern::Match(std::u16string_view text) const {
    const std::u16string_view exact(m_exact);
    for (size_t i = 0; i < exact.size();) {
        const size_t length = exact[i];
        if (exact.substr(i + 1, length) == text) return true;
        i += 1 + length;
    }
    if (m_words == 0) return false;
    const auto row = [this](char16_t unit) { return Row(unit); };
    const uint64_t* const start = m_block.data() + m_rowsAt - 5 * size_t{m_words};
    const uint64_t* masks[] = {start, start + m_words, start + 2 * m_words, start + 3 * m_words,
                               start + 4 * m_words};
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
