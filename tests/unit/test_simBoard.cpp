// The simulated management board: what each command answers, what the board
// keeps of what it received, and its description keywords and dump section.
#include <linux/ipmi.h>

#include <sstream>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "boardTestSupport.h"
#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSimBoard.h"
#include "qelSimDescription.h"
#include "qelSimDevice.h"
#include "qelSimIdentity.h"

using qelSim::Bytes;
using qelSim::Request;
using qelSim::Response;
using qelSim::SimBoard;
using testing::ElementsAre;
using testing::HasSubstr;

namespace netfn = qelIpmi::netfn;
namespace cmd = qelIpmi::cmd;
namespace cc = qelIpmi::cc;

namespace {

using namespace boardTest;

class Board : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;
    SimBoard& board() { return sim->board(); }

    // One board command on the system interface.
    Response send(unsigned char command, Bytes data = {}) {
        Request r;
        r.addrType = IPMI_SYSTEM_INTERFACE_ADDR_TYPE;
        r.netFn = netfn::oemBoard;
        r.cmd = command;
        r.data = std::move(data);
        return sim->dispatch(r);
    }
    Response event(int addrType, unsigned char slaveAddr, Bytes data) {
        Request r;
        r.addrType = addrType;
        r.slaveAddr = slaveAddr;
        r.netFn = netfn::sensorEvent;
        r.cmd = cmd::platformEvent;
        r.data = std::move(data);
        return sim->dispatch(r);
    }
};

const Bytes osStatusEvent5 = {0x04, 0xC0, 0x09, 0x6F, 0x45, 0x8F, 0xFF};

}  // namespace

// ---------------------------------------------------------------- presence

TEST_F(Board, WithoutBoardEveryBoardCommandIsUnknown) {
    for (unsigned char c : {cmd::getPortMac, cmd::getPortMacsLegacy, cmd::getBoardCapabilities,
                            cmd::getBoardAddress, cmd::getBoardMask, cmd::getBoardIpv4Legacy,
                            cmd::getBoardMaskLegacy, cmd::getBoardMac, cmd::setPortIpv4,
                            cmd::setPortAddress, cmd::setOsText, cmd::setOsTextLegacy,
                            cmd::setPlatformText})
        EXPECT_THAT(send(c, {0x01}), ElementsAre(cc::invalidCommand)) << "command " << int(c);
    EXPECT_THAT(send(cmd::getBoardSlot), ElementsAre(cc::invalidCommand));
    EXPECT_THAT(event(IPMI_IPMB_ADDR_TYPE, 0x24, osStatusEvent5), ElementsAre(cc::timeout));
    EXPECT_TRUE(board().osStatuses().empty());
    EXPECT_EQ(board().kind(), SimBoard::Kind::none);
}

TEST_F(Board, PresettingAnythingInstallsAnExtendedBoard) {
    board().setPorts({{1, mac1}});
    EXPECT_EQ(board().kind(), SimBoard::Kind::extended);
    board().setKind(SimBoard::Kind::old);
    board().setSlot(2);
    EXPECT_EQ(board().kind(), SimBoard::Kind::old);
}

TEST_F(Board, SlotAnswersOnceSetAndOtherwiseTheControllersOwnAnswer) {
    sim->identity().setBoardSlotAnswers(true, 7);
    EXPECT_THAT(send(cmd::getBoardSlot), ElementsAre(cc::ok, 7));
    board().setSlot(3);
    EXPECT_THAT(send(cmd::getBoardSlot), ElementsAre(cc::ok, 3));
    EXPECT_THAT(send(cmd::getBoardSlot, {0x00}), ElementsAre(cc::requestDataLengthInvalid));
    board().setSlot(std::nullopt);
    EXPECT_THAT(send(cmd::getBoardSlot), ElementsAre(cc::ok, 7));
}

// ---------------------------------------------------------------- ports

TEST_F(Board, PortMacAnswersCountFlagsAndMac) {
    board().setPorts({{1, mac1}, {2, mac2}, {4, mac4}});
    EXPECT_EQ(send(cmd::getPortMac, {0x01}), cat({cc::ok, 3, 0x80}, bytesOf(mac1)));
    EXPECT_EQ(send(cmd::getPortMac, {0x04}), cat({cc::ok, 3, 0x80}, bytesOf(mac4)));
    EXPECT_THAT(send(cmd::getPortMac, {0x03}), ElementsAre(cc::parameterOutOfRange));
    EXPECT_THAT(send(cmd::getPortMac, {}), ElementsAre(cc::requestDataLengthInvalid));
    EXPECT_THAT(send(cmd::getPortMac, {0x01, 0x02}), ElementsAre(cc::requestDataLengthInvalid));
}

TEST_F(Board, OutOfRangePortsAnswerC9AndAreNotCounted) {
    board().setPorts({{1, mac1}, {2, mac2}, {4, mac4}});
    board().setOutOfRangePorts({2});
    EXPECT_THAT(send(cmd::getPortMac, {0x02}), ElementsAre(cc::parameterOutOfRange));
    EXPECT_EQ(send(cmd::getPortMac, {0x01}), cat({cc::ok, 2, 0x80}, bytesOf(mac1)));
    board().setPortCount(40);
    EXPECT_EQ(send(cmd::getPortMac, {0x01})[1], 40);
}

TEST_F(Board, PortWithoutMacHasPresentBitClear) {
    board().setPorts({{1, mac1}});
    board().setPortWithoutMac(2);
    EXPECT_EQ(send(cmd::getPortMac, {0x02}), (Bytes{cc::ok, 2, 0x00, 0, 0, 0, 0, 0, 0}));
}

TEST_F(Board, LegacyListHasReversedRecordsInPortOrder) {
    board().setPorts({{2, mac2}, {1, mac1}});
    EXPECT_EQ(send(cmd::getPortMacsLegacy),
              (Bytes{cc::ok, 2, 0x01, 0, 0, 0, 0, 0x02, 0x02, 0, 0, 0, 0, 0x02}));
    EXPECT_THAT(send(cmd::getPortMacsLegacy, {0x00}), ElementsAre(cc::requestDataLengthInvalid));
}

TEST_F(Board, CommandsCanBeMadeUnknown) {
    board().setPorts({{1, mac1}});
    board().setCommandKnown(cmd::getPortMac, false);
    EXPECT_THAT(send(cmd::getPortMac, {0x01}), ElementsAre(cc::invalidCommand));
    EXPECT_EQ(send(cmd::getPortMacsLegacy)[0], cc::ok);
    board().setCommandKnown(cmd::getPortMac, true);
    EXPECT_EQ(send(cmd::getPortMac, {0x01})[0], cc::ok);
}

// ---------------------------------------------------------------- network settings

TEST_F(Board, ExtendedBoardAnswersAddressesMasksAndMacs) {
    board().setIpv4(0, {192, 168, 1, 10}, {255, 255, 255, 0});
    board().setIpv4(1, {10, 0, 0, 2}, {255, 0, 0, 0});
    SimBoard::Ipv6 v6{0x20, 0x01, 0x0d, 0xb8};
    v6[15] = 0x42;
    board().setIpv6(3, v6, 56);
    board().setMac(1, mac2);

    EXPECT_THAT(send(cmd::getBoardCapabilities), ElementsAre(cc::ok, 0x01));
    EXPECT_THAT(send(cmd::getBoardAddress, {0x01, 0x00}), ElementsAre(cc::ok, 0x01, 0x00, 192, 168, 1, 10));
    EXPECT_THAT(send(cmd::getBoardMask, {0x01, 0x01}), ElementsAre(cc::ok, 0x01, 0x01, 255, 0, 0, 0));
    EXPECT_EQ(send(cmd::getBoardAddress, {0x02, 0x03}), cat({cc::ok, 0x02, 0x03}, Bytes(v6.begin(), v6.end())));
    EXPECT_EQ(send(cmd::getBoardMask, {0x02, 0x03}),
              (Bytes{cc::ok, 0x02, 0x03, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_THAT(send(cmd::getBoardAddress, {0x01, 0x02}), ElementsAre(cc::parameterOutOfRange));
    EXPECT_THAT(send(cmd::getBoardAddress, {0x02, 0x01}), ElementsAre(cc::parameterOutOfRange));
    EXPECT_THAT(send(cmd::getBoardAddress, {0x03, 0x00}), ElementsAre(cc::invalidDataField));
    EXPECT_THAT(send(cmd::getBoardAddress, {0x01}), ElementsAre(cc::requestDataLengthInvalid));
    EXPECT_THAT(send(cmd::getBoardMac, {0x00}), ElementsAre(cc::ok, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(send(cmd::getBoardMac, {0x01}), cat({cc::ok}, bytesOf(mac2)));
    EXPECT_THAT(send(cmd::getBoardMac, {0x02}), ElementsAre(cc::parameterOutOfRange));
    EXPECT_THAT(send(cmd::getBoardIpv4Legacy), ElementsAre(cc::ok, 192, 168, 1, 10));

    board().setExtendedCapability(false);
    EXPECT_THAT(send(cmd::getBoardCapabilities), ElementsAre(cc::ok, 0x00));
}

TEST_F(Board, OldBoardKnowsOnlyTheLegacyNetworkCommands) {
    board().setKind(SimBoard::Kind::old);
    board().setIpv4(0, {172, 16, 0, 5}, {255, 255, 0, 0});
    for (unsigned char c : {cmd::getBoardCapabilities, cmd::getBoardAddress, cmd::getBoardMask,
                            cmd::setPortAddress, cmd::getBoardMac})
        EXPECT_THAT(send(c, {0x01, 0x00}), ElementsAre(cc::invalidCommand)) << "command " << int(c);
    EXPECT_THAT(send(cmd::getBoardIpv4Legacy), ElementsAre(cc::ok, 172, 16, 0, 5));
    EXPECT_THAT(send(cmd::getBoardMaskLegacy), ElementsAre(cc::ok, 255, 255, 0, 0));
    EXPECT_THAT(send(cmd::getBoardMaskLegacy, {0x00}), ElementsAre(cc::requestDataLengthInvalid));
}

TEST_F(Board, PresetsRejectIndexesTheBoardDoesNotHave) {
    EXPECT_THROW(board().setIpv4(2, {}, {}), std::invalid_argument);
    EXPECT_THROW(board().setIpv6(1, {}, 64), std::invalid_argument);
    EXPECT_THROW(board().setIpv6(2, {}, 129), std::invalid_argument);
    EXPECT_THROW(board().setMac(2, {}), std::invalid_argument);
}

// ---------------------------------------------------------------- port reports

TEST_F(Board, PortAddressReportsAreKeptPerSlotAndPort) {
    board().setKind(SimBoard::Kind::extended);
    EXPECT_THAT(send(cmd::setPortIpv4, {0x02, 0x00, 10, 1, 2, 3}), ElementsAre(cc::ok));
    EXPECT_THAT(send(cmd::setPortAddress, {0x02, 0x81, 0x00, 0x01, 10, 9, 9, 9}), ElementsAre(cc::ok));
    Bytes linkLocal = {0x02, 0x01, 0x02, 0x02, 0xFE, 0x80};
    linkLocal.resize(20, 0);
    linkLocal[19] = 0x01;
    EXPECT_THAT(send(cmd::setPortAddress, linkLocal), ElementsAre(cc::ok));
    EXPECT_THAT(send(cmd::setPortAddress, linkLocal), ElementsAre(cc::ok));

    auto first = board().portReport(3, 1);
    ASSERT_TRUE(first.has_value());
    EXPECT_THAT(*first->ipv4, ElementsAre(10, 1, 2, 3));
    EXPECT_EQ(first->ipv4Command, cmd::setPortIpv4);
    auto second = board().portReport(3, 2);  // bit 7 of the port byte is not part of the port
    ASSERT_TRUE(second.has_value());
    EXPECT_THAT(*second->ipv4, ElementsAre(10, 9, 9, 9));
    EXPECT_EQ(second->ipv4Command, cmd::setPortAddress);
    ASSERT_EQ(second->ipv6.size(), 1u) << "a repeated report is kept once";
    EXPECT_EQ(second->ipv6[0].kind, 0x02);
    EXPECT_EQ(second->ipv6[0].address[0], 0xFE);
    EXPECT_EQ(second->ipv6[0].address[15], 0x01);
    EXPECT_EQ(board().portReports().size(), 2u);
    EXPECT_FALSE(board().portReport(1, 1).has_value());
}

TEST_F(Board, MalformedPortReportsAreRefusedAndNotKept) {
    board().setKind(SimBoard::Kind::extended);
    EXPECT_THAT(send(cmd::setPortIpv4, {0x02, 0x00, 10, 1, 2}), ElementsAre(cc::requestDataLengthInvalid));
    EXPECT_THAT(send(cmd::setPortAddress, {0x02, 0x00, 0x00}), ElementsAre(cc::requestDataLengthInvalid));
    EXPECT_THAT(send(cmd::setPortAddress, {0x02, 0x00, 0x03, 0x01, 1, 2, 3, 4}), ElementsAre(cc::invalidDataField));
    EXPECT_THAT(send(cmd::setPortAddress, {0x02, 0x00, 0x00, 0x02, 1, 2, 3, 4}),
                ElementsAre(cc::requestDataLengthInvalid));
    Bytes v6(20, 0);
    v6[2] = 0x01;  // no IPv6 kind
    v6[3] = 0x02;
    EXPECT_THAT(send(cmd::setPortAddress, v6), ElementsAre(cc::invalidDataField));
    v6[3] = 0x05;
    EXPECT_THAT(send(cmd::setPortAddress, v6), ElementsAre(cc::invalidDataField));
    EXPECT_TRUE(board().portReports().empty());
}

// ---------------------------------------------------------------- texts

TEST_F(Board, OsTextIsPutTogetherFromItsChunks) {
    board().setKind(SimBoard::Kind::extended);
    const std::string text(40, 'a');
    Bytes chunk0 = {0x02};
    chunk0.insert(chunk0.end(), text.begin(), text.begin() + 32);
    Bytes chunk1 = {0x42};
    chunk1.insert(chunk1.end(), text.begin() + 32, text.end());
    chunk1.push_back(0);
    EXPECT_THAT(send(cmd::setOsText, chunk0), ElementsAre(cc::ok));
    EXPECT_FALSE(board().osText().has_value()) << "not complete before its NUL";
    EXPECT_THAT(send(cmd::setOsText, chunk1), ElementsAre(cc::ok));
    ASSERT_TRUE(board().osText().has_value());
    EXPECT_EQ(board().osText()->text, text);
    EXPECT_EQ(board().osText()->command, cmd::setOsText);
    EXPECT_EQ(board().osText()->byte0, 0x02);
}

TEST_F(Board, ChunksOutOfOrderOrShortWithoutNulAreRefused) {
    board().setKind(SimBoard::Kind::extended);
    EXPECT_THAT(send(cmd::setOsText, {0x42, 'x', 0}), ElementsAre(cc::invalidDataField));
    EXPECT_THAT(send(cmd::setOsText, {0x02, 'x', 'y'}), ElementsAre(cc::invalidDataField));
    Bytes full(33, 'z');
    full[0] = 0xC2;  // chunk 3 must end the text
    EXPECT_THAT(send(cmd::setOsText, full), ElementsAre(cc::invalidDataField));
    EXPECT_THAT(send(cmd::setOsText, {0x02}), ElementsAre(cc::requestDataLengthInvalid));
    EXPECT_THAT(send(cmd::setOsText, Bytes(34, 'a')), ElementsAre(cc::requestDataLengthInvalid));
    EXPECT_FALSE(board().osText().has_value());
}

TEST_F(Board, WholeTextCommandsNeedTheirNul) {
    board().setKind(SimBoard::Kind::extended);
    board().setCommandKnown(cmd::setOsText, false);
    EXPECT_THAT(send(cmd::setOsText, {0x00, 0}), ElementsAre(cc::invalidCommand));
    EXPECT_THAT(send(cmd::setOsTextLegacy, {0x00, 'L', 'i', 'n', 'u', 'x', 0}), ElementsAre(cc::ok));
    EXPECT_THAT(send(cmd::setPlatformText, {0x05, '6', '.', '1', 0}), ElementsAre(cc::ok));
    EXPECT_THAT(send(cmd::setPlatformText, {0x05, '6'}), ElementsAre(cc::invalidDataField));
    ASSERT_TRUE(board().osText().has_value());
    EXPECT_EQ(board().osText()->text, "Linux");
    EXPECT_EQ(board().osText()->command, cmd::setOsTextLegacy);
    ASSERT_TRUE(board().platformText().has_value());
    EXPECT_EQ(board().platformText()->text, "6.1");
    EXPECT_EQ(board().platformText()->byte0, 0x05);
    board().clearReceived();
    EXPECT_FALSE(board().osText().has_value());
}

// ---------------------------------------------------------------- OS status

TEST_F(Board, OsStatusEventOverIpmbIsRecordedWithItsStatus) {
    board().setKind(SimBoard::Kind::extended);
    qelIpmi::QelIpmi ipmi(0, 0x24, qelIpmi::QelIpmi::IPMB);
    qelIpmi::QelIpmi_request_msg msg(netfn::sensorEvent, cmd::platformEvent,
                                     static_cast<unsigned short>(osStatusEvent5.size()), osStatusEvent5.data());
    ASSERT_TRUE(ipmi.sendCmd(msg));
    ASSERT_GE(msg.responseLength, 1u);
    EXPECT_EQ(msg.responseData[0], cc::ok);
    EXPECT_THAT(board().osStatuses(), ElementsAre(5));
    ASSERT_EQ(board().platformEvents().size(), 1u);
    EXPECT_EQ(board().platformEvents()[0].addrType, IPMI_IPMB_ADDR_TYPE);
    EXPECT_EQ(board().platformEvents()[0].slaveAddr, 0x24);
}

TEST_F(Board, OtherEventsAreNoOsStatus) {
    board().setKind(SimBoard::Kind::extended);
    // To the controller itself, with the generator byte in front.
    EXPECT_THAT(event(IPMI_SYSTEM_INTERFACE_ADDR_TYPE, 0, cat({0x41}, osStatusEvent5)), ElementsAre(cc::ok));
    // Another sensor.
    EXPECT_THAT(event(IPMI_IPMB_ADDR_TYPE, 0x24, {0x04, 0xC0, 0x0A, 0x6F, 0x45, 0x8F, 0xFF}), ElementsAre(cc::ok));
    // Nobody at another address; a wrong length.
    EXPECT_THAT(event(IPMI_IPMB_ADDR_TYPE, 0x26, osStatusEvent5), ElementsAre(cc::timeout));
    EXPECT_THAT(event(IPMI_IPMB_ADDR_TYPE, 0x24, {0x04, 0xC0}), ElementsAre(cc::requestDataLengthInvalid));
    EXPECT_TRUE(board().osStatuses().empty());
    EXPECT_EQ(board().platformEvents().size(), 2u);
}

// ---------------------------------------------------------------- description and dump

TEST_F(Board, DescriptionKeywordsPresetTheBoard) {
    std::istringstream description(
        "board old\n"
        "board-slot 4\n"
        "board-port 1 02:00:00:00:00:01\n"
        "board-port 2 no-mac\n"
        "board-port-count 5\n"
        "board-out-of-range 3\n"
        "board-command 75 unknown\n"
        "board-ipv4 0 192.168.7.1 255.255.255.0\n"
        "board-ipv6 2 fe80::1 64\n"
        "board-mac 0 02:aa:bb:cc:dd:ee\n");
    qelSim::loadDescription(sim.bmc(), description, "board.desc");
    EXPECT_EQ(board().kind(), SimBoard::Kind::old);
    EXPECT_THAT(send(cmd::getBoardSlot), ElementsAre(cc::ok, 4));
    EXPECT_THAT(send(cmd::getPortMac, {0x01}), ElementsAre(cc::invalidCommand));
    EXPECT_EQ(send(cmd::getPortMacsLegacy), (Bytes{cc::ok, 2, 0x01, 0, 0, 0, 0, 0x02, 0, 0, 0, 0, 0, 0}));
    EXPECT_THAT(send(cmd::getBoardIpv4Legacy), ElementsAre(cc::ok, 192, 168, 7, 1));

    const std::string dump = sim->dump();
    EXPECT_THAT(dump, HasSubstr("[board]\nkind old\nslot 4\n"));
    EXPECT_THAT(dump, HasSubstr("port 2 00:00:00:00:00:00 no-mac\n"));
    EXPECT_THAT(dump, HasSubstr("port-count 5\n"));
    EXPECT_THAT(dump, HasSubstr("unknown-commands 75\n"));
    EXPECT_THAT(dump, HasSubstr("ipv4 0 192.168.7.1 255.255.255.0\n"));
    EXPECT_THAT(dump, HasSubstr("ipv6 2 fe80::1 64\n"));
    EXPECT_THAT(dump, HasSubstr("mac 0 02:aa:bb:cc:dd:ee\n"));
}

TEST_F(Board, DumpShowsWhatTheBoardReceived) {
    board().setKind(SimBoard::Kind::extended);
    send(cmd::setPortIpv4, {0x00, 0x01, 10, 0, 0, 7});
    send(cmd::setOsText, {0x00, 'O', 'S', 0});
    event(IPMI_IPMB_ADDR_TYPE, 0x24, osStatusEvent5);
    const std::string dump = sim->dump();
    EXPECT_THAT(dump, HasSubstr("report slot 1 port 2 ipv4 10.0.0.7 via a3\n"));
    EXPECT_THAT(dump, HasSubstr("os-status 5\n"));
    EXPECT_THAT(dump, HasSubstr("os-text \"OS\" via a8 byte0 00\n"));
}

TEST_F(Board, BadDescriptionWordsAreNamed) {
    auto apply = [&](const std::string& line) { sim->applyDescriptionLine(line); };
    EXPECT_THROW(apply("board sideways"), std::invalid_argument);
    EXPECT_THROW(apply("board-port 1 02:00:00"), std::invalid_argument);
    EXPECT_THROW(apply("board-ipv4 0 300.1.1.1 255.0.0.0"), std::invalid_argument);
    EXPECT_THROW(apply("board-ipv6 1 ::1 64"), std::invalid_argument);
    EXPECT_THROW(apply("board-command 75 maybe"), std::invalid_argument);
    EXPECT_THROW(apply("board-slot"), std::invalid_argument);
    try {
        apply("board-mac 0 zz:00:00:00:00:00");
        FAIL() << "a bad MAC was taken";
    } catch (const std::invalid_argument& e) {
        EXPECT_THAT(e.what(), HasSubstr("zz:00:00:00:00:00"));
    }
}
