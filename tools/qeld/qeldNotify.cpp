#include "qeldNotify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace qeld {

ServiceNotifier::ServiceNotifier(std::string socketName) : socketName_(std::move(socketName)) {
    // Only what the protocol knows: a path or an abstract name that fits.
    struct sockaddr_un probe;
    if (socketName_.size() < 2 || socketName_.size() >= sizeof probe.sun_path ||
        (socketName_[0] != '/' && socketName_[0] != '@'))
        socketName_.clear();
}

ServiceNotifier ServiceNotifier::fromEnvironment() {
    const char* name = std::getenv("NOTIFY_SOCKET");
    ServiceNotifier notifier(name != nullptr ? name : "");
    ::unsetenv("NOTIFY_SOCKET");
    return notifier;
}

bool ServiceNotifier::notify(const std::string& state) const {
    if (!enabled() || state.empty()) return false;
    struct sockaddr_un address;
    std::memset(&address, 0, sizeof address);
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, socketName_.data(), socketName_.size());
    socklen_t length = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + socketName_.size());
    if (socketName_[0] == '@') {
        address.sun_path[0] = '\0';  // abstract: no terminator counted
    } else {
        ++length;
    }
    // A socket a message: the agent sends a few a minute, and a socket kept
    // open would have to be re-made whenever the service manager restarts.
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    ssize_t sent;
    do {
        sent = ::sendto(fd, state.data(), state.size(), MSG_NOSIGNAL,
                        reinterpret_cast<const struct sockaddr*>(&address), length);
    } while (sent < 0 && errno == EINTR);
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return sent == static_cast<ssize_t>(state.size());
}

std::string ServiceNotifier::statusLine(const std::string& text) {
    std::string line = text;
    for (char& c : line)
        if (c == '\n' || c == '\r') c = ' ';
    return line;
}

namespace {

std::string resetText(long long secondsSinceReset) {
    return secondsSinceReset < 0 ? "not reset yet" : "reset " + std::to_string(secondsSinceReset) + " s ago";
}

}  // namespace

std::string agentStatusLine(const QelHostAgent::Status& status, long long secondsSinceReset) {
    std::string text;
    if (status.watchdogKeeper != "qeld")
        text = "watchdog kept by " + status.watchdogKeeper;
    else if (status.watchdogSeconds == 0)
        text = "watchdog off (the controller's configuration disables it)";
    else
        text = "watchdog " + std::to_string(status.watchdogSeconds) + " s, " + resetText(secondsSinceReset);
    if (status.publications == 0)
        text += "; addresses not published yet";
    else
        text += "; " + std::to_string(status.nicsPublished) + (status.nicsPublished == 1 ? " NIC" : " NICs") +
                " published";
    if (!status.failing.empty()) {
        text += "; failing:";
        const char* separator = " ";
        for (const auto& step : status.failing) {
            text += separator + step.first;
            separator = ", ";
        }
    }
    return ServiceNotifier::statusLine(text);
}

std::string libraryLoopStatusLine(long long secondsSinceReset, unsigned long passes) {
    return "library loop: watchdog " + resetText(secondsSinceReset) + "; " + std::to_string(passes) +
           (passes == 1 ? " pass" : " passes");
}

}  // namespace qeld
