// The simulated controller's configuration space: the OEM configuration-space
// command (0x2E/0xE0) and the agent connection command (0x2E/0x02), checked
// byte for byte, so the library's tests stand on a controller that behaves.
#include <cstdint>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "confSpaceTestSupport.h"
#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSimConfSpace.h"
#include "qelSimDevice.h"

using qelSim::Bytes;
using qelSim::Request;
using qelSim::SimConfSpace;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

using namespace confSpaceTest;

Bytes okReply(const Bytes& value) {
    Bytes out = {0x00, iana0, iana1, iana2, static_cast<unsigned char>(value.size())};
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

class SimConfSpaceTest : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;
    SimConfSpace& space() { return sim->confSpace(); }

    Bytes send(unsigned char cmd, const Bytes& data) {
        Request r;
        r.netFn = qelIpmi::netfn::oemGroup;
        r.cmd = cmd;
        r.data = data;
        return sim->dispatch(r);
    }
    Bytes configSpace(const Bytes& data) { return send(qelIpmi::cmd::configSpace, data); }
    Bytes agent(const Bytes& data) { return send(qelIpmi::cmd::agentConnectionStatus, data); }
};

}  // namespace

TEST(SimConfSpaceSetup, VendorIanaIsTheOneTheRequestsCarry) {
    // The byte patterns below assume the default IANA number of the build.
    EXPECT_THAT(qelIpmi::vendorIana, ElementsAre(iana0, iana1, iana2));
}

// ---------------------------------------------------------------- defaults

TEST_F(SimConfSpaceTest, DefaultsHoldTextsAddressesWatchdogAndAgentState) {
    for (std::uint32_t id : {0x200u, 0x201u, 0x202u, 0x203u, 0x204u, 0x205u, 0x206u, 0x207u,
                             0x208u, 0x20Fu}) {
        SCOPED_TRACE(id);
        EXPECT_FALSE(space().text(id).empty());
    }
    for (std::uint32_t id : {0x20Au, 0x20Bu, 0x20Cu, 0x20Du}) {
        SCOPED_TRACE(id);
        ASSERT_TRUE(space().variable(id));
        EXPECT_EQ(space().variable(id)->size(), 4u);
    }
    EXPECT_THAT(*space().variable(0x42), ElementsAre(0x01));        // software watchdog on
    EXPECT_THAT(*space().variable(0x43), ElementsAre(0x2C, 0x01));  // 300 s
    EXPECT_THAT(*space().variable(0x40), ElementsAre(0x00));
    EXPECT_EQ(space().variable(0x41)->size(), 2u);
    EXPECT_EQ(space().variable(0x74)->size(), 1u);
    EXPECT_EQ(space().variable(0x75)->size(), 1u);
    EXPECT_EQ(space().agentState(), 1);
    EXPECT_FALSE(space().hasVariable(0x209));
    EXPECT_FALSE(space().hasVariable(0x20E));
}

TEST_F(SimConfSpaceTest, ReadAnswersCompletionCodeIanaLengthAndValue) {
    EXPECT_EQ(configSpace(readRequest(0x43)), okReply({0x2C, 0x01}));
    EXPECT_EQ(configSpace(readRequest(0x20F)), okReply(textBytes("Linux")));
}

TEST_F(SimConfSpaceTest, CommandsAreRegisteredOnEveryController) {
    // Through the real transport and device, not only through dispatch.
    qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
    Bytes data = readRequest(0x42);
    qelIpmi::QelIpmi_request_msg msg(qelIpmi::netfn::oemGroup, qelIpmi::cmd::configSpace,
                                     static_cast<unsigned short>(data.size()), data.data());
    ASSERT_TRUE(ipmi.sendCmd(msg));
    EXPECT_EQ(Bytes(msg.responseData, msg.responseData + msg.responseLength), okReply({0x01}));
}

// ---------------------------------------------------------------- request checks

TEST_F(SimConfSpaceTest, WrongIanaAnswersInvalidDataField) {
    Bytes request = readRequest(0x200);
    request[0] = 0x57;
    EXPECT_THAT(configSpace(request), ElementsAre(0xCC));
    EXPECT_THAT(agent({0x00, 0x7E, 0x00, 0x08}), ElementsAre(0xCC));
}

TEST_F(SimConfSpaceTest, RequestTooShortForIanaAnswersLengthInvalid) {
    EXPECT_THAT(configSpace({}), ElementsAre(0xC7));
    EXPECT_THAT(configSpace({iana0, iana1}), ElementsAre(0xC7));
    EXPECT_THAT(configSpace({iana0, iana1, iana2}), ElementsAre(0xC7));
    EXPECT_THAT(agent({iana0}), ElementsAre(0xC7));
    EXPECT_THAT(agent({iana0, iana1, iana2}), ElementsAre(0xC7));
}

TEST_F(SimConfSpaceTest, ReadRequestMustBeExactlySevenBytes) {
    Bytes shortRead = readRequest(0x200);
    shortRead.pop_back();
    EXPECT_THAT(configSpace(shortRead), ElementsAre(0xC7));
    Bytes longRead = readRequest(0x200);
    longRead.push_back(0x00);
    EXPECT_THAT(configSpace(longRead), ElementsAre(0xC7));
}

TEST_F(SimConfSpaceTest, WriteRequestMustCarryAsManyBytesAsItsLengthByteSays) {
    Bytes request = writeRequest(0x201, textBytes("abc"));
    request[7] = 4;
    EXPECT_THAT(configSpace(request), ElementsAre(0xC7));
    request[7] = 2;
    EXPECT_THAT(configSpace(request), ElementsAre(0xC7));
    Bytes noLength = {iana0, iana1, iana2, 0x02, 0x00, 0x01, 0x02};
    EXPECT_THAT(configSpace(noLength), ElementsAre(0xC7));
    EXPECT_EQ(space().text(0x201), "qel-node-07");  // nothing stored
}

TEST_F(SimConfSpaceTest, UnknownOperationAndNonZeroInstanceAnswerInvalidDataField) {
    Bytes request = readRequest(0x200);
    request[3] = 0x03;
    EXPECT_THAT(configSpace(request), ElementsAre(0xCC));
    request = readRequest(0x200);
    request[4] = 0x01;
    EXPECT_THAT(configSpace(request), ElementsAre(0xCC));
}

TEST_F(SimConfSpaceTest, UnknownVariableAnswersParameterNotSupported) {
    EXPECT_THAT(configSpace(readRequest(0x209)), ElementsAre(0x80));
    EXPECT_THAT(configSpace(writeRequest(0x20E, {0x01})), ElementsAre(0x80));
    EXPECT_FALSE(space().hasVariable(0x20E));  // a write does not create it
}

// ---------------------------------------------------------------- writes

TEST_F(SimConfSpaceTest, WriteStoresTheValueAndAnswersCompletionCodeAndIana) {
    EXPECT_THAT(configSpace(writeRequest(0x204, textBytes("ops"))),
                ElementsAre(0x00, iana0, iana1, iana2));
    EXPECT_EQ(space().text(0x204), "ops");
    EXPECT_EQ(space().writeCount(0x204), 1);
    EXPECT_EQ(configSpace(readRequest(0x204)), okReply(textBytes("ops")));
}

TEST_F(SimConfSpaceTest, TextOf255BytesIsAcceptedAndEmptyTextToo) {
    Bytes longText(255, 'x');
    EXPECT_THAT(configSpace(writeRequest(0x203, longText)), ElementsAre(0x00, iana0, iana1, iana2));
    EXPECT_EQ(*space().variable(0x203), longText);
    EXPECT_THAT(configSpace(writeRequest(0x203, {})), ElementsAre(0x00, iana0, iana1, iana2));
    EXPECT_EQ(configSpace(readRequest(0x203)), okReply({}));
}

TEST_F(SimConfSpaceTest, FixedSizeVariableRefusesAnotherLength) {
    EXPECT_THAT(configSpace(writeRequest(0x43, {0x2C})), ElementsAre(0xC7));
    EXPECT_THAT(configSpace(writeRequest(0x20A, {1, 2, 3, 4, 5, 6})), ElementsAre(0xC7));
    EXPECT_THAT(*space().variable(0x43), ElementsAre(0x2C, 0x01));
    EXPECT_EQ(space().writeCount(0x43), 0);
    EXPECT_THAT(configSpace(writeRequest(0x43, {0xF0, 0x00})), ElementsAre(0x00, iana0, iana1, iana2));
    EXPECT_THAT(*space().variable(0x43), ElementsAre(0xF0, 0x00));
}

// ---------------------------------------------------------------- test controls

TEST_F(SimConfSpaceTest, PresetsReadBackInALine) {
    space().setText(0x201, "host-a");
    space().setAddress(0x20C, 10, 1, 2, 3);
    space().setByte(0x74, 4);
    space().setWord(0x41, 0x1234);
    space().setVariable(0x20B, {1, 2, 3, 4, 5, 6});
    EXPECT_EQ(configSpace(readRequest(0x201)), okReply(textBytes("host-a")));
    EXPECT_EQ(configSpace(readRequest(0x20C)), okReply({10, 1, 2, 3}));
    EXPECT_EQ(configSpace(readRequest(0x74)), okReply({4}));
    EXPECT_EQ(configSpace(readRequest(0x41)), okReply({0x34, 0x12}));
    EXPECT_EQ(configSpace(readRequest(0x20B)), okReply({1, 2, 3, 4, 5, 6}));
    space().removeVariable(0x201);
    EXPECT_THAT(configSpace(readRequest(0x201)), ElementsAre(0x80));
}

TEST_F(SimConfSpaceTest, FailedVariableAnswersItsCodeForReadsAndWrites) {
    space().failVariable(0x202, 0xD5);
    EXPECT_THAT(configSpace(readRequest(0x202)), ElementsAre(0xD5));
    EXPECT_THAT(configSpace(writeRequest(0x202, textBytes("new"))), ElementsAre(0xD5));
    EXPECT_NE(space().text(0x202), "new");
    EXPECT_EQ(configSpace(readRequest(0x201))[0], 0x00);  // the others answer
    space().healVariable(0x202);
    EXPECT_EQ(configSpace(readRequest(0x202))[0], 0x00);
}

TEST_F(SimConfSpaceTest, ClaimedLengthReplacesTheLengthByteOnly) {
    space().setAddress(0x20B, 192, 0, 2, 99);
    space().claimLength(0x20B, 6);
    EXPECT_THAT(configSpace(readRequest(0x20B)),
                ElementsAre(0x00, iana0, iana1, iana2, 6, 192, 0, 2, 99));
    space().healVariable(0x20B);
    EXPECT_EQ(configSpace(readRequest(0x20B)), okReply({192, 0, 2, 99}));
}

// ---------------------------------------------------------------- agent connection

TEST_F(SimConfSpaceTest, AgentQueryAnswersIanaLengthOneAndState) {
    EXPECT_THAT(agent({iana0, iana1, iana2, 0x08}), ElementsAre(0x00, iana0, iana1, iana2, 1, 1));
    space().setAgentState(0);
    EXPECT_THAT(agent({iana0, iana1, iana2, 0x08}), ElementsAre(0x00, iana0, iana1, iana2, 1, 0));
}

TEST_F(SimConfSpaceTest, AgentSetChangesTheStateAndVariable0x2300) {
    EXPECT_THAT(agent({iana0, iana1, iana2, 0x02}), ElementsAre(0x00, iana0, iana1, iana2));
    EXPECT_EQ(space().agentState(), 2);
    EXPECT_EQ(configSpace(readRequest(0x2300)), okReply({2}));
    EXPECT_THAT(agent({iana0, iana1, iana2, 0x01}), ElementsAre(0x00, iana0, iana1, iana2));
    EXPECT_EQ(space().agentState(), 1);
}

TEST_F(SimConfSpaceTest, AgentCommandRefusesOtherValuesAndLengths) {
    EXPECT_THAT(agent({iana0, iana1, iana2, 0x03}), ElementsAre(0xCC));
    EXPECT_THAT(agent({iana0, iana1, iana2, 0x00}), ElementsAre(0xCC));
    EXPECT_THAT(agent({iana0, iana1, iana2, 0x02, 0x00}), ElementsAre(0xC7));
    EXPECT_EQ(space().agentState(), 1);
}
