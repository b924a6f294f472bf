// zorv replay EVENTS.jsonl [--threads N] [--out DECISIONS.jsonl] [--lockdown]
//             [--maintenance START,END] [--strict]
//             [--candidate RULESET.json --name NAME [--append]]
// Drives app_ctl from recorded event lines. The file is streamed: one
// reader parses, and each event goes to the worker its pid hashes to, so the
// events of one process keep their order.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <iostream>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "Commands.h"
#include "EventLine.h"
#include "EventRecord.h"
#include "HostText.h"
#include "MetricsRender.h"
#include "StoreReader.h"

namespace zorv::cli {

namespace fs = std::filesystem;

namespace {

struct ReplayOptions {
    std::string events;
    unsigned threads = 0;
    std::string out;
    bool lockdown = false;
    std::string maintenance;
    bool strict = false;
    std::string candidate;
    std::string name;
    bool append = false;
    bool metrics = false;
};

// Events for one worker, packed: the records, their line numbers, and every
// text and digest they point to in two arenas. A worker reads a batch front
// to back, which the processor streams in, instead of chasing records that
// another core wrote; batches go back to the reader once decided and are
// filled again, keeping their storage.
struct Batch {
    static constexpr size_t kEvents = 512;
    static constexpr size_t kTextUnits = 1 << 17;

    std::vector<AppCtlEvent> events;
    std::vector<uint64_t> lines;
    // Reserved up front and never grown while events point into them: the
    // reader starts a new batch when a line might not fit.
    std::vector<ZorvChar> texts;
    std::vector<uint8_t> digests;

    void Clear() {
        events.clear();
        lines.clear();
        texts.clear();
        digests.clear();
        // Room grown for one very long line is not kept for the rest.
        if (texts.capacity() > 4 * kTextUnits) std::vector<ZorvChar>().swap(texts);
    }
    // A line of `bytes` bytes yields at most that many text units, plus a
    // NUL for each text.
    static size_t TextBound(size_t bytes) { return bytes + host::kTextFieldCount; }
    bool Fits(size_t lineBytes) const {
        return events.size() < kEvents && texts.size() + TextBound(lineBytes) <= texts.capacity() &&
               digests.size() + 32 * host::kDigestFieldCount <= digests.capacity();
    }
    // Makes room for a first line of `lineBytes`; only while empty, since
    // growing moves what earlier events point to.
    void Prepare(size_t lineBytes) {
        if (events.capacity() < kEvents) {
            events.reserve(kEvents);
            lines.reserve(kEvents);
        }
        texts.reserve(std::max(kTextUnits, TextBound(lineBytes)));
        digests.reserve(kEvents * 32 * host::kDigestFieldCount);
    }
    // Copies `parsed` with its texts and digests; Fits() said there is room.
    void Add(uint64_t line, const AppCtlEvent& parsed) {
        AppCtlEvent event = parsed;
        for (const host::TextField& field : host::kTextFields) {
            const ZorvChar* text = parsed.*(field.member);
            if (text == nullptr) continue;
            const size_t at = texts.size();
            texts.insert(texts.end(), text, text + std::char_traits<ZorvChar>::length(text) + 1);
            event.*(field.member) = texts.data() + at;
        }
        for (const host::DigestField& field : host::kDigestFields) {
            const uint8_t* digest = parsed.*(field.member);
            if (digest == nullptr) continue;
            const size_t at = digests.size();
            digests.insert(digests.end(), digest, digest + field.length);
            event.*(field.member) = digests.data() + at;
        }
        events.push_back(event);
        lines.push_back(line);
    }
};

// What candidate mode compares, per event line.
struct Decision {
    uint64_t line = 0;
    uint64_t pid = 0;
    uint32_t action = 0;
    uint32_t reason = 0;
    uint32_t source = 0;
};

class BatchQueue {
public:
    void Push(Batch batch) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_space.wait(lock, [&] { return m_batches.size() < 8; });
        m_batches.push_back(std::move(batch));
        m_ready.notify_one();
    }
    bool Pop(Batch& batch) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_ready.wait(lock, [&] { return !m_batches.empty() || m_closed; });
        if (m_batches.empty()) return false;
        batch = std::move(m_batches.front());
        m_batches.pop_front();
        m_space.notify_one();
        return true;
    }
    void Close() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_closed = true;
        m_ready.notify_all();
    }
    // Never waits: for handing spent batches back; false when none is there.
    void Offer(Batch batch) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_batches.push_back(std::move(batch));
    }
    bool TryPop(Batch& batch) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_batches.empty()) return false;
        batch = std::move(m_batches.front());
        m_batches.pop_front();
        return true;
    }

private:
    std::mutex m_mutex;  // guards m_batches and m_closed
    std::condition_variable m_ready, m_space;
    std::deque<Batch> m_batches;
    bool m_closed = false;
};

struct WorkerResult {
    std::vector<uint32_t> latencies;  // nanoseconds, saturated
    std::map<std::pair<uint32_t, uint32_t>, uint64_t> byDecision;  // (action, reason)
    std::vector<Decision> decisions;  // candidate mode only
};

struct RunResult {
    uint64_t events = 0;
    uint64_t badLines = 0;
    bool stopped = false;  // --strict met a bad line, or the file failed
    double seconds = 0;
    WorkerResult merged;
};

class DecisionWriter {
public:
    explicit DecisionWriter(std::FILE* out) : m_out(out) {}
    void Write(const std::string& text) {
        if (m_out == nullptr || text.empty()) return;
        std::lock_guard<std::mutex> lock(m_mutex);
        std::fwrite(text.data(), 1, text.size(), m_out);
    }
    bool Enabled() const { return m_out != nullptr; }

private:
    std::mutex m_mutex;  // keeps each worker's chunk of lines whole
    std::FILE* m_out;
};

void Work(BatchQueue& queue, BatchQueue& spent, DecisionWriter& writer, bool keepDecisions,
          WorkerResult& result) {
    Batch batch;
    std::string text;
    while (queue.Pop(batch)) {
        for (size_t i = 0; i < batch.events.size(); ++i) {
            const AppCtlEvent& event = batch.events[i];
            const uint64_t line = batch.lines[i];
            AppCtlResult answer{};
            const auto start = std::chrono::steady_clock::now();
            const uint32_t status = app_ctl(nullptr, &event, &answer);
            const auto took = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                  std::chrono::steady_clock::now() - start)
                                  .count();
            result.latencies.push_back(static_cast<uint32_t>(std::min<int64_t>(took, UINT32_MAX)));
            ++result.byDecision[{answer.action, answer.isAuthorized}];
            if (keepDecisions)
                result.decisions.push_back({line, event.pid, answer.action, answer.isAuthorized, answer.source});
            if (writer.Enabled()) {
                text += host::FormatDecisionLine(line, event, status, answer, static_cast<uint64_t>(took));
                text += '\n';
            }
        }
        if (text.size() > (1 << 16)) {
            writer.Write(text);
            text.clear();
        }
        batch.Clear();
        spent.Offer(std::move(batch));
    }
    writer.Write(text);
}

// A line longer than this is refused by its number and skipped without being
// held: an event line is a few kilobytes (a command line at most a few
// megabytes), and a file whose line never ends must not take the machine's
// memory.
constexpr size_t kMaxLineBytes = 16 << 20;

// The lines of a stream, read a block at a time and handed out in place:
// std::getline moves every line through the stream buffer and into a string
// of its own, a large share of a replay's reading.
// A pipe is read a line at a time instead, so that a live stream is decided
// as it arrives rather than a block later. A block is small enough to stay in
// the processor's first-level cache from the read to the parse: with 1 MiB
// blocks, copying the file in was a tenth of a replay.
class LineReader {
public:
    enum class Got { kLine, kTooLong, kEnd };

    LineReader(std::istream& in, bool pipe) : m_in(in), m_pipe(pipe), m_buffer(pipe ? 64 << 10 : 32 << 10) {}

    // The next line without its '\n', valid until the next call; or that it
    // was longer than kMaxLineBytes (and has been passed over); or the end.
    Got Next(std::string_view& line) {
        if (m_pipe) return NextFromPipe(line);
        for (;;) {
            const char* begin = m_buffer.data() + m_start;
            const size_t held = m_end - m_start;
            if (const void* newline = std::memchr(begin, '\n', held); newline != nullptr) {
                const size_t length = static_cast<size_t>(static_cast<const char*>(newline) - begin);
                m_start += length + 1;
                if (m_skipping || length > kMaxLineBytes) {
                    m_skipping = false;
                    return Got::kTooLong;
                }
                line = std::string_view(begin, length);
                return Got::kLine;
            }
            if (m_ended) {
                m_start = m_end;
                if (m_skipping || held > kMaxLineBytes) {
                    m_skipping = false;
                    return Got::kTooLong;
                }
                if (held == 0) return Got::kEnd;
                line = std::string_view(begin, held);
                return Got::kLine;
            }
            if (held > kMaxLineBytes) {
                // Too long already: what is held goes, and so does the rest
                // of the line as it comes.
                m_skipping = true;
                m_start = m_end;
                continue;
            }
            // The partial line moves to the front and the rest is filled; a
            // line longer than the buffer doubles it, up to about twice the
            // longest line read.
            std::memmove(m_buffer.data(), begin, held);
            m_start = 0;
            m_end = held;
            if (m_end == m_buffer.size()) m_buffer.resize(m_buffer.size() * 2);
            m_in.read(m_buffer.data() + m_end, static_cast<std::streamsize>(m_buffer.size() - m_end));
            m_end += static_cast<size_t>(m_in.gcount());
            if (!m_in) m_ended = true;
        }
    }

private:
    // Line by line, a piece at a time: a producer writing as it goes is read
    // as it goes, where a block read would wait for the block to fill.
    Got NextFromPipe(std::string_view& line) {
        m_line.clear();
        bool tooLong = false, any = false;
        for (;;) {
            m_in.getline(m_buffer.data(), static_cast<std::streamsize>(m_buffer.size()));
            const auto got = static_cast<size_t>(m_in.gcount());
            any = any || got > 0;
            // The piece filled with the line still going on, or the line
            // ended: at its '\n' (counted in `got`) or at the stream's end.
            const bool goesOn = m_in.fail() && !m_in.eof() && !m_in.bad() && got == m_buffer.size() - 1;
            const size_t stored = goesOn || m_in.eof() ? got : (got > 0 ? got - 1 : 0);
            if (goesOn) m_in.clear();
            if (!tooLong && m_line.size() + stored > kMaxLineBytes) {
                tooLong = true;
                std::string().swap(m_line);
            }
            if (!tooLong) m_line.append(m_buffer.data(), stored);
            if (!goesOn) break;
        }
        if (!any) return Got::kEnd;
        if (tooLong) return Got::kTooLong;
        line = m_line;
        return Got::kLine;
    }

    std::istream& m_in;
    const bool m_pipe;
    std::string m_line;  // a pipe's line
    std::vector<char> m_buffer;
    size_t m_start = 0, m_end = 0;  // the unread part of m_buffer
    bool m_ended = false;           // the stream has nothing more
    bool m_skipping = false;        // inside a line already refused as too long
};

RunResult RunStream(std::istream& in, const std::string& shown, unsigned threads, bool strict,
                    DecisionWriter& writer, bool keepDecisions) {
    RunResult run;
    std::vector<BatchQueue> queues(threads);
    BatchQueue spent;
    std::vector<WorkerResult> results(threads);
    std::vector<std::thread> workers;
    for (unsigned i = 0; i < threads; ++i)
        workers.emplace_back([&, i] { Work(queues[i], spent, writer, keepDecisions, results[i]); });
    std::vector<Batch> pending(threads);
    // A spent batch keeps the storage it grew; a new one gets its own.
    auto fresh = [&spent](Batch& batch) {
        if (!spent.TryPop(batch)) batch = Batch();
        batch.Clear();
    };
    const auto started = std::chrono::steady_clock::now();
    std::string error;
    std::string_view line;
    LineReader lines(in, &in == &std::cin);
    uint64_t number = 0;
    // Parsed here, in this thread's cache, then packed into a batch.
    host::EventRecord record;
    // A bad line is named and skipped; true when it ends the run (--strict).
    const auto refuse = [&](const std::string& reason) {
        ++run.badLines;
        PrintError(shown + ":" + std::to_string(number), reason);
        if (strict) run.stopped = true;
        return strict;
    };
    for (LineReader::Got got; (got = lines.Next(line)) != LineReader::Got::kEnd;) {
        ++number;
        if (got == LineReader::Got::kTooLong) {
            if (refuse("longer than 16 MiB")) break;
            continue;
        }
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.find_first_not_of(" \t") == std::string_view::npos) continue;
        if (!host::ParseEventLine(line, record, error)) {
            if (refuse(error)) break;
            continue;
        }
        ++run.events;
        const unsigned worker = static_cast<unsigned>(record.Pid() % threads);
        Batch& batch = pending[worker];
        if (!batch.Fits(line.size())) {
            if (!batch.events.empty()) {
                queues[worker].Push(std::move(batch));
                fresh(batch);
            }
            batch.Prepare(line.size());
        }
        batch.Add(number, record.Raw());
        if (batch.events.size() >= Batch::kEvents) {
            queues[worker].Push(std::move(batch));
            fresh(batch);
        }
    }
    if (in.bad()) {
        PrintError(shown, "read failed");
        run.stopped = true;
    }
    for (unsigned i = 0; i < threads; ++i) {
        if (!pending[i].events.empty()) queues[i].Push(std::move(pending[i]));
        queues[i].Close();
    }
    for (std::thread& worker : workers) worker.join();
    run.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    for (WorkerResult& result : results) {
        auto& merged = run.merged;
        merged.latencies.insert(merged.latencies.end(), result.latencies.begin(), result.latencies.end());
        for (const auto& [key, count] : result.byDecision) merged.byDecision[key] += count;
        merged.decisions.insert(merged.decisions.end(), result.decisions.begin(), result.decisions.end());
        result = WorkerResult();
    }
    return run;
}

// Reads --lockdown and --maintenance into set_config's arguments; false
// (reported) for a window that does not parse.
bool ParsePolicy(const ReplayOptions& options, uint32_t& flags, uint64_t& start, uint64_t& end) {
    flags = options.lockdown ? AC_CONFIG_LOCKDOWN : 0;
    start = ~0ull, end = ~0ull;
    if (!options.maintenance.empty()) {
        const size_t comma = options.maintenance.find(',');
        try {
            if (comma == std::string::npos) throw std::invalid_argument("no comma");
            size_t used = 0;
            start = std::stoull(options.maintenance.substr(0, comma), &used);
            if (used != comma) throw std::invalid_argument("start");
            const std::string tail = options.maintenance.substr(comma + 1);
            end = std::stoull(tail, &used);
            if (used != tail.size()) throw std::invalid_argument("end");
        } catch (const std::exception&) {
            PrintError("--maintenance " + options.maintenance,
                       "expected START,END in milliseconds since 1970-01-01 UTC");
            return false;
        }
        flags |= AC_CONFIG_AUTO_AUTHORIZE;
    }
    return true;
}

bool ApplyPolicy(const ReplayOptions& options) {
    uint32_t flags = 0;
    uint64_t start = 0, end = 0;
    if (!ParsePolicy(options, flags, start, end)) return false;
    set_config(flags, start, end);
    return true;
}

// The values at ascending `fractions` of `values`, which are reordered.
// Selected, not sorted: sorting a million latencies took a noticeable share
// of a replay.
std::vector<double> Percentiles(std::vector<uint32_t>& values, std::initializer_list<double> fractions) {
    std::vector<double> found;
    auto from = values.begin();
    for (const double fraction : fractions) {
        if (values.empty()) {
            found.push_back(0);
            continue;
        }
        const auto at = values.begin() + static_cast<std::ptrdiff_t>(std::min(
                                             values.size() - 1, static_cast<size_t>(fraction * (values.size() - 1) + 0.5)));
        std::nth_element(from, at, values.end());
        found.push_back(*at);
        from = at;
    }
    return found;
}

void PrintSummary(const CommonOptions& common, RunResult& run, unsigned threads) {
    std::vector<uint32_t>& latencies = run.merged.latencies;
    const double rate = run.events / std::max(run.seconds, 1e-9);
    const std::vector<double> at = Percentiles(latencies, {0.5, 0.9, 0.99, 0.999, 1.0});
    const double p50 = at[0], p90 = at[1], p99 = at[2], p999 = at[3], max = at[4];
    if (common.json) {
        std::string out = "{\"events\":" + std::to_string(run.events) +
                          ",\"badLines\":" + std::to_string(run.badLines) + ",\"byDecision\":{";
        std::map<std::string, uint64_t> byName;
        for (const auto& [key, count] : run.merged.byDecision)
            byName[std::string(host::DecisionName(key.first)) + "/" + host::ReasonName(key.second)] += count;
        bool first = true;
        for (const auto& [name, count] : byName) {
            if (!first) out += ",";
            host::AppendJsonString(out, name);
            out += ":" + std::to_string(count);
            first = false;
        }
        char tail[256];
        std::snprintf(tail, sizeof tail,
                      "},\"seconds\":%.3f,\"eventsPerSecond\":%.0f,\"latencyNs\":{\"p50\":%.0f,\"p90\":%.0f,"
                      "\"p99\":%.0f,\"p99.9\":%.0f,\"max\":%.0f}}",
                      run.seconds, rate, p50, p90, p99, p999, max);
        std::cout << out << tail << "\n";
        return;
    }
    if (!Speak(common)) return;
    std::printf("Replayed %llu events in %.2f s on %u thread%s: %.0f events/s",
                static_cast<unsigned long long>(run.events), run.seconds, threads, threads == 1 ? "" : "s", rate);
    if (run.badLines) std::printf(" (%llu bad lines skipped)", static_cast<unsigned long long>(run.badLines));
    std::printf("\n\nDecision  Reason        Events\n");
    for (const auto& [key, count] : run.merged.byDecision)
        std::printf("  %-8s %-12s %8llu\n", host::DecisionName(key.first), host::ReasonName(key.second),
                    static_cast<unsigned long long>(count));
    std::printf("\nLatency of app_ctl: p50 %.1f us, p90 %.1f us, p99 %.1f us, p99.9 %.1f us, max %.1f us\n",
                p50 / 1000, p90 / 1000, p99 / 1000, p999 / 1000, max / 1000);
    // Buckets double from 1 us; bars scale to the fullest bucket.
    std::vector<uint64_t> buckets(1);
    for (const uint32_t ns : latencies) {
        size_t bucket = 0;
        for (uint64_t edge = 1000; ns >= edge && bucket < 24; edge *= 2) ++bucket;
        if (bucket >= buckets.size()) buckets.resize(bucket + 1);
        ++buckets[bucket];
    }
    const uint64_t fullest = latencies.empty() ? 1 : *std::max_element(buckets.begin(), buckets.end());
    for (size_t i = 0; i < buckets.size(); ++i) {
        char label[32];
        if (i == 0)
            std::snprintf(label, sizeof label, "< 1 us");
        else
            std::snprintf(label, sizeof label, "< %llu us", 1ull << i);
        std::printf("  %10s %9llu %s\n", label, static_cast<unsigned long long>(buckets[i]),
                    std::string(static_cast<size_t>(40.0 * buckets[i] / std::max<uint64_t>(fullest, 1)), '#').c_str());
    }
}

// Candidate mode: the stream against a copy of the store, then against
// another copy with the candidate imported; the store itself is untouched.
int RunCandidate(const ReplayOptions& options, const CommonOptions& common, unsigned threads,
                 DecisionWriter& writer) {
    const std::optional<host::ZString> name = host::Utf8ToZ(options.name);
    const std::optional<host::ZString> candidate = host::PathToZ(fs::absolute(PathFromUtf8(options.candidate)));
    if (!name || !candidate) {
        PrintError("--candidate", "names must be valid UTF-8");
        return kExitUsage;
    }
    std::error_code status;
    if (!fs::is_regular_file(PathFromUtf8(options.candidate), status)) {
        PrintError(options.candidate, "no such ruleset file");
        return kExitError;
    }
    const fs::path current = ScratchPath("replay-current.db");
    const fs::path proposed = ScratchPath("replay-candidate.db");
    auto cleanup = [&] {
        std::error_code ignored;
        for (const fs::path& base : {current, proposed})
            for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(base.string() + suffix, ignored);
    };
    std::string error;
    if (!host::StoreReader::Copy(common.db, host::PathToUtf8(current), error) ||
        !host::StoreReader::Copy(common.db, host::PathToUtf8(proposed), error)) {
        PrintError(common.db, "cannot copy the store: " + error);
        cleanup();
        return kExitError;
    }
    std::vector<Decision> before, after;
    RunResult last;
    for (int pass = 0; pass < 2; ++pass) {
        CommonOptions scratch = common;
        scratch.db = host::PathToUtf8(pass == 0 ? current : proposed);
        host::EngineSession engine;
        if (!OpenEngine(scratch, engine)) {
            cleanup();
            return kExitError;
        }
        if (pass == 1) {
            const uint32_t imported = set_ruleset(options.append ? 1 : 0, candidate->c_str(), name->c_str());
            if (imported != AC_OK) {
                PrintError(options.candidate, std::string("the candidate did not import (") +
                                                  host::StatusName(imported) + "); see --log for the reason");
                engine.Stop();
                cleanup();
                return kExitError;
            }
        }
        if (!ApplyPolicy(options)) {
            engine.Stop();
            cleanup();
            return kExitUsage;
        }
        std::ifstream in(PathFromUtf8(options.events), std::ios::binary);
        DecisionWriter none(nullptr);
        last = RunStream(in, options.events, threads, options.strict, pass == 1 ? writer : none, true);
        engine.Stop();
        if (last.stopped) {
            cleanup();
            return kExitError;
        }
        auto& decisions = pass == 0 ? before : after;
        decisions = std::move(last.merged.decisions);
        std::sort(decisions.begin(), decisions.end(),
                  [](const Decision& a, const Decision& b) { return a.line < b.line; });
    }
    cleanup();

    uint64_t newlyBlocked = 0, newlyAllowed = 0, otherChanges = 0;
    for (size_t i = 0; i < before.size() && i < after.size(); ++i) {
        const Decision& was = before[i];
        const Decision& will = after[i];
        if (was.action == will.action && was.reason == will.reason) continue;
        if (will.action == AC_DECISION_BLOCK && was.action != AC_DECISION_BLOCK)
            ++newlyBlocked;
        else if (will.action == AC_DECISION_ALLOW && was.action != AC_DECISION_ALLOW)
            ++newlyAllowed;
        else
            ++otherChanges;
        if (common.json) {
            std::printf("{\"line\":%llu,\"pid\":%llu,\"current\":{\"decision\":\"%s\",\"reason\":\"%s\",\"source\":%u},"
                        "\"candidate\":{\"decision\":\"%s\",\"reason\":\"%s\",\"source\":%u}}\n",
                        static_cast<unsigned long long>(was.line), static_cast<unsigned long long>(was.pid),
                        host::DecisionName(was.action), host::ReasonName(was.reason), was.source,
                        host::DecisionName(will.action), host::ReasonName(will.reason), will.source);
        } else if (Speak(common)) {
            std::printf("line %llu (pid %llu): %s/%s -> %s/%s\n", static_cast<unsigned long long>(was.line),
                        static_cast<unsigned long long>(was.pid), host::DecisionName(was.action),
                        host::ReasonName(was.reason), host::DecisionName(will.action), host::ReasonName(will.reason));
        }
    }
    if (common.json) {
        std::printf("{\"events\":%zu,\"newlyBlocked\":%llu,\"newlyAllowed\":%llu,\"otherChanges\":%llu}\n",
                    after.size(), static_cast<unsigned long long>(newlyBlocked),
                    static_cast<unsigned long long>(newlyAllowed), static_cast<unsigned long long>(otherChanges));
    } else if (Speak(common)) {
        std::printf("%zu events: %llu newly blocked, %llu newly allowed, %llu other changes under \"%s\"\n",
                    after.size(), static_cast<unsigned long long>(newlyBlocked),
                    static_cast<unsigned long long>(newlyAllowed), static_cast<unsigned long long>(otherChanges),
                    options.name.c_str());
    }
    return last.badLines ? kExitError : kExitOk;
}

struct FileCloser {
    void operator()(std::FILE* file) const {
        if (file != nullptr && file != stdout) std::fclose(file);
    }
};

}  // namespace

CommandRun DefineReplay(CLI::App& command, const CommonOptions& common) {
    auto options = std::make_shared<ReplayOptions>();
    command.add_option("events", options->events, "Event lines (JSON), or - for standard input")->required();
    command.add_option("-t,--threads", options->threads, "Worker threads (default: the machine's cores)");
    command.add_option("--out", options->out, "Write each decision as a JSON line to FILE (- for standard output)");
    command.add_flag("--lockdown", options->lockdown, "Decide under lockdown");
    command.add_option("--maintenance", options->maintenance,
                       "START,END: decide in a maintenance window (ms since 1970-01-01 UTC)");
    command.add_flag("--strict", options->strict, "Stop at the first bad line");
    CLI::Option* candidate = command.add_option(
        "--candidate", options->candidate,
        "Also decide against a scratch copy with this ruleset imported; print what changes");
    command.add_option("--name", options->name, "The candidate ruleset's name (decides its kind)")->needs(candidate);
    command.add_flag("--append", options->append, "Append the candidate instead of replacing")->needs(candidate);
    candidate->needs("--name");
    command.add_flag("--metrics", options->metrics,
                     "Then print the metrics table: the counters of this run, which a later zorv metrics (a new "
                     "process) no longer holds");
    return [options, &common]() {
        const unsigned threads =
            options->threads ? options->threads : std::max(1u, std::thread::hardware_concurrency());
        std::unique_ptr<std::FILE, FileCloser> out;
        if (!options->out.empty()) {
            out.reset(options->out == "-" ? stdout : std::fopen(options->out.c_str(), "wb"));
            if (!out) {
                PrintError(options->out, std::string("cannot write: ") + std::strerror(errno));
                return int(kExitError);
            }
        }
        uint32_t flags = 0;
        uint64_t start = 0, end = 0;
        if (!ParsePolicy(*options, flags, start, end)) return int(kExitUsage);
        DecisionWriter writer(out.get());
        std::ifstream file;
        if (options->events != "-") {
            std::error_code status;
            const fs::path path = PathFromUtf8(options->events);
            if (fs::is_directory(path, status)) {
                PrintError(options->events, "is a folder, not an event file");
                return int(kExitError);
            }
            file.open(path, std::ios::binary);
            if (!file) {
                PrintError(options->events, fs::exists(path, status) ? "cannot be read" : "no such file");
                return int(kExitError);
            }
        }
        if (!options->candidate.empty()) {
            if (options->events == "-") {
                PrintError("--candidate", "needs an event file: the stream is read twice");
                return int(kExitUsage);
            }
            return RunCandidate(*options, common, threads, writer);
        }
        host::EngineSession engine;
        if (!OpenEngine(common, engine)) return int(kExitError);
        if (!ApplyPolicy(*options)) return int(kExitUsage);
        std::istream& in = options->events == "-" ? std::cin : file;
        RunResult run = RunStream(in, options->events, threads, options->strict, writer, false);
        if (out) std::fflush(out.get());
        PrintSummary(common, run, threads);
        if (options->metrics) {
            std::string json, text, error;
            if (host::FetchMetrics(json) == AC_OK && host::RenderMetricsTables(json, text, error))
                std::cout << "\n" << text;
        }
        return int(run.stopped || run.badLines ? kExitError : kExitOk);
    };
}

}  // namespace zorv::cli
