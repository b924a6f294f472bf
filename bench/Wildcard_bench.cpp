// The worst a trust rule's patterns can cost: lists as long as a rule may
// hold (WildcardPattern::kMaxPatternUnits), built to keep every state of the
// automaton alive, against the longest path Windows accepts (32,767 units).
// The bound each must stay under is 100 us per rule; the bare limit beside
// them is one pass over the same text that only reads each unit. Each text
// ends with its list's literal tail, so that the matcher cannot turn it away
// before a pass over the whole of it.
#include <benchmark/benchmark.h>

#include <string>

#include "ZorvWildcard.h"

namespace {

using zorv::WildcardPattern;

constexpr size_t kLongestPath = 32767;
constexpr size_t kLimit = WildcardPattern::kMaxPatternUnits;

std::u16string Repeat(std::u16string_view piece, size_t units, std::u16string_view tail = {}) {
    std::u16string out;
    while (out.size() + piece.size() + tail.size() <= units) out += piece;
    return out + std::u16string(tail);
}

void MatchCase(benchmark::State& state, const std::u16string& patterns, const std::u16string& text) {
    const WildcardPattern compiled = WildcardPattern::CompileList(patterns);
    if (compiled.Empty()) {
        state.SkipWithError("the pattern list does not fit");
        return;
    }
    int64_t matched = 0;
    for (auto _ : state) {
        matched += compiled.Match(text) ? 1 : 0;
        benchmark::DoNotOptimize(matched);
    }
    state.counters["pattern_units"] = static_cast<double>(patterns.size());
    state.counters["text_units"] = static_cast<double>(text.size());
    state.counters["limit_us"] = 100;
}

// "*a*a*...*b": every '*' stays reachable over a text of 'a's.
void BM_Wildcard_Limit_StarsOverOneLevel(benchmark::State& state) {
    MatchCase(state, Repeat(u"*a", kLimit, u"*b"), std::u16string(kLongestPath - 1, u'a') + u"b");
}
// "?a?a...": a shifting run of '?' and literals, all alive.
void BM_Wildcard_Limit_QuestionsOverOneLevel(benchmark::State& state) {
    MatchCase(state, Repeat(u"?a", kLimit, u"b"), std::u16string(kLongestPath - 1, u'a') + u"b");
}
// "**\a\**\a\...": any depth, level after level.
void BM_Wildcard_Limit_LevelsOverManyLevels(benchmark::State& state) {
    MatchCase(state, Repeat(u"**\\a\\", kLimit, u"b"), Repeat(u"a\\", kLongestPath, u"b"));
}
// "\;\;...": as many patterns as the list can hold, each rewritten to "\*".
void BM_Wildcard_Limit_ManyShortPatterns(benchmark::State& state) {
    MatchCase(state, Repeat(u"\\;", kLimit), Repeat(u"\\", kLongestPath));
}
// Non-ASCII literals take the hashed row lookup.
void BM_Wildcard_Limit_WideUnits(benchmark::State& state) {
    MatchCase(state, Repeat(u"*\u00e9*\u4e2d", kLimit, u"*z"), Repeat(u"\u00e9\u4e2d", kLongestPath, u"z"));
}

// The widest automaton a list can need: a loop, then "**\" (a position of
// its own after a '*'), then literals up to the limit, every one alive.
void BM_Wildcard_Limit_EveryWordAlive(benchmark::State& state) {
    MatchCase(state, u"***\\" + std::u16string(kLimit - 5, u'a') + u"b",
              std::u16string(kLongestPath - 1, u'a') + u"b");
}
// Every word carries a '*', a "**\" and the position between them.
void BM_Wildcard_Limit_LoopsInEveryWord(benchmark::State& state) {
    MatchCase(state, Repeat(u"***\\" + std::u16string(61, u'a'), kLimit), std::u16string(kLongestPath, u'a'));
}

// The floor: reading every unit of the text once.
void BM_Bare_ReadLongestPath(benchmark::State& state) {
    const std::u16string text(kLongestPath, u'a');
    for (auto _ : state) {
        uint64_t sum = 0;
        for (char16_t unit : text) {
            sum += unit;
            benchmark::DoNotOptimize(sum);
        }
    }
    state.counters["text_units"] = static_cast<double>(text.size());
}

BENCHMARK(BM_Bare_ReadLongestPath)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Wildcard_Limit_StarsOverOneLevel)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Wildcard_Limit_QuestionsOverOneLevel)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Wildcard_Limit_LevelsOverManyLevels)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Wildcard_Limit_ManyShortPatterns)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Wildcard_Limit_WideUnits)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Wildcard_Limit_EveryWordAlive)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Wildcard_Limit_LoopsInEveryWord)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
