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

using test::LogCapture;
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

    const auto before = FileWithTimes("old.exe", start - kHour, start);
    LogCapture::Instance().Clear();
    EXPECT_FALSE(Authorize(before, start, kAll));
    EXPECT_TRUE(LoggedStartingWith(u"[Maintenance] Unrecognized file " + before +
                                   u" not approved because create/modified time is before authorize start time. "
                                   u"createTime: " +
                                   test::U16(std::to_string(start - kHour)) + u" modifiedTime: " +
                                   test::U16(std::to_string(start)) + u" authorizeStartTime: " +
                                   test::U16(std::to_string(start)) + u" now: "));

    const auto future = FileWithTimes("future.exe", start + 1000, m_now + 24 * kHour);
    EXPECT_FALSE(Authorize(future, start, kAll));
}

TEST_F(ZorvMaintenanceWindow, UnknownOrZeroStartRefusesWithoutTouchingTheFile) {
    const std::u16string missing = test::PathText(m_dir / "missing.exe");
    EXPECT_FALSE(Authorize(missing, 0, kAll));
    EXPECT_FALSE(Authorize(missing, kAll, kAll));
    EXPECT_FALSE(Logged(u"Invalid file handle. GetLastError() : 2"));
    EXPECT_FALSE(Authorize(missing, m_now - kHour, kAll));
    EXPECT_TRUE(Logged(u"Invalid file handle. GetLastError() : 2"));
}

TEST_F(ZorvMaintenanceWindow, UnknownExecutableWrittenDuringMaintenanceIsApprovedAndLearned) {
    AppControlConfig::Instance().SetLockdown(true);
    ASSERT_EQ(set_config(AC_CONFIG_AUTO_AUTHORIZE, m_now - kHour, kAll), AC_OK);
    AppControlConfig::Instance().SetLockdown(true);
    AppControlConfig::Instance().SetManifestApplied(true);
    const uint64_t approved = Metric(u"AutoAuthorizeByFileTime");

    PluginEvent start;
    start.name = FileWithTimes("setup.exe", m_now - 30 * 60 * 1000, m_now - 30 * 60 * 1000);
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
    PluginEvent older = start;
    older.name = FileWithTimes("older.exe", m_now - 3 * kHour, m_now - 3 * kHour);
    older.digestFill = 0xF2;
    EXPECT_EQ(Run(older, &status).action, AC_DECISION_BLOCK);
    EXPECT_EQ(status, AC_BLOCKED);
}

TEST_F(ZorvMaintenanceWindow, TimeStampModeApprovesFilesOlderThanTheUpgrade) {
    const uint64_t upgradeSeconds = (m_now - 48 * kHour) / 1000;
    Probe().Exec("UPDATE AppControlState SET settingValue = '" + std::to_string(upgradeSeconds) +
                 "' WHERE settingName = 'upgradetime'");
    // A fresh store has HTML handling enabled, which ends time-stamp mode.
    Probe().Exec("UPDATE AppControlState SET settingValue = '0' WHERE settingName = 'enableHTML'");
    AppControlConfig::Instance().SetLockdown(true);
    const uint64_t approved = Metric(u"AutoAuthorizeByTimeStamp");

    PluginEvent page;
    page.type = AC_OP_SECTION_MAP;
    page.mode = 4;
    page.processName = u"c:\\program files\\google\\chrome\\application\\chrome.exe";
    page.name = FileWithTimes("page.html", m_now - 72 * kHour, m_now - 72 * kHour);
    page.digestFill = 0xF3;
    AppCtlResult result = Run(page);
    EXPECT_EQ(result.action, AC_DECISION_ALLOW);
    EXPECT_EQ(result.isAuthorized, AC_REASON_TRUSTED);
    EXPECT_EQ(Metric(u"AutoAuthorizeByTimeStamp"), approved + 1);
    EXPECT_TRUE(Logged(u"[TIMESTAMP MODE] start time: 1000 end time: " +
                       test::U16(std::to_string(upgradeSeconds * 1000)) + u" Handling event of type: 9"));

    // Written after the upgrade: not approved.
    page.name = FileWithTimes("fresh.html", m_now - 24 * kHour, m_now - 24 * kHour);
    page.digestFill = 0xF4;
    EXPECT_EQ(Run(page).action, AC_DECISION_BLOCK);

    // Once the agent enables HTML handling the browser gets no such approval.
    Probe().Exec("UPDATE AppControlState SET settingValue = '1' WHERE settingName = 'enableHTML'");
    page.name = FileWithTimes("later.html", m_now - 72 * kHour, m_now - 72 * kHour);
    page.digestFill = 0xF6;
    EXPECT_EQ(Run(page).action, AC_DECISION_BLOCK);

    // A process type without time-stamp mode never gets this approval.
    page.processName = u"c:\\windows\\explorer.exe";
    page.name = FileWithTimes("other.html", m_now - 72 * kHour, m_now - 72 * kHour);
    page.digestFill = 0xF5;
    EXPECT_EQ(Run(page).action, AC_DECISION_BLOCK);
}

}  // namespace
}  // namespace zorv
