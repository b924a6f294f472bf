// zorv export [--source N|NAME] [--after ID] [--out FILE|-] [--format jsonl|csv]
#include <cjson/cJSON.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <vector>

#include "Commands.h"
#include "EventLine.h"
#include "HostText.h"

namespace zorv::cli {

namespace {

constexpr uint64_t kPageItems = 10000;

struct ExportOptions {
    std::string source = "all";
    uint64_t after = 0;
    std::string out = "-";
    std::string format = "jsonl";
};

const char* const kItemColumns[] = {"inventoryItemId", "fileName", "path",     "nativePath",  "md5",
                                    "sha1",            "sha256",   "size",     "recordTime",  "isAuthorized",
                                    "source",          "rulesetId"};
const char* const kTrustColumns[] = {"trustRuleId", "paths",    "hitcount", "processName", "trustType",
                                     "signername",  "productName", "companyName", "sha256",   "issuerCN",
                                     "issuerC",     "issuerS",  "issuerL",  "issuerO",     "issuerOU",
                                     "user",        "group",    "userList", "users"};

std::string CsvField(const cJSON* item) {
    std::string text;
    if (cJSON_IsString(item)) {
        text = item->valuestring;
    } else if (cJSON_IsNumber(item)) {
        char number[32];
        std::snprintf(number, sizeof number, "%.0f", item->valuedouble);
        text = number;
    } else if (cJSON_IsArray(item)) {
        for (const cJSON* entry = item->child; entry != nullptr; entry = entry->next)
            if (cJSON_IsString(entry)) text += (text.empty() ? "" : ";") + std::string(entry->valuestring);
    }
    // A spreadsheet takes a cell that starts like a formula for one, and a
    // file name is anyone's choice: such a text starts with a quote, which the
    // spreadsheet shows as text and hides.
    if ((cJSON_IsString(item) || cJSON_IsArray(item)) && !text.empty() &&
        std::string_view("=+-@\t\r").find(text.front()) != std::string_view::npos)
        text.insert(text.begin(), '\'');
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

template <size_t N>
void WriteCsvHeader(std::FILE* out, const char* const (&columns)[N]) {
    for (size_t i = 0; i < N; ++i) std::fprintf(out, "%s%s", i ? "," : "", columns[i]);
    std::fputc('\n', out);
}

template <size_t N>
bool WriteCsvLine(std::FILE* out, const std::string& line, const char* const (&columns)[N]) {
    cJSON* row = cJSON_ParseWithLength(line.data(), line.size());
    if (row == nullptr) return false;
    std::string text;
    for (size_t i = 0; i < N; ++i) {
        if (i) text += ',';
        text += CsvField(cJSON_GetObjectItemCaseSensitive(row, columns[i]));
    }
    text += '\n';
    cJSON_Delete(row);
    return std::fwrite(text.data(), 1, text.size(), out) == text.size();
}

// The id that ends a payload line: the next page starts after it.
bool LastId(const std::string& line, bool trust, uint64_t& id) {
    cJSON* row = cJSON_ParseWithLength(line.data(), line.size());
    const cJSON* value = cJSON_GetObjectItemCaseSensitive(row, trust ? "trustRuleId" : "inventoryItemId");
    const bool ok = cJSON_IsNumber(value);
    if (ok) id = static_cast<uint64_t>(value->valuedouble);
    cJSON_Delete(row);
    return ok;
}

// Copies one payload page as it is, CR LF line ends made LF, block by block
// straight from the read buffer: the export should cost little more than
// get_inventory itself. `rows` counts the lines, `last` is the last of them.
bool CopyPage(const std::filesystem::path& payload, std::FILE* out, uint64_t& rows, std::string& last) {
    std::ifstream page(payload, std::ios::binary);
    std::vector<char> block(1 << 20);
    std::string tail;     // the line begun and not yet ended
    bool heldCr = false;  // a CR ended the previous block: dropped if LF follows
    for (;;) {
        page.read(block.data(), static_cast<std::streamsize>(block.size()));
        size_t length = static_cast<size_t>(page.gcount());
        if (length == 0) break;
        char* data = block.data();
        if (heldCr && data[0] != '\n') {
            if (std::fputc('\r', out) == EOF) return false;
            tail += '\r';
        }
        heldCr = false;
        // Line by line rather than byte by byte: every line has its CR.
        size_t kept = 0;
        for (size_t read = 0; read < length;) {
            const void* cr = std::memchr(data + read, '\r', length - read);
            const size_t stop = cr != nullptr ? static_cast<size_t>(static_cast<const char*>(cr) - data) : length;
            if (kept != read) std::memmove(data + kept, data + read, stop - read);
            kept += stop - read;
            if (cr == nullptr) break;
            read = stop + 1;
            if (read == length) {
                heldCr = true;
            } else if (data[read] != '\n') {
                data[kept++] = '\r';
            }
        }
        length = kept;
        const char* const begin = data;
        const char* const end = data + length;
        const auto lines = static_cast<uint64_t>(std::count(begin, end, '\n'));
        if (lines == 0) {
            tail.append(data, length);
        } else {
            rows += lines;
            const char* lastEnd = end - 1;
            while (*lastEnd != '\n') --lastEnd;
            const char* lastStart = lastEnd;
            while (lastStart > data && lastStart[-1] != '\n') --lastStart;
            if (lastStart == data && lines == 1)
                last = tail + std::string(begin, lastEnd);
            else
                last.assign(lastStart, lastEnd);
            tail.assign(lastEnd + 1, end);
        }
        if (std::fwrite(data, 1, length, out) != length) return false;
    }
    if (heldCr) {
        if (std::fputc('\r', out) == EOF) return false;
        tail += '\r';
    }
    if (!tail.empty()) {
        ++rows;
        last = tail;
        if (std::fputc('\n', out) == EOF) return false;
    }
    return true;
}

struct FileCloser {
    void operator()(std::FILE* file) const {
        if (file != nullptr && file != stdout) std::fclose(file);
    }
};

}  // namespace

CommandRun DefineExport(CLI::App& command, const CommonOptions& common) {
    auto options = std::make_shared<ExportOptions>();
    command.add_option("--source", options->source,
                       "all (default), agentRules, executionRules, scannedItems, approvedDrift, prelink, trust, or "
                       "the source number");
    command.add_option("--after", options->after, "Start after this item or trust-rule id");
    command.add_option("--out", options->out, "Output file, - for standard output (default)");
    command.add_option("--format", options->format, "jsonl (default) or csv")
        ->check(CLI::IsMember({"jsonl", "csv"}));
    return [options, &common]() {
        const std::optional<uint32_t> source = host::ParseSource(options->source);
        if (!source) {
            PrintError("--source " + options->source, "not a known source");
            return int(kExitUsage);
        }
        const bool trust = *source == AC_SOURCE_TRUST_RULE;
        host::EngineSession engine;
        if (!OpenEngine(common, engine)) return int(kExitError);
        std::unique_ptr<std::FILE, FileCloser> out(options->out == "-" ? stdout
                                                                       : std::fopen(options->out.c_str(), "wb"));
        if (!out) {
            PrintError(options->out, std::string("cannot write: ") + std::strerror(errno));
            return int(kExitError);
        }
        const bool csv = options->format == "csv";
        if (csv) trust ? WriteCsvHeader(out.get(), kTrustColumns) : WriteCsvHeader(out.get(), kItemColumns);

        const std::filesystem::path payload = ScratchPath("export");
        const std::optional<host::ZString> payloadText = host::PathToZ(payload);
        const ZorvChar emptyScanId[] = {0};
        uint64_t after = options->after;
        uint64_t rows = 0;
        std::string line;
        for (;;) {
            const uint32_t status = get_inventory(after, kPageItems, *source, payloadText->c_str(), emptyScanId);
            if (status != AC_OK) {
                PrintError("get_inventory", std::string(host::StatusName(status)) + " after id " +
                                                std::to_string(after));
                std::error_code ignored;
                std::filesystem::remove(payload, ignored);
                return int(kExitError);
            }
            uint64_t pageRows = 0;
            std::string last;
            if (csv) {
                std::ifstream page(payload, std::ios::binary);
                while (std::getline(page, line)) {
                    if (!line.empty() && line.back() == '\r') line.pop_back();
                    if (line.empty()) continue;
                    ++pageRows;
                    trust ? WriteCsvLine(out.get(), line, kTrustColumns) : WriteCsvLine(out.get(), line, kItemColumns);
                    last.swap(line);
                }
            } else if (!CopyPage(payload, out.get(), pageRows, last)) {
                PrintError(options->out, "write failed");
                return int(kExitError);
            }
            rows += pageRows;
            if (pageRows < kPageItems || !LastId(last, trust, after)) break;
        }
        std::error_code ignored;
        std::filesystem::remove(payload, ignored);
        if (std::fflush(out.get()) != 0 || std::ferror(out.get())) {
            PrintError(options->out, "write failed");
            return int(kExitError);
        }
        if (options->out != "-" && Speak(common) && !common.json)
            std::fprintf(stderr, "Exported %llu %s to %s\n", static_cast<unsigned long long>(rows),
                         trust ? "trust rules" : "items", options->out.c_str());
        return int(kExitOk);
    };
}

}  // namespace zorv::cli
