// The exports' own helpers: the last two steps of app_ctl.
#pragma once

#include <cstdint>

#include "AppControlConfig.h"
#include "zorv/zorv.h"

namespace zorv {

struct EngineEvent;

// The last two steps of app_ctl, apart from the pipeline so that every
// decision's answer to the host can be checked on its own.
// Copies the verdict into the host's record: bytes 28 on are zeroed first, and
// a text that does not fit its 80 units is left out whole.
void FillAppCtlResult(const EngineEvent& event, AppCtlResult* result);
// The status app_ctl returns for a decision once a result record was filled.
uint32_t AppCtlStatus(uint32_t action, const AppCtlEvent& event);

}  // namespace zorv
