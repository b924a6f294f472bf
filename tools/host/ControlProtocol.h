// The control socket of zorvd (ControlClient.h is the client side): a Unix stream socket (default
// /run/zorv/zorvd.sock, mode 0600) that answers only peers whose credentials
// (SO_PEERCRED) say uid 0. One request per connection: a single JSON object on
// one line, answered by a single JSON object on one line, then the daemon
// closes the connection. Every answer carries "ok" (true or false); a refused
// or failed request carries "error" with a readable reason.
//
//   {"command":"status"}
//       -> {"ok":true,"mode":"enforce","maintenance":false,"watched":["/"],
//           "control":["exec","scripts","libraries"],"uptime_s":12.5,
//           "events":{"exec":..,"open":..,"script":..,"library":..,"write":..,
//                     "delete":..,"rename":..},
//           "events_per_second":{...same kinds, over the uptime...},
//           "allowed":..,"denied":..,"deadline_answers":..,"overflow_answers":..,
//           "error_answers":..,"queue_depth":..,"log_lines_dropped":..,
//           "exposures":["...a way to run programs that is not seen..."],
//           "latency_us":{"p50":..,"p90":..,"p99":..,"p999":..,"max":..}}
//   {"command":"metrics"}
//       -> {"ok":true,"metrics":{...the engine's metrics document...},"daemon":{...status...}}
//   {"command":"mode","mode":"enforce"|"log-only"}
//       -> {"ok":true,"mode":"enforce"}
//   {"command":"maintenance","for_s":600} | {"command":"maintenance","off":true}
//       -> {"ok":true,"maintenance":true|false}
//   {"command":"import","name":"NAME","append":false,"ruleset":"...JSON text..."}
//       -> {"ok":true,"status":0}
//   {"command":"ps"}
//       -> {"ok":true,"processes":[{"pid":123,"program":"/opt/x/bin/y","sha256":"..",
//                                  "verdict":"blocked"|"unknown"}]}
//
// Requests are at most 64 MiB (a ruleset travels inline); the daemon waits at
// most five seconds for a request line.
#pragma once

namespace zorvd {
constexpr unsigned kControlRequestLimit = 64u << 20;
constexpr int kControlReadTimeoutMs = 5000;
}  // namespace zorvd
