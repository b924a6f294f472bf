// The host sees the records through the C header; C and C++ must agree on
// every size and offset, and the exports must answer a C caller.
#include <gtest/gtest.h>

#include <cstddef>

#include "zorv/zorv.h"

extern "C" {
size_t ZorvCSizeOfEvent(void);
size_t ZorvCSizeOfResult(void);
size_t ZorvCSizeOfItem(void);
size_t ZorvCSizeOfStartParams(void);
size_t ZorvCOffsetOfOldName(void);
size_t ZorvCOffsetOfResultText(void);
size_t ZorvCOffsetOfItemRuleset(void);
uint32_t ZorvCCallStopWithoutStart(void);
}

TEST(Layout, CAndCppAgreeOnEveryRecord) {
    EXPECT_EQ(ZorvCSizeOfEvent(), sizeof(AppCtlEvent));
    EXPECT_EQ(ZorvCSizeOfResult(), sizeof(AppCtlResult));
    EXPECT_EQ(ZorvCSizeOfItem(), sizeof(InventoryItemRecord));
    EXPECT_EQ(ZorvCSizeOfStartParams(), sizeof(EngineStartParams));
    EXPECT_EQ(ZorvCOffsetOfOldName(), offsetof(AppCtlEvent, oldName));
    EXPECT_EQ(ZorvCOffsetOfResultText(), offsetof(AppCtlResult, text));
    EXPECT_EQ(ZorvCOffsetOfItemRuleset(), offsetof(InventoryItemRecord, ruleset));
}

TEST(Layout, TextIsTwoByteUnits) {
    static_assert(sizeof(ZorvChar) == 2, "UTF-16 at the boundary");
    EXPECT_EQ(sizeof(AppCtlResult::text), 160u);
}

TEST(Layout, ACHostCanCallTheLibrary) {
    EXPECT_EQ(ZorvCCallStopWithoutStart(), AC_OK);  // nothing to stop is not an error
}
