// The event-line reader against the writer: every field the format knows
// survives a round trip, and the lines it must refuse are refused by name.
#include <gtest/gtest.h>

#include <cstring>

#include "EventLine.h"
#include "EventRecord.h"

namespace zorv::host {
namespace {

// A record with every field set to a value of its own.
EventRecord EveryField() {
    EventRecord record;
    AppCtlEvent& numbers = record.Numbers();
    numbers.type = 5;
    uint64_t next = 1;
    for (const NumberField& field : kNumberFields) numbers.*(field.member) = next++ * 1000003;
    for (const ByteField& field : kByteFields) numbers.*(field.member) = static_cast<uint8_t>(next++);
    for (size_t i = 0; i < kTextFieldCount; ++i)
        record.SetText(i, *Utf8ToZ(std::string(kTextFields[i].name) + " \xC3\xA9\\\"/x"));
    for (size_t i = 0; i < kDigestFieldCount; ++i) {
        uint8_t bytes[32];
        for (size_t b = 0; b < 32; ++b) bytes[b] = static_cast<uint8_t>(i * 37 + b * 11);
        record.SetDigest(i, bytes);
    }
    return record;
}

TEST(EventLine, EveryFieldSurvivesARoundTrip) {
    EventRecord written = EveryField();
    const AppCtlEvent& out = written.Raw();
    EventRecord read;
    std::string error;
    ASSERT_TRUE(ParseEventLine(FormatEventLine(out), read, error)) << error;
    const AppCtlEvent& in = read.Raw();
    EXPECT_EQ(in.type, out.type);
    for (const NumberField& field : kNumberFields) EXPECT_EQ(in.*(field.member), out.*(field.member)) << field.name;
    for (const ByteField& field : kByteFields) EXPECT_EQ(in.*(field.member), out.*(field.member)) << field.name;
    for (const TextField& field : kTextFields) {
        ASSERT_NE(in.*(field.member), nullptr) << field.name;
        EXPECT_EQ(ZToUtf8(in.*(field.member)), ZToUtf8(out.*(field.member))) << field.name;
    }
    for (const DigestField& field : kDigestFields) {
        ASSERT_NE(in.*(field.member), nullptr) << field.name;
        EXPECT_EQ(std::memcmp(in.*(field.member), out.*(field.member), field.length), 0) << field.name;
    }

    // A reused record forgets what the previous line set.
    ASSERT_TRUE(ParseEventLine(R"({"type":1,"name":"/bin/x"})", read, error)) << error;
    const AppCtlEvent& again = read.Raw();
    EXPECT_EQ(again.pid, 0u);
    EXPECT_EQ(again.processName, nullptr);
    EXPECT_EQ(again.fileSha256, nullptr);
    EXPECT_EQ(ZToUtf8(again.name), "/bin/x");
}

TEST(EventLine, LinesAreReadOrRefusedByName) {
    const std::string sha(64, 'a');
    struct Case {
        std::string line;
        const char* error;  // nullptr: accepted
    } cases[] = {
        {R"({"n\u0061me":"/bin/x","type":1})", nullptr},
        {R"( { "type" : 1 , "sha256" : ")" + std::string(32, 'A') + std::string(32, 'f') + R"(" } )", nullptr},
        {R"({"type":1,"sha256":")" + sha.substr(1) + "g\"}", "\"sha256\": expected 64 hex digits"},
        {R"({"type":1,"sha256":"g)" + sha.substr(1) + "\"}", "\"sha256\": expected 64 hex digits"},
        {R"({"type":1,"md5":")" + sha + "\"}", "\"md5\": expected 32 hex digits"},
        {R"({"type":1,"nam":"x"})", "unknown field \"nam\""},
        {R"({"type":1,"names":"x"})", "unknown field \"names\""},
        {R"({"type":1,"":"x"})", "unknown field \"\""},
        {R"({"type":1,"Name":"x"})", "unknown field \"Name\""},
        // The key is the line's own text: the error names it escaped, on one line.
        {R"({"type":1,"a\nb\u001b[31m":"x"})", "unknown field \"a\\nb\\x1b[31m\""},
        {R"({"type":1,"pid":-1})", "\"pid\": expected an unsigned integer"},
        {R"({"type":1,"isExec":256})", "\"isExec\": expected true, false or 0..255"},
        {R"({"type":1,"name":7})", "\"name\": expected a string"},
        {"{\"type\":1,\"name\":\"\xC3\"}", "\"name\": not valid UTF-8"},
        {"{\"type\":1,\"name\":\"a\tb\"}", "not valid JSON"},
        {"{\"type\":1,\"name\":\"0123456789abcdef\x01x\"}", "not valid JSON"},
        {"{\"type\":1,\"name\":\"/opt/\xC3\xBC/0123456789abcdef\"}", nullptr},
        {R"({"type":1,"name":"/opt/0123456789\"abcdef\\"})", nullptr},
        {R"({"type":1,"name":"x)", "not valid JSON"},
        {R"({"type":1} x)", "not valid JSON"},
    };
    for (const Case& c : cases) {
        EventRecord record;
        std::string error;
        const bool read = ParseEventLine(c.line, record, error);
        if (c.error == nullptr) {
            EXPECT_TRUE(read) << c.line << ": " << error;
        } else {
            EXPECT_FALSE(read) << c.line;
            EXPECT_EQ(error, c.error) << c.line;
        }
    }
}

}  // namespace
}  // namespace zorv::host
