// qeld's service-manager notifications: the datagrams a listening socket
// receives, for a socket path and an abstract name, and what happens without
// a listener; and the status lines the agent sends, in each state it reports.
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

namespace {

QelHostAgent::Status keptByQeld() {
    QelHostAgent::Status status;
    status.watchdogKeeper = "qeld";
    status.watchdogSeconds = 300;
    status.publications = 4;
    status.nicsPublished = 3;
    return status;
}

TEST(AgentStatusLine, TimerResetAndNics) {
    EXPECT_EQ(qeld::agentStatusLine(keptByQeld(), 12), "watchdog 300 s, reset 12 s ago; 3 NICs published");
}

TEST(AgentStatusLine, BeforeTheFirstResetAndPublication) {
    QelHostAgent::Status status = keptByQeld();
    status.publications = 0;
    EXPECT_EQ(qeld::agentStatusLine(status, -1), "watchdog 300 s, not reset yet; addresses not published yet");
}

TEST(AgentStatusLine, OneNicIsOneNic) {
    QelHostAgent::Status status = keptByQeld();
    status.nicsPublished = 1;
    EXPECT_EQ(qeld::agentStatusLine(status, 0), "watchdog 300 s, reset 0 s ago; 1 NIC published");
}

TEST(AgentStatusLine, TheKernelsDriverKeepsTheTimer) {
    QelHostAgent::Status status = keptByQeld();
    status.watchdogKeeper = "the kernel's IPMI watchdog driver (ipmi_watchdog module)";
    status.watchdogSeconds = 0;
    EXPECT_EQ(qeld::agentStatusLine(status, -1),
              "watchdog kept by the kernel's IPMI watchdog driver (ipmi_watchdog module); 3 NICs published");
}

TEST(AgentStatusLine, ATimerTheConfigurationDisablesIsOff) {
    QelHostAgent::Status status = keptByQeld();
    status.watchdogSeconds = 0;
    EXPECT_EQ(qeld::agentStatusLine(status, 40),
              "watchdog off (the controller's configuration disables it); 3 NICs published");
}

TEST(AgentStatusLine, FailingStepsAreNamedOnTheSameLine) {
    QelHostAgent::Status status = keptByQeld();
    status.failing = {{"PNI addresses", "3 PNI address writes\nfailed"}, {"network inventory", "netlink"}};
    EXPECT_EQ(qeld::agentStatusLine(status, 5),
              "watchdog 300 s, reset 5 s ago; 3 NICs published; failing: PNI addresses, network inventory");
}

TEST(LibraryLoopStatusLine, ResetAndPasses) {
    EXPECT_EQ(qeld::libraryLoopStatusLine(7, 1), "library loop: watchdog reset 7 s ago; 1 pass");
    EXPECT_EQ(qeld::libraryLoopStatusLine(-1, 3), "library loop: watchdog not reset yet; 3 passes");
}

}  // namespace
