#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include "ControlClient.h"
#include "ControlProtocol.h"

namespace zorv::host {

bool ControlRequest(const std::string& socketPath, const std::string& request, std::string& reply,
                    std::string& error) {
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof address.sun_path) {
        error = "socket path too long";
        return false;
    }
    std::memcpy(address.sun_path, socketPath.c_str(), socketPath.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<struct sockaddr*>(&address), sizeof address) != 0) {
        error = std::string("cannot reach the daemon: ") + std::strerror(errno);
        if (fd >= 0) close(fd);
        return false;
    }
    // An import can take a while on a large store: the answer may be slow,
    // but never unbounded.
    constexpr int kAnswerLimitMs = 120000;
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(kAnswerLimitMs);
    auto left = [&] {
        return static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(until - std::chrono::steady_clock::now()).count());
    };
    const std::string line = request + "\n";
    size_t sent = 0;
    while (sent < line.size()) {
        struct pollfd wait = {fd, POLLOUT, 0};
        if (left() <= 0 || poll(&wait, 1, left()) <= 0) break;
        const ssize_t put = send(fd, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (put <= 0) break;
        sent += static_cast<size_t>(put);
    }
    reply.clear();
    char chunk[65536];
    while (sent == line.size() && reply.find('\n') == std::string::npos) {
        struct pollfd wait = {fd, POLLIN, 0};
        if (left() <= 0 || poll(&wait, 1, left()) <= 0) break;
        const ssize_t got = read(fd, chunk, sizeof chunk);
        if (got <= 0) break;
        reply.append(chunk, static_cast<size_t>(got));
    }
    close(fd);
    const size_t end = reply.find('\n');
    if (end == std::string::npos) {
        error = sent == line.size() ? "the daemon gave no answer" : "the request could not be sent";
        return false;
    }
    reply.resize(end);
    return true;
}

}  // namespace zorv::host
