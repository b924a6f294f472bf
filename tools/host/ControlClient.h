// The client side of zorvd's control socket (ControlProtocol.h): one JSON
// request line out, one JSON answer line back, every wait bounded.
#pragma once

#include <string>

namespace zorv::host {

// Sends `request` (one JSON object, no newline) and reads the answer line.
// False with `error` when the daemon cannot be reached or does not answer.
bool ControlRequest(const std::string& socketPath, const std::string& request, std::string& reply,
                    std::string& error);

}  // namespace zorv::host
