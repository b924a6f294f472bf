// Drift through app_ctl: changed files classified against the inventory and
// learned only when something vouches for them; renames and deletes touch the
// inventory only during maintenance. Targets are real files.
#include <gtest/gtest.h>

#include "EngineTestFixture.h"

namespace zorv {
namespace {

using test::PluginEvent;

class ZorvDrift : public test::EngineFixture {
protected:
    std::string Directory() { return (m_dir / "drift").string(); }

    PluginEvent Change(const std::string& fileName, uint8_t digest, uint32_t type = AC_OP_CHANGE_32) {
        std::filesystem::create_directories(m_dir / "drift");
        test::WriteFile(m_dir / "drift" / fileName, "MZ");
        PluginEvent event;
        event.type = type;
        event.name = test::PathText(m_dir / "drift" / fileName);
        event.digestFill = digest;
        event.processName = u"c:\\tools\\copy.exe";
        return event;
    }
};

TEST_F(ZorvDrift, ChangedFileIsClassifiedButNeverBlocked) {
    AddItem(0xA1, 4096, AC_SOURCE_EXECUTION_RULES, 0, "bad.exe", Directory());
    AddItem(0xA2, 4096, AC_SOURCE_AGENT_RULES, 1, "good.exe", Directory());
    AddRule("trustType, paths", "4, '" + (m_dir / "drift" / "good.exe").string() + "'");
    Restart();
    uint32_t status = 0;
    AppCtlResult result = Run(Change("bad.exe", 0xA1), &status);
    EXPECT_EQ(status, AC_OK);
    EXPECT_EQ(result.eventType, AC_EVENT_FILE_CHANGE);
    EXPECT_EQ(result.isAuthorized, AC_REASON_BLOCKED);
    // A block-by-target rule marks an allowed drift, still without blocking it.
    result = Run(Change("good.exe", 0xA2), &status);
    EXPECT_EQ(status, AC_OK);
    EXPECT_EQ(result.dbVerdict, AC_DB_BLOCKED);
    EXPECT_EQ(result.source, AC_SOURCE_TRUST_RULE);

    const std::string learned = "fileName = 'new.exe' AND path = '" + Directory() + "' AND source = 4";
    const PluginEvent unknown = Change("new.exe", 0xA3);
    result = Run(unknown, &status);
    EXPECT_EQ(status, AC_OK);
    EXPECT_EQ(result.isAuthorized, AC_REASON_NONE);
    EXPECT_EQ(ItemCount(learned), 0) << "nobody vouches: not learned";
    AppControlConfig::Instance().SetMaintenanceMode(true);
    EXPECT_EQ(Run(unknown).isAuthorized, AC_REASON_MAINTENANCE);
    EXPECT_EQ(ItemCount(learned), 1);
}

TEST_F(ZorvDrift, ChangeForgetsCachedAllowsAndAMissingFileIsAnError) {
    const PluginEvent change = Change("notes.txt", 0xB1);
    Engine().GetAllowCache().Add(u"alice", u"c:\\tools\\copy.exe", change.name);
    Run(change);
    EXPECT_FALSE(Engine().GetAllowCache().Contains(u"alice", u"c:\\tools\\copy.exe", change.name));

    PluginEvent missing;
    missing.type = AC_OP_CHANGE_42;
    missing.name = test::PathText(m_dir / "drift" / "gone.exe");
    uint32_t status = 0;
    EXPECT_EQ(Run(missing, &status).action, AC_DECISION_ERROR);
    EXPECT_EQ(status, AC_E_FAILED);
}

TEST_F(ZorvDrift, RenameAndDeleteChangeTheInventoryOnlyDuringMaintenance) {
    // The retired names need no file on disk; a lower-case directory keeps the
    // store's case-folded path comparison out of the picture.
    AddItem(0xD1, 4096, AC_SOURCE_APPROVED_DRIFT, 1, "old.exe", "c:\\gone");
    AddItem(0xE1, 4096, AC_SOURCE_SCANNED, 1, "gone.exe", "c:\\gone");
    PluginEvent rename = Change("new.exe", 0xD1, AC_OP_RENAME);
    rename.oldName = u"c:\\gone\\old.exe";
    PluginEvent remove;
    remove.type = AC_OP_DELETE;
    remove.name = u"c:\\gone\\gone.exe";
    for (const bool maintenance : {false, true}) {
        SCOPED_TRACE(maintenance ? "maintenance" : "outside maintenance");
        AppControlConfig::Instance().SetMaintenanceMode(maintenance);
        Run(rename);
        uint32_t status = 0;
        EXPECT_EQ(Run(remove, &status).eventType, AC_EVENT_DELETE);
        EXPECT_EQ(status, AC_OK);
        EXPECT_EQ(ItemCount("fileName = 'old.exe' AND path = 'c:\\gone'"), maintenance ? 0 : 1);
        EXPECT_EQ(ItemCount("fileName = 'gone.exe' AND path = 'c:\\gone'"), maintenance ? 0 : 1);
    }
}

// The store compares its paths lowered; a host that gives the directory as it
// is on disk (capitals and all) must still retire the rows of that directory.
TEST_F(ZorvDrift, DeleteRetiresItemsWhateverTheCaseOfTheirDirectory) {
    AddItem(0xF1, 4096, AC_SOURCE_SCANNED, 1, "Tool.exe", "C:\\Apps\\Bin");
    AddItem(0xF2, 4096, AC_SOURCE_SCANNED, 1, "Tool.exe", "c:\\apps\\bin\\");
    AddItem(0xF3, 4096, AC_SOURCE_SCANNED, 1, "tool.exe", "C:\\Apps\\Bin");
    PluginEvent remove;
    remove.type = AC_OP_DELETE;
    remove.name = u"C:\\Apps\\Bin\\Tool.exe";
    AppControlConfig::Instance().SetMaintenanceMode(true);
    uint32_t status = 0;
    Run(remove, &status);
    EXPECT_EQ(status, AC_OK);
    EXPECT_EQ(ItemCount("fileName = 'Tool.exe'"), 0) << "both spellings of the directory, any case";
    EXPECT_EQ(ItemCount("fileName = 'tool.exe'"), 1) << "the file name itself is compared as given";
}

}  // namespace
}  // namespace zorv
