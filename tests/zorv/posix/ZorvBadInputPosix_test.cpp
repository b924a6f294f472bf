// Hostile file-system states that only POSIX permissions can build: a store
// folder the engine may not write and a ruleset it may not read. Permissions
// do not bind root, so these cases skip there.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "../EngineTestFixture.h"
#include "ZorvDataAccessLayer.h"

namespace zorv {
namespace {

using test::Host;
using test::LogCapture;

namespace fs = std::filesystem;

// Gives the folder its rights back, so TempDir can remove it even when an
// assertion ended the test early.
struct RestoreRights {
    fs::path path;
    ~RestoreRights() { fs::permissions(path, fs::perms::owner_all, fs::perm_options::add); }
};

TEST(BadInputPosix, ReadOnlyFolderRefusesTheStoreWithoutCreatingIt) {
    if (geteuid() == 0) GTEST_SKIP() << "root ignores folder permissions";
    test::ResetPolicy();
    test::TempDir dir;
    const fs::path folder = dir / "locked";
    fs::create_directory(folder);
    fs::permissions(folder, fs::perms::owner_read | fs::perms::owner_exec);
    const RestoreRights restore{folder};
    const std::u16string dbPath = test::PathText(folder / "ac.db");
    const EngineStartParams params = test::StartParams(&dbPath);
    LogCapture::Instance().Clear();
    EXPECT_EQ(engine_start(&params), AC_E_DB_OPEN);
    EXPECT_TRUE(ZorvEngine::GetEngine() == nullptr);
    bool logged = false;
    for (const auto& message : LogCapture::Instance().Messages()) {
        logged = logged || message.starts_with(u"sqlite3_open_v2 failed. rc: ");
    }
    EXPECT_TRUE(logged);
    EXPECT_FALSE(fs::exists(folder / "ac.db"));
    engine_stop();
    ZorvDAL::Instance().Shutdown();
}

class BadInputPosixImport : public test::EngineFixture {};

TEST_F(BadInputPosixImport, UnreadableRulesetFailsAndChangesNothing) {
    if (geteuid() == 0) GTEST_SKIP() << "root reads files whatever their permissions";
    const fs::path file = m_dir / "rules.json";
    test::WriteFile(file, R"({"rules":[{"fileName":"a.exe"}]})");
    fs::permissions(file, fs::perms::none);
    const RestoreRights restore{file};
    const std::u16string path = test::PathText(file);
    EXPECT_EQ(set_ruleset(0, Host(path), Host(u"items")), AC_E_FAILED);
    EXPECT_TRUE(Logged(u"Couldn't create payload"));
    EXPECT_EQ(ItemCount(), 0);
}

}  // namespace
}  // namespace zorv
