// A payload that cannot take the page: /dev/full opens but refuses every write.
#include <gtest/gtest.h>

#include <string>

#include "../SqliteProbe.h"
#include "TestSupport.h"
#include "ZorvLogger.h"
#include "zorv/zorv.h"

namespace zorv {
namespace {

using test::Host;
using test::LogCapture;

TEST(ExportPayload, AFailedWriteEndsThePageButNotTheCall) {
    test::TempDir dir;
    const std::u16string dbPath = test::PathText(dir / "ac.db");
    const EngineStartParams params = test::StartParams(&dbPath);
    ASSERT_EQ(engine_start(&params), AC_OK);
    ZorvLogger::Instance().SetLevel(0xF);
    {
        test::SqliteProbe probe(dir / "ac.db");
        probe.Exec("INSERT INTO InventoryItems(fileName, source) VALUES('a.exe', 3), ('b.exe', 3)");
    }
    LogCapture::Instance().Clear();
    const std::u16string full = u"/dev/full";
    const std::u16string scan = u"scan";
    // The lines written so far stand; the agent sees a short page.
    EXPECT_EQ(get_inventory(0, 10, 0, Host(full), Host(scan)), AC_OK);
    EXPECT_TRUE(LogCapture::Instance().Contains(u"Write to payload /dev/full failed, aborting query"));
    EXPECT_EQ(get_inventory(0, 10, AC_SOURCE_TRUST_RULE, Host(full), Host(scan)), AC_OK)
        << "an empty page writes nothing, so nothing fails";
    EXPECT_EQ(engine_stop(), AC_OK);
}

}  // namespace
}  // namespace zorv
