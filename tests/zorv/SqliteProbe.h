// A second, independent connection to ac.db for tests: seeds rows the way
// another program would and reads back what the engine really committed.
#pragma once

#include <sqlite3.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace zorv::test {

using Row = std::vector<std::optional<std::string>>;

class SqliteProbe {
public:
    explicit SqliteProbe(const std::filesystem::path& file) {
        if (sqlite3_open_v2(file.string().c_str(), &m_db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
            ADD_FAILURE() << "cannot open " << file << ": " << sqlite3_errmsg(m_db);
        }
        sqlite3_busy_timeout(m_db, 5000);
    }
    ~SqliteProbe() { sqlite3_close_v2(m_db); }
    SqliteProbe(const SqliteProbe&) = delete;
    SqliteProbe& operator=(const SqliteProbe&) = delete;

    bool Exec(const std::string& sql) {
        char* error = nullptr;
        const int rc = sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, &error);
        if (rc != SQLITE_OK) ADD_FAILURE() << sql << ": " << (error != nullptr ? error : "?");
        sqlite3_free(error);
        return rc == SQLITE_OK;
    }

    // Every row as text (blobs as lower-case hex); NULL stays empty.
    std::vector<Row> Rows(const std::string& sql) {
        std::vector<Row> rows;
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(m_db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
            ADD_FAILURE() << sql << ": " << sqlite3_errmsg(m_db);
            return rows;
        }
        while (sqlite3_step(stmt) == SQLITE_ROW) {
            Row row;
            for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
                const int type = sqlite3_column_type(stmt, i);
                if (type == SQLITE_NULL) {
                    row.emplace_back();
                } else if (type == SQLITE_BLOB) {
                    static constexpr char kDigits[] = "0123456789abcdef";
                    const auto* bytes = static_cast<const unsigned char*>(sqlite3_column_blob(stmt, i));
                    std::string hex;
                    for (int b = 0; b < sqlite3_column_bytes(stmt, i); ++b) {
                        hex += kDigits[bytes[b] >> 4];
                        hex += kDigits[bytes[b] & 15];
                    }
                    row.emplace_back(hex);
                } else {
                    row.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(stmt, i)));
                }
            }
            rows.push_back(std::move(row));
        }
        sqlite3_finalize(stmt);
        return rows;
    }

    // The first column of the first row, "" for none or NULL.
    std::string Scalar(const std::string& sql) {
        const auto rows = Rows(sql);
        if (rows.empty() || rows[0].empty() || !rows[0][0]) return "";
        return *rows[0][0];
    }

    long long Count(const std::string& where) { return std::stoll(Scalar("SELECT count(*) FROM " + where)); }

    // Rows flattened into one text per row, columns joined by '|' and NULL as
    // "~": easy to compare whole tables before and after.
    std::vector<std::string> Lines(const std::string& sql) {
        std::vector<std::string> lines;
        for (const auto& row : Rows(sql)) {
            std::string line;
            for (size_t i = 0; i < row.size(); ++i) {
                if (i > 0) line += '|';
                line += row[i] ? *row[i] : "~";
            }
            lines.push_back(std::move(line));
        }
        return lines;
    }

    sqlite3* handle() const { return m_db; }

private:
    sqlite3* m_db = nullptr;
};

}  // namespace zorv::test
