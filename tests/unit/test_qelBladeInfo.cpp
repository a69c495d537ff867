// The blade information against the simulated controller's management board:
// detection, slot and port look-ups, the board's network settings, and the
// reports (port addresses, OS status, OS and platform texts), down to the
// bytes the board receives.
#include <linux/ipmi.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "boardTestSupport.h"
#include "qelBladeInfo.h"
#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSimBoard.h"
#include "qelSimDevice.h"
#include "qelSmbios.h"
#include "smbiosImage.h"

using qelSim::Bytes;
using qelSim::Fault;
using qelSim::Request;
using qelSim::SimBoard;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace netfn = qelIpmi::netfn;
namespace cmd = qelIpmi::cmd;
namespace cc = qelIpmi::cc;

namespace {

using namespace boardTest;

MacAddress macAddress(const SimBoard::Mac& m) {
    MacAddress a;
    std::copy(m.begin(), m.end(), a.bytes);
    return a;
}
Bytes bytesOf(const MacAddress& m) { return Bytes(std::begin(m.bytes), std::end(m.bytes)); }
Bytes bytesOf(const IPv4Address& a) { return Bytes(std::begin(a.octets), std::end(a.octets)); }
Bytes networkBytes(const IPv6Address& a) {
    Bytes out;
    for (int i = 15; i >= 0; --i) out.push_back(a.reversedBytes[i]);
    return out;
}
Bytes text(const std::string& s) { return Bytes(s.begin(), s.end()); }

IPv6Address ipv6(std::initializer_list<unsigned char> head, unsigned char last) {
    unsigned char b[16] = {};
    std::copy(head.begin(), head.end(), b);
    b[15] = last;
    return IPv6Address(b);
}

// The request data a command carried, in order.
class BladeInfo : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;
    SimBoard& board() { return sim->board(); }

    std::vector<Bytes> sent(unsigned char command, unsigned char netFn = netfn::oemBoard) {
        std::vector<Bytes> out;
        for (const Request& r : sim->requests(netFn, command)) out.push_back(r.data);
        return out;
    }
    std::vector<Request> boardRequests() {
        std::vector<Request> out;
        for (const Request& r : sim->requests())
            if (r.netFn == netfn::oemBoard || r.netFn == netfn::sensorEvent) out.push_back(r);
        return out;
    }
    // (command, data) of every board request, in order.
    std::vector<std::pair<unsigned char, Bytes>> boardTraffic() {
        std::vector<std::pair<unsigned char, Bytes>> out;
        for (const Request& r : boardRequests()) out.emplace_back(r.cmd, r.data);
        return out;
    }
    // A blade in slot 3 with two ports on an extended board.
    void typicalBoard() {
        board().setSlot(3);
        board().setPorts({{1, mac1}, {2, mac2}});
    }
};

using Traffic = std::vector<std::pair<unsigned char, Bytes>>;

}  // namespace

// ================================================================ construction

TEST_F(BladeInfo, MembersStartAtTheirInitialValues) {
    QelBladeInfo blade(QelBladeInfo::unknownSlot, false);  // no board answers anything
    EXPECT_TRUE(blade.bladeSystem);
    EXPECT_FALSE(blade.acSystem);
    EXPECT_TRUE(blade.mmbNetworkInfoRead) << "it reports bladeSystem";
    EXPECT_FALSE(blade.extendedMmbInterface);
    EXPECT_EQ(blade.bladeSlot, 0xFFu);
    EXPECT_THAT(blade.macAddresses, IsEmpty());
    for (const IPv4Address* a : {&blade.mmbIpv4_1, &blade.mmbIpv4_2, &blade.mmbIpv4_3, &blade.mmbIpv4_4})
        EXPECT_THAT(bytesOf(*a), ElementsAre(0, 0, 0, 0));
    EXPECT_EQ(blade.mmbIpv6_1, IPv6Address());
    EXPECT_EQ(blade.mmbIpv6_2, IPv6Address());
    EXPECT_EQ(blade.mmbIpv6Prefix_1, 0u);
    EXPECT_EQ(blade.mmbIpv6Prefix_2, 0u);
    EXPECT_THAT(bytesOf(blade.mmbMacAddress), ElementsAre(0, 0, 0, 0, 0, 0));
}

TEST_F(BladeInfo, SlotIsAskedOnlyWhenUnknown) {
    board().setSlot(5);
    QelBladeInfo asked(QelBladeInfo::unknownSlot, false);
    EXPECT_EQ(asked.bladeSlot, 5u);
    EXPECT_EQ(sent(cmd::getBoardSlot).size(), 1u);
    EXPECT_THAT(sent(cmd::getBoardSlot)[0], IsEmpty());

    sim->clearRequests();
    QelBladeInfo given(2, false);
    EXPECT_EQ(given.bladeSlot, 2u);
    EXPECT_THAT(sent(cmd::getBoardSlot), IsEmpty());
}

TEST_F(BladeInfo, ConstructionLooksUpOnLunZeroAndReadsSettingsOnLunOne) {
    typicalBoard();
    QelBladeInfo blade(QelBladeInfo::unknownSlot, false);
    for (const Request& r : boardRequests()) {
        EXPECT_EQ(r.addrType, IPMI_SYSTEM_INTERFACE_ADDR_TYPE);
        const bool lookUp = r.cmd == cmd::getBoardSlot || r.cmd == cmd::getPortMac;
        EXPECT_EQ(r.lun, lookUp ? 0 : 1) << "command " << int(r.cmd);
    }
    // The network settings come first, then the slot, then the ports.
    const auto traffic = boardTraffic();
    ASSERT_GE(traffic.size(), 3u);
    EXPECT_EQ(traffic.front().first, cmd::getBoardCapabilities);
    EXPECT_EQ(traffic[traffic.size() - 3].first, cmd::getBoardSlot);
}

// ---------------------------------------------------------------- port MACs

TEST_F(BladeInfo, PortMacsAreLearntPortByPort) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    EXPECT_THAT(sent(cmd::getPortMac), ElementsAre(Bytes{0x01}, Bytes{0x02}));
    ASSERT_EQ(blade.macAddresses.size(), 2u);
    EXPECT_EQ(bytesOf(blade.macAddresses.at(1)), bytesOf(mac1));
    EXPECT_EQ(bytesOf(blade.macAddresses.at(2)), bytesOf(mac2));
}

TEST_F(BladeInfo, OutOfRangePortIsSkippedAndTheWalkGoesOn) {
    // Count 3 for ports 1 and 2, 0xC9 for port 3: port 4 is asked next.
    board().setPorts({{1, mac1}, {2, mac2}, {4, mac4}});
    QelBladeInfo blade(3, false);
    EXPECT_THAT(sent(cmd::getPortMac), ElementsAre(Bytes{0x01}, Bytes{0x02}, Bytes{0x03}, Bytes{0x04}));
    EXPECT_EQ(blade.macAddresses.size(), 3u);
    EXPECT_EQ(blade.macAddresses.count(3), 0u);
    EXPECT_EQ(bytesOf(blade.macAddresses.at(4)), bytesOf(mac4));
}

TEST_F(BladeInfo, EnumerationNeverGoesBeyondPort31) {
    std::vector<std::pair<unsigned int, SimBoard::Mac>> ports;
    for (unsigned int p = 1; p <= 40; ++p) ports.push_back({p, {0x02, 0, 0, 0, 0, static_cast<unsigned char>(p)}});
    board().setPorts(ports);  // announces 40 ports
    QelBladeInfo blade(3, false);
    const auto asked = sent(cmd::getPortMac);
    ASSERT_EQ(asked.size(), 31u);
    EXPECT_EQ(asked.back(), Bytes{31});
    EXPECT_EQ(blade.macAddresses.size(), 31u);
    EXPECT_EQ(blade.macAddresses.rbegin()->first, 31u);
}

TEST_F(BladeInfo, PortNumbersSkippedWithC9StillStopBelow32) {
    board().setPorts({{1, mac1}});
    board().setPortCount(5);  // promises more than will ever answer
    QelBladeInfo blade(3, false);
    const auto asked = sent(cmd::getPortMac);
    ASSERT_EQ(asked.size(), 31u);
    EXPECT_EQ(asked.back(), Bytes{31});
    EXPECT_EQ(blade.macAddresses.size(), 1u);
}

TEST_F(BladeInfo, FirstPortOutOfRangeEndsTheWalk) {
    // Nothing answered yet and nothing announced: the walk has reached its count.
    board().setPorts({{2, mac2}});
    QelBladeInfo blade(3, false);
    EXPECT_THAT(sent(cmd::getPortMac), ElementsAre(Bytes{0x01}));
    EXPECT_THAT(blade.macAddresses, IsEmpty());
}

TEST_F(BladeInfo, PortWithoutValidMacCountsButIsNotKept) {
    board().setPorts({{1, mac1}, {3, mac3}});
    board().setPortWithoutMac(2);
    QelBladeInfo blade(3, false);
    EXPECT_EQ(sent(cmd::getPortMac).size(), 3u);
    EXPECT_EQ(blade.macAddresses.size(), 2u);
    EXPECT_EQ(blade.macAddresses.count(2), 0u);
}

TEST_F(BladeInfo, OtherCompletionCodeEndsTheWalk) {
    board().setPorts({{1, mac1}, {2, mac2}, {3, mac3}});
    sim->injectFault(Fault::completionCode(cc::nodeBusy).forCommand(netfn::oemBoard, cmd::getPortMac));
    QelBladeInfo blade(3, false);
    EXPECT_THAT(sent(cmd::getPortMac), ElementsAre(Bytes{0x01}));
    EXPECT_THAT(blade.macAddresses, IsEmpty());
}

TEST_F(BladeInfo, BoardWithoutPortCommandGivesTheLegacyListReversed) {
    board().setPorts({{1, mac1}, {2, mac2}});
    board().setCommandKnown(cmd::getPortMac, false);
    QelBladeInfo blade(3, false);
    EXPECT_THAT(sent(cmd::getPortMac), ElementsAre(Bytes{0x01}));
    EXPECT_THAT(sent(cmd::getPortMacsLegacy), ElementsAre(IsEmpty()));
    ASSERT_EQ(blade.macAddresses.size(), 2u);
    EXPECT_EQ(bytesOf(blade.macAddresses.at(1)), bytesOf(mac1));
    EXPECT_EQ(bytesOf(blade.macAddresses.at(2)), bytesOf(mac2));
}

TEST_F(BladeInfo, LegacyRecordsAreReadBackToFront) {
    board().setKind(SimBoard::Kind::extended);
    board().setCommandKnown(cmd::getPortMac, false);
    sim->injectFault(Fault::rawReply({cc::ok, 1, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11})
                         .forCommand(netfn::oemBoard, cmd::getPortMacsLegacy));
    QelBladeInfo blade(3, false);
    ASSERT_EQ(blade.macAddresses.size(), 1u);
    EXPECT_THAT(bytesOf(blade.macAddresses.at(1)), ElementsAre(0x11, 0x22, 0x33, 0x44, 0x55, 0x66));
}

TEST_F(BladeInfo, LegacyListDoesNotOverwriteKnownPorts) {
    // Port 1 answers the port command; for port 2 the board no longer knows
    // it and the legacy list names ports 1 and 2 with other MACs.
    board().setPorts({{1, mac3}, {2, mac4}});
    sim->setHandler(netfn::oemBoard, cmd::getPortMac, [](const Request& r) -> qelSim::Response {
        if (r.data == Bytes{0x01}) return cat({cc::ok, 3, 0x80}, bytesOf(mac1));
        return {cc::invalidCommand};
    });
    QelBladeInfo blade(3, false);
    EXPECT_THAT(sent(cmd::getPortMac), ElementsAre(Bytes{0x01}, Bytes{0x02}));
    ASSERT_EQ(blade.macAddresses.size(), 2u);
    EXPECT_EQ(bytesOf(blade.macAddresses.at(1)), bytesOf(mac1)) << "the first MAC stays";
    EXPECT_EQ(bytesOf(blade.macAddresses.at(2)), bytesOf(mac4));
}

TEST_F(BladeInfo, LegacyListUnansweredLeavesNoPorts) {
    board().setPorts({{1, mac1}});
    board().setCommandKnown(cmd::getPortMac, false);
    board().setCommandKnown(cmd::getPortMacsLegacy, false);
    QelBladeInfo blade(3, false);
    EXPECT_EQ(sent(cmd::getPortMacsLegacy).size(), 1u);
    EXPECT_THAT(blade.macAddresses, IsEmpty());
}

// ---------------------------------------------------------------- short replies in construction

TEST_F(BladeInfo, ShortSlotReplyLeavesTheSlotUnknown) {
    board().setSlot(4);
    sim->injectFault(Fault::rawReply({cc::ok}).forCommand(netfn::oemBoard, cmd::getBoardSlot));
    QelBladeInfo blade(QelBladeInfo::unknownSlot, false);
    EXPECT_EQ(blade.bladeSlot, QelBladeInfo::unknownSlot);
}

TEST_F(BladeInfo, PortReplyOfTwoBytesEndsTheWalkUnread) {
    typicalBoard();
    sim->injectFault(Fault::rawReply({cc::ok, 3}).forCommand(netfn::oemBoard, cmd::getPortMac));
    QelBladeInfo blade(3, false);
    EXPECT_EQ(sent(cmd::getPortMac).size(), 1u);
    EXPECT_THAT(blade.macAddresses, IsEmpty());
}

TEST_F(BladeInfo, PortReplyClaimingAMacWithoutOneEndsTheWalk) {
    typicalBoard();
    sim->injectFault(Fault::rawReply({cc::ok, 2, 0x80, 0x02, 0x00}).forCommand(netfn::oemBoard, cmd::getPortMac));
    QelBladeInfo blade(3, false);
    EXPECT_EQ(sent(cmd::getPortMac).size(), 1u);
    EXPECT_THAT(blade.macAddresses, IsEmpty());
}

TEST_F(BladeInfo, PortReplyWithoutMacNeedsOnlyItsHeader) {
    typicalBoard();
    sim->injectFault(Fault::rawReply({cc::ok, 2, 0x00}).forCommand(netfn::oemBoard, cmd::getPortMac));
    QelBladeInfo blade(3, false);
    EXPECT_EQ(sent(cmd::getPortMac).size(), 2u);
    ASSERT_EQ(blade.macAddresses.size(), 1u);
    EXPECT_EQ(blade.macAddresses.count(2), 1u);
}

TEST_F(BladeInfo, EmptyPortReplyCountsAsNoReply) {
    typicalBoard();
    sim->injectFault(Fault::emptyReply().forCommand(netfn::oemBoard, cmd::getPortMac));
    QelBladeInfo blade(3, false);
    EXPECT_EQ(sent(cmd::getPortMac).size(), 1u);
    EXPECT_THAT(blade.macAddresses, IsEmpty());
}

TEST_F(BladeInfo, LegacyPartialRecordIsIgnored) {
    board().setKind(SimBoard::Kind::extended);
    board().setCommandKnown(cmd::getPortMac, false);
    sim->injectFault(Fault::rawReply(cat(cat({cc::ok, 2}, Bytes{6, 5, 4, 3, 2, 1}), {0xAA, 0xBB, 0xCC}))
                         .forCommand(netfn::oemBoard, cmd::getPortMacsLegacy));
    QelBladeInfo blade(3, false);
    ASSERT_EQ(blade.macAddresses.size(), 1u);
    EXPECT_THAT(bytesOf(blade.macAddresses.at(1)), ElementsAre(1, 2, 3, 4, 5, 6));
}

TEST_F(BladeInfo, LegacyReplyOfOneByteGivesNoPorts) {
    board().setKind(SimBoard::Kind::extended);
    board().setCommandKnown(cmd::getPortMac, false);
    sim->injectFault(Fault::rawReply({cc::ok}).forCommand(netfn::oemBoard, cmd::getPortMacsLegacy));
    QelBladeInfo blade(3, false);
    EXPECT_THAT(blade.macAddresses, IsEmpty());
}

TEST_F(BladeInfo, MissingControllerEndsTheLookUpsQuietly) {
    sim->setAllPathsMissing(true);
    QelBladeInfo blade(QelBladeInfo::unknownSlot, false);
    EXPECT_TRUE(blade.bladeSystem);
    EXPECT_FALSE(blade.mmbNetworkInfoRead) << "a transport error inside the read";
    EXPECT_EQ(blade.bladeSlot, QelBladeInfo::unknownSlot);
    EXPECT_THAT(blade.macAddresses, IsEmpty());
}

TEST_F(BladeInfo, TransportErrorDuringTheWalkKeepsWhatWasLearnt) {
    typicalBoard();
    board().setPorts({{1, mac1}, {2, mac2}, {3, mac3}});
    // The first port command is answered, the second fails at the device.
    sim->injectFault(Fault::rawReply(cat({cc::ok, 3, 0x80}, bytesOf(mac1))).forCommand(netfn::oemBoard, cmd::getPortMac));
    sim->injectFault(Fault::sendFails(EIO).forCommand(netfn::oemBoard, cmd::getPortMac));
    QelBladeInfo blade(3, false);
    ASSERT_EQ(blade.macAddresses.size(), 1u);
    EXPECT_EQ(bytesOf(blade.macAddresses.at(1)), bytesOf(mac1));
}

// ================================================================ board network settings

TEST_F(BladeInfo, ExtendedBoardIsAskedThisExactSequence) {
    typicalBoard();
    board().setIpv4(0, {192, 168, 1, 10}, {255, 255, 255, 0});
    board().setIpv4(1, {192, 168, 1, 11}, {255, 255, 0, 0});
    const SimBoard::Ipv6 first{0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01};
    const SimBoard::Ipv6 second{0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x02};
    board().setIpv6(2, first, 64);
    board().setIpv6(3, second, 48);
    board().setMac(0, {0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE});

    QelBladeInfo blade(3, false);
    const Traffic expected = {
        {cmd::getBoardCapabilities, {}},
        {cmd::getBoardAddress, {0x01, 0x00}},
        {cmd::getBoardAddress, {0x01, 0x01}},
        {cmd::getBoardMask, {0x01, 0x00}},
        {cmd::getBoardMask, {0x01, 0x01}},
        {cmd::getBoardMask, {0x01, 0x01}},  // the most recent 0xE1 selector, not 02 xx
        {cmd::getBoardAddress, {0x02, 0x02}},
        {cmd::getBoardAddress, {0x02, 0x03}},
        {cmd::getBoardMask, {0x02, 0x03}},
        {cmd::getBoardMask, {0x02, 0x03}},  // again the most recent 0xE1 selector
        {cmd::getBoardMac, {0x00}},
        {cmd::getPortMac, {0x01}},
        {cmd::getPortMac, {0x02}},
    };
    EXPECT_EQ(boardTraffic(), expected);

    EXPECT_TRUE(blade.mmbNetworkInfoRead);
    EXPECT_TRUE(blade.extendedMmbInterface);
    EXPECT_THAT(bytesOf(blade.mmbIpv4_1), ElementsAre(192, 168, 1, 10));
    EXPECT_THAT(bytesOf(blade.mmbIpv4_2), ElementsAre(192, 168, 1, 11));
    EXPECT_THAT(bytesOf(blade.mmbIpv4_3), ElementsAre(255, 255, 255, 0));
    EXPECT_THAT(bytesOf(blade.mmbIpv4_4), ElementsAre(255, 255, 0, 0));
    EXPECT_EQ(networkBytes(blade.mmbIpv6_1), Bytes(first.begin(), first.end()));
    EXPECT_EQ(networkBytes(blade.mmbIpv6_2), Bytes(second.begin(), second.end()));
    // Both prefixes come from the mask of entry 3: the requests say so.
    EXPECT_EQ(blade.mmbIpv6Prefix_1, 48u);
    EXPECT_EQ(blade.mmbIpv6Prefix_2, 48u);
    EXPECT_THAT(bytesOf(blade.mmbMacAddress), ElementsAre(0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE));
}

TEST_F(BladeInfo, OldBoardIsAskedTheLegacyCommandsInstead) {
    board().setKind(SimBoard::Kind::old);
    board().setSlot(3);
    board().setIpv4(0, {172, 16, 0, 5}, {255, 255, 0, 0});
    QelBladeInfo blade(3, false);
    const Traffic expected = {
        {cmd::getBoardCapabilities, {}},
        {cmd::getBoardAddress, {0x01, 0x00}},
        {cmd::getBoardIpv4Legacy, {}},
        {cmd::getBoardAddress, {0x01, 0x01}},
        {cmd::getBoardIpv4Legacy, {}},  // the same command again, for the second member
        {cmd::getBoardMask, {0x01, 0x00}},  // no fallback
        {cmd::getBoardMask, {0x01, 0x01}},
        {cmd::getBoardMaskLegacy, {}},
        {cmd::getBoardMask, {0x01, 0x01}},
        {cmd::getBoardMac, {0x00}},
        {cmd::getBoardMac, {0x01}},
        {cmd::getPortMac, {0x01}},
    };
    EXPECT_EQ(boardTraffic(), expected);
    EXPECT_TRUE(blade.mmbNetworkInfoRead);
    EXPECT_FALSE(blade.extendedMmbInterface);
    EXPECT_THAT(bytesOf(blade.mmbIpv4_1), ElementsAre(172, 16, 0, 5));
    EXPECT_THAT(bytesOf(blade.mmbIpv4_2), ElementsAre(172, 16, 0, 5));
    EXPECT_THAT(bytesOf(blade.mmbIpv4_3), ElementsAre(0, 0, 0, 0));
    EXPECT_THAT(bytesOf(blade.mmbIpv4_4), ElementsAre(255, 255, 0, 0));
    EXPECT_EQ(blade.mmbIpv6_1, IPv6Address());
    EXPECT_THAT(bytesOf(blade.mmbMacAddress), ElementsAre(0, 0, 0, 0, 0, 0));
}

TEST_F(BladeInfo, ZeroMacAsksTheSecondSelector) {
    typicalBoard();
    board().setMac(1, mac4);
    QelBladeInfo blade(3, false);
    EXPECT_THAT(sent(cmd::getBoardMac), ElementsAre(Bytes{0x00}, Bytes{0x01}));
    EXPECT_EQ(bytesOf(blade.mmbMacAddress), bytesOf(mac4));
}

TEST_F(BladeInfo, BoardWithoutExtendedCapabilityIsNotAskedForIpv6) {
    typicalBoard();
    board().setExtendedCapability(false);
    board().setIpv6(2, {0xFE, 0x80}, 64);
    QelBladeInfo blade(3, false);
    EXPECT_FALSE(blade.extendedMmbInterface);
    EXPECT_THAT(sent(cmd::getBoardAddress), ElementsAre(Bytes{0x01, 0x00}, Bytes{0x01, 0x01}));
    EXPECT_EQ(blade.mmbIpv6_1, IPv6Address());
}

TEST_F(BladeInfo, IpvSixPrefixIsTakenFromAnIpv6AnswerToTheFirstRepeatedMask) {
    // A board that answers the repeated 01 01 mask request with an IPv6 mask.
    typicalBoard();
    board().setExtendedCapability(false);
    int masks = 0;
    sim->setHandler(netfn::oemBoard, cmd::getBoardMask, [&](const Request& r) -> qelSim::Response {
        if (++masks == 3) {
            Bytes reply = {cc::ok, 0x02, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
            reply.resize(19, 0);
            return reply;
        }
        return sim->board().boardMask(r);
    });
    QelBladeInfo blade(3, false);
    EXPECT_EQ(blade.mmbIpv6Prefix_1, 64u);
    EXPECT_EQ(blade.mmbIpv6Prefix_2, 0u);
}

TEST_F(BladeInfo, ShortAddressReplyCountsAsNoReplyAndTheFallbackIsAsked) {
    typicalBoard();
    board().setIpv4(0, {10, 1, 1, 1}, {255, 0, 0, 0});
    // A success of 4 bytes cannot hold an address.
    sim->injectFault(Fault::rawReply({cc::ok, 0x01, 0x00, 10}).forCommand(netfn::oemBoard, cmd::getBoardAddress));
    QelBladeInfo blade(3, false);
    EXPECT_EQ(sent(cmd::getBoardIpv4Legacy).size(), 1u);
    EXPECT_THAT(bytesOf(blade.mmbIpv4_1), ElementsAre(10, 1, 1, 1));
}

TEST_F(BladeInfo, ShortRepliesToEverySettingReadNothing) {
    typicalBoard();
    board().setIpv6(2, {0xFE, 0x80}, 64);
    for (unsigned char c : {cmd::getBoardCapabilities, cmd::getBoardMask, cmd::getBoardMac})
        sim->injectFault(Fault::rawReply({cc::ok}).forCommand(netfn::oemBoard, c));
    QelBladeInfo blade(3, false);
    EXPECT_FALSE(blade.extendedMmbInterface) << "a capability reply without its byte";
    EXPECT_EQ(sent(cmd::getBoardMac).size(), 2u) << "a short MAC reply leaves the MAC zero";

    // A success naming another family is still too short to be read.
    sim->clearRequests();
    sim->injectFault(Fault::rawReply({cc::ok, 0x02, 0x02, 0xFE, 0x80}).forCommand(netfn::oemBoard, cmd::getBoardAddress));
    QelBladeInfo other(3, false);
    EXPECT_EQ(sent(cmd::getBoardIpv4Legacy).size(), 1u);
    EXPECT_NE(other.mmbIpv6_1, IPv6Address()) << "the IPv6 entries came through";

    // Old board, legacy answers too short for four octets.

    sim->clearRequests();
    board().setKind(SimBoard::Kind::old);
    sim->injectFault(Fault::rawReply({cc::ok, 10, 0}).forCommand(netfn::oemBoard, cmd::getBoardIpv4Legacy));
    sim->injectFault(Fault::rawReply({cc::ok, 255}).forCommand(netfn::oemBoard, cmd::getBoardMaskLegacy));
    QelBladeInfo old(3, false);
    EXPECT_THAT(bytesOf(old.mmbIpv4_1), ElementsAre(0, 0, 0, 0));
    EXPECT_THAT(bytesOf(old.mmbIpv4_4), ElementsAre(0, 0, 0, 0));
}

TEST_F(BladeInfo, ShortIpv6RepliesLeaveTheMembersZero) {
    typicalBoard();
    board().setIpv6(2, {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 64);
    board().setIpv6(3, {0x20, 0x01}, 48);
    sim->setHandler(netfn::oemBoard, cmd::getBoardAddress, [&](const Request& r) -> qelSim::Response {
        qelSim::Response full = sim->board().boardAddress(r);
        if (r.data[0] == 0x02) full.resize(18);  // one byte short
        return full;
    });
    sim->setHandler(netfn::oemBoard, cmd::getBoardMask, [&](const Request& r) -> qelSim::Response {
        qelSim::Response full = sim->board().boardMask(r);
        if (r.data[0] == 0x02) full.resize(10);
        return full;
    });
    QelBladeInfo blade(3, false);
    EXPECT_TRUE(blade.extendedMmbInterface);
    EXPECT_EQ(blade.mmbIpv6_1, IPv6Address());
    EXPECT_EQ(blade.mmbIpv6_2, IPv6Address());
    EXPECT_EQ(blade.mmbIpv6Prefix_1, 0u);
    EXPECT_EQ(blade.mmbIpv6Prefix_2, 0u);
}

TEST_F(BladeInfo, NetworkInfoTransportErrorGivesFalseAndKeepsWhatWasRead) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    blade.extendedMmbInterface = false;
    sim->injectFault(Fault::sendFails(EIO).forCommand(netfn::oemBoard, cmd::getBoardAddress));
    EXPECT_FALSE(blade.getMMBNetworkInfo());
    EXPECT_TRUE(blade.extendedMmbInterface);
}

// ================================================================ port addresses

TEST_F(BladeInfo, Ipv4AddressGoesToThePortWithTheOldCommand) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    sim->clearRequests();
    EXPECT_TRUE(blade.sendIpAddressInfo(IPv4Address("10.20.30.40"), macAddress(mac2)));
    EXPECT_THAT(sent(cmd::setPortIpv4), ElementsAre(Bytes{0x02, 0x01, 10, 20, 30, 40}));
    EXPECT_THAT(sent(cmd::setPortAddress), IsEmpty());
    EXPECT_EQ(sim->requests().back().lun, 1);
    auto report = board().portReport(3, 2);
    ASSERT_TRUE(report.has_value());
    EXPECT_THAT(*report->ipv4, ElementsAre(10, 20, 30, 40));
}

TEST_F(BladeInfo, Ipv4FallsBackToTheCommonCommand) {
    typicalBoard();
    board().setCommandKnown(cmd::setPortIpv4, false);
    QelBladeInfo blade(3, false);
    sim->clearRequests();
    EXPECT_TRUE(blade.sendIpAddressInfo(IPv4Address("10.20.30.40"), macAddress(mac1)));
    EXPECT_THAT(sent(cmd::setPortAddress), ElementsAre(Bytes{0x02, 0x00, 0x00, 0x01, 10, 20, 30, 40}));
    EXPECT_EQ(board().portReport(3, 1)->ipv4Command, cmd::setPortAddress);

    sim->injectFault(Fault::completionCode(cc::nodeBusy).forCommand(netfn::oemBoard, cmd::setPortAddress));
    EXPECT_FALSE(blade.sendIpAddressInfo(IPv4Address("10.20.30.41"), macAddress(mac1)));
}

TEST_F(BladeInfo, UnansweredOldCommandAlsoFallsBack) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    sim->clearRequests();
    sim->injectFault(Fault::emptyReply().forCommand(netfn::oemBoard, cmd::setPortIpv4));
    EXPECT_TRUE(blade.sendIpAddressInfo(IPv4Address("1.2.3.4"), macAddress(mac1)));
    EXPECT_EQ(sent(cmd::setPortAddress).size(), 1u);
}

TEST_F(BladeInfo, UnknownMacIsNotReported) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    sim->clearRequests();
    EXPECT_FALSE(blade.sendIpAddressInfo(IPv4Address("10.0.0.1"), macAddress(mac3)));
    EXPECT_FALSE(blade.sendIpAddressInfo(ipv6({0x20, 0x01}, 1), macAddress(mac3)));
    EXPECT_EQ(sim->requestCount(), 0u);
}

TEST_F(BladeInfo, NoAddressIsReportedWithoutSlotOrPorts) {
    board().setPorts({{1, mac1}});  // no slot answer
    QelBladeInfo noSlot(QelBladeInfo::unknownSlot, false);
    board().setPorts({});
    QelBladeInfo noPorts(3, false);
    sim->clearRequests();
    EXPECT_FALSE(noSlot.sendIpAddressInfo(IPv4Address("10.0.0.1"), macAddress(mac1)));
    EXPECT_FALSE(noPorts.sendIpAddressInfo(IPv4Address("10.0.0.1"), MacAddress()));
    EXPECT_FALSE(noPorts.sendIpAddressInfo(IPv6Address(), MacAddress()));
    EXPECT_EQ(sim->requestCount(), 0u);
}

TEST_F(BladeInfo, LinkLocalIpv6GoesOutWithKind02AndGlobalWith03) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    sim->clearRequests();
    const IPv6Address linkLocal = ipv6({0xFE, 0x80}, 0x01);
    const IPv6Address linkLocalTop = ipv6({0xFE, 0xBF}, 0x02);  // still fe80::/10
    const IPv6Address global = ipv6({0x20, 0x01, 0x0D, 0xB8}, 0x03);
    const IPv6Address siteLocal = ipv6({0xFE, 0xC0}, 0x04);     // outside fe80::/10
    EXPECT_TRUE(blade.sendIpAddressInfo(linkLocal, macAddress(mac2)));
    EXPECT_TRUE(blade.sendIpAddressInfo(linkLocalTop, macAddress(mac2)));
    EXPECT_TRUE(blade.sendIpAddressInfo(global, macAddress(mac2)));
    EXPECT_TRUE(blade.sendIpAddressInfo(siteLocal, macAddress(mac2)));
    const auto requests = sent(cmd::setPortAddress);
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[0], cat({0x02, 0x01, 0x02, 0x02}, networkBytes(linkLocal)));
    EXPECT_EQ(requests[1][2], 0x02);
    EXPECT_EQ(requests[2], cat({0x02, 0x01, 0x03, 0x02}, networkBytes(global)));
    EXPECT_EQ(requests[3][2], 0x03);
    EXPECT_THAT(sent(cmd::setPortIpv4), IsEmpty()) << "the old command carries no IPv6";
    ASSERT_EQ(board().portReport(3, 2)->ipv6.size(), 4u);
    EXPECT_EQ(board().portReport(3, 2)->ipv6[0].kind, 0x02);
}

TEST_F(BladeInfo, Ipv6IsSentFromItsAuthoritativeBytes) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    sim->clearRequests();
    IPv6Address assigned;  // an assignment target keeps a stale network-order copy
    assigned = ipv6({0x20, 0x01}, 0x09);
    EXPECT_TRUE(blade.sendIpAddressInfo(assigned, macAddress(mac1)));
    ASSERT_EQ(sent(cmd::setPortAddress).size(), 1u);
    EXPECT_EQ(sent(cmd::setPortAddress)[0], cat({0x02, 0x00, 0x03, 0x02}, networkBytes(ipv6({0x20, 0x01}, 0x09))));
}

TEST_F(BladeInfo, Ipv6RefusedOrUnsentGivesFalse) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    sim->injectFault(Fault::completionCode(cc::invalidDataField).forCommand(netfn::oemBoard, cmd::setPortAddress));
    EXPECT_FALSE(blade.sendIpAddressInfo(ipv6({0x20, 0x01}, 1), macAddress(mac1)));
    sim->injectFault(Fault::sendFails(EIO).forCommand(netfn::oemBoard, cmd::setPortAddress));
    EXPECT_FALSE(blade.sendIpAddressInfo(ipv6({0x20, 0x01}, 1), macAddress(mac1)));
    sim->injectFault(Fault::sendFails(EIO).forCommand(netfn::oemBoard, cmd::setPortIpv4));
    EXPECT_FALSE(blade.sendIpAddressInfo(IPv4Address("1.2.3.4"), macAddress(mac1)));
}

// ================================================================ OS status

TEST_F(BladeInfo, OsStatusIsAPlatformEventOverIpmbToTheBoard) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    blade.acSystem = true;
    sim->clearRequests();
    EXPECT_TRUE(blade.setOSStatus(QelBladeInfo::AC_OS_RUNNING));
    const auto events = sim->requests(netfn::sensorEvent, cmd::platformEvent);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].addrType, IPMI_IPMB_ADDR_TYPE);
    EXPECT_EQ(events[0].slaveAddr, 0x24);
    EXPECT_EQ(events[0].lun, 0);
    EXPECT_THAT(events[0].data, ElementsAre(0x04, 0xC0, 0x09, 0x6F, 0x45, 0x8F, 0xFF));

    EXPECT_TRUE(blade.setOSStatus(QelBladeInfo::AC_OS_SHUT_DOWN));
    EXPECT_THAT(sim->requests(netfn::sensorEvent, cmd::platformEvent)[1].data,
                ElementsAre(0x04, 0xC0, 0x09, 0x6F, 0x46, 0x8F, 0xFF));
    EXPECT_THAT(board().osStatuses(), ElementsAre(5, 6));
}

TEST_F(BladeInfo, OsStatusWithoutBoardOrOnFailureGivesFalse) {
    QelBladeInfo blade(3, false);
    blade.acSystem = true;
    EXPECT_FALSE(blade.setOSStatus(QelBladeInfo::AC_OS_RUNNING)) << "nobody at 0x24";
    board().setKind(SimBoard::Kind::extended);
    sim->injectFault(Fault::noReply().forCommand(netfn::sensorEvent, cmd::platformEvent));
    EXPECT_FALSE(blade.setOSStatus(QelBladeInfo::AC_OS_RUNNING));
    sim->injectFault(Fault::sendFails(EIO).forCommand(netfn::sensorEvent, cmd::platformEvent));
    EXPECT_FALSE(blade.setOSStatus(QelBladeInfo::AC_OS_RUNNING));
    EXPECT_TRUE(blade.setOSStatus(QelBladeInfo::AC_OS_RUNNING));
}

// ================================================================ OS and platform texts

TEST_F(BladeInfo, OsTextOf40CharactersGoesOutInTwoChunks) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    sim->clearRequests();
    const std::string os = "Linux 6.1.0-18-amd64 #1 SMP PREEMPT_DYN";  // 39
    const std::string os40 = os + "A";
    ASSERT_EQ(os40.size(), 40u);
    EXPECT_TRUE(blade.setOSPlatformInfo(os40, "x86_64"));
    const auto chunks = sent(cmd::setOsText);
    ASSERT_EQ(chunks.size(), 2u);
    EXPECT_EQ(chunks[0].size(), 33u);
    EXPECT_EQ(chunks[0], cat({0x02}, text(os40.substr(0, 32))));
    EXPECT_EQ(chunks[1].size(), 10u);
    EXPECT_EQ(chunks[1], cat(cat({0x42}, text(os40.substr(32))), {0x00}));
    EXPECT_EQ(chunks[1][0] >> 6, 1);
    // The platform text's byte 0 is the last chunk's, as it stands.
    EXPECT_THAT(sent(cmd::setPlatformText), ElementsAre(cat(cat({0x42}, text("x86_64")), {0x00})));
    EXPECT_EQ(board().osText()->text, os40);
    EXPECT_EQ(board().platformText()->text, "x86_64");
    EXPECT_THAT(sent(cmd::setOsTextLegacy), IsEmpty());
    for (const Request& r : sim->requests()) EXPECT_EQ(r.lun, 1);
}

TEST_F(BladeInfo, ShortAndEmptyTextsGoOutInOneChunk) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    sim->clearRequests();
    EXPECT_TRUE(blade.setOSPlatformInfo("", ""));
    EXPECT_THAT(sent(cmd::setOsText), ElementsAre(Bytes{0x02, 0x00}));
    EXPECT_THAT(sent(cmd::setPlatformText), ElementsAre(Bytes{0x02, 0x00}));
    EXPECT_EQ(board().osText()->text, "");

    sim->clearRequests();
    EXPECT_TRUE(blade.setOSPlatformInfo("ESXi", "7.0"));
    EXPECT_THAT(sent(cmd::setOsText), ElementsAre(Bytes{0x02, 'E', 'S', 'X', 'i', 0x00}));

    sim->clearRequests();
    EXPECT_TRUE(blade.setOSPlatformInfo("L", "P"));
    EXPECT_THAT(sent(cmd::setOsText), ElementsAre(Bytes{0x02, 'L', 0x00}));
    EXPECT_THAT(sent(cmd::setPlatformText), ElementsAre(Bytes{0x02, 'P', 0x00}));
}

TEST_F(BladeInfo, TextOfAMultipleOf32EndsWithAnEmptyChunk) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    sim->clearRequests();
    std::string os;
    for (int i = 0; i < 64; ++i) os += static_cast<char>('a' + i % 26);
    EXPECT_TRUE(blade.setOSPlatformInfo(os, "p"));
    const auto chunks = sent(cmd::setOsText);
    ASSERT_EQ(chunks.size(), 3u);
    EXPECT_EQ(chunks[0], cat({0x02}, text(os.substr(0, 32))));
    EXPECT_EQ(chunks[1], cat({0x42}, text(os.substr(32, 32))));
    EXPECT_EQ(chunks[2], (Bytes{0x82, 0x00}));
    EXPECT_EQ(board().osText()->text, os);
}

TEST_F(BladeInfo, OsTextIsCappedAt127CharactersInChunk3) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    sim->clearRequests();
    std::string os;
    for (int i = 0; i < 150; ++i) os += static_cast<char>('A' + i % 26);
    EXPECT_TRUE(blade.setOSPlatformInfo(os, "p"));
    const auto chunks = sent(cmd::setOsText);
    ASSERT_EQ(chunks.size(), 4u);
    for (const Bytes& c : chunks) EXPECT_EQ(c.size(), 33u);
    EXPECT_EQ(chunks[3][0], 0xC2);
    EXPECT_EQ(chunks[3], cat(cat({0xC2}, text(os.substr(96, 31))), {0x00}));
    EXPECT_EQ(board().osText()->text, os.substr(0, 127));
}

TEST_F(BladeInfo, OsTextOf127And128CharactersEndInChunk3) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    const std::string os127(127, 'q');
    sim->clearRequests();
    EXPECT_TRUE(blade.setOSPlatformInfo(os127, "p"));
    auto chunks = sent(cmd::setOsText);
    ASSERT_EQ(chunks.size(), 4u);
    EXPECT_EQ(chunks[3], cat(cat({0xC2}, text(std::string(31, 'q'))), {0x00}));
    sim->clearRequests();
    EXPECT_TRUE(blade.setOSPlatformInfo(os127 + "r", "p"));
    chunks = sent(cmd::setOsText);
    ASSERT_EQ(chunks.size(), 4u);
    EXPECT_EQ(chunks[3], cat(cat({0xC2}, text(std::string(31, 'q'))), {0x00}));
    EXPECT_EQ(board().osText()->text, os127);
}

TEST_F(BladeInfo, BoardWithoutChunkedCommandGetsTheOldOneWithSlotBitsCleared) {
    board().setSlot(6);
    board().setPorts({{1, mac1}});
    board().setCommandKnown(cmd::setOsText, false);
    QelBladeInfo blade(6, false);
    sim->clearRequests();
    EXPECT_TRUE(blade.setOSPlatformInfo("Linux", "6.1"));
    EXPECT_THAT(sent(cmd::setOsText), ElementsAre(Bytes{0x05, 'L', 'i', 'n', 'u', 'x', 0x00}));
    EXPECT_THAT(sent(cmd::setOsTextLegacy), ElementsAre(Bytes{0x00, 'L', 'i', 'n', 'u', 'x', 0x00}));
    EXPECT_THAT(sent(cmd::setPlatformText), ElementsAre(Bytes{0x00, '6', '.', '1', 0x00}));
    EXPECT_EQ(board().osText()->text, "Linux");
    EXPECT_EQ(board().osText()->command, cmd::setOsTextLegacy);
}

TEST_F(BladeInfo, OldCommandCarriesAtMost31Characters) {
    typicalBoard();
    board().setCommandKnown(cmd::setOsText, false);
    QelBladeInfo blade(3, false);
    const std::string os40(40, 'w');
    sim->clearRequests();
    EXPECT_TRUE(blade.setOSPlatformInfo(os40, "p"));
    ASSERT_EQ(sent(cmd::setOsTextLegacy).size(), 1u);
    EXPECT_EQ(sent(cmd::setOsTextLegacy)[0], cat(cat({0x00}, text(std::string(31, 'w'))), {0x00}));
    EXPECT_EQ(board().osText()->text, std::string(31, 'w'));
}

TEST_F(BladeInfo, ChunkNumberStaysWhenALaterChunkIsRefusedAsUnknown) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    sim->clearRequests();
    int chunks = 0;
    sim->setHandler(netfn::oemBoard, cmd::setOsText, [&](const Request& r) -> qelSim::Response {
        if (++chunks == 2) return {cc::invalidCommand};
        return sim->board().osTextChunk(r);
    });
    EXPECT_TRUE(blade.setOSPlatformInfo(std::string(40, 'v'), "p"));
    EXPECT_EQ(sent(cmd::setOsTextLegacy)[0][0], 0x40) << "the last chunk number, no slot";
    EXPECT_EQ(sent(cmd::setPlatformText)[0][0], 0x40);
}

TEST_F(BladeInfo, PlatformTextOf31CharactersFitsAndLongerIsCut) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    const std::string p31(31, 'p');
    sim->clearRequests();
    EXPECT_TRUE(blade.setOSPlatformInfo("os", p31));
    EXPECT_EQ(sent(cmd::setPlatformText)[0], cat(cat({0x02}, text(p31)), {0x00}));
    EXPECT_EQ(sent(cmd::setPlatformText)[0].size(), 33u);
    for (std::size_t length : {32u, 45u}) {
        sim->clearRequests();
        EXPECT_TRUE(blade.setOSPlatformInfo("os", std::string(length, 'p')));
        EXPECT_EQ(sent(cmd::setPlatformText)[0], cat(cat({0x02}, text(p31)), {0x00})) << length;
        EXPECT_EQ(board().platformText()->text, p31);
    }
}

TEST_F(BladeInfo, FailedChunkEndsTheTextsWithFalse) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    sim->clearRequests();
    int chunks = 0;
    sim->setHandler(netfn::oemBoard, cmd::setOsText, [&](const Request& r) -> qelSim::Response {
        if (++chunks == 1) return sim->board().osTextChunk(r);
        return {cc::nodeBusy};
    });
    EXPECT_FALSE(blade.setOSPlatformInfo(std::string(70, 'x'), "p"));
    EXPECT_EQ(sent(cmd::setOsText).size(), 2u);
    EXPECT_THAT(sent(cmd::setOsTextLegacy), IsEmpty());
    EXPECT_THAT(sent(cmd::setPlatformText), IsEmpty());
}

TEST_F(BladeInfo, UnansweredOsTextGivesFalse) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    sim->clearRequests();
    sim->injectFault(Fault::noReply().forCommand(netfn::oemBoard, cmd::setOsText));
    EXPECT_FALSE(blade.setOSPlatformInfo("os", "p"));
    EXPECT_THAT(sent(cmd::setPlatformText), IsEmpty());

    board().setCommandKnown(cmd::setOsText, false);
    sim->injectFault(Fault::emptyReply().forCommand(netfn::oemBoard, cmd::setOsTextLegacy));
    EXPECT_FALSE(blade.setOSPlatformInfo("os", "p"));
    EXPECT_THAT(sent(cmd::setPlatformText), IsEmpty());

    sim->injectFault(Fault::completionCode(cc::nodeBusy).forCommand(netfn::oemBoard, cmd::setOsTextLegacy));
    EXPECT_FALSE(blade.setOSPlatformInfo("os", "p"));
    EXPECT_THAT(sent(cmd::setPlatformText), IsEmpty());

    sim->injectFault(Fault::completionCode(cc::nodeBusy).forCommand(netfn::oemBoard, cmd::setPlatformText));
    EXPECT_FALSE(blade.setOSPlatformInfo("os", "p"));
    sim->injectFault(Fault::sendFails(EIO).forCommand(netfn::oemBoard, cmd::setOsText));
    EXPECT_FALSE(blade.setOSPlatformInfo("os", "p"));
}

TEST_F(BladeInfo, TextsNeedAKnownSlot) {
    board().setPorts({{1, mac1}});
    QelBladeInfo blade(QelBladeInfo::unknownSlot, false);
    sim->clearRequests();
    EXPECT_FALSE(blade.setOSPlatformInfo("os", "p"));
    EXPECT_EQ(sim->requestCount(), 0u);
}

TEST_F(BladeInfo, SlotAbove64KeepsOnlyItsLowSixBitsInByte0) {
    board().setPorts({{1, mac1}});
    QelBladeInfo blade(70, false);
    sim->clearRequests();
    EXPECT_TRUE(blade.setOSPlatformInfo("os", "p"));
    EXPECT_EQ(sent(cmd::setOsText)[0][0], (69 & 0x3F));
}

// ================================================================ detection

namespace {

// A host under a temporary root that counts what the SMBIOS reader and the
// controller identity ask of it; its clock stands still.
class CountingHost : public smbiosTest::FakeHost {
public:
    explicit CountingHost(const std::string& root) : FakeHost(root) {}
    int uname(struct utsname* out) const override {
        ++unameCalls;
        return FakeHost::uname(out);
    }
    std::string path(const std::string& p) const override {
        ++pathCalls;
        return FakeHost::path(p);
    }
    time_t time() const override {
        ++timeCalls;
        return now;
    }
    mutable std::atomic<int> unameCalls{0};
    mutable std::atomic<int> pathCalls{0};
    mutable std::atomic<int> timeCalls{0};
    time_t now = 1'700'000'000;
};

// A System Enclosure (type 3) with its serial number (string 2; none when
// empty).
Bytes enclosure(uint16_t handle, const std::string& serial) {
    Bytes body(0x0D - 4, 0);
    body[0x04 - 4] = 1;     // manufacturer
    body[0x05 - 4] = 0x17;  // rack mount chassis
    body[0x07 - 4] = serial.empty() ? 0 : 2;
    std::vector<std::string> strings = {"Chassis Maker"};
    if (!serial.empty()) strings.push_back(serial);
    return smbiosTest::structure(3, handle, body, strings);
}

// System Information strings: manufacturer, product, version, serial, SKU,
// family.
std::vector<std::string> systemStrings(const std::string& serial, const std::string& product = "RS 410",
                                       const std::string& family = "RIVERLINE") {
    return {"Maker", product, "1.0", serial, "SKU-1", family};
}

// The Get Device ID answer of a controller without OEM features ('A').
Bytes deviceIdWithoutOemFeatures() {
    Bytes id = qelSim::SimBmc::defaultDeviceId();
    id[15] = 'A';
    return id;
}

class Detection : public BladeInfo {
protected:
    smbiosTest::TempDir root;
    CountingHost host{root.path()};
    smbiosTest::ScopedPlatform platform{&host};

    void SetUp() override { qelSmbios::QelSmbios::resetOsForTesting(); }
    void TearDown() override { qelSmbios::QelSmbios::resetOsForTesting(); }

    void writeHost(const std::vector<Bytes>& structures) {
        std::vector<Bytes> all = structures;
        all.push_back(smbiosTest::endOfTable(0xFF));
        smbiosTest::writeLinuxMemory(root.path(), 0xF0000, 0xE0000, smbiosTest::concat(all),
                                     static_cast<uint16_t>(all.size()));
    }
    std::size_t deviceIdRequests() { return sim->requests(netfn::app, cmd::getDeviceId).size(); }
};

}  // namespace

TEST_F(Detection, WithoutDetectionNothingIsLookedUpAndNoStatusIsSent) {
    typicalBoard();
    QelBladeInfo blade(3, false);
    EXPECT_TRUE(blade.bladeSystem);
    EXPECT_FALSE(blade.acSystem);
    EXPECT_EQ(host.unameCalls.load(), 0) << "no SMBIOS look-up";
    EXPECT_EQ(host.pathCalls.load(), 0) << "no SMBIOS look-up";
    EXPECT_EQ(host.timeCalls.load(), 0) << "no identity look-up";
    EXPECT_EQ(deviceIdRequests(), 0u);
    EXPECT_FALSE(blade.setOSStatus(QelBladeInfo::AC_OS_RUNNING));
    EXPECT_THAT(sim->requests(netfn::sensorEvent, cmd::platformEvent), IsEmpty());
}

TEST_F(Detection, TwoEnclosuresMakeABladeSystemWithoutComparingSerials) {
    sim->setDeviceId(deviceIdWithoutOemFeatures());
    // Every serial the same: only the count can decide.
    writeHost({smbiosTest::systemInformation(1, systemStrings("SN-1")), enclosure(2, "SN-1"),
               enclosure(3, "SN-1")});
    typicalBoard();
    QelBladeInfo blade(QelBladeInfo::unknownSlot, true);
    EXPECT_GT(host.pathCalls.load(), 0);
    EXPECT_EQ(deviceIdRequests(), 1u);
    EXPECT_TRUE(blade.bladeSystem);
    EXPECT_FALSE(blade.acSystem);
    EXPECT_EQ(blade.bladeSlot, 3u);
    EXPECT_EQ(blade.macAddresses.size(), 2u);
}

TEST_F(Detection, NonBladeHostSendsNothingToTheBoard) {
    sim->setDeviceId(deviceIdWithoutOemFeatures());
    writeHost({smbiosTest::systemInformation(1, systemStrings("SN-1")), enclosure(2, "SN-1")});
    typicalBoard();
    QelBladeInfo blade(QelBladeInfo::unknownSlot, true);
    EXPECT_FALSE(blade.bladeSystem);
    EXPECT_FALSE(blade.mmbNetworkInfoRead);
    EXPECT_FALSE(blade.getMMBNetworkInfo());
    EXPECT_FALSE(blade.sendIpAddressInfo(IPv4Address("10.0.0.1"), macAddress(mac1)));
    EXPECT_FALSE(blade.sendIpAddressInfo(ipv6({0xFE, 0x80}, 1), macAddress(mac1)));
    EXPECT_FALSE(blade.setOSStatus(QelBladeInfo::AC_OS_RUNNING));
    EXPECT_FALSE(blade.setOSPlatformInfo("Linux", "6.1"));
    EXPECT_THAT(boardRequests(), IsEmpty());
    EXPECT_EQ(blade.bladeSlot, QelBladeInfo::unknownSlot);
}

TEST_F(Detection, OneEnclosureWithAnotherSerialIsABlade) {
    sim->setDeviceId(deviceIdWithoutOemFeatures());
    writeHost({smbiosTest::systemInformation(1, systemStrings("SN-BLADE")), enclosure(2, "SN-CHASSIS")});
    QelBladeInfo blade(3, true);
    EXPECT_TRUE(blade.bladeSystem);
}

TEST_F(Detection, SerialsOfOneCharacterOrMissingDoNotCount) {
    sim->setDeviceId(deviceIdWithoutOemFeatures());
    writeHost({smbiosTest::systemInformation(1, systemStrings("SN-BLADE")), enclosure(2, "X")});
    EXPECT_FALSE(QelBladeInfo(3, true).bladeSystem);
    writeHost({smbiosTest::systemInformation(1, systemStrings("S")), enclosure(2, "SN-CHASSIS")});
    EXPECT_FALSE(QelBladeInfo(3, true).bladeSystem);
    writeHost({smbiosTest::systemInformation(1, systemStrings("SN-BLADE")), enclosure(2, "")});
    EXPECT_FALSE(QelBladeInfo(3, true).bladeSystem);
    writeHost({enclosure(2, "SN-CHASSIS")});  // no System Information at all
    EXPECT_FALSE(QelBladeInfo(3, true).bladeSystem);
    EXPECT_THAT(boardRequests(), IsEmpty());
}

TEST_F(Detection, ControllerWithOemFeaturesIsABladeSystem) {
    // The default controller marks its OEM features ('G').
    writeHost({smbiosTest::systemInformation(1, systemStrings("SN-1")), enclosure(2, "SN-1")});
    typicalBoard();
    QelBladeInfo blade(QelBladeInfo::unknownSlot, true);
    EXPECT_TRUE(blade.bladeSystem);
    EXPECT_EQ(blade.bladeSlot, 3u);
}

TEST_F(Detection, AldercroftFamilyOrProductMakesAnAcSystemThatReportsItsStatus) {
    typicalBoard();
    writeHost({smbiosTest::systemInformation(1, systemStrings("SN-1", "RS 410", "ALDERCROFT")),
               enclosure(2, "SN-1"), enclosure(3, "SN-1")});
    QelBladeInfo family(3, true);
    EXPECT_TRUE(family.acSystem);
    EXPECT_TRUE(family.bladeSystem);
    EXPECT_TRUE(family.setOSStatus(QelBladeInfo::AC_OS_RUNNING));
    EXPECT_THAT(board().osStatuses(), ElementsAre(5));

    writeHost({smbiosTest::systemInformation(1, systemStrings("SN-1", "QX ALDERCROFT 4", "RIVERLINE")),
               enclosure(2, "SN-1")});
    EXPECT_TRUE(QelBladeInfo(3, true).acSystem);

    writeHost({smbiosTest::systemInformation(1, systemStrings("SN-1", "RS 410", "ALDERCROFT 2")),
               enclosure(2, "SN-1")});
    EXPECT_FALSE(QelBladeInfo(3, true).acSystem) << "the family must equal the name";
}

TEST_F(Detection, SmbiosReaderErrorsPassThrough) {
    host.sysname = "SunOS";
    EXPECT_THROW(QelBladeInfo(3, true), std::logic_error);
    EXPECT_THAT(boardRequests(), IsEmpty());
}
