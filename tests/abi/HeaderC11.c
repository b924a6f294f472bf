/* The public header must compile as plain C11, the language many agents are
 * written in, and give C the same layout the engine was built with. */
#include "zorv/zorv.h"

size_t ZorvCSizeOfEvent(void) { return sizeof(AppCtlEvent); }
size_t ZorvCSizeOfResult(void) { return sizeof(AppCtlResult); }
size_t ZorvCSizeOfItem(void) { return sizeof(InventoryItemRecord); }
size_t ZorvCSizeOfStartParams(void) { return sizeof(EngineStartParams); }
size_t ZorvCOffsetOfOldName(void) { return offsetof(AppCtlEvent, oldName); }
size_t ZorvCOffsetOfResultText(void) { return offsetof(AppCtlResult, text); }
size_t ZorvCOffsetOfItemRuleset(void) { return offsetof(InventoryItemRecord, ruleset); }

/* A C host calls the engine through these signatures. */
uint32_t ZorvCCallStopWithoutStart(void) { return engine_stop(); }
