// The simulated controller behind a virtual machine's KCS interface: QEMU's
// external-BMC framing, the exchange of one request, the machine operations
// the watchdog triggers, and the listener on a real TCP connection.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "qelSimBmc.h"
#include "qelSimExternBmc.h"
#include "qelSimWatchdog.h"

using qelSim::Bytes;
using qelSim::ExternSession;
using qelSim::SimBmc;
using qelSim::SimExternBmc;
namespace ew = qelSim::externWire;

namespace {

// A request frame as QEMU sends it: msgid, netfn/lun, cmd, data, checksum, end.
Bytes requestFrame(unsigned char msgId, unsigned char netFn, unsigned char cmd, const Bytes& data = {},
                   unsigned char lun = 0) {
    Bytes payload{msgId, static_cast<unsigned char>(netFn << 2 | lun), cmd};
    payload.insert(payload.end(), data.begin(), data.end());
    payload.push_back(ew::checksum(payload));
    return ew::encode(payload, ew::messageEnd);
}

Bytes commandFrame(const Bytes& bytes) { return ew::encode(bytes, ew::commandEnd); }

std::vector<ew::Frame> decodeAll(const Bytes& bytes) {
    ew::Decoder d;
    return d.feed(bytes.data(), bytes.size());
}

Bytes send(ExternSession& s, const Bytes& bytes) { return s.receive(bytes.data(), bytes.size()); }

}  // namespace

// ---------------------------------------------------------------- framing

TEST(SimExternWire, EncodeEscapesTheThreeSpecialBytesWithBitFourSet) {
    EXPECT_EQ(ew::encode({0xA0, 0xA1, 0xAA, 0x01, 0xB0}, ew::messageEnd),
              (Bytes{0xAA, 0xB0, 0xAA, 0xB1, 0xAA, 0xBA, 0x01, 0xB0, 0xA0}));
    EXPECT_EQ(ew::encode({0x04}, ew::commandEnd), (Bytes{0x04, 0xA1}));
}

TEST(SimExternWire, ChecksumMakesTheEightBitSumZero) {
    Bytes b{0x01, 0x18, 0x01};
    b.push_back(ew::checksum(b));
    EXPECT_EQ(b.back(), 0xE6);
    unsigned sum = 0;
    for (unsigned char c : b) sum += c;
    EXPECT_EQ(sum & 0xFF, 0u);
    EXPECT_EQ(ew::checksum({}), 0);
}

TEST(SimExternWire, DecoderJoinsPiecesUnescapesAndTellsMessagesFromCommands) {
    ew::Decoder d;
    const Bytes stream{0x01, 0xAA, 0xB0, 0x02, 0xA0, 0xFF, 0x01, 0xA1};
    std::vector<ew::Frame> frames;
    for (unsigned char b : stream) {  // one byte at a time, the worst split
        for (auto& f : d.feed(&b, 1)) frames.push_back(f);
    }
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_FALSE(frames[0].command);
    EXPECT_EQ(frames[0].bytes, (Bytes{0x01, 0xA0, 0x02}));
    EXPECT_TRUE(frames[1].command);
    EXPECT_EQ(frames[1].bytes, (Bytes{0xFF, 0x01}));
}

// ---------------------------------------------------------------- exchange

TEST(SimExternSession, GetDeviceIdIsAnsweredWithTheControllersBytesInAResponseFrame) {
    SimBmc bmc;
    ExternSession s(bmc);
    const std::vector<ew::Frame> frames = decodeAll(send(s, requestFrame(0x42, 0x06, 0x01)));
    ASSERT_EQ(frames.size(), 1u);
    ASSERT_FALSE(frames[0].command);
    const Bytes& r = frames[0].bytes;
    Bytes expected{0x42, 0x07 << 2, 0x01};
    const Bytes id = bmc.deviceId();
    expected.insert(expected.end(), id.begin(), id.end());
    expected.push_back(ew::checksum(expected));
    EXPECT_EQ(r, expected);
    ASSERT_EQ(bmc.requests().size(), 1u);
    const qelSim::Request q = bmc.requests()[0];
    EXPECT_EQ(q.netFn, 0x06);
    EXPECT_EQ(q.cmd, 0x01);
    EXPECT_EQ(q.msgId, 0x42);
    EXPECT_EQ(q.addrType, 0x0C);
    EXPECT_EQ(q.channel, 0x0F);
}

TEST(SimExternSession, RequestDataAndLunTravelToTheControllerAndBack) {
    SimBmc bmc;
    ExternSession s(bmc);
    // A command the controller does not know, with bytes that need escaping.
    const auto frames = decodeAll(send(s, requestFrame(0xA0, 0x3A, 0xE0, {0xAA, 0xA1, 0x00}, 1)));
    ASSERT_EQ(frames.size(), 1u);
    const Bytes& r = frames[0].bytes;
    ASSERT_EQ(r.size(), 5u);
    EXPECT_EQ(r[0], 0xA0);
    EXPECT_EQ(r[1], (0x3B << 2) | 1);
    EXPECT_EQ(r[2], 0xE0);
    EXPECT_EQ(r[3], 0xC1);
    EXPECT_EQ(ew::checksum(r), 0);
    ASSERT_EQ(bmc.requests().size(), 1u);
    EXPECT_EQ(bmc.requests()[0].data, (Bytes{0xAA, 0xA1, 0x00}));
    EXPECT_EQ(bmc.requests()[0].lun, 1);
}

TEST(SimExternSession, AFrameWithAWrongChecksumIsDroppedUnansweredAndUnrecorded) {
    SimBmc bmc;
    ExternSession s(bmc);
    Bytes bad{0x01, 0x06 << 2, 0x01, 0x00};  // checksum should be 0xE7
    EXPECT_TRUE(send(s, ew::encode(bad, ew::messageEnd)).empty());
    EXPECT_TRUE(send(s, ew::encode({0x01, 0x18}, ew::messageEnd)).empty());  // too short
    EXPECT_EQ(s.droppedFrames(), 2u);
    EXPECT_EQ(bmc.requestCount(), 0u);
    // The stream goes on: the next good frame is answered.
    EXPECT_EQ(decodeAll(send(s, requestFrame(2, 0x06, 0x01))).size(), 1u);
}

TEST(SimExternSession, AControllerFaultApplies) {
    SimBmc bmc;
    ExternSession s(bmc);
    bmc.injectFault(qelSim::Fault::noReply());
    EXPECT_TRUE(send(s, requestFrame(1, 0x06, 0x01)).empty());
    bmc.injectFault(qelSim::Fault::completionCode(0xD5));
    const auto frames = decodeAll(send(s, requestFrame(2, 0x06, 0x01)));
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].bytes, (Bytes{2, 0x07 << 2, 0x01, 0xD5, ew::checksum({2, 0x07 << 2, 0x01, 0xD5})}));
}

TEST(SimExternSession, VersionAndCapabilitiesFromQemuAreTakenAndNotAnswered) {
    SimBmc bmc;
    ExternSession s(bmc);
    Bytes in = commandFrame({0xFF, 0x01});
    Bytes caps = commandFrame({0x08, 0x1F});
    in.insert(in.end(), caps.begin(), caps.end());
    EXPECT_TRUE(send(s, in).empty());
    EXPECT_EQ(s.peerVersion(), 1);
    EXPECT_TRUE(s.capabilitiesKnown());
    EXPECT_EQ(s.peerCapabilities(), 0x1F);
    EXPECT_EQ(bmc.requestCount(), 0u);
}

// ---------------------------------------------------------------- machine operations

namespace {
// Sets the SMS/OS watchdog to `action` with `tenths` and starts it.
void armWatchdog(ExternSession& s, unsigned char action, unsigned char tenths, unsigned char interrupt = 0,
                 unsigned char interval = 0) {
    send(s, requestFrame(1, 0x06, 0x24,
                         {0x04, static_cast<unsigned char>(interrupt << 4 | action), interval, 0x10, tenths, 0x00}));
    send(s, requestFrame(2, 0x06, 0x22));
}
}  // namespace

TEST(SimExternSession, AHardResetWatchdogThatRunsOutResetsTheMachine) {
    SimBmc bmc;
    ExternSession s(bmc);
    armWatchdog(s, 1, 10);
    bmc.advanceMs(900);
    EXPECT_TRUE(s.clockMoved().empty());
    bmc.advanceMs(200);
    EXPECT_EQ(s.clockMoved(), (Bytes{0x04, 0xA1}));
    EXPECT_THAT(s.sentCommands(), ::testing::ElementsAre(0x04));
    // Once only.
    bmc.advanceMs(5000);
    EXPECT_TRUE(s.clockMoved().empty());
}

TEST(SimExternSession, PowerDownAndPowerCycleMapToPowerOffAndReset) {
    SimBmc bmc;
    ExternSession s(bmc);
    armWatchdog(s, 2, 10);
    bmc.advanceMs(1100);
    EXPECT_EQ(s.clockMoved(), (Bytes{0x03, 0xA1}));
    armWatchdog(s, 3, 10);
    bmc.advanceMs(1100);
    EXPECT_EQ(s.clockMoved(), (Bytes{0x04, 0xA1}));
}

TEST(SimExternSession, AnNmiPreTimeoutSendsAnNmi) {
    SimBmc bmc;
    ExternSession s(bmc);
    armWatchdog(s, 0, 30, 2, 1);  // no action at 3 s, NMI at 1 s before
    bmc.advanceMs(2100);
    EXPECT_EQ(s.clockMoved(), (Bytes{0x07, 0xA1}));
}

TEST(SimExternSession, EventsFromBeforeTheConnectionAreNotReplayed) {
    SimBmc bmc;
    {
        ExternSession first(bmc);
        armWatchdog(first, 1, 10);
        bmc.advanceMs(1100);
    }
    ExternSession second(bmc);
    EXPECT_TRUE(second.clockMoved().empty());
}

TEST(SimExternSession, GlobalEnablesTakenByTheControllerSwitchTheInterruptOnAndOff) {
    SimBmc bmc;
    ExternSession s(bmc);
    // A controller that refuses them switches nothing.
    bmc.removeHandler(0x06, 0x2E);
    auto frames = decodeAll(send(s, requestFrame(1, 0x06, 0x2E, {0x0D})));
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].bytes[3], 0xC1);
    EXPECT_TRUE(s.sentCommands().empty());

    // The simulated controller takes them, as real ones do.
    registerAppCommands(bmc);
    frames = decodeAll(send(s, requestFrame(2, 0x06, 0x2E, {0x0D})));
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_TRUE(frames[0].command);
    EXPECT_EQ(frames[0].bytes, (Bytes{0x05}));
    EXPECT_FALSE(frames[1].command);
    frames = decodeAll(send(s, requestFrame(3, 0x06, 0x2E, {0x0C})));
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].bytes, (Bytes{0x06}));
    EXPECT_THAT(s.sentCommands(), ::testing::ElementsAre(0x05, 0x06));
}

// ---------------------------------------------------------------- listener

TEST(SimExternBmcListener, ServesAConnectionAndShowsItInTheDump) {
    SimBmc bmc;
    SimExternBmc machine(bmc, 0);
    std::string error;
    ASSERT_TRUE(machine.listen(error)) << error;
    ASSERT_GT(machine.port(), 0);
    machine.start();

    int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    timeval tv{10, 0};  // a bound on a lost answer, not a wait for one
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(machine.port()));
    ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);

    Bytes out = commandFrame({0xFF, 0x01});
    Bytes caps = commandFrame({0x08, 0x3F});
    Bytes req = requestFrame(7, 0x06, 0x01);
    out.insert(out.end(), caps.begin(), caps.end());
    out.insert(out.end(), req.begin(), req.end());
    ASSERT_EQ(::send(fd, out.data(), out.size(), 0), static_cast<ssize_t>(out.size()));

    ew::Decoder d;
    std::vector<ew::Frame> frames;
    unsigned char buffer[512];
    while (frames.empty()) {
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        ASSERT_GT(n, 0) << "no answer from the listener";
        for (auto& f : d.feed(buffer, static_cast<std::size_t>(n))) frames.push_back(f);
    }
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].bytes[0], 7);
    EXPECT_EQ(frames[0].bytes[3], 0x00);

    const std::string dump = bmc.dump();
    EXPECT_THAT(dump, ::testing::HasSubstr("[machine]\nconnections 1\nattached yes\nprotocol-version 1\n"
                                           "capabilities 0x3f\nrequests 1\n"));
    ::close(fd);
    machine.stop();
}
