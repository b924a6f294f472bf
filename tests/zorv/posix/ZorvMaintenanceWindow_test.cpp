// The maintenance window and time-stamp mode judge a file by its last-access
// and last-write times. POSIX only: the tests set both times with utimensat,
// and the standard library can set the write time alone.
#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "../EngineTestFixture.h"
#include "platform/Platform.h"

namespace zorv {
namespace {

using test::PluginEvent;

constexpr uint64_t kHour = 3600 * 1000;
constexpr uint64_t kAll = ~uint64_t{0};

class ZorvMaintenanceWindow : public test::EngineFixture {
protected:
    // A file whose access and write times are the given milliseconds since 1970.
    std::u16string FileWithTimes(const std::string& name, uint64_t accessMs, uint64_t writeMs) {
        const auto file = m_dir / name;
        test::WriteFile(file, "MZ");
        const timespec times[2] = {{static_cast<time_t>(accessMs / 1000), static_cast<long>(accessMs % 1000) * 1000000},
                                   {static_cast<time_t>(writeMs / 1000), static_cast<long>(writeMs % 1000) * 1000000}};
        EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
        return test::PathText(file);
    }
    bool Authorize(const std::u16string& name, uint64_t start, uint64_t end) {
        EngineEvent event;
        event.name = name;
        return Engine().AutoAuthorizeByFileTime(event, start, end);
    }

    const uint64_t m_now = platform::NowMilliseconds();
};

TEST_F(ZorvMaintenanceWindow, FileTimesInsideTheWindowAreApproved) {
    const uint64_t start = m_now - 2 * kHour;
    const auto written = FileWithTimes("in.exe", start - kHour, start + 1000);
    EXPECT_TRUE(Authorize(written, start, kAll)) << "one time after the start is enough";
    EXPECT_TRUE(Authorize(written, start, start - 1)) << "an end before the start leaves the window open";
    EXPECT_FALSE(Authorize(written, start, start + 1000)) << "the end itself is outside";
    EXPECT_TRUE(Authorize(written, start, start + 1001));
    EXPECT_FALSE(Authorize(FileWithTimes("old.exe", start - kHour, start), start, kAll)) << "the start is outside";
    EXPECT_FALSE(Authorize(FileWithTimes("future.exe", start + 1000, m_now + 24 * kHour), start, kAll));

    // An unknown or zero start refuses before the file is even opened.
    const std::u16string missing = test::PathText(m_dir / "missing.exe");
    EXPECT_FALSE(Authorize(missing, 0, kAll));
    EXPECT_FALSE(Authorize(missing, kAll, kAll));
    EXPECT_FALSE(Logged(u"Invalid file handle. GetLastError() : 2"));
    EXPECT_FALSE(Authorize(missing, m_now - kHour, kAll));
    EXPECT_TRUE(Logged(u"Invalid file handle. GetLastError() : 2"));
}

TEST_F(ZorvMaintenanceWindow, UnknownExecutableWrittenDuringMaintenanceIsApprovedAndLearned) {
    ASSERT_EQ(set_config(AC_CONFIG_AUTO_AUTHORIZE | AC_CONFIG_LOCKDOWN, m_now - kHour, kAll), AC_OK);
    AppControlConfig::Instance().SetManifestApplied(true);
    const uint64_t approved = Metric(u"AutoAuthorizeByFileTime");
    PluginEvent start;
    start.name = FileWithTimes("setup.exe", m_now - kHour / 2, m_now - kHour / 2);
    start.digestFill = 0xF1;
    uint32_t status = 0;
    AppCtlResult result = Run(start, &status);
    EXPECT_EQ(status, AC_OK);
    EXPECT_EQ(result.action, AC_DECISION_ALLOW);
    EXPECT_EQ(result.isAuthorized, AC_REASON_MAINTENANCE);
    EXPECT_EQ(Metric(u"AutoAuthorizeByFileTime"), approved + 1);
    EXPECT_EQ(ItemCount("fileName = 'setup.exe' AND source = 4"), 1);

    // The window outlives maintenance mode: ending it only stamps the end.
    ASSERT_EQ(set_config(AC_CONFIG_LOCKDOWN, 0, 0), AC_OK);
    AppControlConfig::Instance().SetManifestApplied(true);
    start.name = FileWithTimes("older.exe", m_now - 3 * kHour, m_now - 3 * kHour);
    start.digestFill = 0xF2;
    EXPECT_EQ(Run(start, &status).action, AC_DECISION_BLOCK);
    EXPECT_EQ(status, AC_BLOCKED);
}

TEST_F(ZorvMaintenanceWindow, TimeStampModeApprovesFilesOlderThanTheUpgrade) {
    auto setting = [&](const std::string& name, uint64_t value) {
        Probe().Exec("UPDATE AppControlState SET settingValue = '" + std::to_string(value) +
                     "' WHERE settingName = '" + name + "'");
    };
    setting("upgradetime", (m_now - 48 * kHour) / 1000);
    setting("enableHTML", 0);  // a fresh store has HTML handling enabled, which ends time-stamp mode
    AppControlConfig::Instance().SetLockdown(true);
    const uint64_t approved = Metric(u"AutoAuthorizeByTimeStamp");

    PluginEvent page;
    page.type = AC_OP_SECTION_MAP;
    page.mode = 4;
    page.processName = u"c:\\program files\\google\\chrome\\application\\chrome.exe";
    auto open = [&](const std::string& file, uint64_t age, uint8_t digest) {
        page.name = FileWithTimes(file, m_now - age, m_now - age);
        page.digestFill = digest;
        return Run(page);
    };
    const AppCtlResult result = open("page.html", 72 * kHour, 0xF3);
    EXPECT_EQ(result.action, AC_DECISION_ALLOW);
    EXPECT_EQ(result.isAuthorized, AC_REASON_TRUSTED);
    EXPECT_EQ(Metric(u"AutoAuthorizeByTimeStamp"), approved + 1);
    EXPECT_EQ(open("fresh.html", 24 * kHour, 0xF4).action, AC_DECISION_BLOCK) << "written after the upgrade";

    setting("enableHTML", 1);
    EXPECT_EQ(open("later.html", 72 * kHour, 0xF6).action, AC_DECISION_BLOCK) << "the agent enabled HTML handling";
    setting("enableHTML", 0);
    page.processName = u"c:\\windows\\explorer.exe";
    EXPECT_EQ(open("other.html", 72 * kHour, 0xF5).action, AC_DECISION_BLOCK) << "a type without time-stamp mode";
}

}  // namespace
}  // namespace zorv
