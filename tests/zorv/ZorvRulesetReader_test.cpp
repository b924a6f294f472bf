#include "ZorvRulesetReader.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace zorv {
namespace {

constexpr const char* kKeys[] = {"rules", "Trustrules", "Userlists"};

// What reading gave: the verdict and each child printed, by key.
struct Reading {
    RulesetReader::Outcome outcome = RulesetReader::Outcome::Malformed;
    std::vector<std::string> children[3];

    bool operator==(const Reading& other) const {
        if (outcome != other.outcome) return false;
        for (int i = 0; i < 3; ++i) {
            if (children[i] != other.children[i]) return false;
        }
        return true;
    }
};

std::string Print(const cJSON* item) {
    char* text = cJSON_PrintUnformatted(item);
    std::string out = text != nullptr ? text : "<unprintable>";
    cJSON_free(text);
    return out;
}

// The whole tree, as the import read rulesets before.
Reading Whole(const std::string& text) {
    Reading reading;
    cJSON* document = cJSON_ParseWithOpts(text.c_str(), nullptr, 1);
    if (document == nullptr) return reading;
    if (!cJSON_IsObject(document)) {
        reading.outcome = RulesetReader::Outcome::NotObject;
    } else {
        reading.outcome = RulesetReader::Outcome::Object;
        for (int i = 0; i < 3; ++i) {
            const cJSON* value = cJSON_GetObjectItemCaseSensitive(document, kKeys[i]);
            for (const cJSON* child = value != nullptr ? value->child : nullptr; child != nullptr; child = child->next) {
                reading.children[i].push_back(Print(child));
            }
        }
    }
    cJSON_Delete(document);
    return reading;
}

Reading Streamed(const std::string& text) {
    Reading reading;
    RulesetReader reader(text, kKeys, 3);
    reading.outcome = reader.Read([&](size_t key, const cJSON& child) {
        reading.children[key].push_back(Print(&child));
        return true;
    });
    if (reading.outcome == RulesetReader::Outcome::Malformed) {
        const char* where = reader.ErrorPosition();
        EXPECT_TRUE(where >= text.data() && where <= text.data() + text.size()) << text;
        // Children read before the fault are the caller's to undo.
        for (auto& children : reading.children) children.clear();
    }
    return reading;
}

std::string Nested(int depth, const std::string& inner = "1") {
    return std::string(depth, '[') + inner + std::string(depth, ']');
}

TEST(RulesetReader, AgreesWithTheWholeTreeOnEveryCase) {
    const std::string bom = "\xEF\xBB\xBF";
    const std::vector<std::string> cases = {
        "", " ", "{}", " {} ", "{} x", "{}{}", "{", "}", "[]", "[1,2]", "\"text\"", "12", "null", "-", "tru",
        bom + "{}", bom + "{\"rules\":[1]}", bom, bom + bom + "{}", "{\"rules\":[" + bom + "1]}",
        "{\"rules\":[{\"a\":1},{\"b\":[2,3]},\"x\",null]}",
        "{\"rules\":{\"a\":{\"fileName\":\"x\"},\"b\":2}}",
        "{\"rules\":\"text\",\"Trustrules\":7}",
        "{\"rules\":[1],\"rules\":[2,3]}",             // the first of a duplicated key
        "{\"rules\":5,\"rules\":[2,3]}",               // even when it has no children
        "{\"rules\":[1],\"rules\":[2,}",               // a later duplicate is still checked
        "{\"rul\\u0065s\":[1]}",                       // names compare decoded
        "{\"rules\\u0000x\":[1]}",                     // ... as C strings
        "{\"rules\":[1]}@garbage", "{\"rules\":[1@]}",    // @ stands for a NUL byte
        "{\"a\":1,}", "{,}", "{\"a\"}", "{\"a\":}", "{\"a\" 1}", "{a:1}", "{\"a\":1 \"b\":2}",
        "{\"rules\":[1,]}", "{\"rules\":[,1]}", "{\"rules\":[1 2]}", "{\"rules\":[1", "{\"rules\":[1]",
        "{\"rules\":[1.2.3]}", "{\"rules\":[01, -0.5e3, 1e, +1]}", "{\"rules\":[\"\\q\"]}",
        "{\"rules\":[\"\\ud800\"]}", "{\"rules\":[\"\\ud83d\\ude00\"]}", "{\"rules\":[\"a\x01\x7f\"]}",
        "{\"Userlists\":[{\"id\":\"l\",\"users\":[\"u\"]}],\"Trustrules\":[{\"processName\":\"p\"}]}",
        "\t\r\n\x01{\x1f\"rules\"\x02:\x03[\x04 1 \x05]\x06}\x07",  // every byte up to 32 is space
        "{\"rules\":[1]}\x01\x20\x1f",
    };
    for (std::string text : cases) {
        for (char& c : text) c = c == '@' ? '\0' : c;
        EXPECT_TRUE(Whole(text) == Streamed(text)) << "document: " << text;
    }
}

TEST(RulesetReader, CountsTheDocumentsNestingAroundEachChild) {
    // A child of "rules" starts inside two containers; the limit is cJSON's.
    for (int depth = CJSON_NESTING_LIMIT - 4; depth <= CJSON_NESTING_LIMIT + 1; ++depth) {
        for (const std::string& text :
             {"{\"rules\":[" + Nested(depth) + "]}", "{\"rules\":{\"a\":" + Nested(depth) + "}}",
              "{\"other\":[" + Nested(depth) + "]}", "{\"x\":" + Nested(depth) + "}", Nested(depth),
              "[" + Nested(depth) + "]"}) {
            EXPECT_TRUE(Whole(text) == Streamed(text)) << "depth " << depth << ": " << text.substr(0, 40);
        }
    }
}

TEST(RulesetReader, AgreesWithTheWholeTreeOnMutatedDocuments) {
    const std::vector<std::string> seeds = {
        "{\"rules\":[{\"fileName\":\"a.exe\",\"sha256\":\"00ff\",\"size\":12,\"action\":\"allow\"},"
        "{\"fileName\":\"b\",\"size\":\"7\"}],\"name\":\"x\"}",
        "{\"Trustrules\":[{\"processName\":\"c:\\\\t\\\\*.exe\",\"trustType\":1,\"user\":\"D\\\\U\"}],"
        "\"Userlists\":[{\"id\":\"l1\",\"users\":[\"a\",\"b\"]},{\"id\":\"l2\",\"users\":[]}],\"rules\":{}}",
        "[{\"rules\":[1]}]",
    };
    const std::string alphabet = "{}[]:,\" \\u0ae-1.tfn\x01\xEF\xBB\xBF";
    std::mt19937 random(1234);
    int objects = 0;
    for (int round = 0; round < 4000; ++round) {
        std::string text = seeds[random() % seeds.size()];
        const int edits = 1 + static_cast<int>(random() % 3);
        for (int e = 0; e < edits && !text.empty(); ++e) {
            const size_t at = random() % text.size();
            switch (random() % 4) {
            case 0: text.erase(at, 1 + random() % 3); break;
            case 1: text.insert(at, 1, alphabet[random() % alphabet.size()]); break;
            case 2: text[at] = alphabet[random() % alphabet.size()]; break;
            default: text.insert(at, text.substr(random() % text.size(), random() % 8)); break;
            }
        }
        const Reading whole = Whole(text);
        ASSERT_TRUE(whole == Streamed(text)) << "document: " << text;
        if (whole.outcome == RulesetReader::Outcome::Object) ++objects;
    }
    // Mutations that keep a valid object must be common enough to count.
    EXPECT_GT(objects, 400) << "valid objects among the mutated documents";
}

TEST(RulesetReader, StopsWhenTheVisitorAsks) {
    const std::string text = "{\"rules\":[1,2,3],\"Trustrules\":[4]}";
    RulesetReader reader(text, kKeys, 3);
    int seen = 0;
    EXPECT_EQ(reader.Read([&](size_t, const cJSON&) { return ++seen < 2; }), RulesetReader::Outcome::Stopped);
    EXPECT_EQ(seen, 2);
}

}  // namespace
}  // namespace zorv
