#include "ControlClient.h"

namespace zorv::host {

// The daemon and its socket exist on Linux only.
bool ControlRequest(const std::string&, const std::string&, std::string&, std::string& error) {
    error = "no daemon control socket on this system";
    return false;
}

}  // namespace zorv::host
