// What the fuzz targets share: a started engine over a store in a folder of
// its own, host text built from raw input, the oracle's own UTF-8 encoder and
// a reader for the export's payload pages. The targets are hosts: they see
// the engine only through zorv/zorv.h.
#pragma once

#include <cjson/cJSON.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "zorv/zorv.h"

namespace zorv::fuzz {

// A broken oracle is a finding: say what broke and stop with a crash, so the
// fuzzer keeps the input that did it.
#define ZORV_FUZZ_CHECK(condition, ...)                                                 \
    do {                                                                                \
        if (!(condition)) {                                                             \
            std::fprintf(stderr, "oracle failed at %s:%d: %s\n  ", __FILE__, __LINE__, \
                         #condition);                                                   \
            std::fprintf(stderr, __VA_ARGS__);                                          \
            std::fprintf(stderr, "\n");                                                 \
            std::abort();                                                               \
        }                                                                               \
    } while (0)

inline void Silent(uint32_t, uint32_t, const ZorvChar*, const ZorvChar*, const ZorvChar*, uint32_t) {}

// The store lives in a fresh folder under $TMPDIR; it is removed at exit. Every
// level is logged (into a callback that drops it) so the formatting runs too.
class Store {
public:
    Store() {
        const char* base = std::getenv("TMPDIR");
        std::string templ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/zorv-fuzz-XXXXXX";
        if (mkdtemp(templ.data()) == nullptr) {
            std::perror("mkdtemp");
            std::abort();
        }
        m_dir = templ;
        Start();
    }
    // No engine_stop here: at exit the library's own statics may already be
    // gone, and a process that ends needs no orderly stop.
    ~Store() {
        std::error_code ignored;
        std::filesystem::remove_all(m_dir, ignored);
    }
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;

    const std::filesystem::path& Dir() const { return m_dir; }

    // A long run would grow one database without end: start over now and then.
    void Recycle() {
        engine_stop();
        for (const char* suffix : {"", "-wal", "-shm"}) {
            std::error_code ignored;
            std::filesystem::remove(m_dir / (std::string("ac.db") + suffix), ignored);
        }
        Start();
    }

    // The store notes whether it holds trust rules only when it opens.
    void Restart() {
        engine_stop();
        Start();
    }

private:
    void Start() {
        const std::u16string db = Text((m_dir / "ac.db").string());
        EngineStartParams params{};
        params.dbPath = db.c_str();
        params.logLevel = AC_LOG_INFO | AC_LOG_WARNING | AC_LOG_ERROR | AC_LOG_TRACE;
        params.logCallback = &Silent;
        if (engine_start(&params) != AC_OK) {
            std::fprintf(stderr, "engine_start failed in %s\n", m_dir.c_str());
            std::abort();
        }
    }

public:
    // ASCII (or any valid UTF-8 the caller promises) to host text.
    static std::u16string Text(std::string_view utf8) {
        std::u16string out;
        for (size_t i = 0; i < utf8.size();) {
            const auto b = static_cast<unsigned char>(utf8[i]);
            char32_t cp = b;
            size_t n = 1;
            if (b >= 0xF0) {
                cp = b & 0x07, n = 4;
            } else if (b >= 0xE0) {
                cp = b & 0x0F, n = 3;
            } else if (b >= 0xC0) {
                cp = b & 0x1F, n = 2;
            }
            for (size_t k = 1; k < n && i + k < utf8.size(); ++k) cp = (cp << 6) | (utf8[i + k] & 0x3F);
            i += n;
            if (cp >= 0x10000) {
                out.push_back(static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10)));
                out.push_back(static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF)));
            } else {
                out.push_back(static_cast<char16_t>(cp));
            }
        }
        return out;
    }

private:
    std::filesystem::path m_dir;
};

// The UTF-8 a text must come back as: code points as they are, a surrogate
// without its partner as U+FFFD.
inline std::string ExpectedUtf8(std::u16string_view text) {
    std::string out;
    auto put = [&out](char32_t cp) {
        if (cp < 0x80) {
            out += static_cast<char>(cp);
        } else if (cp < 0x800) {
            out += static_cast<char>(0xC0 | (cp >> 6));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            out += static_cast<char>(0xE0 | (cp >> 12));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (cp >> 18));
            out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (cp & 0x3F));
        }
    };
    for (size_t i = 0; i < text.size(); ++i) {
        const char32_t u = text[i];
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
            put(0x10000 + ((u - 0xD800) << 10) + (text[i + 1] - 0xDC00));
            ++i;
        } else if (u >= 0xD800 && u <= 0xDFFF) {
            put(0xFFFD);
        } else {
            put(u);
        }
    }
    return out;
}

// Raw input as host text: two bytes a unit, so any unit (lone surrogates
// included) can appear; the text ends at the first NUL as the host's would.
inline std::u16string RawText(const std::string& bytes) {
    std::u16string out;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const char16_t unit = static_cast<char16_t>(static_cast<unsigned char>(bytes[i]) |
                                                    (static_cast<unsigned char>(bytes[i + 1]) << 8));
        if (unit == 0) break;
        out.push_back(unit);
    }
    return out;
}

struct JsonDeleter {
    void operator()(cJSON* json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

// One page of get_inventory: every line a JSON object ended by CR LF.
inline std::vector<Json> ReadPayload(const std::filesystem::path& payload) {
    std::ifstream in(payload, std::ios::binary);
    ZORV_FUZZ_CHECK(in.good(), "no payload at %s", payload.c_str());
    std::stringstream buffer;
    buffer << in.rdbuf();
    const std::string text = buffer.str();
    std::vector<Json> lines;
    size_t start = 0;
    while (start < text.size()) {
        const size_t end = text.find("\r\n", start);
        ZORV_FUZZ_CHECK(end != std::string::npos, "payload line without CR LF: %s", text.substr(start).c_str());
        const std::string line = text.substr(start, end - start);
        Json json(cJSON_ParseWithLength(line.data(), line.size()));
        ZORV_FUZZ_CHECK(cJSON_IsObject(json.get()), "payload line is not a JSON object: %s", line.c_str());
        lines.push_back(std::move(json));
        start = end + 2;
    }
    return lines;
}

// Every line of an export from `after` on, page by page as the agent reads it.
// `idKey` is "inventoryItemId" or "trustRuleId".
inline std::vector<Json> ExportAll(const Store& store, uint64_t after, uint64_t limit, uint32_t source,
                                   const char* idKey, const std::u16string& scanUuid = u"scan") {
    const std::u16string payload = Store::Text((store.Dir() / "payload.json").string());
    std::vector<Json> all;
    for (;;) {
        const uint32_t status = get_inventory(after, limit, source, payload.c_str(), scanUuid.c_str());
        ZORV_FUZZ_CHECK(status == AC_OK, "get_inventory answered 0x%x", status);
        std::vector<Json> page = ReadPayload(store.Dir() / "payload.json");
        ZORV_FUZZ_CHECK(page.size() <= limit, "a page of %zu lines for limit %llu", page.size(),
                        static_cast<unsigned long long>(limit));
        for (Json& line : page) {
            const cJSON* id = cJSON_GetObjectItemCaseSensitive(line.get(), idKey);
            ZORV_FUZZ_CHECK(cJSON_IsNumber(id), "line without %s", idKey);
            const auto value = static_cast<uint64_t>(id->valuedouble);
            ZORV_FUZZ_CHECK(value > after, "id %llu not after %llu", static_cast<unsigned long long>(value),
                            static_cast<unsigned long long>(after));
            after = value;
            all.push_back(std::move(line));
        }
        if (page.size() < limit) return all;
    }
}

inline std::string StringOf(const cJSON* object, const char* key) {
    const cJSON* value = cJSON_GetObjectItemCaseSensitive(object, key);
    return cJSON_IsString(value) && value->valuestring != nullptr ? value->valuestring : std::string("<absent>");
}

inline double NumberOf(const cJSON* object, const char* key) {
    const cJSON* value = cJSON_GetObjectItemCaseSensitive(object, key);
    ZORV_FUZZ_CHECK(cJSON_IsNumber(value), "no number under %s", key);
    return value->valuedouble;
}

}  // namespace zorv::fuzz
