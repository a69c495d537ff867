// QelConfSpaceData against the simulated controller: what `update`, `set`,
// the setters, `updateWatchdogParameter` and `changeAgentConnectionStatus`
// send, byte for byte, and what they make of good, failing and malformed
// replies.
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "confSpaceTestSupport.h"
#include "qelConfSpaceData.h"
#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSimConfSpace.h"
#include "qelSimDevice.h"

using qelSim::Bytes;
using qelSim::Fault;
using qelSim::Request;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

using namespace confSpaceTest;

constexpr unsigned char oem = 0x2E, confCmd = 0xE0, agentCmd = 0x02;
const std::string unknown = "- unknown -";

std::uint32_t variableOf(const Request& r) {
    return r.data.size() >= 7 ? (r.data[5] | (r.data[6] << 8)) : 0xFFFFFFFF;
}

Bytes octets(const IPv4Address& a) { return Bytes(a.octets, a.octets + 4); }

class ConfSpace : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;
    qelSim::SimConfSpace& space() { return sim->confSpace(); }

    std::vector<Request> confRequests() { return sim->requests(oem, confCmd); }
    std::vector<Request> agentRequests() { return sim->requests(oem, agentCmd); }
    // The variable numbers requested, in order.
    std::vector<std::uint32_t> variablesRequested() {
        std::vector<std::uint32_t> out;
        for (const Request& r : confRequests()) out.push_back(variableOf(r));
        return out;
    }
    // The one write request sent since the last clearRequests().
    Bytes onlyRequestData() {
        std::vector<Request> all = sim->requests();
        EXPECT_EQ(all.size(), 1u);
        return all.empty() ? Bytes() : all.front().data;
    }
    // Makes every request of the configuration-space command answer through
    // `before` first; `before` sees the variable number of each request.
    template <typename F>
    void onEachConfRequest(F before) {
        qelSim::SimConfSpace* s = &space();
        sim->setHandler(oem, confCmd, [s, before](const Request& r) {
            before(variableOf(r));
            return s->handleConfigSpace(r);
        });
    }
};

// A fully read object with the simulator's defaults, traffic cleared.
class ConfSpaceRead : public ConfSpace {
protected:
    void SetUp() override { sim->clearRequests(); }
    QelConfSpaceData data{true};
    void fresh() { sim->clearRequests(); }
};

}  // namespace

// ---------------------------------------------------------------- construction and update

TEST_F(ConfSpace, ConstructorReadsEveryVariableInOrder) {
    QelConfSpaceData data(false);
    EXPECT_THAT(variablesRequested(),
                ElementsAre(0x200, 0x201, 0x202, 0x203, 0x204, 0x205, 0x206, 0x207, 0x20F, 0x208,
                            0x20A, 0x20B, 0x20C, 0x20D));
    const Request first = confRequests().front();
    EXPECT_EQ(first.data, Bytes({iana0, iana1, iana2, 0x01, 0x00, 0x00, 0x02}));
    EXPECT_EQ(first.addrType, 0x0C);  // system interface
    EXPECT_EQ(first.channel, 0x0F);
    EXPECT_EQ(first.lun, 0);
    EXPECT_EQ(sim->openDevices(), 0);  // nothing kept open between calls
}

TEST_F(ConfSpace, ConstructorStoresWhatTheControllerHolds) {
    space().setText(0x207, "SERIAL-1");
    space().setText(0x208, "Vendor");
    space().setAddress(0x20C, 10, 20, 30, 40);
    QelConfSpaceData data(false);
    EXPECT_TRUE(data.configSpaceAvailable);
    EXPECT_EQ(data.cabinetLocation, "Lab 2, rack 14, unit 22");
    EXPECT_EQ(data.systemName, "qel-node-07");
    EXPECT_EQ(data.biosVersion, "V5.0.0.11 R1.22.0");
    EXPECT_EQ(data.systemDescription, "Two-socket rack server");
    EXPECT_EQ(data.systemContact, "operations@example.org");
    EXPECT_EQ(data.serverCabinetModel, "QC-42U standard rack");
    EXPECT_EQ(data.serverChassisModel, "QX 2U chassis");
    EXPECT_EQ(data.serverSerialNumber, "SERIAL-1");
    EXPECT_EQ(data.serverVendorName, "Vendor");
    EXPECT_EQ(data.serverOperatingSystem, "Linux");
    EXPECT_THAT(octets(data.ipAddr_1), ElementsAre(192, 0, 2, 10));
    EXPECT_THAT(octets(data.ipAddr_2), ElementsAre(192, 0, 2, 11));
    EXPECT_THAT(octets(data.ipAddr_3), ElementsAre(10, 20, 30, 40));
    EXPECT_THAT(octets(data.ipAddr_4), ElementsAre(0, 0, 0, 0));
    // Not part of update: the watchdog and the agent state keep their initial values.
    EXPECT_FALSE(data.softWatchdogEnabled);
    EXPECT_EQ(data.softWatchdogTime, 0);
    EXPECT_EQ(data.agentConnectionStatus, QelConfSpaceData::AgentStatusUnknown);
    EXPECT_FALSE(data.agentConnected);
}

TEST_F(ConfSpace, InitialValuesStandWhenTheSpaceCannotBeRead) {
    space().failVariable(0x200, 0xC1);
    QelConfSpaceData data(true);
    EXPECT_FALSE(data.configSpaceAvailable);
    for (const std::string* text :
         {&data.cabinetLocation, &data.systemName, &data.biosVersion, &data.systemDescription,
          &data.systemContact, &data.serverCabinetModel, &data.serverChassisModel,
          &data.serverSerialNumber, &data.serverOperatingSystem, &data.serverVendorName})
        EXPECT_EQ(*text, unknown);
    for (const IPv4Address* a : {&data.ipAddr_1, &data.ipAddr_2, &data.ipAddr_3, &data.ipAddr_4})
        EXPECT_THAT(octets(*a), ElementsAre(0, 0, 0, 0));
    EXPECT_FALSE(data.softWatchdogEnabled);
    EXPECT_FALSE(data.bootWatchdogEnabled);
    EXPECT_EQ(data.softWatchdogTime, 0);
    EXPECT_EQ(data.bootWatchdogTime, 0);
    EXPECT_EQ(data.softWatchdogBehaviour, 0u);
    EXPECT_EQ(data.bootWatchdogBehaviour, 0u);
    EXPECT_EQ(data.agentConnectionStatus, 0u);
    EXPECT_FALSE(data.agentConnected);
}

TEST_F(ConfSpace, MissingDeviceEndsUpdateQuietlyAndKeepsTheSpaceAvailable) {
    sim->setAllPathsMissing(true);
    QelConfSpaceData data(true);
    EXPECT_TRUE(data.configSpaceAvailable);
    EXPECT_EQ(data.cabinetLocation, unknown);
    EXPECT_EQ(sim->requestCount(), 0u);
}

TEST_F(ConfSpace, ConnectionStatusIsReadOnlyWhenAsked) {
    space().setAgentState(2);
    QelConfSpaceData without(false);
    EXPECT_EQ(without.agentConnectionStatus, QelConfSpaceData::AgentStatusUnknown);
    sim->clearRequests();
    QelConfSpaceData with(true);
    EXPECT_EQ(variablesRequested().back(), 0x2300u);
    EXPECT_EQ(confRequests().back().data, Bytes({iana0, iana1, iana2, 0x01, 0x00, 0x00, 0x23}));
    EXPECT_EQ(with.agentConnectionStatus, QelConfSpaceData::AgentDisconnected);
}

TEST_F(ConfSpaceRead, ConnectionStatusKeepsItsValueUnlessLengthIsOne) {
    EXPECT_EQ(data.agentConnectionStatus, QelConfSpaceData::AgentConnected);
    space().setVariable(0x2300, {2, 0});
    data.update(true);
    EXPECT_EQ(data.agentConnectionStatus, QelConfSpaceData::AgentConnected);
    space().failVariable(0x2300, 0xD5);
    data.update(true);
    EXPECT_EQ(data.agentConnectionStatus, QelConfSpaceData::AgentConnected);
}

TEST_F(ConfSpaceRead, UnreadableFirstVariableStopsUpdateAndKeepsOtherTexts) {
    space().setText(0x201, "changed");
    space().setText(0x202, "changed");
    space().failVariable(0x200, qelIpmi::cc::parameterNotSupported);
    data.update(true);
    EXPECT_THAT(variablesRequested(), ElementsAre(0x200));
    EXPECT_EQ(sim->requestCount(), 1u);
    EXPECT_FALSE(data.configSpaceAvailable);
    EXPECT_EQ(data.cabinetLocation, unknown);
    EXPECT_EQ(data.systemName, "qel-node-07");
    EXPECT_EQ(data.biosVersion, "V5.0.0.11 R1.22.0");
    EXPECT_THAT(octets(data.ipAddr_1), ElementsAre(192, 0, 2, 10));
}

TEST_F(ConfSpaceRead, SpaceOnceUnavailableStaysUnavailable) {
    space().failVariable(0x200, 0xC0);
    data.update(false);
    ASSERT_FALSE(data.configSpaceAvailable);
    space().healVariable(0x200);
    data.update(false);
    EXPECT_FALSE(data.configSpaceAvailable);
    EXPECT_EQ(data.cabinetLocation, "Lab 2, rack 14, unit 22");  // read again all the same
}

TEST_F(ConfSpaceRead, UnreadableTextReadsAsUnknownAndTheWalkGoesOn) {
    space().failVariable(0x203, 0xD5);
    space().setText(0x204, "next");
    data.update(false);
    EXPECT_EQ(data.systemDescription, unknown);
    EXPECT_EQ(data.systemContact, "next");
    EXPECT_EQ(variablesRequested().size(), 14u);
}

TEST_F(ConfSpaceRead, EmptyTextIsReadAsEmpty) {
    space().setText(0x204, "");
    data.update(false);
    EXPECT_EQ(data.systemContact, "");
}

TEST_F(ConfSpaceRead, AddressWithLengthByteSixReadsAsZero) {
    space().setVariable(0x20B, {10, 0, 0, 1, 0, 0});
    data.update(false);
    EXPECT_THAT(octets(data.ipAddr_2), ElementsAre(0, 0, 0, 0));
    EXPECT_THAT(octets(data.ipAddr_1), ElementsAre(192, 0, 2, 10));
}

TEST_F(ConfSpaceRead, AddressWhoseLengthByteClaimsSixOfFourBytesReadsAsZero) {
    space().claimLength(0x20B, 6);
    data.update(false);
    EXPECT_THAT(octets(data.ipAddr_2), ElementsAre(0, 0, 0, 0));
    EXPECT_THAT(octets(data.ipAddr_3), ElementsAre(0, 0, 0, 0));
    EXPECT_EQ(variablesRequested().size(), 14u);
}

TEST_F(ConfSpaceRead, AddressLengthByteFourWithoutTheBytesReadsAsZero) {
    // Length byte 4 but only two value bytes arrive: never read past the reply.
    space().setVariable(0x20A, {10, 1});
    space().claimLength(0x20A, 4);
    data.update(false);
    EXPECT_THAT(octets(data.ipAddr_1), ElementsAre(0, 0, 0, 0));
}

TEST_F(ConfSpaceRead, UnreadableAddressReadsAsZero) {
    space().failVariable(0x20A, 0xCB);
    data.update(false);
    EXPECT_THAT(octets(data.ipAddr_1), ElementsAre(0, 0, 0, 0));
    EXPECT_THAT(octets(data.ipAddr_2), ElementsAre(192, 0, 2, 11));
}

TEST_F(ConfSpaceRead, TextWhoseLengthByteClaimsMoreThanWasSentIsAFailedRead) {
    space().setText(0x201, "abc");
    space().claimLength(0x201, 200);
    space().setText(0x202, "still read");
    data.update(false);
    EXPECT_EQ(data.systemName, unknown);
    EXPECT_EQ(data.biosVersion, "still read");
}

TEST_F(ConfSpaceRead, TextLengthByteOneShortOfTheBytesSentTakesOnlyThatMany) {
    space().setText(0x201, "abcd");
    space().claimLength(0x201, 3);
    data.update(false);
    EXPECT_EQ(data.systemName, "abc");
}

TEST_F(ConfSpaceRead, FirstVariableClaimingMoreThanWasSentMarksTheSpaceUnavailable) {
    space().claimLength(0x200, 0xFF);
    data.update(false);
    EXPECT_FALSE(data.configSpaceAvailable);
    EXPECT_EQ(data.cabinetLocation, unknown);
    EXPECT_EQ(sim->requestCount(), 1u);
}

TEST_F(ConfSpaceRead, RepliesOfOneToFourBytesAreFailedReads) {
    const std::vector<Bytes> replies = {
        {0x00}, {0x00, iana0}, {0x00, iana0, iana1}, {0x00, iana0, iana1, iana2}};
    for (const Bytes& reply : replies) {
        SCOPED_TRACE(reply.size());
        QelConfSpaceData fresh(false);
        ASSERT_TRUE(fresh.configSpaceAvailable);
        sim->injectFault(Fault::rawReply(reply).forCommand(oem, confCmd));
        fresh.update(false);
        EXPECT_FALSE(fresh.configSpaceAvailable);
        EXPECT_EQ(fresh.cabinetLocation, unknown);
    }
}

TEST_F(ConfSpaceRead, EmptyReplyIsAFailedRead) {
    sim->injectFault(Fault::emptyReply().forCommand(oem, confCmd));
    data.update(false);
    EXPECT_FALSE(data.configSpaceAvailable);
}

TEST_F(ConfSpaceRead, TransportFailureEndsUpdateKeepingWhatWasRead) {
    space().setText(0x201, "new name");
    space().setText(0x203, "new description");
    space().setText(0x204, "new contact");
    onEachConfRequest([this](std::uint32_t id) {
        if (id == 0x203) sim->injectFault(Fault::sendFails(EIO));  // the next request fails
    });
    data.update(true);
    EXPECT_TRUE(data.configSpaceAvailable);
    EXPECT_EQ(data.systemName, "new name");
    EXPECT_EQ(data.systemDescription, "new description");
    EXPECT_EQ(data.systemContact, "operations@example.org");  // the failed read
    EXPECT_THAT(variablesRequested(), ElementsAre(0x200, 0x201, 0x202, 0x203));
}

TEST_F(ConfSpaceRead, NoReplyCountsAsAFailedRead) {
    sim->injectFault(Fault::noReply().forCommand(oem, confCmd));
    data.update(false);
    EXPECT_FALSE(data.configSpaceAvailable);
}

// ---------------------------------------------------------------- set

TEST_F(ConfSpaceRead, SetRefusesVariablesItDoesNotWriteWithoutARequest) {
    for (std::uint32_t id : {0x209u, 0x20Eu, 0x2300u, 0x0u, 0x44u, 0x210u, 0x10200u}) {
        SCOPED_TRACE(id);
        EXPECT_FALSE(data.set(static_cast<QelConfSpaceData::ValueIds>(id)));
    }
    EXPECT_EQ(sim->requestCount(), 0u);
}

TEST_F(ConfSpaceRead, SetSendsTextWithItsLength) {
    data.systemContact = "root";
    EXPECT_TRUE(data.set(QelConfSpaceData::SystemContact));
    EXPECT_EQ(onlyRequestData(), writeRequest(0x204, textBytes("root")));
    EXPECT_EQ(space().text(0x204), "root");
}

TEST_F(ConfSpaceRead, SetSendsAddressInNetworkOrder) {
    data.ipAddr_3 = IPv4Address("10.1.2.3");
    EXPECT_TRUE(data.set(QelConfSpaceData::IpAddr_3));
    EXPECT_EQ(onlyRequestData(), Bytes({iana0, iana1, iana2, 0x02, 0x00, 0x0C, 0x02, 4, 10, 1, 2, 3}));
}

TEST_F(ConfSpaceRead, SetSendsWatchdogValuesAsTheirWidthsSay) {
    const std::vector<std::pair<QelConfSpaceData::ValueIds, Bytes>> expected = {
        {QelConfSpaceData::BootWatchdogEnabled, {0x01}},
        {QelConfSpaceData::BootWatchdogTime, {0x58, 0x02}},
        {QelConfSpaceData::SoftWatchdogEnabled, {0x00}},
        {QelConfSpaceData::SoftWatchdogTime, {0x2C, 0x01}},
        {QelConfSpaceData::BootWatchdogBehaviour, {0x04}},
        {QelConfSpaceData::SoftWatchdogBehaviour, {0x02}},
    };
    data.bootWatchdogEnabled = true;
    data.bootWatchdogTime = 600;
    data.softWatchdogEnabled = false;
    data.softWatchdogTime = 300;
    data.bootWatchdogBehaviour = QelConfSpaceData::PowerCycleOnTimeout;
    data.softWatchdogBehaviour = QelConfSpaceData::ResetOnTimeout;
    for (const auto& [id, value] : expected) {
        SCOPED_TRACE(id);
        fresh();
        EXPECT_TRUE(data.set(id));
        EXPECT_EQ(onlyRequestData(), writeRequest(static_cast<std::uint16_t>(id), value));
    }
}

TEST_F(ConfSpaceRead, SetSendsOnlyTheLowByteOfABehaviour) {
    data.softWatchdogBehaviour = static_cast<QelConfSpaceData::WatchdogBehaviour>(0x104);
    EXPECT_TRUE(data.set(QelConfSpaceData::SoftWatchdogBehaviour));
    EXPECT_EQ(onlyRequestData(), writeRequest(0x75, {0x04}));
}

TEST_F(ConfSpaceRead, SetOfAnOverlongFieldSendsItsLengthModulo256) {
    // Only direct assignment gets such a text in; the request stays consistent.
    data.systemName = std::string(256, 'n') + "xy";
    EXPECT_TRUE(data.set(QelConfSpaceData::SystemName));
    EXPECT_EQ(onlyRequestData(), writeRequest(0x201, textBytes("nn")));
}

TEST_F(ConfSpaceRead, SetIsFalseWhenTheControllerRefuses) {
    space().failVariable(0x204, 0xD4);
    EXPECT_FALSE(data.set(QelConfSpaceData::SystemContact));
}

TEST_F(ConfSpaceRead, SetIsFalseWithoutResponseData) {
    sim->injectFault(Fault::emptyReply().forCommand(oem, confCmd));
    EXPECT_FALSE(data.set(QelConfSpaceData::SystemContact));
    sim->injectFault(Fault::noReply().forCommand(oem, confCmd));
    EXPECT_FALSE(data.set(QelConfSpaceData::SystemContact));
}

TEST_F(ConfSpaceRead, SetSwallowsTransportFailures) {
    sim->injectFault(Fault::sendFails(EIO));
    EXPECT_FALSE(data.set(QelConfSpaceData::SystemContact));
    sim->setAllPathsMissing(true);
    EXPECT_FALSE(data.set(QelConfSpaceData::SystemContact));
}

// ---------------------------------------------------------------- text setters

TEST_F(ConfSpaceRead, TextOf255CharactersIsSentWithLengthFF) {
    const std::string text(255, 'q');
    EXPECT_TRUE(data.setSystemDescription(text));
    Bytes sent = onlyRequestData();
    ASSERT_EQ(sent.size(), 8u + 255u);
    EXPECT_EQ(sent, writeRequest(0x203, textBytes(text)));
    EXPECT_EQ(sent[7], 0xFF);
    EXPECT_EQ(data.systemDescription, text);
    EXPECT_EQ(space().text(0x203), text);
}

TEST_F(ConfSpaceRead, TextOf256CharactersIsRefusedWithoutARequest) {
    EXPECT_FALSE(data.setSystemDescription(std::string(256, 'q')));
    EXPECT_EQ(sim->requestCount(), 0u);
    EXPECT_EQ(data.systemDescription, "Two-socket rack server");
    EXPECT_EQ(data.systemName, "qel-node-07");
}

TEST_F(ConfSpaceRead, SerialNumberSetterSendsTheVendorNameUnder0x207) {
    data.serverVendorName = "Vendor Inc";
    EXPECT_TRUE(data.setServerSerialNumber("X"));
    EXPECT_EQ(data.serverSerialNumber, "X");
    EXPECT_EQ(onlyRequestData(), writeRequest(0x207, textBytes("Vendor Inc")));
}

TEST_F(ConfSpaceRead, EmptyBiosVersionMarksSystemNameAndSendsTheUnchangedVersion) {
    EXPECT_TRUE(data.setBiosVersion(""));
    EXPECT_EQ(data.biosVersion, "V5.0.0.11 R1.22.0");
    EXPECT_EQ(data.systemName, unknown);
    EXPECT_EQ(onlyRequestData(), writeRequest(0x202, textBytes("V5.0.0.11 R1.22.0")));
}

TEST_F(ConfSpaceRead, EmptySystemNameSendsUnknown) {
    EXPECT_TRUE(data.setSystemName(""));
    EXPECT_EQ(data.systemName, unknown);
    EXPECT_EQ(onlyRequestData(), writeRequest(0x201, textBytes(unknown)));
}

TEST_F(ConfSpaceRead, FailedTextSetterPutsTheOldValueBack) {
    space().failVariable(0x205, 0xD5);
    EXPECT_FALSE(data.setServerCabinetModel("new model"));
    EXPECT_EQ(data.serverCabinetModel, "QC-42U standard rack");
    EXPECT_EQ(sim->requestCount(), 1u);
}

TEST_F(ConfSpaceRead, FailedEmptyTextSetterLeavesSystemNameUnknown) {
    space().failVariable(0x206, 0xD5);
    EXPECT_FALSE(data.setServerChassisModel(""));
    EXPECT_EQ(data.serverChassisModel, "QX 2U chassis");
    EXPECT_EQ(data.systemName, unknown);
}

TEST_F(ConfSpaceRead, FailedSystemNameSetterRestoresTheName) {
    space().failVariable(0x201, 0xD5);
    EXPECT_FALSE(data.setSystemName(""));
    EXPECT_EQ(data.systemName, "qel-node-07");
}

TEST_F(ConfSpaceRead, EachTextSetterWritesItsOwnFieldAndVariable) {
    using Setter = bool (QelConfSpaceData::*)(const std::string&);
    struct Case {
        Setter setter;
        std::string QelConfSpaceData::*field;
        std::uint16_t id;
    };
    const Case cases[] = {
        {&QelConfSpaceData::setCabinetLocation, &QelConfSpaceData::cabinetLocation, 0x200},
        {&QelConfSpaceData::setSystemName, &QelConfSpaceData::systemName, 0x201},
        {&QelConfSpaceData::setBiosVersion, &QelConfSpaceData::biosVersion, 0x202},
        {&QelConfSpaceData::setSystemDescription, &QelConfSpaceData::systemDescription, 0x203},
        {&QelConfSpaceData::setSystemContact, &QelConfSpaceData::systemContact, 0x204},
        {&QelConfSpaceData::setServerCabinetModel, &QelConfSpaceData::serverCabinetModel, 0x205},
        {&QelConfSpaceData::setServerChassisModel, &QelConfSpaceData::serverChassisModel, 0x206},
        {&QelConfSpaceData::setServerOperatingSystem, &QelConfSpaceData::serverOperatingSystem,
         0x20F},
        {&QelConfSpaceData::setServerVendorName, &QelConfSpaceData::serverVendorName, 0x208},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.id);
        fresh();
        const std::string value = "value " + std::to_string(c.id);
        EXPECT_TRUE((data.*c.setter)(value));
        EXPECT_EQ(data.*c.field, value);
        EXPECT_EQ(onlyRequestData(), writeRequest(c.id, textBytes(value)));
        EXPECT_EQ(space().text(c.id), value);
    }
}

// ---------------------------------------------------------------- address and watchdog setters

TEST_F(ConfSpaceRead, AddressSettersSendFourBytesAndStoreTheAddress) {
    using Setter = bool (QelConfSpaceData::*)(const IPv4Address&);
    const Setter setters[] = {&QelConfSpaceData::setIpAddr_1, &QelConfSpaceData::setIpAddr_2,
                              &QelConfSpaceData::setIpAddr_3, &QelConfSpaceData::setIpAddr_4};
    IPv4Address QelConfSpaceData::*fields[] = {&QelConfSpaceData::ipAddr_1, &QelConfSpaceData::ipAddr_2,
                                               &QelConfSpaceData::ipAddr_3, &QelConfSpaceData::ipAddr_4};
    for (int i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        fresh();
        IPv4Address address("172.16.0." + std::to_string(i + 1));
        EXPECT_TRUE((data.*setters[i])(address));
        EXPECT_EQ(data.*fields[i], address);
        const unsigned char last = static_cast<unsigned char>(i + 1);
        EXPECT_EQ(onlyRequestData(),
                  writeRequest(static_cast<std::uint16_t>(0x20A + i), {172, 16, 0, last}));
    }
}

TEST_F(ConfSpaceRead, SettersSendEvenAnUnchangedValue) {
    EXPECT_TRUE(data.setIpAddr_1(data.ipAddr_1));
    EXPECT_TRUE(data.setSoftWatchdogTime(data.softWatchdogTime));
    EXPECT_EQ(sim->requestCount(), 2u);
}

TEST_F(ConfSpaceRead, FailedAddressSetterRestoresTheOldAddress) {
    space().failVariable(0x20A, 0xD5);
    EXPECT_FALSE(data.setIpAddr_1(IPv4Address("10.9.8.7")));
    EXPECT_THAT(octets(data.ipAddr_1), ElementsAre(192, 0, 2, 10));
}

TEST_F(ConfSpaceRead, WatchdogSettersEncodeTheirValues) {
    EXPECT_TRUE(data.setSoftWatchdogTime(300));
    EXPECT_EQ(data.softWatchdogTime, 300);
    EXPECT_EQ(onlyRequestData(), writeRequest(0x43, {0x2C, 0x01}));
    fresh();
    EXPECT_TRUE(data.setBootWatchdogTime(0xABCD));
    EXPECT_EQ(onlyRequestData(), writeRequest(0x41, {0xCD, 0xAB}));
    fresh();
    EXPECT_TRUE(data.setSoftWatchdogEnabled(true));
    EXPECT_EQ(onlyRequestData(), writeRequest(0x42, {0x01}));
    fresh();
    EXPECT_TRUE(data.setBootWatchdogEnabled(false));
    EXPECT_EQ(onlyRequestData(), writeRequest(0x40, {0x00}));
    fresh();
    EXPECT_TRUE(data.setSoftWatchdogBehaviour(QelConfSpaceData::ContinueOnTimeout));
    EXPECT_EQ(onlyRequestData(), writeRequest(0x75, {0x00}));
    fresh();
    EXPECT_TRUE(data.setBootWatchdogBehaviour(QelConfSpaceData::PowerCycleOnTimeout));
    EXPECT_EQ(data.bootWatchdogBehaviour, QelConfSpaceData::PowerCycleOnTimeout);
    EXPECT_EQ(onlyRequestData(), writeRequest(0x74, {0x04}));
}

TEST_F(ConfSpaceRead, FailedWatchdogSettersRestoreTheOldValues) {
    data.softWatchdogTime = 300;
    data.softWatchdogEnabled = true;
    data.bootWatchdogBehaviour = QelConfSpaceData::ResetOnTimeout;
    sim->injectFault(Fault::completionCode(0xC0));
    EXPECT_FALSE(data.setSoftWatchdogTime(240));
    sim->injectFault(Fault::sendFails(EIO));
    EXPECT_FALSE(data.setSoftWatchdogEnabled(false));
    sim->injectFault(Fault::noReply());
    EXPECT_FALSE(data.setBootWatchdogBehaviour(QelConfSpaceData::ContinueOnTimeout));
    EXPECT_EQ(data.softWatchdogTime, 300);
    EXPECT_TRUE(data.softWatchdogEnabled);
    EXPECT_EQ(data.bootWatchdogBehaviour, QelConfSpaceData::ResetOnTimeout);
}

// ---------------------------------------------------------------- updateWatchdogParameter

TEST_F(ConfSpaceRead, WatchdogParametersAreReadInTheirOrder) {
    data.updateWatchdogParameter();
    EXPECT_THAT(variablesRequested(), ElementsAre(0x40, 0x42, 0x41, 0x43, 0x74, 0x75));
    std::vector<Request> sent = confRequests();
    ASSERT_EQ(sent.size(), 6u);
    EXPECT_EQ(sent[0].data, Bytes({iana0, iana1, iana2, 0x01, 0x00, 0x40, 0x00}));
    EXPECT_EQ(sent[5].data, Bytes({iana0, iana1, iana2, 0x01, 0x00, 0x75, 0x00}));
    const std::uint16_t order[] = {0x40, 0x42, 0x41, 0x43, 0x74, 0x75};
    for (std::size_t i = 0; i < sent.size(); ++i) EXPECT_EQ(sent[i].data, readRequest(order[i]));
    EXPECT_FALSE(data.bootWatchdogEnabled);
    EXPECT_TRUE(data.softWatchdogEnabled);
    EXPECT_EQ(data.bootWatchdogTime, 600);
    EXPECT_EQ(data.softWatchdogTime, 300);
    EXPECT_EQ(data.bootWatchdogBehaviour, QelConfSpaceData::ResetOnTimeout);
    EXPECT_EQ(data.softWatchdogBehaviour, QelConfSpaceData::ContinueOnTimeout);
}

TEST_F(ConfSpaceRead, TimeBytes2C01Give300) {
    space().setVariable(0x41, {0x2C, 0x01});
    space().setVariable(0x43, {0xFF, 0xFF});
    data.updateWatchdogParameter();
    EXPECT_EQ(data.bootWatchdogTime, 300);
    EXPECT_EQ(data.softWatchdogTime, 65535);
}

TEST_F(ConfSpaceRead, ControllerMissing0x41UpdatesOnlyTheEnabledFlags) {
    data.bootWatchdogTime = 11;
    data.softWatchdogTime = 22;
    data.bootWatchdogBehaviour = QelConfSpaceData::PowerCycleOnTimeout;
    data.softWatchdogBehaviour = QelConfSpaceData::PowerCycleOnTimeout;
    space().setByte(0x40, 1);
    space().setByte(0x42, 1);
    space().failVariable(0x41, qelIpmi::cc::parameterNotSupported);
    data.updateWatchdogParameter();
    EXPECT_TRUE(data.bootWatchdogEnabled);
    EXPECT_TRUE(data.softWatchdogEnabled);
    EXPECT_EQ(data.bootWatchdogTime, 11);
    EXPECT_EQ(data.softWatchdogTime, 22);
    EXPECT_EQ(data.bootWatchdogBehaviour, QelConfSpaceData::PowerCycleOnTimeout);
    EXPECT_EQ(data.softWatchdogBehaviour, QelConfSpaceData::PowerCycleOnTimeout);
    EXPECT_THAT(variablesRequested(), ElementsAre(0x40, 0x42, 0x41));
}

TEST_F(ConfSpaceRead, BehaviourByte3IsIgnoredAndTheUpdateContinues) {
    data.bootWatchdogBehaviour = QelConfSpaceData::PowerCycleOnTimeout;
    space().setByte(0x74, 3);
    space().setByte(0x75, 2);
    data.updateWatchdogParameter();
    EXPECT_EQ(data.bootWatchdogBehaviour, QelConfSpaceData::PowerCycleOnTimeout);
    EXPECT_EQ(data.softWatchdogBehaviour, QelConfSpaceData::ResetOnTimeout);
    EXPECT_EQ(variablesRequested().size(), 6u);
}

TEST_F(ConfSpaceRead, EveryBehaviourTheControllerMayReportIsTaken) {
    for (unsigned char value : {4, 0, 2}) {
        SCOPED_TRACE(static_cast<int>(value));
        space().setByte(0x75, value);
        data.updateWatchdogParameter();
        EXPECT_EQ(data.softWatchdogBehaviour, value);
    }
}

TEST_F(ConfSpaceRead, EnabledByteOtherThanOneMeansDisabled) {
    data.softWatchdogEnabled = true;
    space().setByte(0x42, 2);
    data.updateWatchdogParameter();
    EXPECT_FALSE(data.softWatchdogEnabled);
}

TEST_F(ConfSpaceRead, WatchdogVariableWithTheWrongLengthStopsTheUpdate) {
    data.bootWatchdogEnabled = false;
    data.softWatchdogEnabled = false;
    data.softWatchdogTime = 22;
    space().setByte(0x40, 1);
    space().setVariable(0x42, {1, 0});
    data.updateWatchdogParameter();
    EXPECT_TRUE(data.bootWatchdogEnabled);
    EXPECT_FALSE(data.softWatchdogEnabled);
    EXPECT_EQ(data.softWatchdogTime, 22);
    EXPECT_THAT(variablesRequested(), ElementsAre(0x40, 0x42));
}

TEST_F(ConfSpaceRead, WatchdogLengthByteClaimingMoreThanSentStopsTheUpdate) {
    // Length byte 2 as required, but only one value byte arrives.
    space().setVariable(0x41, {0x2C});
    space().claimLength(0x41, 2);
    data.bootWatchdogTime = 11;
    data.updateWatchdogParameter();
    EXPECT_EQ(data.bootWatchdogTime, 11);
    EXPECT_THAT(variablesRequested(), ElementsAre(0x40, 0x42, 0x41));
}

TEST_F(ConfSpaceRead, WatchdogRepliesOfOneToFourBytesStopTheUpdate) {
    const std::vector<Bytes> replies = {
        {0x00}, {0x00, iana0}, {0x00, iana0, iana1}, {0x00, iana0, iana1, iana2}};
    for (const Bytes& reply : replies) {
        SCOPED_TRACE(reply.size());
        fresh();
        data.bootWatchdogEnabled = true;
        sim->injectFault(Fault::rawReply(reply).forCommand(oem, confCmd));
        data.updateWatchdogParameter();
        EXPECT_TRUE(data.bootWatchdogEnabled);
        EXPECT_EQ(confRequests().size(), 1u);
    }
}

TEST_F(ConfSpaceRead, WatchdogUpdateSwallowsTransportFailures) {
    data.bootWatchdogTime = 11;
    onEachConfRequest([this](std::uint32_t id) {
        if (id == 0x42) sim->injectFault(Fault::sendFails(EIO));
    });
    space().setByte(0x40, 1);
    data.updateWatchdogParameter();
    EXPECT_TRUE(data.bootWatchdogEnabled);
    EXPECT_EQ(data.bootWatchdogTime, 11);
    sim->setAllPathsMissing(true);
    data.updateWatchdogParameter();
}

TEST(ConfSpaceWatchdogError, CarriesTheFixedLineOfEachVariable) {
    const std::vector<std::pair<QelConfSpaceData::ValueIds, unsigned int>> lines = {
        {QelConfSpaceData::BootWatchdogEnabled, 923},
        {QelConfSpaceData::SoftWatchdogEnabled, 936},
        {QelConfSpaceData::BootWatchdogTime, 951},
        {QelConfSpaceData::SoftWatchdogTime, 966},
        {QelConfSpaceData::BootWatchdogBehaviour, 994},
        {QelConfSpaceData::SoftWatchdogBehaviour, 1022},
    };
    for (const auto& [id, line] : lines) {
        SCOPED_TRACE(id);
        QelConfSpaceDataError e = QelConfSpaceData::watchdogReadError(id);
        EXPECT_EQ(e.errorText, "Cannot read ConfigSpaceVariable: ");
        EXPECT_EQ(e.fileName, "qelConfSpaceData");
        EXPECT_EQ(e.lineNumber, line);
        EXPECT_STREQ(static_cast<const std::exception&>(e).what(), "");
    }
}

// ---------------------------------------------------------------- changeAgentConnectionStatus

TEST_F(ConfSpaceRead, DisconnectedControllerIsToldNothing) {
    space().setAgentState(0);
    EXPECT_TRUE(data.changeAgentConnectionStatus(QelConfSpaceData::AgentDisconnected));
    std::vector<Request> sent = agentRequests();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].data, Bytes({iana0, iana1, iana2, 0x08}));
    EXPECT_EQ(sent[0].addrType, 0x0C);
    EXPECT_EQ(sent[0].lun, 0);
    EXPECT_FALSE(data.agentConnected);
    EXPECT_EQ(space().agentState(), 0);
}

TEST_F(ConfSpaceRead, ConnectedControllerIsToldTheAgentDisconnects) {
    space().setAgentState(1);
    EXPECT_TRUE(data.changeAgentConnectionStatus(QelConfSpaceData::AgentDisconnected));
    std::vector<Request> sent = agentRequests();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].data, Bytes({iana0, iana1, iana2, 0x08}));
    EXPECT_EQ(sent[1].data, Bytes({iana0, iana1, iana2, 0x02}));
    EXPECT_FALSE(data.agentConnected);
    EXPECT_EQ(space().agentState(), 2);
}

TEST_F(ConfSpaceRead, ConnectedControllerIsToldTheAgentConnects) {
    EXPECT_TRUE(data.changeAgentConnectionStatus(QelConfSpaceData::AgentConnected));
    std::vector<Request> sent = agentRequests();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[1].data, Bytes({iana0, iana1, iana2, 0x01}));
    EXPECT_TRUE(data.agentConnected);
}

TEST_F(ConfSpaceRead, RefusedSetRequestKeepsTheStateAndReportsFailure) {
    qelSim::SimConfSpace* s = &space();
    sim->setHandler(oem, agentCmd, [s](const Request& r) -> qelSim::Response {
        if (r.data.size() == 4 && r.data[3] != 0x08) return {0xC0};
        return s->handleAgentConnection(r);
    });
    EXPECT_FALSE(data.changeAgentConnectionStatus(QelConfSpaceData::AgentDisconnected));
    EXPECT_TRUE(data.agentConnected);
    EXPECT_EQ(agentRequests().size(), 2u);
}

TEST_F(ConfSpaceRead, OtherStatusSendsNothingAfterTheQuery) {
    for (std::uint32_t status : {0u, 3u, 0x101u}) {
        SCOPED_TRACE(status);
        fresh();
        EXPECT_FALSE(data.changeAgentConnectionStatus(
            static_cast<QelConfSpaceData::AgentConnectionStatus>(status)));
        EXPECT_EQ(agentRequests().size(), 1u);
        EXPECT_TRUE(data.agentConnected);
    }
}

TEST_F(ConfSpaceRead, FailedQueryKeepsTheLastKnownState) {
    data.agentConnected = true;
    space().setAgentState(0);
    sim->injectFault(Fault::completionCode(0xC0).forCommand(oem, agentCmd));
    EXPECT_TRUE(data.changeAgentConnectionStatus(QelConfSpaceData::AgentDisconnected));
    // Still counted as connected, so the set request went out.
    EXPECT_EQ(agentRequests().size(), 2u);
    EXPECT_EQ(space().agentState(), 2);
    EXPECT_FALSE(data.agentConnected);
}

TEST_F(ConfSpaceRead, MalformedQueryRepliesKeepTheLastKnownState) {
    const std::vector<Bytes> replies = {
        {0x00},
        {0x00, iana0, iana1, iana2},
        {0x00, iana0, iana1, iana2, 1},        // length 1 claimed, no state byte
        {0x00, iana0, iana1, iana2, 2, 1, 1},  // length must be 1
        {0xC0, iana0, iana1, iana2, 1, 1},     // failed, whatever follows
    };
    for (const Bytes& reply : replies) {
        SCOPED_TRACE(reply.size());
        data.agentConnected = false;
        space().setAgentState(1);
        sim->injectFault(Fault::rawReply(reply).forCommand(oem, agentCmd));
        EXPECT_TRUE(data.changeAgentConnectionStatus(QelConfSpaceData::AgentDisconnected));
        EXPECT_FALSE(data.agentConnected);
        EXPECT_EQ(space().agentState(), 1);  // nothing was set
    }
}

TEST_F(ConfSpaceRead, AgentStatusTransportFailuresGiveFalse) {
    data.agentConnected = true;
    sim->injectFault(Fault::sendFails(EIO).forCommand(oem, agentCmd));
    EXPECT_FALSE(data.changeAgentConnectionStatus(QelConfSpaceData::AgentDisconnected));
    EXPECT_TRUE(data.agentConnected);
    qelSim::SimConfSpace* s = &space();
    sim->setHandler(oem, agentCmd, [this, s](const Request& r) {
        if (r.data.size() == 4 && r.data[3] == 0x08) sim->injectFault(Fault::sendFails(EIO));
        return s->handleAgentConnection(r);
    });
    EXPECT_FALSE(data.changeAgentConnectionStatus(QelConfSpaceData::AgentDisconnected));
    EXPECT_EQ(space().agentState(), 1);
    sim->setAllPathsMissing(true);
    EXPECT_FALSE(data.changeAgentConnectionStatus(QelConfSpaceData::AgentDisconnected));
}
