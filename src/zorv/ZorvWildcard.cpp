#include "ZorvWildcard.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

namespace zorv {

namespace {

bool IsSeparator(char16_t unit) { return unit == u'\\' || unit == u'/'; }

// What a position of the automaton does besides stepping on to the next one.
enum Flag : uint8_t {
    kStepUnit = 1,   // steps on one given unit
    kStepAny = 2,    // steps on any unit that is not a separator ('?')
    kLoop = 4,       // stays on any unit that is not a separator ('*')
    kLevels = 8,     // "**\": comes back after every later separator
    kEps = 16,       // is always accompanied by the next position
    kStart = 32,
    kAccept = 64,
};
// A list feature: some eps position is the top bit of its word.
constexpr uint8_t kEpsAcross = 128;
// Positions a list may take, padding included: five words.
constexpr size_t kMaxWords = 5;

size_t OtherSlot(char16_t unit, size_t mask) { return (static_cast<size_t>(unit) * 40503u >> 4) & mask; }

// The automaton over W words (0: as many as `words` says). D holds the
// positions reached, E every position reached at any time so far. From a
// "**\" position any run of units ending in a separator leads back to it, so
// every separator brings back the "**\" positions of E, however much text lies
// between. A '*' is a loop on its position rather than a position of its own,
// so no closure over runs of optional elements is needed: only a '*' directly
// before "**\" keeps a second position, always reached with the first (eps).
//
// The per-unit work is what bounds a rule's worst case, so it is cut to what
// each word needs: `levelWords` and `epsWords` say which words
// hold any such position (the tests on them go the same way at every unit),
// and whether anything is still alive is asked once a block of units.
// kEpsMode is 0 without eps positions, 1 when none sits at the top of its
// word (compiling pads patterns so that this is the rule) and 2 otherwise.
template <size_t W, bool kWithLevels, int kEpsMode>
bool Run(std::u16string_view text, size_t words, const uint64_t* start, const uint64_t* accept, const uint64_t* loop,
         const uint64_t* levels, const uint64_t* eps, const uint64_t* rows, const auto& row) {
    // A list that fits has at most kMaxPatternUnits + 1 positions.
    constexpr size_t kCap = W == 0 ? (WildcardPattern::kMaxPatternUnits + 64) / 64 : W;
    const size_t n = W == 0 ? std::min(words, kCap) : W;
    std::array<uint64_t, kCap> d{}, e{};
    // Words with a '*' or an eps position; in a long run of literals most
    // words have neither and only step.
    unsigned levelWords = 0, epsWords = 0, extraWords = 0;
    for (size_t w = 0; w < n; ++w) {
        levelWords |= (levels[w] != 0 ? 1u : 0u) << w;
        epsWords |= (eps[w] != 0 ? 1u : 0u) << w;
        extraWords |= ((loop[w] | eps[w] | (w > 0 && eps[w - 1] >> 63 != 0 ? 1 : 0)) != 0 ? 1u : 0u) << w;
    }
    // A word's levels matter only once reached: E needs no update in a word
    // whose "**\" positions have all been seen.
    unsigned levelsPending = levelWords;

    // Eps targets are never eps sources, so one pass carries every bit.
    uint64_t epsCarry = 0;
    const auto follow = [&](uint64_t next, size_t w) {
        if constexpr (kEpsMode == 1) {
            next |= (next & eps[w]) << 1;
        } else if constexpr (kEpsMode == 2) {
            if ((epsWords >> w & 1u) != 0) {
                const uint64_t from = next & eps[w];
                next |= (from << 1) | epsCarry;
                epsCarry = from >> 63;
            } else {
                next |= epsCarry;
                epsCarry = 0;
            }
        }
        return next;
    };
    for (size_t w = 0; w < n; ++w) d[w] = follow(start[w], w);
    const size_t size = text.size();
    constexpr size_t kBlock = 16;
    for (size_t i = 0; i < size;) {
        const size_t blockEnd = std::min(size, i + kBlock);
        for (; i < blockEnd; ++i) {
            const char16_t unit = text[i];
            // A row holds the positions the unit steps on from: its literals
            // and, for a unit that is not a separator, every '?'.
            const uint64_t* moves = rows + row(unit) * n;
            uint64_t carry = 0;
            epsCarry = 0;
            if constexpr (kWithLevels) {
                if (levelsPending != 0) {
#pragma GCC unroll 8
                    for (size_t w = 0; w < n; ++w) {
                        if ((levelsPending >> w & 1u) != 0) {
                            e[w] |= d[w];
                            if ((e[w] & levels[w]) == levels[w]) levelsPending &= ~(1u << w);
                        }
                    }
                }
            }
            if (IsSeparator(unit)) [[unlikely]] {
#pragma GCC unroll 8
                for (size_t w = 0; w < n; ++w) {
                    const uint64_t moving = d[w] & moves[w];
                    uint64_t next = (moving << 1) | carry;
                    carry = moving >> 63;
                    if constexpr (kWithLevels) next |= e[w] & levels[w];
                    d[w] = follow(next, w);
                }
            } else {
#pragma GCC unroll 8
                for (size_t w = 0; w < n; ++w) {
                    const uint64_t moving = d[w] & moves[w];
                    uint64_t next = (moving << 1) | carry;
                    carry = moving >> 63;
                    if ((extraWords >> w & 1u) != 0) {
                        next |= d[w] & loop[w];
                        next = follow(next, w);
                    }
                    d[w] = next;
                }
            }
        }
        uint64_t alive = 0;
        for (size_t w = 0; w < n; ++w) alive |= d[w];
        if (alive == 0) {
            // Nothing is reached until a separator brings a "**\" back, if ever.
            if constexpr (!kWithLevels) {
                return false;
            } else {
                uint64_t waiting = 0;
                for (size_t w = 0; w < n; ++w) waiting |= (e[w] | d[w]) & levels[w];
                if (waiting == 0) return false;
                while (i < size && !IsSeparator(text[i])) ++i;
                if (i == size) return false;
            }
        }
    }
    for (size_t w = 0; w < n; ++w) {
        if ((d[w] & accept[w]) != 0) return true;
    }
    return false;
}

}  // namespace

// Building state, on the stack: a pattern of n units yields at most n + 1
// positions (one to start from, one after each unit that steps), so a list
// that fits has at most kMaxPatternUnits + 1; padding that keeps eps
// positions off the top of their words may use the rest of five words.
struct WildcardPattern::Builder {
    static constexpr size_t kMaxPositions = kMaxWords * 64;
    std::u16string exact;
    std::array<uint8_t, kMaxPositions> flags;
    std::array<char16_t, kMaxPositions> units;
    size_t positions = 0;
    bool wild = false;

    void Add(std::u16string_view pattern);
    size_t Open(uint8_t flag) {
        flags[positions] = flag;
        units[positions] = 0;
        return positions++;
    }
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

    size_t at = Open(kStart);
    size_t first = at;
    for (size_t i = 0; i < rewritten.size(); ++i) {
        const char16_t unit = rewritten[i];
        if (unit == u'?') {
            flags[at] |= kStepAny;
            at = Open(0);
        } else if (unit == u'*' && i + 2 < rewritten.size() && rewritten[i + 1] == u'*' && IsSeparator(rewritten[i + 2])) {
            i += 2;
            // "*" then "**\" is not "**\" then "*" (that one accepts anything):
            // the levels need a position of their own after the loop.
            if ((flags[at] & (kLoop | kLevels)) == kLoop) {
                flags[at] |= kEps;
                at = Open(kLevels);
            } else {
                flags[at] |= kLevels;
            }
        } else if (unit == u'*') {
            flags[at] |= kLoop;
        } else {
            flags[at] |= kStepUnit;
            units[at] = unit;
            at = Open(0);
        }
    }
    flags[at] |= kAccept;
    // An eps position at the top of a word would have to carry into the next
    // one at every unit; moving the whole pattern up by an unused position
    // keeps it within its word, when there is room.
    for (size_t tries = 0; tries < 64 && positions < kMaxPositions; ++tries) {
        bool across = false;
        for (size_t i = first; i < positions; ++i) across = across || ((flags[i] & kEps) != 0 && i % 64 == 63);
        if (!across) break;
        for (size_t i = positions; i > first; --i) {
            flags[i] = flags[i - 1];
            units[i] = units[i - 1];
        }
        flags[first] = 0;
        units[first] = 0;
        ++first;
        ++positions;
    }
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

// The row a unit steps by: a byte for ASCII, a short probe for the few other
// units a list names, row 0 for every unit it does not name.
inline size_t WildcardPattern::RowIndex(char16_t unit) const {
    const uint64_t* const block = m_block.data();
    if (unit < 128) [[likely]] return reinterpret_cast<const uint8_t*>(block)[unit];
    if (m_otherSlots == 0) return 0;
    constexpr size_t kAsciiWords = 128 / sizeof(uint64_t);
    const auto* const table = reinterpret_cast<const unsigned char*>(block + kAsciiWords);
    const size_t mask = m_otherSlots - 1;
    for (size_t slot = OtherSlot(unit, mask);; slot = (slot + 1) & mask) {
        // Slot s is the 32-bit half s % 2 of word s / 2: on a little-endian
        // host, simply the s-th 32-bit value of the table.
        static_assert(std::endian::native == std::endian::little);
        uint32_t entry;
        std::memcpy(&entry, table + 4 * slot, sizeof entry);
        const size_t row = entry >> 16;
        if (row == 0 || static_cast<char16_t>(entry) == unit) return row;
    }
}

WildcardPattern WildcardPattern::Build(Builder& b) {
    WildcardPattern compiled;
    compiled.m_exact = std::move(b.exact);
    // A list without wildcards is only its texts.
    if (!b.wild) return compiled;

    const size_t positions = b.positions;
    const size_t words = (positions + 63) / 64;

    // Row 0 serves units no literal names; separators always get rows of
    // their own, since '?' never steps on them.
    std::array<char16_t, Builder::kMaxPositions + 2> distinct;
    size_t count = 0;
    distinct[count++] = u'\\';
    distinct[count++] = u'/';
    for (size_t i = 0; i < positions; ++i) {
        if ((b.flags[i] & kStepUnit) != 0) distinct[count++] = b.units[i];
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
    uint64_t* const loop = accept + words;
    uint64_t* const levels = loop + words;
    uint64_t* const eps = levels + words;
    uint64_t* const rows = block.data() + rowsAt;
    const auto set = [](uint64_t* mask, size_t i) { mask[i / 64] |= uint64_t{1} << (i % 64); };

    std::array<uint64_t, (Builder::kMaxPositions + 63) / 64> anyOne{};
    uint8_t seen = 0;
    for (size_t i = 0; i < positions; ++i) {
        const uint8_t flag = b.flags[i];
        seen |= flag;
        if ((flag & kStart) != 0) set(start, i);
        if ((flag & kAccept) != 0) set(accept, i);
        if ((flag & kLoop) != 0) set(loop, i);
        if ((flag & kLevels) != 0) set(levels, i);
        if ((flag & kEps) != 0) set(eps, i);
        if ((flag & kStepAny) != 0) set(anyOne.data(), i);
    }
    compiled.m_features = seen & (kLevels | kEps);
    for (size_t w = 0; w < words; ++w) {
        if ((eps[w] >> 63) != 0) compiled.m_features |= kEpsAcross;
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
        if ((b.flags[i] & kStepUnit) == 0) continue;
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
    return m_block.data() + m_rowsAt + RowIndex(unit) * size_t{m_words};
}

// Whether the text ends with the literal tail of some pattern that has a
// wildcard, or some such pattern ends in a wildcard: otherwise no pattern can
// accept it, and most texts are turned away here after a few units instead
// of after a pass over all of them.
bool WildcardPattern::EndsLikeAnyPattern(std::u16string_view text) const {
    const std::u16string_view exact(m_exact);
    for (size_t i = 0; i < exact.size();) {
        const std::u16string_view pattern = exact.substr(i + 1, exact[i]);
        i += 1 + pattern.size();
        const size_t last = pattern.find_last_of(u"*?");
        if (last == std::u16string_view::npos) continue;
        // A trailing separator gets a '*' when compiled.
        if (last + 1 == pattern.size() || IsSeparator(pattern.back())) return true;
        size_t tail = last + 1;
        // "**" also matches no level at all, so its separator is not part
        // of what the text must end with.
        if (pattern[last] == u'*' && last > 0 && pattern[last - 1] == u'*' && IsSeparator(pattern[tail])) ++tail;
        if (text.ends_with(pattern.substr(tail))) return true;
    }
    return false;
}

bool WildcardPattern::Match(std::u16string_view text) const {
    const std::u16string_view exact(m_exact);
    for (size_t i = 0; i < exact.size();) {
        const size_t length = exact[i];
        if (exact.substr(i + 1, length) == text) return true;
        i += 1 + length;
    }
    if (m_words == 0) return false;
    if (!EndsLikeAnyPattern(text)) return false;
    const auto row = [this](char16_t unit) { return RowIndex(unit); };
    const uint64_t* const rows = m_block.data() + m_rowsAt;
    const uint64_t* const m = m_block.data() + m_rowsAt - 5 * size_t{m_words};
    const size_t w = m_words;
    // Most lists have neither "**\" nor a '*' before one; they skip that work.
    const auto run = [&]<bool kLevels, int kEps>() {
        switch (w) {
#define ZORV_WILDCARD_WORDS(W) \
    case W: return Run<W, kLevels, kEps>(text, W, m, m + W, m + 2 * W, m + 3 * W, m + 4 * W, rows, row);
            ZORV_WILDCARD_WORDS(1)
            ZORV_WILDCARD_WORDS(2)
            ZORV_WILDCARD_WORDS(3)
            ZORV_WILDCARD_WORDS(4)
            ZORV_WILDCARD_WORDS(5)
#undef ZORV_WILDCARD_WORDS
            default: return Run<0, kLevels, kEps>(text, w, m, m + w, m + 2 * w, m + 3 * w, m + 4 * w, rows, row);
        }
    };
    if ((m_features & kEpsAcross) != 0) return run.template operator()<true, 2>();
    if ((m_features & kEps) != 0) return run.template operator()<true, 1>();
    if ((m_features & kLevels) != 0) return run.template operator()<true, 0>();
    return run.template operator()<false, 0>();
}

}  // namespace zorv
