// Ruleset import through set_ruleset_buffer. The input is one or more imports
// separated by 0xFF bytes; each starts with a control byte (bit 0: append,
// bits 1-3: which name, hence which kind) followed by the document as UTF-8.
// Oracle: AC_OK exactly when the text is one JSON object and nothing else;
// afterwards the rows by source, read back through get_inventory, are what a
// replace/append model of the three kinds predicts.
#include <array>
#include <map>

#include "FuzzSupport.h"

namespace zorv::fuzz {
namespace {

enum class Kind { Agent, Trust, Item };

struct Name {
    const char16_t* text;
    Kind kind;
};

// Kinds come from the name, case-insensitively, "agent" winning over "trustrules".
constexpr std::array<Name, 8> kNames{{
    {u"", Kind::Item},
    {u"rulesetA", Kind::Item},
    {u"AgentManifest", Kind::Agent},
    {u"MyAgentManifest_TrustRules", Kind::Agent},
    {u"TrustRules", Kind::Trust},
    {u"corp-TRUSTRULES-2", Kind::Trust},
    {u"Trust Rules", Kind::Item},
    {u"\xD800rules\xDFFF", Kind::Item},
}};

// What get_inventory shows: item rows by source, and trust rules.
struct Counts {
    std::map<int, size_t> items;
    size_t trustRules = 0;
    bool operator==(const Counts& other) const { return items == other.items && trustRules == other.trustRules; }
    size_t Total() const {
        size_t total = trustRules;
        for (const auto& [source, count] : items) total += count;
        return total;
    }
    std::string Describe() const {
        std::string out = "trust rules " + std::to_string(trustRules) + ", items";
        for (const auto& [source, count] : items) out += " " + std::to_string(source) + ":" + std::to_string(count);
        return out;
    }
};

Counts ReadBack(const Store& store) {
    Counts counts;
    for (const Json& line : ExportAll(store, 0, 97, 0, "inventoryItemId")) {
        const int source = static_cast<int>(NumberOf(line.get(), "source"));
        ++counts.items[source];
    }
    counts.trustRules = ExportAll(store, 0, 97, 6, "trustRuleId").size();
    return counts;
}

// The children of a key, walked whatever the value's type, as the import walks them.
size_t Children(const cJSON* document, const char* key) {
    const cJSON* value = cJSON_GetObjectItemCaseSensitive(document, key);
    size_t n = 0;
    for (const cJSON* child = value != nullptr ? value->child : nullptr; child != nullptr; child = child->next) ++n;
    return n;
}

// UTF-16 units of a text the document holds (cJSON hands out valid UTF-8).
size_t Units(const cJSON* object, const char* key) {
    const cJSON* value = cJSON_GetObjectItemCaseSensitive(object, key);
    if (!cJSON_IsString(value) || value->valuestring == nullptr) return 0;
    size_t units = 0;
    for (const char* p = value->valuestring; *p != '\0'; ++p) {
        const auto b = static_cast<unsigned char>(*p);
        if ((b & 0xC0) != 0x80) units += b >= 0xF0 ? 2 : 1;
    }
    return units;
}

// Trust rules whose process-name or path pattern is longer than the limit are skipped.
constexpr size_t kMaxPatternUnits = 260;
size_t StoredTrustRules(const cJSON* document) {
    const cJSON* value = cJSON_GetObjectItemCaseSensitive(document, "Trustrules");
    size_t n = 0;
    for (const cJSON* child = value != nullptr ? value->child : nullptr; child != nullptr; child = child->next) {
        const bool fits = !cJSON_IsObject(child) ||
                          (Units(child, "processName") <= kMaxPatternUnits && Units(child, "paths") <= kMaxPatternUnits);
        n += fits ? 1 : 0;
    }
    return n;
}

Counts Predict(Counts before, Kind kind, bool append, const cJSON* document) {
    Counts after = std::move(before);
    switch (kind) {
    case Kind::Agent:
        after.trustRules = 0;
        if (!append) after.items.erase(1), after.items.erase(2), after.items.erase(6);
        if (size_t n = Children(document, "rules")) after.items[1] += n;
        break;
    case Kind::Trust:
        if (!append) after.trustRules = 0;
        after.trustRules += StoredTrustRules(document);
        break;
    case Kind::Item:
        if (!append) after.items.erase(2);
        if (size_t n = Children(document, "rules")) after.items[2] += n;
        break;
    }
    // An agent manifest keeps items of sources 0, 3, 4 and 5 only.
    if (kind == Kind::Agent && !append) {
        for (auto it = after.items.begin(); it != after.items.end();) {
            const int s = it->first;
            it = (s == 0 || s == 1 || s == 3 || s == 4 || s == 5) ? std::next(it) : after.items.erase(it);
        }
    }
    return after;
}

std::u16string HostText(std::string_view bytes) {
    // Bytes that are not UTF-8 arrive as U+FFFD, as an agent would have to send them.
    std::u16string out;
    for (size_t i = 0; i < bytes.size();) {
        const auto b = static_cast<unsigned char>(bytes[i]);
        size_t n = b < 0x80 ? 1 : b >= 0xC2 && b < 0xE0 ? 2 : b >= 0xE0 && b < 0xF0 ? 3 : b >= 0xF0 && b < 0xF5 ? 4 : 0;
        char32_t cp = n == 1 ? b : n == 2 ? b & 0x1F : n == 3 ? b & 0x0F : b & 0x07;
        bool ok = n != 0 && i + n <= bytes.size();
        for (size_t k = 1; ok && k < n; ++k) {
            const auto c = static_cast<unsigned char>(bytes[i + k]);
            ok = (c & 0xC0) == 0x80;
            cp = (cp << 6) | (c & 0x3F);
        }
        if (ok && ((n == 3 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) || (n == 4 && (cp < 0x10000 || cp > 0x10FFFF)))) ok = false;
        if (!ok) {
            out.push_back(0xFFFD);
            ++i;
            continue;
        }
        if (cp == 0) break;
        if (cp >= 0x10000) {
            out.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
        } else {
            out.push_back(static_cast<char16_t>(cp));
        }
        i += n;
    }
    return out;
}

Store* g_store = nullptr;
Counts g_counts;
size_t g_inputs = 0;

void Import(std::string_view segment) {
    if (segment.empty()) return;
    const auto control = static_cast<unsigned char>(segment[0]);
    const bool append = (control & 1) != 0;
    const Name& name = kNames[(control >> 1) & 7];
    const std::u16string text = HostText(segment.substr(1));

    const std::string utf8 = ExpectedUtf8(text);
    Json document(cJSON_ParseWithOpts(utf8.c_str(), nullptr, /*require_null_terminated=*/1));
    const bool isObject = cJSON_IsObject(document.get());

    const uint32_t status = set_ruleset_buffer(append ? 1 : 0, text.c_str(), name.text);
    ZORV_FUZZ_CHECK(status == (isObject ? AC_OK : AC_E_FAILED), "set_ruleset_buffer answered 0x%x for %s: %s",
                    status, isObject ? "a JSON object" : "no JSON object", utf8.c_str());
    if (isObject) g_counts = Predict(std::move(g_counts), name.kind, append, document.get());

    const Counts found = ReadBack(*g_store);
    ZORV_FUZZ_CHECK(found == g_counts, "after %s import (append %d) of %s\n  expected %s\n  found    %s",
                    name.kind == Kind::Agent ? "agent" : name.kind == Kind::Trust ? "trust" : "item", append,
                    utf8.c_str(), g_counts.Describe().c_str(), found.Describe().c_str());
}

}  // namespace
}  // namespace zorv::fuzz

using namespace zorv::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (g_store == nullptr) {
        static Store store;
        g_store = &store;
        g_counts = ReadBack(store);
    }
    if (++g_inputs % 5000 == 0 || g_counts.Total() > 20000) {
        g_store->Recycle();
        g_counts = ReadBack(*g_store);
    }
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    size_t start = 0;
    while (start <= input.size()) {
        const size_t end = std::min(input.find('\xFF', start), input.size());
        Import(input.substr(start, end - start));
        start = end + 1;
    }
    return 0;
}
