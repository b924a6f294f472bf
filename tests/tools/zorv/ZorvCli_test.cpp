// End to end through the built zorv program: exit statuses, --json outputs,
// the store's contents afterwards and the bad-input messages.
#include <gtest/gtest.h>

#include <cjson/cJSON.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#if __has_include(<sys/wait.h>)
#include <sys/wait.h>
#endif

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

    // Runs zorv with `args` (each quoted), standard output and error to files.
    Outcome Zorv(const std::vector<std::string>& args, bool withDb = true) {
        std::string command = "\"" + std::string(ZORV_CLI_FILE) + "\"";
        for (const std::string& arg : args) command += " \"" + arg + "\"";
        if (withDb) command += " --db \"" + m_db + "\"";
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
    const std::string badEvents =
        Write("bad.jsonl",
              "{\"type\":23,\"pid\":1,\"colour\":\"red\"}\n"
              "{\"type\":\"start\",\"pid\":1}\n"
              "{\"type\":23,\"sha256\":\"abc\"}\n"
              "{\"type\":23,\"name\":\"\xC3\x28\"}\n"
              "not json at all\n")
            .string();
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
    };
    for (const Case& test : cases) {
        const Outcome outcome = Zorv(test.args);
        EXPECT_EQ(outcome.status, 3) << test.args[0] << " " << test.named;
        EXPECT_NE(outcome.err.find(test.named + ": "), std::string::npos) << outcome.err;
        EXPECT_NE(outcome.err.find(test.reason), std::string::npos) << outcome.err;
        EXPECT_EQ(StoreBytes(), before) << test.args[0] << " " << test.named;
    }
    EXPECT_EQ(Zorv({"replay", badEvents, "--strict", "--json"}).err.find(":2:"), std::string::npos)
        << "--strict stops at the first bad line";
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

    Outcome first = Zorv({"scan", tree.string(), "--json", "--jobs", "2"});
    ASSERT_EQ(first.status, 0) << first.err;
    Json summary = Parse(first.out);
    EXPECT_EQ(Number(summary.get(), "stored"), 4);
    EXPECT_EQ(Number(summary.get(), "seen"), 6);
    const cJSON* skipped = cJSON_GetObjectItemCaseSensitive(summary.get(), "skipped");
    EXPECT_EQ(Number(skipped, "not executable"), 2);
    EXPECT_EQ(first.err.find('\r'), std::string::npos) << "no progress line off a terminal";

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
        const Outcome outcome =
            Zorv({"check", test.file.string(), "--process", test.process, "--lockdown", "--json"});
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

    const Outcome csv = Zorv({"export", "--source", "executionRules", "--format", "csv"});
    ASSERT_EQ(csv.status, 0);
    const std::vector<std::string> rows = Lines(csv.out);
    ASSERT_EQ(rows.size(), 4u);
    EXPECT_EQ(rows[0].rfind("inventoryItemId,fileName,", 0), 0u);

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
    const std::regex help(R"(# HELP (zorv_[a-z0-9_]+) [^\n]+)");
    const std::regex type(R"(# TYPE (zorv_[a-z0-9_]+) (counter|gauge))");
    const std::regex sample(
        R"((zorv_[a-z0-9_]+)(\{[a-z_][a-z0-9_]*="(\\.|[^"\\])*"(,[a-z_][a-z0-9_]*="(\\.|[^"\\])*")*\})? -?[0-9.e+]+)");
    std::set<std::string> helped, typed, finished;
    std::string current;
    size_t samples = 0;
    for (const std::string& line : Lines(outcome.out)) {
        std::smatch match;
        if (std::regex_match(line, match, help)) {
            EXPECT_TRUE(helped.insert(match[1]).second) << "HELP twice: " << line;
            if (!current.empty()) finished.insert(current);
            current = match[1];
        } else if (std::regex_match(line, match, type)) {
            EXPECT_EQ(match[1], current) << line;
            typed.insert(match[1]);
        } else if (std::regex_match(line, match, sample)) {
            EXPECT_EQ(match[1], current) << "sample outside its family: " << line;
            EXPECT_TRUE(typed.count(match[1])) << line;
            ++samples;
        } else {
            ADD_FAILURE() << "not exposition format: " << line;
        }
    }
    EXPECT_EQ(helped, typed);
    EXPECT_GT(samples, 10u);
    EXPECT_NE(outcome.out.find("zorv_dbinfo_execution_rules 3\n"), std::string::npos);
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
