// store_item and the export that pages the items out again. Each input stores
// up to eight items, directly or through the write-behind buffer, with every
// field drawn from the input (texts as raw UTF-16, lone surrogates included),
// then reads them back with get_inventory at a page size the input chooses.
// Oracle: every field of every item comes back as stored, in the order stored,
// each exactly once, and a source filter shows only that source.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstring>

#include "FuzzSupport.h"

namespace zorv::fuzz {
namespace {

struct Item {
    std::u16string fileName, path, fullPath, ruleset;
    std::vector<uint8_t> md5, sha1, sha256;
    uint32_t source = 0;
    uint64_t size = 0;
    uint8_t isAuthorized = 0;
    bool viaBuffer = false;
};

std::string Hex(const std::vector<uint8_t>& bytes) {
    std::string out;
    for (uint8_t b : bytes) out += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
    return out;
}

// Scanned items are stored with their name and folder folded to lower case (ASCII only).
std::u16string Folded(std::u16string text, uint32_t source) {
    if (source == AC_SOURCE_SCANNED) {
        for (char16_t& unit : text) {
            if (unit >= u'A' && unit <= u'Z') unit = static_cast<char16_t>(unit - u'A' + u'a');
        }
    }
    return text;
}

std::u16string Field(FuzzedDataProvider& in) {
    return in.ConsumeIntegralInRange<int>(0, 7) == 0 ? RawText(in.ConsumeRandomLengthString(4096))
                                                     : RawText(in.ConsumeRandomLengthString(64));
}

void CheckLine(const cJSON* line, const Item& item, const std::u16string& scanUuid, size_t index) {
    auto text = [&](const char* key, const std::u16string& expected) {
        // An empty text is stored as NULL, and a NULL column leaves its key out.
        std::string found = StringOf(line, key);
        if (found == "<absent>" && expected.empty()) found.clear();
        ZORV_FUZZ_CHECK(found == ExpectedUtf8(expected), "item %zu: %s came back as \"%s\", stored \"%s\"", index,
                        key, found.c_str(), ExpectedUtf8(expected).c_str());
    };
    text("fileName", Folded(item.fileName, item.source));
    text("path", Folded(item.path, item.source));
    text("nativePath", item.fullPath);
    text("rulesetId", item.ruleset);
    text("scanUuid", scanUuid);
    ZORV_FUZZ_CHECK(StringOf(line, "md5") == Hex(item.md5), "item %zu: md5", index);
    ZORV_FUZZ_CHECK(StringOf(line, "sha1") == Hex(item.sha1), "item %zu: sha1", index);
    ZORV_FUZZ_CHECK(StringOf(line, "sha256") == Hex(item.sha256), "item %zu: sha256", index);
    // The export reads size and source as 32-bit signed numbers.
    ZORV_FUZZ_CHECK(NumberOf(line, "size") == static_cast<double>(static_cast<int32_t>(static_cast<uint32_t>(item.size))),
                    "item %zu: size %llu came back as %.0f", index, static_cast<unsigned long long>(item.size),
                    NumberOf(line, "size"));
    ZORV_FUZZ_CHECK(NumberOf(line, "source") == static_cast<double>(static_cast<int32_t>(item.source)),
                    "item %zu: source %u came back as %.0f", index, item.source, NumberOf(line, "source"));
    ZORV_FUZZ_CHECK(NumberOf(line, "isAuthorized") == (item.isAuthorized != 0 ? 1 : 0), "item %zu: isAuthorized",
                    index);
}

Store* g_store = nullptr;
uint64_t g_lastId = 0;
size_t g_inputs = 0;

}  // namespace
}  // namespace zorv::fuzz

using namespace zorv::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (g_store == nullptr) {
        static Store store;
        g_store = &store;
    }
    if (++g_inputs % 5000 == 0) {
        g_store->Recycle();
        g_lastId = 0;
    }
    FuzzedDataProvider in(data, size);
    const uint64_t limit = in.ConsumeIntegralInRange<uint64_t>(1, 9);
    const bool filtered = in.ConsumeBool();
    const std::u16string scanUuid = Field(in);

    std::vector<Item> items;
    const size_t count = in.ConsumeIntegralInRange<size_t>(1, 8);
    for (size_t i = 0; i < count && in.remaining_bytes() > 0; ++i) {
        Item item;
        item.md5 = in.ConsumeBytes<uint8_t>(16);
        item.md5.resize(16);
        item.sha1 = in.ConsumeBytes<uint8_t>(20);
        item.sha1.resize(20);
        item.sha256 = in.ConsumeBytes<uint8_t>(32);
        item.sha256.resize(32);
        item.source = in.ConsumeBool() ? in.ConsumeIntegralInRange<uint32_t>(1, 5) : in.ConsumeIntegral<uint32_t>();
        item.size = in.ConsumeIntegral<uint64_t>();
        item.isAuthorized = in.ConsumeIntegral<uint8_t>();
        item.viaBuffer = in.ConsumeBool();
        item.fileName = Field(in);
        item.path = Field(in);
        item.fullPath = Field(in);
        item.ruleset = Field(in);

        InventoryItemRecord record{};
        std::memset(&record, 0x5A, sizeof record);  // the fields the engine must not read
        std::memcpy(record.md5, item.md5.data(), 16);
        std::memcpy(record.sha1, item.sha1.data(), 20);
        std::memcpy(record.sha256, item.sha256.data(), 32);
        record.source = item.source;
        record.fileName = item.fileName.c_str();
        record.path = item.path.c_str();
        record.fullPath = item.fullPath.c_str();
        record.size = item.size;
        record.isAuthorized = item.isAuthorized;
        record.ruleset = item.ruleset.c_str();
        const uint32_t status = store_item(&record, item.viaBuffer ? 1 : 0);
        ZORV_FUZZ_CHECK(status == AC_OK, "store_item answered 0x%x", status);
        items.push_back(std::move(item));
    }
    // Buffered items reach the table at the flush, after the direct ones.
    std::vector<const Item*> order;
    for (const Item& item : items) if (!item.viaBuffer) order.push_back(&item);
    for (const Item& item : items) if (item.viaBuffer) order.push_back(&item);
    if (order.size() != 0 && order.back()->viaBuffer) {
        ZORV_FUZZ_CHECK(flush_db_buffer() == AC_OK, "flush_db_buffer failed with items waiting");
    }

    std::vector<Json> lines = ExportAll(*g_store, g_lastId, limit, 0, "inventoryItemId", scanUuid);
    ZORV_FUZZ_CHECK(lines.size() == order.size(), "stored %zu items, the export has %zu", order.size(), lines.size());
    for (size_t i = 0; i < lines.size(); ++i) CheckLine(lines[i].get(), *order[i], scanUuid, i);

    if (filtered && !order.empty()) {
        const uint32_t source = order.front()->source;
        std::vector<Json> only = ExportAll(*g_store, g_lastId, limit, source, "inventoryItemId", scanUuid);
        // Filter 0 means every item, 6 means trust rules (this store has none).
        size_t expected = 0;
        for (const Item* item : order) expected += source == 0 || item->source == source ? 1 : 0;
        if (source == 6) expected = 0;
        ZORV_FUZZ_CHECK(only.size() == expected, "source %u filter gave %zu lines for %zu items", source,
                        only.size(), expected);
        if (source != 0) {
            for (const Json& line : only) {
                ZORV_FUZZ_CHECK(NumberOf(line.get(), "source") == static_cast<int32_t>(source),
                                "source filter %u let another source through", source);
            }
        }
    }
    if (!lines.empty()) g_lastId = static_cast<uint64_t>(NumberOf(lines.back().get(), "inventoryItemId"));
    return 0;
}
