// The simulated controller as a process of its own (qel-bmcsim): the library's
// transport runs unchanged through SocketDeviceProvider against one controller
// that several processes share, with the device semantics of the in-process
// simulator, and the controller is driven over the same socket.
#include <fcntl.h>
#include <linux/ipmi.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "bmcsimProcess.h"
#include "ipmiTestSupport.h"
#include "qelAddress.h"
#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelIpmiWatchdog.h"
#include "qelSimDescription.h"
#include "qelSimSocket.h"

using bmcsimTest::BmcSim;
using bmcsimTest::drain;
using bmcsimTest::readFile;
using bmcsimTest::runTool;
using bmcsimTest::spawn;
using bmcsimTest::TempDir;
using bmcsimTest::ToolRun;
using bmcsimTest::waitExit;
using ipmiTest::responseOf;
using ipmiTest::thrownBy;
using qelIpmi::QelIpmi;
using qelIpmi::QelIpmi_request_msg;
using qelIpmi::QelIpmiError;
using qelSim::Bytes;
using qelSim::Fault;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

bool exists(const std::string& path) {
    struct stat st;
    return ::lstat(path.c_str(), &st) == 0;
}

std::string dumpValue(const std::string& dump, const std::string& key) {
    std::istringstream in(dump);
    for (std::string line; std::getline(in, line);)
        if (line.rfind(key + " ", 0) == 0) return line.substr(key.size() + 1);
    return "<no " + key + ">";
}

// ipmitool, an IPMI decoder written by others, on the controller behind
// `socket` through the stand-in /dev/ipmi0.
ToolRun ipmitool(const std::string& socket, const TempDir& dir, std::vector<std::string> args) {
    args.insert(args.begin(), {"-I", "open"});
    ToolRun run = runTool(dir, "ipmitool", std::move(args), socket);
    if (run.status < 0) run.err += "; scripts/install-deps.sh installs it (Debian package ipmitool)";
    return run;
}

// The value of "Name: value" or "Name   : value" in ipmitool's listings.
std::string toolField(const std::string& text, const std::string& name) {
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(name, 0) != 0) continue;
        std::size_t colon = line.find(':', name.size());
        if (colon == std::string::npos || line.find_first_not_of(' ', name.size()) != colon) continue;
        std::size_t start = line.find_first_not_of(' ', colon + 1);
        return start == std::string::npos ? "" : line.substr(start);
    }
    return "<no " + name + ">";
}

// The number in "(0x44)" at the end of a field.
int hexInParentheses(const std::string& value) {
    std::size_t open = value.rfind("(0x");
    return open == std::string::npos ? -1 : static_cast<int>(std::stoul(value.substr(open + 3), nullptr, 16));
}

// "227.7 sec" in tenths of a second, the watchdog's unit.
int tenths(const std::string& value) {
    std::size_t dot = value.find('.');
    if (dot == std::string::npos) return -1;
    return std::stoi(value.substr(0, dot)) * 10 + (value[dot + 1] - '0');
}

class SharedController : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(sim.ready()) << sim.errors();
        device = std::make_unique<qelSim::ScopedSocketDevice>(sim.socket());
        ctl = std::make_unique<qelSim::SimControlClient>(sim.socket());
    }

    TempDir dir;
    BmcSim sim{dir};
    std::unique_ptr<qelSim::ScopedSocketDevice> device;
    std::unique_ptr<qelSim::SimControlClient> ctl;
    QelIpmi_request_msg getDeviceId{qelIpmi::netfn::app, qelIpmi::cmd::getDeviceId, 0, nullptr};
};

}  // namespace

// ---------------------------------------------------------------- exchanges

TEST_F(SharedController, GetDeviceIdBytesEqualTheControllersOwn) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(responseOf(getDeviceId), qelSim::SimBmc::defaultDeviceId());
    std::string dump = ctl->dump();
    EXPECT_EQ(dumpValue(dump, "bytes"), qelSim::hexText(responseOf(getDeviceId)));
    EXPECT_EQ(dumpValue(dump, "firmware"), "1.07");
    EXPECT_EQ(dumpValue(dump, "manufacturer"), "32473");
}

TEST_F(SharedController, SetDeviceIdOverTheSocketChangesTheAnswer) {
    Bytes other = {0x00, 0x21, 0x01, 0x02, 0x13, 0x51, 0x00, 0xA2, 0x02, 0x00, 0x01, 0x00};
    ctl->setDeviceId(other);
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(responseOf(getDeviceId), other);
    EXPECT_EQ(dumpValue(ctl->dump(), "firmware"), "2.13");
    EXPECT_EQ(dumpValue(ctl->dump(), "manufacturer"), "674");
}

TEST_F(SharedController, RequestsAreRecordedByteForByte) {
    const unsigned char data[] = {0xD9, 0x7E, 0x00, 0x01, 0x00, 0x00, 0x02};
    QelIpmi_request_msg oem(0x2E, 0xE0, sizeof data, data);
    QelIpmi ipmi(1, 0x24, QelIpmi::IPMB);
    ASSERT_TRUE(ipmi.sendCmd(oem));
    std::vector<std::string> lines = ctl->requestLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], StartsWith("addr 01 ch 00 sa 24 lun 1 msgid "));
    EXPECT_THAT(lines[0], HasSubstr(" netfn 2e cmd e0 data d9 7e 00 01 00 00 02"));
    qelSim::Request r = ctl->requests().at(0);
    EXPECT_EQ(r.addrType, IPMI_IPMB_ADDR_TYPE);
    EXPECT_EQ(r.slaveAddr, 0x24);
    EXPECT_EQ(r.lun, 1);
    EXPECT_EQ(r.netFn, 0x2E);
    EXPECT_EQ(r.cmd, 0xE0);
    EXPECT_THAT(r.data, ElementsAre(0xD9, 0x7E, 0x00, 0x01, 0x00, 0x00, 0x02));
    ctl->clearRequests();
    EXPECT_TRUE(ctl->requestLines().empty());
}

TEST_F(SharedController, ResponseAddressIsWrittenBackIntoActiveAddress) {
    QelIpmi ipmi(0, 0x24, QelIpmi::IPMB);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(ipmi.ipmbAddr.addr_type, IPMI_IPMB_ADDR_TYPE);
    EXPECT_EQ(ipmi.ipmbAddr.slave_addr, 0x24);
}

// ---------------------------------------------------------------- devices

TEST_F(SharedController, DeviceIsOpenWhileQelIpmiLives) {
    {
        QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
        EXPECT_EQ(dumpValue(ctl->dump(), "open-devices"), "1");
        EXPECT_GE(ipmi.fd, 0);
    }
    EXPECT_EQ(dumpValue(ctl->dump(), "open-devices"), "0");
    EXPECT_EQ(dumpValue(ctl->dump(), "opens"), "1");
}

TEST_F(SharedController, MissingPathsFallBackAndAllMissingFailsToOpen) {
    ctl->describe("missing-path /dev/ipmi0 /dev/ipmi/0");
    { QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE); }
    EXPECT_EQ(dumpValue(ctl->dump(), "open-attempts"), "3");
    EXPECT_EQ(dumpValue(ctl->dump(), "opens"), "1");
    ctl->describe("all-paths-missing on");
    QelIpmiError e = thrownBy([] { QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE); });
    EXPECT_THAT(e.errorText, StartsWith("Error: Open failed: No such file or directory(qelIpmi,"));
    EXPECT_EQ(dumpValue(ctl->dump(), "open-devices"), "0");
}

TEST_F(SharedController, EveryOpenDeviceHasItsOwnQueue) {
    QelIpmi first(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmi second(0, 0, QelIpmi::SYSTEM_INTERFACE);
    EXPECT_EQ(dumpValue(ctl->dump(), "open-devices"), "2");
    // Five events before the answer use up the first device's retries and
    // leave the answer waiting in its queue ...
    ctl->injectFault(Fault::messagesBefore(IPMI_ASYNC_EVENT_RECV_TYPE, 5));
    EXPECT_FALSE(first.sendCmd(getDeviceId));
    // ... but not in the second's.
    QelIpmi_request_msg other(qelIpmi::netfn::app, qelIpmi::cmd::getDeviceId, 0, nullptr);
    ASSERT_TRUE(second.sendCmd(other));
    EXPECT_EQ(responseOf(other), qelSim::SimBmc::defaultDeviceId());
    // The first receives its stale answer, of another message id, next.
    EXPECT_TRUE(first.sendCmd(getDeviceId));
    EXPECT_EQ(getDeviceId.responseData, nullptr);
}

// A select that a waiting answer makes ready needs nothing of the
// controller: the client answers it and the controller counts it with the
// device's next operation (here its close).
TEST_F(SharedController, SelectsTheClientAnswersAreCountedWithItsNextOperation) {
    {
        QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
        ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
        ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
        EXPECT_EQ(dumpValue(ctl->dump(), "select-calls"), "1") << "the second send carried the first's select";
    }
    EXPECT_EQ(dumpValue(ctl->dump(), "select-calls"), "2");
}

// The preload library's programs may poll the descriptor themselves: it is
// readable exactly while an answer waits. The library's seam never polls it,
// and its device skips that bookkeeping.
TEST_F(SharedController, ThePreloadsDescriptorIsReadableWhileAnAnswerWaits) {
    qelSim::SocketDeviceClient client;
    ASSERT_EQ(client.open(sim.socket(), "/dev/ipmi0"), 0);
    auto readable = [&] {
        pollfd p{client.fd(), POLLIN, 0};
        return ::poll(&p, 1, 0) == 1 && (p.revents & POLLIN);
    };
    EXPECT_FALSE(readable());
    ipmi_system_interface_addr bmc{IPMI_SYSTEM_INTERFACE_ADDR_TYPE, IPMI_BMC_CHANNEL, 0};
    ipmi_req req{};
    req.addr = reinterpret_cast<unsigned char*>(&bmc);
    req.addr_len = sizeof bmc;
    req.msgid = 7;
    req.msg.netfn = qelIpmi::netfn::app;
    req.msg.cmd = qelIpmi::cmd::getDeviceId;
    ASSERT_EQ(client.ioctl(IPMICTL_SEND_COMMAND, &req), 0);
    ASSERT_EQ(client.ioctl(IPMICTL_SEND_COMMAND, &req), 0);
    EXPECT_TRUE(readable());
    unsigned char data[64];
    ipmi_addr from{};
    ipmi_recv recv{};
    recv.addr = reinterpret_cast<unsigned char*>(&from);
    recv.addr_len = sizeof from;
    recv.msg.data = data;
    recv.msg.data_len = sizeof data;
    ASSERT_EQ(client.ioctl(IPMICTL_RECEIVE_MSG_TRUNC, &recv), 0);
    EXPECT_TRUE(readable()) << "the second answer still waits";
    recv.msg.data_len = sizeof data;
    ASSERT_EQ(client.ioctl(IPMICTL_RECEIVE_MSG_TRUNC, &recv), 0);
    EXPECT_FALSE(readable());
}

TEST_F(SharedController, PerOpenSettingsAnswerAsTheKernelDevice) {
    qelSim::SocketDeviceClient client;
    ASSERT_EQ(client.open(sim.socket(), "/dev/ipmi0"), 0);
    unsigned int address = 0;
    ASSERT_EQ(client.ioctl(IPMICTL_GET_MY_ADDRESS_CMD, &address), 0);
    EXPECT_EQ(address, 0x20u);
    address = 0x24;
    ASSERT_EQ(client.ioctl(IPMICTL_SET_MY_ADDRESS_CMD, &address), 0);
    address = 0;
    ASSERT_EQ(client.ioctl(IPMICTL_GET_MY_ADDRESS_CMD, &address), 0);
    EXPECT_EQ(address, 0x24u);
    int events = 1;
    EXPECT_EQ(client.ioctl(IPMICTL_SET_GETS_EVENTS_CMD, &events), 0);
    ipmi_channel_lun_address_set set{16, 0x30};
    EXPECT_EQ(client.ioctl(IPMICTL_SET_MY_CHANNEL_ADDRESS_CMD, &set), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(client.ioctl(IPMICTL_REGISTER_FOR_CMD, &set), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(client.ioctl(IPMICTL_RECEIVE_MSG, nullptr), -1);
    EXPECT_EQ(errno, EFAULT);
}

TEST(SocketDevice, NothingListeningGivesOpenFailedWithTheSystemText) {
    TempDir dir;
    {
        qelSim::ScopedSocketDevice device(dir / "none.sock");
        QelIpmiError e = thrownBy([] { QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE); });
        EXPECT_THAT(e.errorText, StartsWith("Error: Open failed: No such file or directory("));
    }
    // A socket file nobody accepts on, as a killed controller leaves it.
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::string path = dir / "dead.sock";
    std::strcpy(addr.sun_path, path.c_str());
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    qelSim::ScopedSocketDevice device(path);
    QelIpmiError e = thrownBy([] { QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE); });
    EXPECT_THAT(e.errorText, StartsWith("Error: Open failed: Connection refused("));
    ::close(fd);
}

// ---------------------------------------------------------------- faults

TEST_F(SharedController, CompletionCodeFaultForOneCommandSparesOthers) {
    ctl->injectFault(Fault::completionCode(0xD5).forCommand(0x06, 0x25));
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(responseOf(getDeviceId), qelSim::SimBmc::defaultDeviceId());
    QelIpmi_request_msg getWatchdog(0x06, 0x25, 0, nullptr);
    ASSERT_TRUE(ipmi.sendCmd(getWatchdog));
    EXPECT_THAT(responseOf(getWatchdog), ElementsAre(0xD5));
}

TEST_F(SharedController, NoReplyEndsAfterFiveSelectPasses) {
    ctl->injectFault(Fault::noReply());
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    EXPECT_FALSE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(getDeviceId.responseData, nullptr);
    EXPECT_EQ(dumpValue(ctl->dump(), "select-calls"), "5");
}

TEST_F(SharedController, SendFailureThrowsAndTheObjectSurvives) {
    ctl->injectFault(Fault::sendFails(EIO));
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmiError e = thrownBy([&] { (void)ipmi.sendCmd(getDeviceId); });
    EXPECT_THAT(e.errorText,
                StartsWith("Error: ioctl IPMICTL_SEND_COMMAND failed: Input/output error(qelIpmi,"));
    EXPECT_TRUE(ipmi.sendCmd(getDeviceId));
    // The failed send was not recorded.
    EXPECT_EQ(ctl->requestLines().size(), 1u);
}

TEST_F(SharedController, SelectFailureTravelsToTheClient) {
    ctl->injectFault(Fault::selectFails(EINTR));
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmiError e = thrownBy([&] { (void)ipmi.sendCmd(getDeviceId); });
    EXPECT_THAT(e.errorText, StartsWith("Error: select failed: Interrupted system call(qelIpmi,"));
}

TEST_F(SharedController, SelectWithoutOurDescriptorThrows) {
    ctl->injectFault(Fault::selectNotReady());
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmiError e = thrownBy([&] { (void)ipmi.sendCmd(getDeviceId); });
    EXPECT_THAT(e.errorText, StartsWith("Error: select after ioctl IPMICTL_SEND_COMMAND failed for "
                                        "unknown reasons(qelIpmi,"));
}

TEST_F(SharedController, ReceiveFailureTravelsToTheClient) {
    ctl->injectFault(Fault::receiveFails(EBADF));
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmiError e = thrownBy([&] { (void)ipmi.sendCmd(getDeviceId); });
    EXPECT_THAT(e.errorText,
                StartsWith("Error: ioctl IPMICTL_RECEIVE_MSG failed: Bad file descriptor(qelIpmi,"));
}

TEST_F(SharedController, EventsBeforeTheAnswerAreSkipped) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ctl->injectFault(Fault::messagesBefore(IPMI_CMD_RECV_TYPE, 4));
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(responseOf(getDeviceId), qelSim::SimBmc::defaultDeviceId());
}

TEST_F(SharedController, ForeignMessageIdAndEmptyReplyLeaveNoResponseData) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ctl->injectFault(Fault::foreignMsgId());
    EXPECT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(getDeviceId.responseData, nullptr);
    ctl->injectFault(Fault::emptyReply());
    EXPECT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(getDeviceId.responseLength, 0u);
}

TEST_F(SharedController, ReceiveTypeFourThrowsWithNumberOverwritingMessage) {
    ctl->injectFault(Fault::wrongRecvType(4));
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmiError e = thrownBy([&] { (void)ipmi.sendCmd(getDeviceId); });
    EXPECT_THAT(e.errorText, StartsWith("4eply message has wrong type: "));
}

TEST_F(SharedController, OversizeReplyIsMessageTooLongAndFullBufferIsKept) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ctl->injectFault(Fault::oversizeReply(300));
    QelIpmiError e = thrownBy([&] { (void)ipmi.sendCmd(getDeviceId); });
    EXPECT_THAT(e.errorText, HasSubstr("ioctl IPMICTL_RECEIVE_MSG failed: Message too long"));
    Bytes full(272, 0x33);
    full[0] = 0;
    ctl->injectFault(Fault::rawReply(full));
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(responseOf(getDeviceId), full);
}

TEST_F(SharedController, FaultTextOverTheSocketIsTheSameFault) {
    ctl->describe("fault completion-code c0 for 06 01");
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_THAT(responseOf(getDeviceId), ElementsAre(0xC0));
    ctl->describe("fault no-reply");
    ctl->describe("clear-faults");
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(responseOf(getDeviceId), qelSim::SimBmc::defaultDeviceId());
}

TEST_F(SharedController, WithoutRealTimeoutsSelectReturnsAtOnce) {
    qelSim::SocketDeviceClient client;
    ASSERT_EQ(client.open(sim.socket(), "/dev/ipmi0"), 0);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(client.fd(), &set);
    struct timeval timeout = {60, 0};
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client.select(client.fd() + 1, &set, &timeout), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
    EXPECT_EQ(timeout.tv_sec, 0);
    EXPECT_FALSE(FD_ISSET(client.fd(), &set));
}

TEST_F(SharedController, WithRealTimeoutsSelectWaitsOutTheTimeOut) {
    ctl->describe("real-timeouts on");
    qelSim::SocketDeviceClient client;
    ASSERT_EQ(client.open(sim.socket(), "/dev/ipmi0"), 0);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(client.fd(), &set);
    struct timeval timeout = {0, 200000};
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client.select(client.fd() + 1, &set, &timeout), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(190));
    EXPECT_EQ(timeout.tv_sec, 0);
    EXPECT_EQ(timeout.tv_usec, 0);
}

// ---------------------------------------------------------------- several processes

TEST_F(SharedController, ARequestByAnotherProcessIsInTheTrafficReadHere) {
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int status = 1;
        try {
            const unsigned char data[] = {0xAB, 0xCD};
            QelIpmi_request_msg msg(0x30, 0x99, sizeof data, data);
            QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
            status = ipmi.sendCmd(msg) && msg.responseLength > 0 ? 0 : 2;
        } catch (...) {
            status = 3;
        }
        ::_exit(status);
    }
    ASSERT_EQ(waitExit(child), 0);
    std::vector<std::string> lines = ctl->requestLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_THAT(lines[0], HasSubstr("netfn 30 cmd 99 data ab cd"));
}

TEST_F(SharedController, AnotherProcessReadsTheTrafficMadeHere) {
    const unsigned char data[] = {0x01, 0x02, 0x03};
    QelIpmi_request_msg msg(0x2E, 0xF5, sizeof data, data);
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(msg));
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        int status = 1;
        try {
            qelSim::SimControlClient other(sim.socket());
            std::vector<qelSim::Request> seen = other.requests();
            status = seen.size() == 1 && seen[0].netFn == 0x2E && seen[0].cmd == 0xF5 &&
                             seen[0].data == Bytes{0x01, 0x02, 0x03}
                         ? 0
                         : 2;
        } catch (...) {
            status = 3;
        }
        ::_exit(status);
    }
    EXPECT_EQ(waitExit(child), 0);
}

TEST_F(SharedController, QelctlInAnotherProcessGetsTheSameBytes) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    int out[2];
    ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
    pid_t pid = spawn({QELCTL_PATH, "--bmc-socket", sim.socket(), "device-id"}, dir / "qelctl.err", out[1]);
    ::close(out[1]);
    std::string text = drain(out[0]);
    ::close(out[0]);
    ASSERT_EQ(waitExit(pid), 0) << readFile(dir / "qelctl.err");
    EXPECT_THAT(text, StartsWith("raw: " + qelSim::hexText(responseOf(getDeviceId)) + "\n"));
    EXPECT_EQ(ctl->requestLines().size(), 2u);
}

// ---------------------------------------------------------------- cross-checks with ipmitool

TEST_F(SharedController, IpmitoolReadsTheWatchdogTheLibraryProgrammed) {
    using qelIpmi::QelIpmiWatchdog;
    QelIpmiWatchdog watchdog(QelIpmiWatchdog::TIMER_USE_SMS_OS);
    watchdog.dontLog = false;
    watchdog.preTimeoutInterrupt = 2;
    watchdog.preTimeoutInterval = 5;
    watchdog.timeoutAction = 1;
    watchdog.initialCountdown = 2400;
    ASSERT_TRUE(watchdog.set(false));
    ASSERT_TRUE(watchdog.resetTimer());
    ctl->advanceMs(12300);
    watchdog.update();
    ASSERT_TRUE(watchdog.running);
    ASSERT_EQ(watchdog.presentCountdown, 2400 - 123);

    ToolRun get = ipmitool(sim.socket(), dir, {"mc", "watchdog", "get"});
    ASSERT_EQ(get.status, 0) << get.err;
    EXPECT_EQ(hexInParentheses(toolField(get.out, "Watchdog Timer Use")) & 0x07, watchdog.timerUse);
    EXPECT_EQ(toolField(get.out, "Watchdog Timer Is"), "Started/Running");
    EXPECT_EQ(hexInParentheses(toolField(get.out, "Watchdog Timer Action")) & 0x07, watchdog.timeoutAction);
    EXPECT_EQ(tenths(toolField(get.out, "Initial Countdown")), watchdog.initialCountdown);
    EXPECT_EQ(tenths(toolField(get.out, "Present Countdown")), watchdog.presentCountdown);
    EXPECT_EQ(toolField(get.out, "Pre-timeout interval"), "5 seconds");

    // Stopped by the library: stopped for ipmitool too.
    ASSERT_TRUE(watchdog.stopTimer());
    watchdog.update();
    EXPECT_FALSE(watchdog.running);
    get = ipmitool(sim.socket(), dir, {"mc", "watchdog", "get"});
    ASSERT_EQ(get.status, 0) << get.err;
    EXPECT_EQ(toolField(get.out, "Watchdog Timer Is"), "Stopped");

    // Not reset in time: it runs out on the controller's clock, and both see
    // the timer stopped with this use's expiration flag.
    ASSERT_TRUE(watchdog.resetTimer());
    ctl->advanceMs(240000);
    watchdog.update();
    EXPECT_FALSE(watchdog.running);
    EXPECT_TRUE(watchdog.expired);
    get = ipmitool(sim.socket(), dir, {"mc", "watchdog", "get"});
    ASSERT_EQ(get.status, 0) << get.err;
    EXPECT_EQ(toolField(get.out, "Watchdog Timer Is"), "Stopped");
    EXPECT_EQ(hexInParentheses(toolField(get.out, "Timer Expiration Flags")),
              qelIpmi::watchdogWire::expirationFlag(QelIpmiWatchdog::TIMER_USE_SMS_OS));
    EXPECT_EQ(tenths(toolField(get.out, "Present Countdown")), 0);
}

TEST_F(SharedController, IpmitoolLanPrintAgreesWithQelIpmiLan) {
    qelIpmi::QelIpmiLan lan(0);  // finds the LAN channel and reads it
    ASSERT_TRUE(lan.valid);
    ToolRun print = ipmitool(sim.socket(), dir, {"lan", "print", std::to_string(lan.channel)});
    ASSERT_EQ(print.status, 0) << print.err;
    EXPECT_EQ(IPv4Address(toolField(print.out, "IP Address")), lan.ipAddress);
    EXPECT_EQ(IPv4Address(toolField(print.out, "Subnet Mask")), lan.subnetMask);
    EXPECT_EQ(IPv4Address(toolField(print.out, "Default Gateway IP")), lan.defaultGateway);
    char mac[18];
    const uint8_t* b = lan.macAddress.bytes;
    std::snprintf(mac, sizeof mac, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4], b[5]);
    EXPECT_EQ(toolField(print.out, "MAC Address"), mac);
    // ipmitool's names for the IP address source values.
    static const char* const sources[] = {"Unspecified", "Static Address", "DHCP Address",
                                          "BIOS Assigned Address"};
    ASSERT_GE(lan.ipAddressSource, 0);
    EXPECT_EQ(toolField(print.out, "IP Address Source"),
              lan.ipAddressSource < 4 ? sources[lan.ipAddressSource] : "Other");
    // Not trivially equal: the controller holds real settings.
    EXPECT_NE(lan.ipAddress, IPv4Address());
    EXPECT_NE(std::string(mac), "00:00:00:00:00:00");
}

TEST_F(SharedController, IpmitoolRawPrintsTheBytesQelIpmiGets) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    ToolRun raw = ipmitool(sim.socket(), dir, {"raw", "0x06", "0x01"});
    ASSERT_EQ(raw.status, 0) << raw.err;
    // ipmitool prints the data behind the completion code.
    Bytes bytes = responseOf(getDeviceId);
    ASSERT_EQ(bytes.at(0), 0);
    std::istringstream printed(raw.out);
    Bytes seen{0};
    for (std::string word; printed >> word;) seen.push_back(qelSim::parseHexByte(word));
    EXPECT_EQ(seen, bytes);
    ToolRun info = ipmitool(sim.socket(), dir, {"mc", "info"});
    ASSERT_EQ(info.status, 0) << info.err;
    EXPECT_EQ(toolField(info.out, "Firmware Revision"), "1.07");
    EXPECT_EQ(toolField(info.out, "Manufacturer ID"), "32473");
}

// ---------------------------------------------------------------- clock

TEST_F(SharedController, ClockMovesOverTheSocketForEveryone) {
    EXPECT_EQ(ctl->nowMs(), 0u);
    EXPECT_EQ(ctl->advanceMs(300000), 300000u);
    qelSim::SimControlClient other(sim.socket());
    EXPECT_EQ(other.nowMs(), 300000u);
    other.describe("advance 250");
    EXPECT_EQ(dumpValue(ctl->dump(), "clock-ms"), "300250");
}

TEST(WallClockController, TheClockFollowsTheWallClockAndTheWatchdogRunsOut) {
    TempDir dir;
    BmcSim sim(dir, {"--wall-clock"});
    ASSERT_TRUE(sim.ready()) << sim.errors();
    qelSim::SimControlClient ctl(sim.socket());
    qelSim::ScopedSocketDevice device(sim.socket());
    // A 1.0 s timer, started; nobody resets it.
    qelIpmi::QelIpmiWatchdog watchdog(qelIpmi::QelIpmiWatchdog::TIMER_USE_SMS_OS);
    watchdog.initialCountdown = 10;
    ASSERT_TRUE(watchdog.set(true));
    ASSERT_TRUE(watchdog.resetTimer());
    // Poll for the expiry with a generous deadline: the clock is the wall's.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    std::string expiries;
    while (std::chrono::steady_clock::now() < deadline) {
        expiries = dumpValue(ctl.dump(), "expiries");
        if (expiries != "0" && expiries.rfind("<no", 0) != 0) break;
        std::this_thread::yield();
    }
    EXPECT_GE(ctl.nowMs(), 1000u) << "the clock moved by itself";
    EXPECT_EQ(expiries, "1");
}

// ---------------------------------------------------------------- description and control

TEST(ControllerDescription, FileSetsTheDeviceIdAndSkipsComments) {
    TempDir dir;
    std::ofstream(dir / "bmc.conf") << "# a test rack controller\n"
                                       "\n"
                                       "deviceid 00 20 81 03 45 02 bf a2 02 00 34 12\n"
                                       "   # indented comment\n"
                                       "advance 1000\n";
    BmcSim sim(dir, {"--config", dir / "bmc.conf"});
    ASSERT_TRUE(sim.ready()) << sim.errors();
    qelSim::ScopedSocketDevice device(sim.socket());
    QelIpmi_request_msg msg(0x06, 0x01, 0, nullptr);
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(msg));
    EXPECT_THAT(responseOf(msg), ElementsAre(0x00, 0x20, 0x81, 0x03, 0x45, 0x02, 0xBF, 0xA2, 0x02,
                                             0x00, 0x34, 0x12));
    EXPECT_EQ(qelSim::SimControlClient(sim.socket()).nowMs(), 1000u);
}

TEST(ControllerDescription, UnknownKeywordStopsTheStartWithFileAndLine) {
    TempDir dir;
    std::ofstream(dir / "bad.conf") << "# fine\ndeviceid 00 20\nbogus 1 2\n";
    BmcSim sim(dir, {"--config", dir / "bad.conf"});
    EXPECT_FALSE(sim.ready());
    EXPECT_EQ(sim.stop(0), 2);
    EXPECT_THAT(sim.errors(), HasSubstr(dir / "bad.conf" + ":3: unknown keyword 'bogus'"));
    EXPECT_FALSE(exists(sim.socket()));
}

TEST(ControllerDescription, BadWordsNameTheWord) {
    qelSim::SimBmc bmc;
    try {
        bmc.applyDescriptionLine("deviceid 00 zz");
        ADD_FAILURE() << "accepted";
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "'zz' is no hex byte");
    }
    EXPECT_THROW(bmc.applyDescriptionLine("real-timeouts maybe"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("advance -5"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("deviceid"), std::invalid_argument);
    EXPECT_EQ(bmc.deviceId(), qelSim::SimBmc::defaultDeviceId());
}

TEST(ControllerDescription, ModelsRegisterKeywordsAndDumpSections) {
    qelSim::SimBmc bmc;
    int fans = 0;
    bmc.addKeyword("fans", "fans N: fans fitted", [&](const std::vector<std::string>& w) {
        fans = static_cast<int>(qelSim::parseNumber(w.at(0), 16));
    });
    bmc.addDumpSection("fans", [&](std::ostream& out) { out << "count " << fans << '\n'; });
    bmc.applyDescriptionLine("fans 6");
    EXPECT_EQ(fans, 6);
    EXPECT_THAT(bmc.dump(), HasSubstr("[fans]\ncount 6\n"));
    EXPECT_THAT(bmc.dump(), StartsWith("[controller]\nclock-ms 0\n"));
    bool listed = false;
    for (const auto& k : bmc.keywords()) listed = listed || (k.first == "fans" && k.second == "fans N: fans fitted");
    EXPECT_TRUE(listed);
}

TEST(ControllerDescription, FaultTextCoversEveryKind) {
    using qelSim::parseFault;
    using qelSim::splitWords;
    EXPECT_EQ(parseFault(splitWords("send-fails EIO")).errnoValue, EIO);
    EXPECT_EQ(parseFault(splitWords("select-fails 4")).errnoValue, 4);
    EXPECT_EQ(parseFault(splitWords("receive-fails EBADF")).kind, Fault::ReceiveFails);
    EXPECT_EQ(parseFault(splitWords("select-not-ready")).kind, Fault::SelectNotReady);
    EXPECT_EQ(parseFault(splitWords("foreign-msgid")).kind, Fault::ForeignMsgId);
    EXPECT_EQ(parseFault(splitWords("empty-reply")).kind, Fault::EmptyReply);
    EXPECT_THAT(parseFault(splitWords("raw-reply 00 0x11 2")).bytes, ElementsAre(0x00, 0x11, 0x02));
    Fault before = parseFault(splitWords("messages-before 2 5 for 06 25"));
    EXPECT_EQ(before.recvType, 2);
    EXPECT_EQ(before.count, 5);
    ASSERT_TRUE(before.only.has_value());
    EXPECT_EQ(before.only->first, 0x06);
    EXPECT_EQ(before.only->second, 0x25);
    EXPECT_EQ(parseFault(splitWords("wrong-recv-type 4")).recvType, 4);
    EXPECT_EQ(parseFault(splitWords("oversize-reply 300")).count, 300);
    EXPECT_EQ(parseFault(splitWords("completion-code C9")).code, 0xC9);
    EXPECT_THROW(parseFault(splitWords("no-reply extra")), std::invalid_argument);
    EXPECT_THROW(parseFault(splitWords("send-fails ENOPE")), std::invalid_argument);
    EXPECT_THROW(parseFault(splitWords("oversize-reply 70000")), std::invalid_argument);
    EXPECT_THROW(parseFault(splitWords("sometimes")), std::invalid_argument);
}

TEST(ControllerDescription, RequestLinesReadBackAsTheRequest) {
    qelSim::Request r;
    r.addrType = 0x41;
    r.channel = 0;
    r.slaveAddr = 0x30;
    r.lun = 2;
    r.msgId = 1804289383;
    r.netFn = 0x2E;
    r.cmd = 0xE0;
    r.data = {0xD9, 0x7E, 0x00};
    std::string line = qelSim::formatRequest(r);
    EXPECT_EQ(line, "addr 41 ch 00 sa 30 lun 2 msgid 1804289383 netfn 2e cmd e0 data d9 7e 00");
    qelSim::Request back = qelSim::parseRequest(line);
    EXPECT_EQ(qelSim::formatRequest(back), line);
    r.data.clear();
    EXPECT_THAT(qelSim::formatRequest(r), testing::EndsWith("cmd e0 data"));
    EXPECT_THROW(qelSim::parseRequest("addr 41 ch"), std::invalid_argument);
}

TEST_F(SharedController, BadDescriptionLineOverTheSocketIsRefusedWithItsText) {
    try {
        ctl->describe("bogus 1");
        ADD_FAILURE() << "accepted";
    } catch (const qelSim::SimSocketError& e) {
        EXPECT_STREQ(e.what(), "unknown keyword 'bogus'");
        EXPECT_EQ(e.errorNumber(), EINVAL);
    }
    EXPECT_THAT(ctl->keywords(), HasSubstr("deviceid\tdeviceid BYTE...:"));
    // The controller serves on.
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    EXPECT_TRUE(ipmi.sendCmd(getDeviceId));
}

// ---------------------------------------------------------------- protocol

TEST_F(SharedController, SendBeforeOpenAndUnknownOperationsAreRefused) {
    qelSim::SocketConnection raw;
    ASSERT_EQ(raw.connect(sim.socket()), 0);
    std::int32_t status = 0;
    Bytes reply;
    qelSim::wire::Writer send;
    send.u8(static_cast<unsigned>(qelSim::wire::Op::Send));
    qelSim::wire::putRequest(send, qelSim::Request{});
    ASSERT_EQ(raw.call(send, status, reply), 0);
    EXPECT_EQ(status, EBADF);
    qelSim::wire::Writer unknown;
    unknown.u8(0x77);
    ASSERT_EQ(raw.call(unknown, status, reply), 0);
    EXPECT_EQ(status, ENOSYS);
    qelSim::wire::Writer truncated;
    truncated.u8(static_cast<unsigned>(qelSim::wire::Op::Advance)).u16(1);
    ASSERT_EQ(raw.call(truncated, status, reply), 0);
    EXPECT_EQ(status, EPROTO);
    EXPECT_THAT(std::string(reply.begin(), reply.end()), HasSubstr("malformed request"));
}

TEST_F(SharedController, OversizedFrameDropsOnlyThatConnection) {
    int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strcpy(addr.sun_path, sim.socket().c_str());
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    const unsigned char huge[] = {0xFF, 0xFF, 0xFF, 0xFF, 0x01};
    ASSERT_EQ(::send(fd, huge, sizeof huge, MSG_NOSIGNAL), static_cast<ssize_t>(sizeof huge));
    char c;
    EXPECT_EQ(::recv(fd, &c, 1, 0), 0);  // closed by the controller
    ::close(fd);
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    EXPECT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_THAT(sim.errors(), HasSubstr("dropping a connection"));
}

TEST_F(SharedController, ADeviceWhoseControllerIsGoneFailsItsNextSend) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    EXPECT_EQ(sim.stop(SIGTERM), 0);
    QelIpmiError e = thrownBy([&] { (void)ipmi.sendCmd(getDeviceId); });
    EXPECT_THAT(e.errorText, StartsWith("Error: ioctl IPMICTL_SEND_COMMAND failed: "));
}

// ---------------------------------------------------------------- lifecycle

TEST(ControllerProcess, TermSignalRemovesSocketAndPidFile) {
    TempDir dir;
    BmcSim sim(dir, {"--pidfile", dir / "bmc.pid"});
    ASSERT_TRUE(sim.ready()) << sim.errors();
    EXPECT_EQ(readFile(dir / "bmc.pid"), std::to_string(sim.pid()) + "\n");
    EXPECT_TRUE(exists(sim.socket()));
    EXPECT_EQ(sim.stop(SIGTERM), 0);
    EXPECT_FALSE(exists(sim.socket()));
    EXPECT_FALSE(exists(dir / "bmc.pid"));
}

TEST(ControllerProcess, ShutdownReturnsOnceTheControllerIsGone) {
    TempDir dir;
    BmcSim sim(dir, {"--pidfile", dir / "bmc.pid"});
    ASSERT_TRUE(sim.ready()) << sim.errors();
    qelSim::SimControlClient(sim.socket()).shutdown();
    EXPECT_FALSE(exists(sim.socket()));
    EXPECT_FALSE(exists(dir / "bmc.pid"));
    EXPECT_EQ(sim.stop(0), 0);
}

TEST(ControllerProcess, LiveSocketIsRefusedStaleOneIsReplaced) {
    TempDir dir;
    BmcSim first(dir);
    ASSERT_TRUE(first.ready()) << first.errors();
    BmcSim second(dir, {}, "bmc.sock");
    EXPECT_FALSE(second.ready());
    EXPECT_EQ(second.stop(0), 1);
    EXPECT_THAT(second.errors(), HasSubstr("another controller serves"));
    EXPECT_EQ(first.stop(SIGKILL), 128 + SIGKILL);
    ASSERT_TRUE(exists(first.socket()));  // left behind
    BmcSim third(dir, {}, "bmc.sock");
    ASSERT_TRUE(third.ready()) << third.errors();
    EXPECT_EQ(qelSim::SimControlClient(third.socket()).nowMs(), 0u);
}

TEST(ControllerProcess, DaemonReturnsWhenServing) {
    TempDir dir;
    pid_t parent = spawn({QEL_BMCSIM_PATH, "--daemon", "--socket", dir / "d.sock", "--pidfile",
                          dir / "d.pid"},
                         dir / "d.err");
    ASSERT_EQ(waitExit(parent), 0) << readFile(dir / "d.err");
    pid_t daemon = static_cast<pid_t>(std::stol(readFile(dir / "d.pid")));
    EXPECT_NE(daemon, parent);
    EXPECT_EQ(::kill(daemon, 0), 0);
    qelSim::SimControlClient(dir / "d.sock").shutdown();
    EXPECT_FALSE(exists(dir / "d.sock"));
    EXPECT_FALSE(exists(dir / "d.pid"));
}

TEST(ControllerProcess, WithoutReadyFdReadyIsPrinted) {
    TempDir dir;
    int out[2];
    ASSERT_EQ(::pipe2(out, O_CLOEXEC), 0);
    pid_t pid = spawn({QEL_BMCSIM_PATH, "--socket", dir / "p.sock"}, dir / "p.err", out[1]);
    ::close(out[1]);
    char line[6] = {};
    ASSERT_EQ(::read(out[0], line, sizeof line), 6) << readFile(dir / "p.err");
    EXPECT_EQ(std::string(line, 6), "ready\n");
    ::kill(pid, SIGINT);
    EXPECT_EQ(waitExit(pid), 0);
    ::close(out[0]);
    EXPECT_FALSE(exists(dir / "p.sock"));
}
