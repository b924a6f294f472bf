// End to end through the built zorv program: exit statuses, --json outputs,
// the store's contents afterwards and the bad-input messages.
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#if __has_include(<sys/wait.h>)
#include <sys/wait.h>
#endif

#include "PrometheusText.h"

namespace {

namespace fs = std::filesystem;

struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};

std::string Slurp(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

class ZorvCli : public ::testing::Test {
protected:
    void SetUp() override {
        const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
        m_dir = fs::temp_directory_path() / ("zorv-cli-" + std::to_string(stamp));
        fs::create_directories(m_dir);
        m_db = (m_dir / "ac.db").string();
    }
    void TearDown() override {
        std::error_code ignored;
        fs::remove_all(m_dir, ignored);
    }

    // Runs zorv with `args` (each quoted), standard output and error to files,
    // standard input from `input` when one is named.
    Outcome Zorv(const std::vector<std::string>& args, bool withDb = true, const std::string& input = "") {
        std::string command = "\"" + std::string(ZORV_CLI_FILE) + "\"";
        for (const std::string& arg : args) command += " \"" + arg + "\"";
        if (withDb) command += " --db \"" + m_db + "\"";
        if (!input.empty()) command += " < \"" + input + "\"";
        const fs::path out = m_dir / "stdout.txt", err = m_dir / "stderr.txt";
        command += " > \"" + out.string() + "\" 2> \"" + err.string() + "\"";
#if defined(_WIN32)
        // cmd.exe strips the outer quotes of a line that starts with one.
        command = "\"" + command + "\"";
#endif
        Outcome outcome;
        const int raw = std::system(command.c_str());
#ifdef WEXITSTATUS
        outcome.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
#else
        outcome.status = raw;
#endif
        outcome.out = Slurp(out);
        outcome.err = Slurp(err);
        return outcome;
    }

    fs::path Write(const std::string& name, const std::string& text) {
        const fs::path file = m_dir / name;
        fs::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << text;
        return file;
    }

    // The store's bytes (file and write-ahead log), to show it was left as it was.
    std::string StoreBytes() { return Slurp(m_db) + "|" + Slurp(m_db + "-wal"); }

    fs::path m_dir;
    std::string m_db;
};

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

Json Parse(const std::string& text) { return Json(cJSON_Parse(text.c_str())); }

double Number(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsNumber(item) ? item->valuedouble : -1;
}

std::string Text(const cJSON* object, const char* key) {
    const cJSON* item = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(item) ? item->valuestring : "<absent>";
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) lines.push_back(line);
    return lines;
}

const std::string kExamples = ZORV_EXAMPLES_DIR;

TEST_F(ZorvCli, UsageErrorsExitWithTwo) {
    const std::vector<std::vector<std::string>> cases = {
        {"no-such-command"},
        {"scan"},
        {"import", kExamples + "/ruleset.json"},
        {"metrics", "--json", "--prometheus"},
        {"export", "--format", "xml"},
        {"export", "--source", "nonsense"},
        {"replay", kExamples + "/events.jsonl", "--name", "x"},
        {"replay", kExamples + "/events.jsonl", "--maintenance", "soon"},
        {"--log-level", "loud", "metrics"},
    };
    for (const auto& args : cases) {
        const Outcome outcome = Zorv(args);
        EXPECT_EQ(outcome.status, 2) << args[0] << " " << outcome.err;
    }
    EXPECT_EQ(Zorv({"--help"}, false).status, 0);
    const Outcome version = Zorv({"--version"}, false);
    EXPECT_EQ(version.status, 0);
    EXPECT_NE(version.out.find("12.0.193"), std::string::npos);
}

// Each bad input gets one line naming it and its reason, status 3, and the
// store keeps its bytes.
TEST_F(ZorvCli, BadInputIsNamedAndLeavesTheStoreAlone) {
    ASSERT_EQ(Zorv({"import", kExamples + "/ruleset.json", "--name", "example-rules"}).status, 0);
    const std::string notJson = Write("broken.json", "{\"rules\": [").string();
    const std::string folder = (m_dir / "tree").string();
    fs::create_directories(folder);
    const std::string missing = (m_dir / "missing").string();
    const std::string missingLog = (m_dir / "missing" / "zorv.log").string();
    const std::string notArray = Write("array.json", "[1, 2]").string();
    const std::string badEvents =
        Write("bad.jsonl",
              "{\"type\":23,\"pid\":1,\"colour\":\"red\"}\n"
              "{\"type\":\"start\",\"pid\":1}\n"
              "{\"type\":23,\"sha256\":\"abc\"}\n"
              "{\"type\":23,\"name\":\"\xC3\x28\"}\n"
              "not json at all\n"
              "{\"type\":23,\"x\\n\\u001b[2J\":1}\n")
            .string();
    // A name anyone may choose: it must not break the message's line nor
    // reach the terminal as a control sequence.
    const std::string hostile = (m_dir / "evil\n\x1b[2Jname").string();
    const std::string hostileShown = (m_dir / "evil\\n\\x1b[2Jname").string();
    const std::string before = StoreBytes();
    struct Case {
        std::vector<std::string> args;
        std::string named;
        std::string reason;
    };
    const std::vector<Case> cases = {
        {{"scan", missing}, missing, "no such file"},
        {{"check", folder}, folder, "is a folder"},
        {{"check", missing}, missing, "no such file"},
        {{"import", notJson, "--name", "x"}, notJson, "not valid JSON"},
        {{"import", missing, "--name", "x"}, missing, "no such file"},
        {{"replay", missing}, missing, "no such file"},
        {{"replay", badEvents}, badEvents + ":1", "unknown field \"colour\""},
        {{"replay", badEvents}, badEvents + ":2", "\"type\": expected"},
        {{"replay", badEvents}, badEvents + ":3", "\"sha256\": expected 64 hex digits"},
        {{"replay", badEvents}, badEvents + ":4", "\"name\": not valid UTF-8"},
        {{"replay", badEvents}, badEvents + ":5", "not valid JSON"},
        {{"replay", badEvents}, badEvents + ":6", "unknown field \"x\\n\\x1b[2J\""},
        {{"check", hostile}, hostileShown, ""},
        {{"import", notArray, "--name", "x"}, notArray, "not a JSON object"},
        {{"metrics", "--log", missingLog}, missingLog, "cannot open the log file"},
        {{"export", "--out", missingLog}, missingLog, "cannot write"},
    };
    for (const Case& test : cases) {
        const Outcome outcome = Zorv(test.args);
        EXPECT_EQ(outcome.status, 3) << test.args[0] << " " << test.named;
        // One line names the input and its reason (a replay names each bad line).
        std::vector<std::string> named;
        for (const std::string& line : Lines(outcome.err))
            if (line.find(test.named + ": ") != std::string::npos) named.push_back(line);
        ASSERT_EQ(named.size(), 1u) << outcome.err;
        EXPECT_NE(named[0].find(test.reason), std::string::npos) << outcome.err;
        if (test.args[0] != "replay") EXPECT_EQ(Lines(outcome.err).size(), 1u) << outcome.err;
        EXPECT_EQ(StoreBytes(), before) << test.args[0] << " " << test.named;
    }
}

// Bad lines are named and skipped; --strict stops at the first, and the lines
// before it are decided all the same.
TEST_F(ZorvCli, ReplaySkipsBadLinesOrStopsWithStrict) {
    const std::string a(64, 'a'), b(64, 'b');
    const std::string events = Write("events.jsonl", "{\"type\":23,\"pid\":1,\"name\":\"/a\\\"b\\\\c\\u00e9\\ud83d\\ude00 d\","
                                                     "\"sha256\":\"" + a + "\"}\n" +
                                                         "{\"type\":23,\"pid\":2,\"sha256\":\"" + b + "\"}\n" +
                                                         "{\"type\":23,\"pid\":1,\"size\":-1}\n\n" +
                                                         "{\"type\":0,\"pid\":1,\"sha256\":\"" + a + "\"}\n")
                                   .string();
    struct Case {
        bool strict;
        double events;
    };
    for (const Case test : {Case{false, 3}, Case{true, 2}}) {
        const fs::path decisions = m_dir / "decisions.jsonl";
        std::vector<std::string> args = {"replay", events, "--json", "--out", decisions.string()};
        if (test.strict) args.push_back("--strict");
        const Outcome outcome = Zorv(args);
        EXPECT_EQ(outcome.status, 3) << outcome.err;
        EXPECT_EQ(Lines(outcome.err).size(), 1u) << outcome.err;
        EXPECT_NE(outcome.err.find(events + ":3: \"size\": expected an unsigned integer"), std::string::npos)
            << outcome.err;
        Json summary = Parse(outcome.out);
        EXPECT_EQ(Number(summary.get(), "events"), test.events) << outcome.out;
        EXPECT_EQ(Number(summary.get(), "badLines"), 1) << outcome.out;
        const std::vector<std::string> written = Lines(Slurp(decisions));
        ASSERT_EQ(written.size(), static_cast<size_t>(test.events));
        std::set<double> decided;
        for (const std::string& line : written) {
            Json decision = Parse(line);
            ASSERT_TRUE(decision) << line;
            decided.insert(Number(decision.get(), "line"));
            // Escapes are decoded, surrogate pairs included.
            if (Number(decision.get(), "line") == 1)
                EXPECT_EQ(Text(decision.get(), "name"), "/a\"b\\c\xC3\xA9\xF0\x9F\x98\x80 d");
        }
        const std::set<double> expected = test.strict ? std::set<double>{1, 2} : std::set<double>{1, 2, 5};
        EXPECT_EQ(decided, expected);
    }
}

// db check reads a damaged store without changing it and says what is wrong.
TEST_F(ZorvCli, ReplayReadsEveryLineAcrossItsReadBlocks) {
    // Lines of uneven length over more than two read blocks, one line longer
    // than a block, CRLF endings and a last line without a newline.
    std::string text;
    uint64_t lines = 0;
    const auto add = [&](const std::string& cmdLine, const char* end) {
        text += "{\"type\":0,\"pid\":" + std::to_string(lines % 7) + ",\"name\":\"/bin/x\",\"cmdLine\":\"" + cmdLine +
                "\"}" + end;
        ++lines;
    };
    for (int i = 0; text.size() < (1u << 20) + 4096; ++i) add(std::string(static_cast<size_t>(i % 97), 'c'), "\n");
    add(std::string((1u << 20) + 100, 'L'), "\r\n");
    for (int i = 0; text.size() < (3u << 20); ++i) add(std::string(static_cast<size_t>(i % 89), 'd'), i % 2 ? "\r\n" : "\n");
    add("last", "");
    const std::string events = Write("events.jsonl", text).string();
    const fs::path decisions = m_dir / "decisions.jsonl";
    const Outcome outcome = Zorv({"replay", events, "--json", "--out", decisions.string()});
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    Json summary = Parse(outcome.out);
    EXPECT_EQ(Number(summary.get(), "events"), static_cast<double>(lines)) << outcome.out;
    EXPECT_EQ(Number(summary.get(), "badLines"), 0) << outcome.out;
    std::set<double> decided;
    for (const std::string& line : Lines(Slurp(decisions))) decided.insert(Number(Parse(line).get(), "line"));
    EXPECT_EQ(decided.size(), lines);
    EXPECT_EQ(decided.empty() ? 0 : *decided.rbegin(), static_cast<double>(lines));
}

// A line that never ends is refused by its number, never held whole; the
// lines after it are read all the same, from a file and from a pipe.
TEST_F(ZorvCli, ReplayRefusesALineLongerThan16MiBAndReadsOn) {
    const std::string event = "{\"type\":0,\"pid\":1,\"name\":\"/bin/x\"}";
    const std::string longest = "{\"type\":0,\"pid\":2,\"cmdLine\":\"" + std::string((16u << 20) - 40, 'c') + "\"}";
    ASSERT_LE(longest.size(), 16u << 20);
    const std::string events = Write("events.jsonl", event + "\n" + longest + "\n" + event +
                                                         std::string((16u << 20) + 1, ' ') + "\r\n" + event + "\n" +
                                                         event + std::string((16u << 20) + 1, ' '))
                                   .string();
    for (const bool pipe : {false, true}) {
        const Outcome outcome = pipe ? Zorv({"replay", "-", "--json"}, true, events) : Zorv({"replay", events, "--json"});
        EXPECT_EQ(outcome.status, 3) << outcome.err;
        const std::string shown = pipe ? "-" : events;
        EXPECT_EQ(Lines(outcome.err).size(), 2u) << outcome.err;
        EXPECT_NE(outcome.err.find(shown + ":3: longer than 16 MiB"), std::string::npos) << outcome.err;
        EXPECT_NE(outcome.err.find(shown + ":5: longer than 16 MiB"), std::string::npos) << outcome.err;
        Json summary = Parse(outcome.out);
        EXPECT_EQ(Number(summary.get(), "events"), 3) << pipe << " " << outcome.out;
        EXPECT_EQ(Number(summary.get(), "badLines"), 2) << pipe << " " << outcome.out;
    }
}

TEST_F(ZorvCli, DbCheckFindsADamagedStore) {
    ASSERT_EQ(Zorv({"import", kExamples + "/ruleset.json", "--name", "example-rules"}).status, 0);
    ASSERT_EQ(Zorv({"db", "check"}).status, 0);
    // Scribble over the page headers of every page but the first (the file
    // header stays readable).
    std::string bytes = Slurp(m_db);
    ASSERT_GT(bytes.size(), 8192u);
    for (size_t page = 4096; page + 4096 <= bytes.size(); page += 4096)
        std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(page),
                  bytes.begin() + static_cast<std::ptrdiff_t>(page + 16), '\x5A');
    Write("ac.db", bytes);
    const std::string before = StoreBytes();
    const Outcome check = Zorv({"db", "check", "--json"});
    EXPECT_EQ(check.status, 1) << check.out << check.err;
    Json result = Parse(check.out);
    ASSERT_TRUE(result) << check.out;
    EXPECT_TRUE(cJSON_IsFalse(cJSON_GetObjectItemCaseSensitive(result.get(), "ok"))) << check.out;
    EXPECT_EQ(StoreBytes(), before);
}

TEST_F(ZorvCli, StoresThatCannotBeOpenedAreRefused) {
    const std::string notDatabase = Write("text.db", std::string(8192, 'x')).string();
    const std::string before = Slurp(notDatabase);
    const std::string inMissingFolder = (m_dir / "nowhere" / "ac.db").string();
    struct Case {
        std::vector<std::string> args;
        int status;
    };
    const std::vector<Case> cases = {
        {{"metrics", "--db", notDatabase}, 3},
        {{"export", "--db", notDatabase}, 3},
        {{"db", "check", "--db", notDatabase}, 1},
        {{"metrics", "--db", inMissingFolder}, 3},
        {{"db", "info", "--db", inMissingFolder}, 3},
    };
    for (const Case& test : cases) {
        const Outcome outcome = Zorv(test.args, false);
        EXPECT_EQ(outcome.status, test.status) << test.args[0] << " " << test.args.back() << " " << outcome.err;
        EXPECT_NE(outcome.err.find(test.args.back()), std::string::npos) << outcome.err;
    }
    EXPECT_EQ(Slurp(notDatabase), before);
    EXPECT_FALSE(fs::exists(m_dir / "nowhere"));
}

TEST_F(ZorvCli, ScanKeepsExecutablesAndAddsNothingTheSecondTime) {
    const fs::path tree = m_dir / "tree";
    Write("tree/tool.exe", "MZ program");
    Write("tree/bin/elf-without-x", std::string("\x7F" "ELF", 4) + "body");
    Write("tree/bin/script", "#!/bin/sh\necho hi\n");
    Write("tree/lib/libthing.so.1", "library");
    Write("tree/docs/readme.txt", "just text");
    Write("tree/docs/notes", "no magic");

    // One file system throughout: --one-file-system keeps every folder.
    Outcome first = Zorv({"scan", tree.string(), "--json", "--jobs", "2", "--one-file-system"});
    ASSERT_EQ(first.status, 0) << first.err;
    Json summary = Parse(first.out);
    EXPECT_EQ(Number(summary.get(), "stored"), 4);
    EXPECT_EQ(Number(summary.get(), "seen"), 6);
    const cJSON* skipped = cJSON_GetObjectItemCaseSensitive(summary.get(), "skipped");
    EXPECT_EQ(Number(skipped, "not executable"), 2);
    EXPECT_EQ(first.err, "") << "no progress line off a terminal";
    EXPECT_EQ(Number(skipped, "other file system"), -1) << "nothing counted as on another file system";

    Json again = Parse(Zorv({"scan", tree.string(), "--json"}).out);
    EXPECT_EQ(Number(again.get(), "stored"), 0);
    EXPECT_EQ(Number(again.get(), "alreadyKnown"), 4);

    const Outcome exported = Zorv({"export", "--source", "scannedItems"});
    ASSERT_EQ(exported.status, 0);
    std::set<std::string> names;
    for (const std::string& line : Lines(exported.out)) {
        Json row = Parse(line);
        EXPECT_EQ(Number(row.get(), "source"), 3);
        EXPECT_EQ(Text(row.get(), "sha256").size(), 64u);
        names.insert(Text(row.get(), "fileName"));
    }
    EXPECT_EQ(names, (std::set<std::string>{"tool.exe", "elf-without-x", "script", "libthing.so.1"}));

    Json all = Parse(Zorv({"scan", tree.string(), "--json", "--all-files"}).out);
    EXPECT_EQ(Number(all.get(), "stored"), 2) << "the two plain files join with --all-files";
}

TEST_F(ZorvCli, CheckAllowsTheInventoryAndBlocksTheNewUnderLockdown) {
    const fs::path known = Write("tree/known.exe", "MZ known program");
    ASSERT_EQ(Zorv({"scan", (m_dir / "tree").string()}).status, 0);
    const fs::path fresh = Write("fresh/new.exe", "MZ written after the scan");

    struct Case {
        fs::path file;
        bool lockdown;
        int status;
        std::string decision;
        std::string source;
    };
    const std::vector<Case> cases = {
        {known, true, 0, "allow", "scannedItems"},
        {fresh, true, 1, "block", "none"},
        {fresh, false, 0, "allow", "none"},
    };
    for (const Case& test : cases) {
        std::vector<std::string> args = {"check", test.file.string(), "--json", "--user", "alice"};
        if (test.lockdown) args.push_back("--lockdown");
        const Outcome outcome = Zorv(args);
        EXPECT_EQ(outcome.status, test.status) << test.file << outcome.err;
        Json result = Parse(outcome.out);
        EXPECT_EQ(Text(result.get(), "decision"), test.decision) << test.file;
        EXPECT_EQ(Text(result.get(), "source"), test.source) << test.file;

        // The event the check sent, replayed, is decided the same way.
        const cJSON* event = cJSON_GetObjectItemCaseSensitive(result.get(), "event");
        char* printed = cJSON_PrintUnformatted(event);
        const fs::path events = Write("check-event.jsonl", std::string(printed) + "\n");
        cJSON_free(printed);
        std::vector<std::string> replay = {"replay", events.string(), "--out", "-", "--quiet"};
        if (test.lockdown) replay.push_back("--lockdown");
        const Outcome replayed = Zorv(replay);
        EXPECT_EQ(replayed.status, 0) << replayed.err;
        Json decision = Parse(replayed.out);
        EXPECT_EQ(Text(decision.get(), "decision"), test.decision) << replayed.out;
    }
}

// A trust-rule verdict names the rule and its ruleset; the first rule in id
// order that accepts wins, as in the engine.
TEST_F(ZorvCli, CheckNamesTheTrustRuleThatDecided) {
    const fs::path tool = Write("tree/tool.exe", "MZ tool");
    const fs::path bad = Write("tree/bad.exe", "MZ bad");
    // Rule paths in the platform's own spelling, escaped for JSON.
    const auto pattern = [&](const fs::path& tail) {
        std::string text;
        for (const char c : (m_dir / "tree" / tail).string()) text += c == '\\' ? "\\\\" : std::string(1, c);
        return text;
    };
    const std::string first = Write("first.json", "{\"Trustrules\":[{\"paths\":\"" + pattern(fs::path("other") / "*") +
                                                      "\",\"trustType\":2},{\"paths\":\"" + pattern("*.exe") +
                                                      "\",\"trustType\":2}]}")
                                  .string();
    const std::string second = Write("second.json", "{\"Trustrules\":[{\"processName\":\"/bin/evil*\",\"paths\":\"" +
                                                        pattern("bad.exe") + "\",\"trustType\":4}]}")
                                   .string();
    ASSERT_EQ(Zorv({"import", first, "--name", "team-trustrules"}).status, 0);
    ASSERT_EQ(Zorv({"import", second, "--name", "block-trustrules", "--append"}).status, 0);
    struct Case {
        fs::path file;
        std::string process;
        int status;
        std::string reason;
        std::string ruleset;
        double ruleId;
    };
    const std::vector<Case> cases = {
        {tool, "/bin/evilx", 0, "trusted", "team-trustrules", 2},
        {bad, "/bin/good", 0, "trusted", "team-trustrules", 2},
        {bad, "/bin/evilx", 1, "blocked", "block-trustrules", 3},
    };
    for (const Case& test : cases) {
        // The rules' patterns compare separators literally: the path in the rules' spelling.
        const Outcome outcome = Zorv(
            {"check", fs::path(test.file).make_preferred().string(), "--process", test.process, "--lockdown", "--json"});
        EXPECT_EQ(outcome.status, test.status) << test.file << outcome.err;
        Json result = Parse(outcome.out);
        EXPECT_EQ(Text(result.get(), "source"), "trustRule") << outcome.out;
        EXPECT_EQ(Text(result.get(), "reason"), test.reason) << outcome.out;
        EXPECT_EQ(Text(result.get(), "ruleset"), test.ruleset) << outcome.out;
        EXPECT_EQ(Number(result.get(), "trustRuleId"), test.ruleId) << outcome.out;
    }
}

TEST_F(ZorvCli, ImportReportsCountsAndExportPagesThemOut) {
    const Outcome imported = Zorv({"import", kExamples + "/ruleset.json", "--name", "example-rules", "--json"});
    ASSERT_EQ(imported.status, 0) << imported.err;
    Json counts = Parse(imported.out);
    EXPECT_EQ(Number(cJSON_GetObjectItemCaseSensitive(counts.get(), "before"), "executionRules"), 0);
    EXPECT_EQ(Number(cJSON_GetObjectItemCaseSensitive(counts.get(), "after"), "executionRules"), 3);

    const std::string trust = Write("trust.json", "{\"Trustrules\":[{\"paths\":\"/opt/a, b/*\",\"trustType\":2},"
                                                   "{\"processName\":\"/usr/bin/apt\",\"trustType\":1},"
                                                   "{\"paths\":\"=HYPERLINK(\\\"http://x\\\")\",\"trustType\":2}]}")
                                  .string();
    ASSERT_EQ(Zorv({"import", trust, "--name", "site-trustrules"}).status, 0);
    struct Case {
        std::string source, format, header, idKey;
        size_t rows;
    };
    const std::vector<Case> cases = {
        {"executionRules", "csv", "inventoryItemId,fileName,", "", 3},
        {"executionRules", "jsonl", "", "inventoryItemId", 3},
        {"trust", "csv", "trustRuleId,paths,", "", 3},
        {"trust", "jsonl", "", "trustRuleId", 3},
    };
    for (const Case& test : cases) {
        const Outcome exported = Zorv({"export", "--source", test.source, "--format", test.format});
        ASSERT_EQ(exported.status, 0) << exported.err;
        std::vector<std::string> rows = Lines(exported.out);
        if (!test.header.empty()) {
            ASSERT_FALSE(rows.empty());
            EXPECT_EQ(rows.front().rfind(test.header, 0), 0u) << rows.front();
            rows.erase(rows.begin());
        }
        EXPECT_EQ(rows.size(), test.rows) << test.source << " " << test.format;
        for (const std::string& row : rows) {
            if (test.idKey.empty()) continue;
            Json parsed = Parse(row);
            EXPECT_GT(Number(parsed.get(), test.idKey.c_str()), 0) << row;
        }
    }
    // A field holding the separator is quoted; one a spreadsheet would take
    // for a formula starts with a quote. JSON lines keep the text as it is.
    const std::string csv = Zorv({"export", "--source", "trust", "--format", "csv"}).out;
    EXPECT_NE(csv.find(",\"/opt/a, b/*\","), std::string::npos) << csv;
    EXPECT_NE(csv.find(",\"'=HYPERLINK(\"\"http://x\"\")\","), std::string::npos) << csv;
    EXPECT_NE(Zorv({"export", "--source", "trust"}).out.find("\"=HYPERLINK(\\\"http://x\\\")\""), std::string::npos);

    const fs::path out = m_dir / "all.jsonl";
    ASSERT_EQ(Zorv({"export", "--out", out.string(), "--after", "1"}).status, 0);
    EXPECT_EQ(Lines(Slurp(out)).size(), 2u) << "--after skips the first id";
}

TEST_F(ZorvCli, ReplayDecidesTheExampleAndCandidateLeavesTheStoreAlone) {
    ASSERT_EQ(Zorv({"import", kExamples + "/ruleset.json", "--name", "example-rules"}).status, 0);
    const fs::path decisions = m_dir / "decisions.jsonl";
    const Outcome replay = Zorv({"replay", kExamples + "/events.jsonl", "--json", "--out", decisions.string()});
    ASSERT_EQ(replay.status, 0) << replay.err;
    Json summary = Parse(replay.out);
    EXPECT_EQ(Number(summary.get(), "events"), 6);
    const cJSON* byDecision = cJSON_GetObjectItemCaseSensitive(summary.get(), "byDecision");
    EXPECT_EQ(Number(byDecision, "block/blocked"), 1);
    EXPECT_EQ(Number(byDecision, "allow/approved"), 3);
    EXPECT_GT(Number(cJSON_GetObjectItemCaseSensitive(summary.get(), "latencyNs"), "max"), 0);
    EXPECT_EQ(Lines(Slurp(decisions)).size(), 6u);

    const std::string before = StoreBytes();
    const Outcome candidate = Zorv({"replay", kExamples + "/events.jsonl", "--lockdown", "--json", "--candidate",
                                    kExamples + "/candidate-ruleset.json", "--name", "example-rules"});
    ASSERT_EQ(candidate.status, 0) << candidate.err;
    const std::vector<std::string> lines = Lines(candidate.out);
    ASSERT_FALSE(lines.empty());
    Json counts = Parse(lines.back());
    EXPECT_EQ(Number(counts.get(), "newlyBlocked"), 1);
    EXPECT_EQ(Number(counts.get(), "newlyAllowed"), 1);
    Json first = Parse(lines.front());
    EXPECT_EQ(Number(first.get(), "line"), 1);
    EXPECT_EQ(Text(cJSON_GetObjectItemCaseSensitive(first.get(), "candidate"), "decision"), "block");
    EXPECT_EQ(StoreBytes(), before);
}

// Every sample belongs to a family announced by HELP and TYPE, and every
// line follows the text exposition format.
TEST_F(ZorvCli, PrometheusOutputIsWellFormed) {
    ASSERT_EQ(Zorv({"import", kExamples + "/ruleset.json", "--name", "example-rules"}).status, 0);
    const Outcome outcome = Zorv({"metrics", "--prometheus"});
    ASSERT_EQ(outcome.status, 0);
    size_t samples = 0;
    for (const std::string& problem : zorv::testing::PrometheusProblems(outcome.out, samples)) ADD_FAILURE() << problem;
    EXPECT_GT(samples, 10u);
    EXPECT_NE(outcome.out.find("zorv_dbinfo_execution_rules 3\n"), std::string::npos);

    Json document = Parse(Zorv({"metrics", "--json"}).out);
    const cJSON* dbinfo = cJSON_GetObjectItemCaseSensitive(
        cJSON_GetObjectItemCaseSensitive(document.get(), "metrics"), "dbinfo");
    EXPECT_EQ(Number(dbinfo, "executionRules"), 3);
}

TEST_F(ZorvCli, DbInfoAndCheckReadTheStore) {
    ASSERT_EQ(Zorv({"import", kExamples + "/ruleset.json", "--name", "example-rules"}).status, 0);
    const Outcome info = Zorv({"db", "info", "--json"});
    ASSERT_EQ(info.status, 0) << info.err;
    Json document = Parse(info.out);
    EXPECT_EQ(Number(document.get(), "schemaVersion"), 16);
    EXPECT_EQ(Number(cJSON_GetObjectItemCaseSensitive(document.get(), "itemsBySource"), "2"), 3);
    const Outcome check = Zorv({"db", "check", "--json"});
    EXPECT_EQ(check.status, 0);
    EXPECT_TRUE(cJSON_IsTrue(cJSON_GetObjectItemCaseSensitive(Parse(check.out).get(), "ok")));
}

}  // namespace
