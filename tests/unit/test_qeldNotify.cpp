// qeld's service-manager notifications: the datagrams a listening socket
// receives, for a socket path and an abstract name, and what happens without
// a listener.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "qeldNotify.h"

namespace {

using qeld::ServiceNotifier;

// A datagram socket bound to `name` (a path, or "@abstract").
class Listener {
public:
    explicit Listener(const std::string& name) {
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un address;
        std::memset(&address, 0, sizeof address);
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.data(), name.size());
        socklen_t length = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + name.size());
        if (name[0] == '@')
            address.sun_path[0] = '\0';
        else
            ++length;
        bound_ = ::bind(fd_, reinterpret_cast<struct sockaddr*>(&address), length) == 0;
        // A receive never waits long: a missing datagram fails the test.
        struct timeval limit = {10, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    ~Listener() { ::close(fd_); }
    bool bound() const { return bound_; }
    std::string receive() {
        char buffer[4096];
        const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
        return n < 0 ? "(nothing)" : std::string(buffer, static_cast<size_t>(n));
    }

private:
    int fd_ = -1;
    bool bound_ = false;
};

class NotifyTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/qeld-notify-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override {
        ::unlink((dir_ + "/notify").c_str());
        ::rmdir(dir_.c_str());
    }
    std::string dir_;
};

TEST_F(NotifyTest, ADatagramReachesASocketPath) {
    Listener listener(dir_ + "/notify");
    ASSERT_TRUE(listener.bound());
    ServiceNotifier notifier(dir_ + "/notify");
    ASSERT_TRUE(notifier.enabled());
    EXPECT_TRUE(notifier.notify("READY=1\nSTATUS=watchdog 300 s, reset 2 s ago\nWATCHDOG=1\n"));
    EXPECT_EQ(listener.receive(), "READY=1\nSTATUS=watchdog 300 s, reset 2 s ago\nWATCHDOG=1\n");
    EXPECT_TRUE(notifier.notify("WATCHDOG=1\n"));
    EXPECT_EQ(listener.receive(), "WATCHDOG=1\n");
}

TEST_F(NotifyTest, AnAtNamesAnAbstractSocket) {
    const std::string name = "@qeld-notify-test-" + std::to_string(::getpid());
    Listener listener(name);
    ASSERT_TRUE(listener.bound());
    ServiceNotifier notifier(name);
    EXPECT_TRUE(notifier.notify("STOPPING=1\n"));
    EXPECT_EQ(listener.receive(), "STOPPING=1\n");
}

TEST_F(NotifyTest, TheEnvironmentNamesTheSocketAndLosesIt) {
    Listener listener(dir_ + "/notify");
    ::setenv("NOTIFY_SOCKET", (dir_ + "/notify").c_str(), 1);
    const ServiceNotifier notifier = ServiceNotifier::fromEnvironment();
    EXPECT_EQ(std::getenv("NOTIFY_SOCKET"), nullptr) << "children must not speak for the service";
    EXPECT_EQ(notifier.socketName(), dir_ + "/notify");
    EXPECT_TRUE(notifier.notify("READY=1\n"));
    EXPECT_EQ(listener.receive(), "READY=1\n");
}

TEST_F(NotifyTest, WithoutTheEnvironmentNothingIsSent) {
    ::unsetenv("NOTIFY_SOCKET");
    const ServiceNotifier notifier = ServiceNotifier::fromEnvironment();
    EXPECT_FALSE(notifier.enabled());
    EXPECT_FALSE(notifier.notify("READY=1\n"));
}

TEST_F(NotifyTest, NamesTheProtocolDoesNotKnowDisableIt) {
    EXPECT_FALSE(ServiceNotifier("").enabled());
    EXPECT_FALSE(ServiceNotifier("relative/notify").enabled());
    EXPECT_FALSE(ServiceNotifier("@").enabled());
    EXPECT_FALSE(ServiceNotifier("/" + std::string(200, 'x')).enabled()) << "longer than a socket address holds";
}

TEST_F(NotifyTest, NoListenerIsAFailedSendNotACrash) {
    ServiceNotifier notifier(dir_ + "/notify");
    EXPECT_FALSE(notifier.notify("WATCHDOG=1\n"));
}

TEST(NotifyStatus, AStatusIsOneLine) {
    EXPECT_EQ(ServiceNotifier::statusLine("failing: PNI\naddresses\r"), "failing: PNI addresses ");
    EXPECT_EQ(ServiceNotifier::statusLine("watchdog 300 s"), "watchdog 300 s");
}

}  // namespace
