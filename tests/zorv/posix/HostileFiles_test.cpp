// Files an unprivileged user controls, named by events or handed over as a
// ruleset: FIFOs that never get a writer, links to devices that never end,
// sparse files that claim gigabytes. None may hang or redirect the engine;
// each call runs under a time bound so that a regression fails the run.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>

#include "EngineEvent.h"
#include "../EngineTestFixture.h"
#include "TestSupport.h"
#include "ZorvLogger.h"
#include "ZorvQuery.h"
#include "platform/Platform.h"

namespace zorv {
namespace {

using test::PathText;
using test::TempDir;
namespace fs = std::filesystem;

// A folder of every kind of file that is not a plain regular one.
struct HostileFolder {
    TempDir dir;
    HostileFolder() {
        test::WriteFile(dir / "plain.ps1", "# one line");
        EXPECT_EQ(::mkfifo((dir / "fifo.ps1").c_str(), 0600), 0);
        fs::create_symlink("/dev/zero", dir / "zero.ps1");
        fs::create_symlink(dir / "plain.ps1", dir / "link.ps1");
        fs::create_symlink(dir / "fifo.ps1", dir / "fifo-link.ps1");
        fs::create_symlink(dir / "absent.ps1", dir / "dangling.ps1");
    }
    std::u16string Path(const char* name) const { return PathText(dir / name); }
};

constexpr const char* kRefused[] = {"fifo.ps1", "zero.ps1", "link.ps1", "fifo-link.ps1", "dangling.ps1"};

TEST(HostileFiles, ReaderRefusesEverythingButARegularFileWithoutBlocking) {
    HostileFolder folder;
    test::WithinSeconds(10, "OplockReader::Open", [&] {
        platform::OplockReader reader;
        for (const char* name : kRefused) {
            EXPECT_FALSE(reader.Open(folder.Path(name))) << name;
            EXPECT_NE(reader.Error(), 0u) << name;
        }
        EXPECT_FALSE(reader.Open(u"/dev/zero"));
        EXPECT_EQ(reader.Error(), platform::kErrorAccessDenied);
        ASSERT_TRUE(reader.Open(folder.Path("plain.ps1")));
        EXPECT_EQ(reader.Size(), 10u);
    });
}

TEST(HostileFiles, FileTimesComeFromTheEntryWithoutAnOpen) {
    HostileFolder folder;
    test::WithinSeconds(10, "GetFileTimes", [&] {
        platform::FileTimes times;
        uint32_t error = 0;
        bool openFailed = false;
        for (const char* name : kRefused) {
            EXPECT_FALSE(platform::GetFileTimes(folder.Path(name), times, error, openFailed)) << name;
            EXPECT_TRUE(openFailed) << name;
        }
        EXPECT_TRUE(platform::GetFileTimes(folder.Path("plain.ps1"), times, error, openFailed));
    });
}

TEST(HostileFiles, OneLineScriptTestReadsNoFurtherThanItsAnswer) {
    HostileFolder folder;
    // A sparse file: a "# " header, then 2 GiB of zero bytes and no line feed.
    {
        test::WriteFile(folder.dir / "sparse.ps1", "# x");
        const int fd = ::open((folder.dir / "sparse.ps1").c_str(), O_WRONLY);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::ftruncate(fd, off_t{1} << 31), 0);
        ::close(fd);
    }
    // Exactly 1 MiB on its first line is still a one-liner; a byte more is not.
    test::WriteFile(folder.dir / "mib.ps1", "# " + std::string((size_t{1} << 20) - 2, 'x'));
    test::WriteFile(folder.dir / "over.ps1", "# " + std::string((size_t{1} << 20) - 1, 'x'));
    test::WriteFile(folder.dir / "two.ps1", "# a\n" + std::string(4 << 20, '\n'));
    test::WriteFile(folder.dir / "one.ps1", "1");

    const ZorvQuery query;
    const auto trusted = [&](const char* name) {
        EngineEvent event;
        event.name = folder.Path(name);
        return query.ShouldTrustPowershell(event);
    };
    test::WithinSeconds(20, "ShouldTrustPowershell", [&] {
        for (const char* name : kRefused) EXPECT_FALSE(trusted(name)) << name;
        for (const char* name : {"sparse.ps1", "over.ps1", "two.ps1"}) EXPECT_FALSE(trusted(name)) << name;
        for (const char* name : {"plain.ps1", "mib.ps1", "one.ps1"}) EXPECT_TRUE(trusted(name)) << name;
    });
}

class HostileRuleset : public test::EngineFixture {};

TEST_F(HostileRuleset, OnlyARegularFileWithinTheSizeLimitIsImported) {
    HostileFolder folder;
    const std::string rules = R"({"rules":[{"fileName":"a.exe","sha256":")" + std::string(64, 'a') +
                              R"(","size":1,"action":"allow"}]})";
    test::WriteFile(folder.dir / "rules.json", rules);
    fs::create_symlink(folder.dir / "rules.json", folder.dir / "rules-link.json");
    // Claims 2 GiB, holds almost nothing: refused before anything is allocated.
    test::WriteFile(folder.dir / "sparse.json", rules);
    fs::resize_file(folder.dir / "sparse.json", std::uintmax_t{2} << 30);
    const auto import = [](const std::u16string& path) { return set_ruleset(0, test::Host(path), test::Host(u"r")); };
    test::WithinSeconds(30, "set_ruleset", [&] {
        for (const char* name : {"fifo.ps1", "zero.ps1", "fifo-link.ps1", "dangling.ps1", "rules-link.json"}) {
            EXPECT_EQ(import(folder.Path(name)), AC_E_FAILED) << name;
        }
        for (const char16_t* path : {u"/dev/zero", u"/dev/null"}) EXPECT_EQ(import(path), AC_E_FAILED);
        EXPECT_EQ(import(folder.Path("sparse.json")), AC_E_FAILED);
    });
    EXPECT_TRUE(LoggedStartingWith(u"Ruleset file " + folder.Path("sparse.json") + u" is 2147483648 bytes, more than"));
    EXPECT_EQ(ItemCount(), 0);
    EXPECT_EQ(import(folder.Path("rules.json")), AC_OK);
    EXPECT_EQ(ItemCount(), 1);
}

// File mode writes LogFile.log into the current directory.
class InFolder {
public:
    explicit InFolder(const fs::path& folder) : m_previous(fs::current_path()) { fs::current_path(folder); }
    ~InFolder() { fs::current_path(m_previous); }

private:
    fs::path m_previous;
};

TEST(HostileLogFile, ALinkOrFifoInItsPlaceIsNeverWrittenThrough) {
    TempDir dir;
    InFolder inside(dir.path());
    test::WriteFile(dir / "target", "untouched\n");
    test::WithinSeconds(10, "InitLogger", [&] {
        for (const auto& plant : {std::function<void()>([&] { fs::create_symlink(dir / "target", "LogFile.log"); }),
                                  std::function<void()>([&] { fs::create_symlink(dir / "absent", "LogFile.log"); }),
                                  std::function<void()>([&] { ASSERT_EQ(::mkfifo("LogFile.log", 0600), 0); })}) {
            plant();
            ZorvLogger logger;
            EXPECT_EQ(logger.InitLogger(nullptr, 0), 1u);
            logger.Log(kLogError, u"F", u"src/x", 1, u"must not land anywhere");
            fs::remove("LogFile.log");
        }
    });
    EXPECT_EQ(test::ReadFile(dir / "target"), "untouched\n");
    EXPECT_FALSE(fs::exists(dir / "absent"));
}

// The process-wide logger is set once per process: this runs in a child of
// its own, where no earlier test has set it.
TEST(HostileLogFile, EngineStartAnswersLoggerErrorUntilTheLogCanBeOpened) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            TempDir dir;
            InFolder inside(dir.path());
            fs::create_directory("LogFile.log");
            const std::u16string dbPath = PathText(dir / "ac.db");
            EngineStartParams params{};
            params.dbPath = test::Host(dbPath);
            int code = engine_start(&params) == AC_E_LOGGER ? 0 : 1;
            fs::remove("LogFile.log");
            code |= engine_start(&params) == AC_OK ? 0 : 2;
            code |= engine_stop() == AC_OK ? 0 : 4;
            code |= fs::is_regular_file("LogFile.log") ? 0 : 8;
            std::exit(code);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zorv
