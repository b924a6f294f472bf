// The event-line format: one JSON object a line naming AppCtlEvent's fields
// (see kNumberFields, kByteFields, kTextFields, kDigestFields in
// EventRecord.h, plus "type"). Numbers are unsigned integers; byte fields take
// true/false or 0..255; texts are UTF-8 strings; digests are hex strings.
// Unknown keys, wrong types, bad hex and invalid UTF-8 are refused with a
// reason. Also the decision line that `replay` and `check` write, and the
// small JSON string writer they share. Pure functions; thread-safe.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "EventRecord.h"
#include "zorv/zorv.h"

namespace zorv::host {

// Parses one line into `record` (cleared first). False with `error` naming
// the field and the reason.
bool ParseEventLine(std::string_view line, EventRecord& record, std::string& error);

// The line for `event` (no newline): "type" first, then every field that is
// not zero or null, in the tables' order. ParseEventLine reads it back.
std::string FormatEventLine(const AppCtlEvent& event);

// Appends `utf8` as a JSON string literal (quotes included).
void AppendJsonString(std::string& out, std::string_view utf8);

// {"line":N,"pid":..,"name":..,"status":..,"decision":..,"reason":..,
//  "source":..,"eventType":..,"dbVerdict":..,"text":..,"latencyNs":..}
std::string FormatDecisionLine(uint64_t lineNumber, const AppCtlEvent& event, uint32_t status,
                               const AppCtlResult& result, uint64_t latencyNs);

}  // namespace zorv::host
