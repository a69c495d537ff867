// The LAN configuration reader, run against the simulated controller.
#include <cerrno>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ipmiTestSupport.h"
#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSimDevice.h"
#include "qelSimLan.h"

using qelIpmi::QelIpmi;
using qelIpmi::QelIpmi_request_msg;
using qelIpmi::QelIpmiError;
using qelIpmi::QelIpmiIpv6AddressInfo;
using qelIpmi::QelIpmiLan;
using qelSim::Bytes;
using qelSim::Fault;
using qelSim::Request;
using qelSim::SimIpv6Address;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace lanConfig = qelIpmi::lanConfig;
namespace netfn = qelIpmi::netfn;
namespace cmd = qelIpmi::cmd;

namespace {

using Read = std::pair<int, int>;  // parameter, set selector

constexpr unsigned char kAddressC8 = lanConfig::ipv6Address;

// 2001:db8::10, channel 1's default IPv6 address in the simulator.
const Bytes kDefaultV6 = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10};

Bytes v4(const IPv4Address& a) { return Bytes(a.octets, a.octets + 4); }
Bytes mac(const MacAddress& m) { return Bytes(m.bytes, m.bytes + 6); }
Bytes network(const IPv6Address& a) { return Bytes(a.networkBytes, a.networkBytes + 16); }
Bytes reversed(const IPv6Address& a) { return Bytes(a.reversedBytes, a.reversedBytes + 16); }

Bytes reverse(Bytes b) { return Bytes(b.rbegin(), b.rend()); }

Bytes sequence(unsigned char first, std::size_t count) {
    Bytes b;
    for (std::size_t i = 0; i < count; ++i) b.push_back(static_cast<unsigned char>(first + i));
    return b;
}

class Lan : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;

    qelSim::SimLan& lan() { return sim->lan(); }

    // The Get LAN Configuration Parameters reads so far, as (parameter, set).
    std::vector<Read> lanReads() {
        std::vector<Read> out;
        for (const Request& r : sim->requests(netfn::transport, cmd::getLanConfigParameters))
            out.emplace_back(r.data.at(1), r.data.at(2));
        return out;
    }
    std::size_t channelInfoRequests() {
        return sim->requests(netfn::app, cmd::getChannelInfo).size();
    }
    // From the next request of `after` on, LAN reads fail at the device.
    void failAfterParameter(unsigned char after) {
        qelSim::SimLan* model = &lan();
        qelSim::SimBmc* bmc = &sim.bmc();
        sim->setHandler(netfn::transport, cmd::getLanConfigParameters,
                        [model, bmc, after](const Request& r) {
                            if (r.data.at(1) == after)
                                bmc->injectFault(Fault::selectFails(EIO));
                            return model->getLanConfigParameters(r);
                        });
    }
};

const std::vector<Read> kFullReadOneAddress = {
    {3, 0},    {4, 0},    {5, 0},    {6, 0},    {12, 0},   {0xC0, 0}, {0xCF, 0},
    {0xC8, 0}, {0xC9, 0}, {0xCA, 0}, {0xCB, 0}, {0xCE, 0}, {0xCD, 0}};

}  // namespace

// ---------------------------------------------------------------- value type

TEST(QelIpmiIpv6AddressInfoValue, DefaultIsAllZero) {
    QelIpmiIpv6AddressInfo info;
    EXPECT_EQ(reversed(info.address), Bytes(16, 0));
    EXPECT_EQ(info.prefixLength, 0);
    EXPECT_EQ(info.source, 0);
    EXPECT_EQ(info.state, 0);
}

// ---------------------------------------------------------------- finding the channel

TEST_F(Lan, LanChannelTwoIsFoundAfterTwoRequestsWhenChannelOneIsOtherMedium) {
    lan().setChannel(1, 7, 1);  // medium type 7: not 802.3 LAN
    lan().addLanChannel(2);
    EXPECT_EQ(QelIpmiLan::getLanChannelNumber(0), 2);
    auto requests = sim->requests(netfn::app, cmd::getChannelInfo);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_THAT(requests[0].data, ElementsAre(1));
    EXPECT_THAT(requests[1].data, ElementsAre(2));
    EXPECT_EQ(requests[0].addrType, 0x0C);
    EXPECT_EQ(requests[0].lun, 0);
}

TEST_F(Lan, ChannelWithOtherProtocolIsNoLanChannel) {
    lan().setChannel(1, 4, 2);  // 802.3, but not IPMB-1.0
    lan().addLanChannel(3);
    EXPECT_EQ(QelIpmiLan::getLanChannelNumber(0), 3);
    EXPECT_EQ(channelInfoRequests(), 3u);
}

TEST_F(Lan, SearchStartsAboveTheGivenChannel) {
    lan().addLanChannel(5);
    EXPECT_EQ(QelIpmiLan::getLanChannelNumber(1), 5);
    auto requests = sim->requests(netfn::app, cmd::getChannelInfo);
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_THAT(requests[0].data, ElementsAre(2));
    EXPECT_THAT(requests[3].data, ElementsAre(5));
}

TEST_F(Lan, SearchFromSevenOrAboveAsksNothingAndGivesEight) {
    EXPECT_EQ(QelIpmiLan::getLanChannelNumber(7), 8);
    EXPECT_EQ(QelIpmiLan::getLanChannelNumber(255), 8);
    EXPECT_EQ(channelInfoRequests(), 0u);
}

TEST_F(Lan, ChannelNumberIsTheOneTheControllerReports) {
    sim->injectFault(Fault::rawReply({0x00, 0x05, 0x04, 0x01, 0x80, 0xF2, 0x1B, 0x00, 0, 0})
                         .forCommand(netfn::app, cmd::getChannelInfo));
    EXPECT_EQ(QelIpmiLan::getLanChannelNumber(0), 5);
    EXPECT_EQ(channelInfoRequests(), 1u);
}

TEST_F(Lan, ShortChannelInfoReplyIsNotAccepted) {
    // Three bytes end before the protocol type: the channel is passed over.
    sim->injectFault(
        Fault::rawReply({0x00, 0x01, 0x04}).forCommand(netfn::app, cmd::getChannelInfo));
    lan().addLanChannel(2);
    EXPECT_EQ(QelIpmiLan::getLanChannelNumber(0), 2);
    EXPECT_EQ(channelInfoRequests(), 2u);
}

TEST_F(Lan, NoLanChannelGivesEightAfterAskingAllSeven) {
    lan().clearChannels();
    EXPECT_EQ(QelIpmiLan::getLanChannelNumber(0), 8);
    EXPECT_EQ(channelInfoRequests(), 7u);
}

TEST_F(Lan, TransportFailureDuringSearchGivesEight) {
    sim->injectFault(Fault::selectFails(EIO).forCommand(netfn::app, cmd::getChannelInfo));
    EXPECT_EQ(QelIpmiLan::getLanChannelNumber(0), 8);
}

TEST_F(Lan, MissingDeviceDuringSearchGivesEight) {
    sim->setAllPathsMissing(true);
    EXPECT_EQ(QelIpmiLan::getLanChannelNumber(0), 8);
}

// ---------------------------------------------------------------- construction

TEST_F(Lan, MissingDevicePassesTheOpenErrorOn) {
    sim->setAllPathsMissing(true);
    try {
        QelIpmiLan lanObject(1);
        FAIL() << "no QelIpmiError";
    } catch (QelIpmiError& e) {
        EXPECT_THAT(e.errorText, testing::HasSubstr("Open failed: "));
    }
}

TEST_F(Lan, NoLanChannelMakesChannelEightInvalidAndUpdateSendsNothing) {
    lan().clearChannels();
    QelIpmiLan lanObject(0);
    EXPECT_EQ(lanObject.channel, 8);
    EXPECT_FALSE(lanObject.valid);
    const std::size_t before = sim->requestCount();
    EXPECT_EQ(before, 7u);
    lanObject.update();
    EXPECT_EQ(sim->requestCount(), before);
    EXPECT_FALSE(lanObject.valid);
    EXPECT_TRUE(lanReads().empty());
}

TEST_F(Lan, GivenChannelSendsNothingAtConstructionAndUpdateReadsIt) {
    QelIpmiLan lanObject(1);
    EXPECT_EQ(sim->requestCount(), 0u);
    EXPECT_FALSE(lanObject.valid);
    EXPECT_EQ(lanObject.channel, 1);
    EXPECT_EQ(v4(lanObject.ipAddress), Bytes(4, 0));

    lanObject.update();
    auto requests = sim->requests(netfn::transport, cmd::getLanConfigParameters);
    ASSERT_FALSE(requests.empty());
    for (const Request& r : requests) {
        ASSERT_EQ(r.data.size(), 4u);
        EXPECT_EQ(r.data[0], 1);  // channel
        EXPECT_EQ(r.data[3], 0);  // block selector
        EXPECT_EQ(r.addrType, 0x0C);
        EXPECT_EQ(r.lun, 0);
    }
    EXPECT_EQ(channelInfoRequests(), 0u);
    EXPECT_TRUE(lanObject.valid);
    EXPECT_THAT(v4(lanObject.ipAddress), ElementsAre(192, 0, 2, 10));
}

TEST_F(Lan, GivenChannelAboveSevenIsNeverRead) {
    QelIpmiLan lanObject(9);
    lanObject.update();
    EXPECT_EQ(sim->requestCount(), 0u);
    EXPECT_FALSE(lanObject.valid);
}

TEST_F(Lan, ChannelZeroFindsAndReadsTheLanChannel) {
    lan().setChannel(1, 7, 1);
    lan().addLanChannel(2);
    QelIpmiLan lanObject(0);
    EXPECT_EQ(lanObject.channel, 2);
    EXPECT_TRUE(lanObject.valid);
    EXPECT_EQ(lanReads(), kFullReadOneAddress);
    for (const Request& r : sim->requests(netfn::transport, cmd::getLanConfigParameters))
        EXPECT_EQ(r.data[0], 2);
}

TEST_F(Lan, ObjectKeepsOneConnectionAndClosesItOnDestruction) {
    {
        QelIpmiLan lanObject(0);
        EXPECT_EQ(sim->openDevices(), 1);
    }
    EXPECT_EQ(sim->openDevices(), 0);
}

// ---------------------------------------------------------------- update

TEST_F(Lan, UpdateReadsParametersInOrderAndDecodesThem) {
    QelIpmiLan lanObject(0);
    EXPECT_EQ(lanReads(), kFullReadOneAddress);
    EXPECT_TRUE(lanObject.valid);
    EXPECT_THAT(v4(lanObject.ipAddress), ElementsAre(192, 0, 2, 10));
    EXPECT_EQ(lanObject.ipAddressSource, 1);
    EXPECT_THAT(mac(lanObject.macAddress), ElementsAre(0x02, 0x00, 0x00, 0x12, 0x34, 0x56));
    EXPECT_THAT(v4(lanObject.subnetMask), ElementsAre(255, 255, 255, 0));
    EXPECT_THAT(v4(lanObject.defaultGateway), ElementsAre(192, 0, 2, 1));
    EXPECT_TRUE(lanObject.ipv6Enabled);
    EXPECT_EQ(lanObject.ipv6AddressCount, 1u);
    ASSERT_EQ(lanObject.ipv6Addresses.size(), 1u);
    const QelIpmiIpv6AddressInfo& a = lanObject.ipv6Addresses[0];
    EXPECT_EQ(network(a.address), kDefaultV6);
    EXPECT_EQ(reversed(a.address), reverse(kDefaultV6));
    EXPECT_EQ(a.source, 6);
    EXPECT_EQ(a.state, 1);
    EXPECT_EQ(a.prefixLength, 64);
}

TEST_F(Lan, IpAddressSourceKeepsBitsTwoToZero) {
    lan().setParameter(1, lanConfig::ipAddressSource, {0xFA});
    QelIpmiLan lanObject(0);
    EXPECT_EQ(lanObject.ipAddressSource, 2);
}

TEST_F(Lan, Ipv6DisabledBitStopsAfterParameterC0) {
    lan().setParameter(1, lanConfig::ipv6Status, {0x04});
    QelIpmiLan lanObject(0);
    EXPECT_EQ(lanReads(), (std::vector<Read>{{3, 0}, {4, 0}, {5, 0}, {6, 0}, {12, 0}, {0xC0, 0}}));
    EXPECT_FALSE(lanObject.ipv6Enabled);
    EXPECT_TRUE(lanObject.ipv6Addresses.empty());
    EXPECT_EQ(lanObject.ipv6AddressCount, 0u);
    EXPECT_TRUE(lanObject.valid);
}

TEST_F(Lan, Ipv6StatusOnlyLooksAtBitTwo) {
    lan().setParameter(1, lanConfig::ipv6Status, {0xFB});
    QelIpmiLan lanObject(0);
    EXPECT_TRUE(lanObject.ipv6Enabled);
    EXPECT_EQ(lanObject.ipv6Addresses.size(), 1u);
}

TEST_F(Lan, UnansweredIpv6StatusOnAFreshObjectReadsNoIpv6) {
    lan().removeParameter(1, lanConfig::ipv6Status);
    QelIpmiLan lanObject(0);
    EXPECT_FALSE(lanObject.ipv6Enabled);
    EXPECT_EQ(lanReads().back(), Read(0xC0, 0));
    EXPECT_TRUE(lanObject.valid);
}

TEST_F(Lan, TwoAddressesGiveEightIndexedReadsAndTwoEntries) {
    const Bytes second = sequence(0xF0, 16);
    lan().setIpv6Addresses(1, {SimIpv6Address{kDefaultV6, 5, 2, 64},
                               SimIpv6Address{second, 6, 3, 48}});
    QelIpmiLan lanObject(0);
    EXPECT_EQ(lanObject.ipv6AddressCount, 2u);
    EXPECT_EQ(lanReads(), (std::vector<Read>{{3, 0},    {4, 0},    {5, 0},    {6, 0},
                                             {12, 0},   {0xC0, 0}, {0xCF, 0}, {0xC8, 0},
                                             {0xC9, 0}, {0xCA, 0}, {0xCB, 0}, {0xC8, 1},
                                             {0xC9, 1}, {0xCA, 1}, {0xCB, 1}, {0xCE, 0},
                                             {0xCD, 0}}));
    ASSERT_EQ(lanObject.ipv6Addresses.size(), 2u);
    EXPECT_EQ(network(lanObject.ipv6Addresses[0].address), kDefaultV6);
    EXPECT_EQ(lanObject.ipv6Addresses[0].source, 5);
    EXPECT_EQ(lanObject.ipv6Addresses[0].state, 2);
    EXPECT_EQ(lanObject.ipv6Addresses[0].prefixLength, 64);
    EXPECT_EQ(network(lanObject.ipv6Addresses[1].address), second);
    EXPECT_EQ(reversed(lanObject.ipv6Addresses[1].address), reverse(second));
    EXPECT_EQ(lanObject.ipv6Addresses[1].source, 6);
    EXPECT_EQ(lanObject.ipv6Addresses[1].state, 3);
    EXPECT_EQ(lanObject.ipv6Addresses[1].prefixLength, 48);
}

TEST_F(Lan, ZeroAddressCountReadsNoIndexedParameter) {
    lan().setIpv6Addresses(1, {});
    QelIpmiLan lanObject(0);
    EXPECT_EQ(lanReads(), (std::vector<Read>{{3, 0}, {4, 0}, {5, 0}, {6, 0}, {12, 0}, {0xC0, 0},
                                             {0xCF, 0}, {0xCE, 0}, {0xCD, 0}}));
    EXPECT_TRUE(lanObject.ipv6Addresses.empty());
}

TEST_F(Lan, SourceKeepsOnlyFiveAndSix) {
    std::vector<SimIpv6Address> addresses;
    for (unsigned char source : {0x00, 0x01, 0x05, 0x06, 0x07, 0x0D, 0xFE})
        addresses.push_back(SimIpv6Address{kDefaultV6, source, 1, 64});
    lan().setIpv6Addresses(1, addresses);
    QelIpmiLan lanObject(0);
    std::vector<int> sources;
    for (const auto& a : lanObject.ipv6Addresses) sources.push_back(a.source);
    EXPECT_THAT(sources, ElementsAre(0, 0, 5, 6, 0, 5, 6));
}

TEST_F(Lan, StateKeepsOnlyOneToThree) {
    std::vector<SimIpv6Address> addresses;
    for (unsigned char state : {0x00, 0x01, 0x02, 0x03, 0x04, 0x07, 0x0A})
        addresses.push_back(SimIpv6Address{kDefaultV6, 6, state, 64});
    lan().setIpv6Addresses(1, addresses);
    QelIpmiLan lanObject(0);
    std::vector<int> states;
    for (const auto& a : lanObject.ipv6Addresses) states.push_back(a.state);
    EXPECT_THAT(states, ElementsAre(0, 1, 2, 3, 0, 0, 2));
}

TEST_F(Lan, PrefixLengthIsTheWholeByte) {
    lan().setIpv6Addresses(1, {SimIpv6Address{kDefaultV6, 6, 1, 200}});
    QelIpmiLan lanObject(0);
    ASSERT_EQ(lanObject.ipv6Addresses.size(), 1u);
    EXPECT_EQ(lanObject.ipv6Addresses[0].prefixLength, 200);
}

TEST_F(Lan, UnansweredIndexedReadLeavesItsFieldZero) {
    lan().setIpv6Addresses(1, {SimIpv6Address{kDefaultV6, 6, 2, 64}});
    lan().removeParameter(1, lanConfig::ipv6AddressState);
    lan().removeParameter(1, kAddressC8);
    QelIpmiLan lanObject(0);
    ASSERT_EQ(lanObject.ipv6Addresses.size(), 1u);
    EXPECT_EQ(network(lanObject.ipv6Addresses[0].address), Bytes(16, 0));
    EXPECT_EQ(lanObject.ipv6Addresses[0].state, 0);
    EXPECT_EQ(lanObject.ipv6Addresses[0].source, 6);
    EXPECT_EQ(lanObject.ipv6Addresses[0].prefixLength, 64);
}

TEST_F(Lan, PrimaryAddressIsTakenFromByteOneWithTheRevision) {
    const Bytes address = sequence(0xA0, 16);
    lan().setParameter(1, lanConfig::ipv6PrimaryAddress, address);
    QelIpmiLan lanObject(0);
    // Response: 00 11 A0 A1 ... AF; the address is bytes 1..16.
    Bytes expected = {0x11};
    expected.insert(expected.end(), address.begin(), address.begin() + 15);
    EXPECT_EQ(network(lanObject.ipv6PrimaryAddress.address), expected);
    EXPECT_EQ(reversed(lanObject.ipv6PrimaryAddress.address), reverse(expected));
}

TEST_F(Lan, PrimaryStateIsTakenFromByteOne) {
    // Byte 1 is the revision 0x11, whose bits 2-0 are 1, whatever the data.
    lan().setParameter(1, lanConfig::ipv6PrimaryState, {0x03});
    QelIpmiLan lanObject(0);
    EXPECT_EQ(lanObject.ipv6PrimaryAddress.state, 1);
}

TEST_F(Lan, UnansweredPrimaryParametersLeaveThePrimaryAddressAlone) {
    lan().removeParameter(1, lanConfig::ipv6PrimaryAddress);
    lan().removeParameter(1, lanConfig::ipv6PrimaryState);
    QelIpmiLan lanObject(0);
    EXPECT_EQ(network(lanObject.ipv6PrimaryAddress.address), Bytes(16, 0));
    EXPECT_EQ(lanObject.ipv6PrimaryAddress.state, 0);
    EXPECT_EQ(lanReads(), kFullReadOneAddress);
}

TEST_F(Lan, UnansweredAddressCountStopsBeforeThePrimaryAddress) {
    lan().removeParameter(1, lanConfig::ipv6AddressCount);
    QelIpmiLan lanObject(0);
    EXPECT_EQ(lanReads().back(), Read(0xCF, 0));
    EXPECT_EQ(lanReads().size(), 7u);
    EXPECT_TRUE(lanObject.ipv6Enabled);
    EXPECT_EQ(lanObject.ipv6AddressCount, 0u);
    EXPECT_TRUE(lanObject.ipv6Addresses.empty());
}

TEST_F(Lan, UnansweredStandardParametersAreSetToZero) {
    QelIpmiLan lanObject(0);
    ASSERT_THAT(v4(lanObject.ipAddress), ElementsAre(192, 0, 2, 10));
    for (unsigned char p : {3, 4, 5, 6, 12}) lan().removeParameter(1, p);
    lanObject.update();
    EXPECT_TRUE(lanObject.valid);
    EXPECT_EQ(v4(lanObject.ipAddress), Bytes(4, 0));
    EXPECT_EQ(lanObject.ipAddressSource, 0);
    EXPECT_EQ(mac(lanObject.macAddress), Bytes(6, 0));
    EXPECT_EQ(v4(lanObject.subnetMask), Bytes(4, 0));
    EXPECT_EQ(v4(lanObject.defaultGateway), Bytes(4, 0));
}

TEST_F(Lan, ErrorCompletionCodeCountsAsNotAnswered) {
    QelIpmiLan lanObject(1);
    sim->injectFault(Fault::completionCode(0xC3).forCommand(netfn::transport,
                                                            cmd::getLanConfigParameters));
    lanObject.update();
    EXPECT_EQ(v4(lanObject.ipAddress), Bytes(4, 0));
    EXPECT_THAT(v4(lanObject.subnetMask), ElementsAre(255, 255, 255, 0));
}

TEST_F(Lan, SecondUpdateAppendsTheAddressesAgain) {
    QelIpmiLan lanObject(0);
    ASSERT_EQ(lanObject.ipv6Addresses.size(), 1u);
    lanObject.update();
    ASSERT_EQ(lanObject.ipv6Addresses.size(), 2u);
    EXPECT_EQ(network(lanObject.ipv6Addresses[1].address), kDefaultV6);
}

TEST_F(Lan, UnansweredIpv6StatusKeepsThePreviousValue) {
    QelIpmiLan lanObject(0);
    ASSERT_TRUE(lanObject.ipv6Enabled);
    lan().removeParameter(1, lanConfig::ipv6Status);
    sim->clearRequests();
    lanObject.update();
    EXPECT_TRUE(lanObject.ipv6Enabled);
    EXPECT_EQ(lanReads(), kFullReadOneAddress);
}

// ---------------------------------------------------------------- short replies

TEST_F(Lan, TwoByteRepliesCountAsNotAnswered) {
    QelIpmiLan lanObject(0);
    ASSERT_TRUE(lanObject.ipv6Enabled);
    sim->clearRequests();
    // Completion code and revision only, for 3, 4, 5, 6, 12, 0xC0 and 0xCF.
    for (int i = 0; i < 7; ++i)
        sim->injectFault(Fault::rawReply({0x00, 0x11})
                             .forCommand(netfn::transport, cmd::getLanConfigParameters));
    lanObject.update();
    EXPECT_EQ(lanReads().size(), 7u);  // 0xCF unanswered: the update ends there
    EXPECT_TRUE(lanObject.valid);
    EXPECT_EQ(v4(lanObject.ipAddress), Bytes(4, 0));
    EXPECT_EQ(lanObject.ipAddressSource, 0);
    EXPECT_EQ(mac(lanObject.macAddress), Bytes(6, 0));
    EXPECT_EQ(v4(lanObject.subnetMask), Bytes(4, 0));
    EXPECT_EQ(v4(lanObject.defaultGateway), Bytes(4, 0));
    EXPECT_TRUE(lanObject.ipv6Enabled);     // 0xC0 unanswered keeps it
    EXPECT_EQ(lanObject.ipv6AddressCount, 1u);  // 0xCF unanswered keeps it
    EXPECT_EQ(lanObject.ipv6Addresses.size(), 1u);
}

TEST_F(Lan, RepliesOneByteShortOfTheirFieldCountAsNotAnswered) {
    lan().setParameter(1, lanConfig::ipAddress, {192, 0, 2});
    lan().setParameter(1, lanConfig::macAddress, {2, 0, 0, 0x12, 0x34});
    lan().setParameter(1, lanConfig::subnetMask, {255, 255, 255});
    lan().setParameter(1, lanConfig::defaultGateway, {192, 0, 2});
    lan().setParameter(1, kAddressC8, sequence(0x40, 15));
    lan().setParameter(1, lanConfig::ipv6PrimaryAddress, sequence(0x60, 14));  // 16 bytes in all
    QelIpmiLan lanObject(0);
    EXPECT_EQ(v4(lanObject.ipAddress), Bytes(4, 0));
    EXPECT_EQ(mac(lanObject.macAddress), Bytes(6, 0));
    EXPECT_EQ(v4(lanObject.subnetMask), Bytes(4, 0));
    EXPECT_EQ(v4(lanObject.defaultGateway), Bytes(4, 0));
    ASSERT_EQ(lanObject.ipv6Addresses.size(), 1u);
    EXPECT_EQ(network(lanObject.ipv6Addresses[0].address), Bytes(16, 0));
    EXPECT_EQ(lanObject.ipv6Addresses[0].prefixLength, 64);
    EXPECT_EQ(network(lanObject.ipv6PrimaryAddress.address), Bytes(16, 0));
    EXPECT_EQ(lanReads(), kFullReadOneAddress);
}

TEST_F(Lan, PrimaryAddressNeedsSeventeenBytesOnly) {
    // Fifteen data bytes make a 17-byte reply: bytes 1..16 are all there.
    lan().setParameter(1, lanConfig::ipv6PrimaryAddress, sequence(0x60, 15));
    QelIpmiLan lanObject(0);
    Bytes expected = {0x11};
    const Bytes data = sequence(0x60, 15);
    expected.insert(expected.end(), data.begin(), data.end());
    EXPECT_EQ(network(lanObject.ipv6PrimaryAddress.address), expected);
}

TEST_F(Lan, EmptyAndCodeOnlyRepliesCountAsNotAnswered) {
    QelIpmiLan lanObject(1);
    sim->injectFault(
        Fault::emptyReply().forCommand(netfn::transport, cmd::getLanConfigParameters));
    sim->injectFault(
        Fault::rawReply({0x00}).forCommand(netfn::transport, cmd::getLanConfigParameters));
    lanObject.update();
    EXPECT_EQ(v4(lanObject.ipAddress), Bytes(4, 0));
    EXPECT_EQ(lanObject.ipAddressSource, 0);
    EXPECT_THAT(mac(lanObject.macAddress), ElementsAre(0x02, 0x00, 0x00, 0x12, 0x34, 0x56));
}

// ---------------------------------------------------------------- transport failure

TEST_F(Lan, TransportFailureKeepsWhatWasReadAndMakesInvalid) {
    QelIpmiLan lanObject(1);
    lanObject.update();
    ASSERT_TRUE(lanObject.valid);
    lan().setParameter(1, lanConfig::ipAddress, {198, 51, 100, 7});
    lan().setParameter(1, lanConfig::ipAddressSource, {0x02});
    lan().setParameter(1, lanConfig::macAddress, {0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F});
    failAfterParameter(lanConfig::ipAddressSource);  // the MAC read fails
    sim->clearRequests();

    lanObject.update();  // must not throw
    EXPECT_FALSE(lanObject.valid);
    EXPECT_THAT(v4(lanObject.ipAddress), ElementsAre(198, 51, 100, 7));
    EXPECT_EQ(lanObject.ipAddressSource, 2);
    EXPECT_THAT(mac(lanObject.macAddress), ElementsAre(0x02, 0x00, 0x00, 0x12, 0x34, 0x56));
    EXPECT_EQ(lanObject.ipv6Addresses.size(), 1u);
    EXPECT_EQ(lanReads().size(), 3u);
}

TEST_F(Lan, TransportFailureInTheAddressLoopAppendsNoPartialEntry) {
    QelIpmiLan lanObject(1);
    failAfterParameter(lanConfig::ipv6AddressSource);  // 0xCA fails
    lanObject.update();
    EXPECT_FALSE(lanObject.valid);
    EXPECT_TRUE(lanObject.ipv6Addresses.empty());
    EXPECT_EQ(lanObject.ipv6AddressCount, 1u);
}

// ---------------------------------------------------------------- the simulated controller

namespace {
Bytes exchange(unsigned char netFn, unsigned char command, Bytes data) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmi_request_msg msg(netFn, command, static_cast<unsigned short>(data.size()),
                            data.data());
    EXPECT_TRUE(ipmi.sendCmd(msg));
    return ipmiTest::responseOf(msg);
}
}  // namespace

TEST_F(Lan, SimulatedChannelInfoAnswersTenBytesForChannelOne) {
    EXPECT_THAT(exchange(netfn::app, cmd::getChannelInfo, {1}),
                ElementsAre(0x00, 0x01, 0x04, 0x01, 0x80, 0xF2, 0x1B, 0x00, 0x00, 0x00));
}

TEST_F(Lan, SimulatedChannelInfoRejectsChannelsItDoesNotHave) {
    EXPECT_THAT(exchange(netfn::app, cmd::getChannelInfo, {0}), ElementsAre(0xCC));
    EXPECT_THAT(exchange(netfn::app, cmd::getChannelInfo, {2}), ElementsAre(0xCC));
    EXPECT_THAT(exchange(netfn::app, cmd::getChannelInfo, {8}), ElementsAre(0xCC));
    EXPECT_THAT(exchange(netfn::app, cmd::getChannelInfo, {}), ElementsAre(0xC7));
}

TEST_F(Lan, SimulatedLanParametersAnswerWithRevisionEleven) {
    EXPECT_THAT(exchange(netfn::transport, cmd::getLanConfigParameters, {1, 3, 0, 0}),
                ElementsAre(0x00, 0x11, 192, 0, 2, 10));
    EXPECT_THAT(exchange(netfn::transport, cmd::getLanConfigParameters, {0x81, 3, 0, 0}),
                ElementsAre(0x00, 0x11));
    EXPECT_THAT(exchange(netfn::transport, cmd::getLanConfigParameters, {1, 0x42, 0, 0}),
                ElementsAre(0x80));
    EXPECT_THAT(exchange(netfn::transport, cmd::getLanConfigParameters, {1, 0xC8, 9, 0}),
                ElementsAre(0xC9));
    EXPECT_THAT(exchange(netfn::transport, cmd::getLanConfigParameters, {2, 3, 0, 0}),
                ElementsAre(0xCC));
    EXPECT_THAT(exchange(netfn::transport, cmd::getLanConfigParameters, {1, 3, 0}),
                ElementsAre(0xC7));
}
