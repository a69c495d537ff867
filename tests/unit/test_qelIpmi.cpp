// The IPMI request message and the transport, run against the simulated
// controller plugged in at the device seam.
#include <linux/ipmi.h>
#include <sys/stat.h>

#include <chrono>
#include <cstring>
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ipmiTestSupport.h"
#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSimDevice.h"

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

class Transport : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;
    QelIpmi_request_msg getDeviceId{qelIpmi::netfn::app, qelIpmi::cmd::getDeviceId, 0, nullptr};
};

}  // namespace

// ---------------------------------------------------------------- error class

TEST(QelIpmiErrorText, ThreeArgumentFormComposesTextAndKeepsBaseTextErrm) {
    QelIpmiError e("x", "f", 7);
    const std::exception& asStd = e;
    EXPECT_STREQ(asStd.what(), "errm");
    EXPECT_STREQ(e.what(), "Error: x(f,7)\n");
    EXPECT_EQ(e.errorText, "Error: x(f,7)\n");
    EXPECT_EQ(e.fileName, "f");
    EXPECT_EQ(e.lineNumber, 7u);
}

TEST(QelIpmiErrorText, ConstHolderSeesBaseText) {
    const QelIpmiError e("x", "f", 7);
    EXPECT_STREQ(e.what(), "errm");
}

TEST(QelIpmiErrorText, FourArgumentFormOverwritesStartOfMessage) {
    QelIpmiError longNumber("abc", "f", 7, 12345);
    EXPECT_EQ(longNumber.errorText, "12345");
    const std::exception& asStd = longNumber;
    EXPECT_STREQ(asStd.what(), "");

    QelIpmiError shortNumber("abc", "f", 7, 5);
    EXPECT_EQ(shortNumber.errorText, "5bc");
    EXPECT_STREQ(shortNumber.what(), "5bc");
}

TEST(QelIpmiErrorText, ExampleFromAddressCheck) {
    QelIpmiError e("Address Type not supported", "F", 73);
    EXPECT_EQ(e.errorText, "Error: Address Type not supported(F,73)\n");
}

TEST(QelIpmiErrorText, CopyKeepsAllThreeMembers) {
    QelIpmiError original("abc", "file.cpp", 42);
    QelIpmiError copy(original);
    EXPECT_EQ(copy.fileName, original.fileName);
    EXPECT_EQ(copy.lineNumber, original.lineNumber);
    EXPECT_EQ(copy.errorText, original.errorText);
    const std::exception& asStd = copy;
    EXPECT_STREQ(asStd.what(), "errm");
}

TEST(QelIpmiErrorText, DerivesDirectlyFromLogicError) {
    static_assert(std::is_base_of_v<std::logic_error, QelIpmiError>);
    static_assert(std::is_base_of_v<std::logic_error, qelIpmi::QelIpmiLanError>);
}

TEST(QelIpmiLanErrorText, KeepsMessageAsGivenAndEmptyBaseText) {
    qelIpmi::QelIpmiLanError e("m", "f", 1);
    EXPECT_EQ(e.errorText, "m");
    const std::exception& asStd = e;
    EXPECT_STREQ(asStd.what(), "");
    qelIpmi::QelIpmiLanError copy(e);
    EXPECT_EQ(copy.fileName, "f");
    EXPECT_EQ(copy.lineNumber, 1u);
    EXPECT_EQ(copy.errorText, "m");
}

TEST(VendorIana, DefaultNumberLeastSignificantByteFirst) {
    EXPECT_THAT(qelIpmi::vendorIana, ElementsAre(0xD9, 0x7E, 0x00));
}

// ---------------------------------------------------------------- request message

TEST(RequestMessage, CopiesDataAndStartsWithoutResponse) {
    const unsigned char data[] = {1, 2, 3};
    QelIpmi_request_msg msg(0x06, 0x42, 3, data);
    EXPECT_EQ(msg.netFn, 0x06);
    EXPECT_EQ(msg.cmd, 0x42);
    EXPECT_EQ(msg.dataLength, 3u);
    EXPECT_EQ(msg.data, msg.dataBuffer);
    EXPECT_EQ(std::memcmp(msg.data, data, 3), 0);
    EXPECT_EQ(msg.responseData, nullptr);
    EXPECT_EQ(msg.responseLength, 0u);
}

TEST(RequestMessage, LengthZeroOr272StoresNoDataSilently) {
    unsigned char big[300] = {0x11};
    QelIpmi_request_msg none(0x06, 0x01, 0, big);
    EXPECT_EQ(none.dataLength, 0u);
    EXPECT_EQ(none.dataBuffer[0], 0);
    QelIpmi_request_msg tooLong(0x06, 0x01, 272, big);
    EXPECT_EQ(tooLong.dataLength, 0u);
    EXPECT_EQ(tooLong.dataBuffer[0], 0);
    QelIpmi_request_msg longest(0x06, 0x01, 271, big);
    EXPECT_EQ(longest.dataLength, 271u);
}

TEST(RequestMessage, ReplaceSendDataRefusesZeroAnd272) {
    const unsigned char data[] = {7, 8};
    QelIpmi_request_msg msg(0x06, 0x42, 2, data);
    unsigned char big[272] = {};
    for (unsigned short length : {0, 272}) {
        try {
            msg.replaceSendData(big, length);
            ADD_FAILURE() << "length " << length << " was accepted";
        } catch (const std::length_error& e) {
            EXPECT_STREQ(e.what(), "QelIpmi_request_msg::replaceSendData");
        }
        EXPECT_EQ(msg.dataLength, 2u);
        EXPECT_EQ(msg.dataBuffer[0], 7);
    }
}

TEST_F(Transport, ReplaceSendDataDropsResponse) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    ASSERT_NE(getDeviceId.responseData, nullptr);
    const unsigned char one = 1;
    getDeviceId.replaceSendData(&one, 1);
    EXPECT_EQ(getDeviceId.responseData, nullptr);
    EXPECT_EQ(getDeviceId.responseLength, 0u);
    EXPECT_EQ(getDeviceId.dataLength, 1u);
}

TEST_F(Transport, RequestOfLengthZeroOr272SendsNoDataBytes) {
    unsigned char big[272];
    std::memset(big, 0x5A, sizeof big);
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmi_request_msg zero(0x06, 0x01, 0, big);
    QelIpmi_request_msg tooLong(0x06, 0x01, 272, big);
    ASSERT_TRUE(ipmi.sendCmd(zero));
    ASSERT_TRUE(ipmi.sendCmd(tooLong));
    auto sent = sim->requests();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_TRUE(sent[0].data.empty());
    EXPECT_TRUE(sent[1].data.empty());
}

// ---------------------------------------------------------------- opening

TEST_F(Transport, AllThreeDevicePathsMissingThrowsOpenFailed) {
    sim->setAllPathsMissing(true);
    QelIpmiError e = thrownBy([] { QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE); });
    EXPECT_THAT(e.errorText, StartsWith("Error: Open failed: No such file or directory(qelIpmi,"));
    EXPECT_EQ(e.fileName, "qelIpmi");
    EXPECT_THAT(sim->openAttempts(), ElementsAre("/dev/ipmi0", "/dev/ipmi/0", "/dev/ipmidev/0"));
}

TEST_F(Transport, FallsBackToSecondAndThirdPath) {
    sim->setMissingPaths({"/dev/ipmi0"});
    { QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE); }
    sim->setMissingPaths({"/dev/ipmi0", "/dev/ipmi/0"});
    { QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE); }
    EXPECT_THAT(sim->openedPaths(), ElementsAre("/dev/ipmi/0", "/dev/ipmidev/0"));
    EXPECT_EQ(sim->openDevices(), 0);
}

TEST_F(Transport, DestructorClosesDevice) {
    {
        QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
        EXPECT_EQ(sim->openDevices(), 1);
        EXPECT_GE(ipmi.fd, 0);
    }
    EXPECT_EQ(sim->openDevices(), 0);
}

TEST_F(Transport, AddressTypeFiveIsNotSupported) {
    QelIpmiError e = thrownBy(
        [] { QelIpmi ipmi(0, 0, static_cast<QelIpmi::IpmiAddressType>(5)); });
    EXPECT_THAT(e.errorText, StartsWith("Error: Address Type not supported(qelIpmi,"));
    // The half-built object's device is not left open.
    EXPECT_EQ(sim->openDevices(), 0);
}

TEST(KernelDevice, MissingDeviceGivesSystemText) {
    struct stat st;
    for (const char* path : QelIpmi::devicePaths)
        if (::stat(path, &st) == 0) GTEST_SKIP() << path << " exists on this host";
    QelIpmiError e = thrownBy([] { QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE); });
    EXPECT_THAT(e.errorText, StartsWith("Error: Open failed: No such file or directory("));
}

// ---------------------------------------------------------------- addresses

TEST_F(Transport, SystemInterfaceAddressGoesToBmcChannel) {
    QelIpmi ipmi(1, 0x20, QelIpmi::SYSTEM_INTERFACE);
    EXPECT_EQ(ipmi.activeAddr, &ipmi.systemInterfaceAddr);
    EXPECT_EQ(ipmi.activeAddrLength, 8u);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    auto r = sim->requests().at(0);
    EXPECT_EQ(r.addrType, 0x0C);
    EXPECT_EQ(r.channel, 0x0F);
    EXPECT_EQ(r.lun, 1);
}

TEST_F(Transport, IpmbAddressCarriesSlaveAddress) {
    QelIpmi ipmi(0, 0x24, QelIpmi::IPMB);
    EXPECT_EQ(ipmi.activeAddr, &ipmi.ipmbAddr);
    QelIpmi broadcast(2, 0x30, QelIpmi::IPMB_BROADCAST);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    ASSERT_TRUE(broadcast.sendCmd(getDeviceId));
    auto r = sim->requests();
    EXPECT_EQ(r[0].addrType, 0x01);
    EXPECT_EQ(r[0].channel, 0);
    EXPECT_EQ(r[0].slaveAddr, 0x24);
    EXPECT_EQ(r[0].lun, 0);
    EXPECT_EQ(r[1].addrType, 0x41);
    EXPECT_EQ(r[1].slaveAddr, 0x30);
    EXPECT_EQ(r[1].lun, 2);
}

// ---------------------------------------------------------------- exchanges

TEST_F(Transport, ExchangeStoresResponseWithCompletionCodeFirst) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(responseOf(getDeviceId), sim->deviceId());
    auto r = sim->requests().at(0);
    EXPECT_EQ(r.netFn, 0x06);
    EXPECT_EQ(r.cmd, 0x01);
    EXPECT_TRUE(r.data.empty());
}

TEST_F(Transport, RequestBytesArriveExactly) {
    const unsigned char data[] = {0xD9, 0x7E, 0x00, 0x01, 0x00, 0x00, 0x02};
    QelIpmi_request_msg msg(0x2E, 0xE0, sizeof data, data);
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(msg));
    auto r = sim->requests().at(0);
    EXPECT_EQ(r.netFn, 0x2E);
    EXPECT_EQ(r.cmd, 0xE0);
    EXPECT_THAT(r.data, ElementsAre(0xD9, 0x7E, 0x00, 0x01, 0x00, 0x00, 0x02));
}

TEST_F(Transport, UnknownCommandAnswersInvalidCommand) {
    QelIpmi_request_msg msg(0x30, 0x99, 0, nullptr);
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(msg));
    EXPECT_THAT(responseOf(msg), ElementsAre(0xC1));
}

TEST_F(Transport, EverySendUsesAFreshMessageId) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    auto r = sim->requests();
    EXPECT_NE(r[0].msgId, r[1].msgId);
}

TEST_F(Transport, ResendingFreesPreviousResponse) {
    // Run under AddressSanitizer: a leaked or doubly freed response shows.
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    for (int i = 0; i < 4; ++i) {
        sim->setDeviceId(Bytes(static_cast<std::size_t>(i + 1), static_cast<unsigned char>(i)));
        ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
        EXPECT_EQ(getDeviceId.responseLength, static_cast<std::size_t>(i + 1));
    }
}

TEST_F(Transport, CompletionCodeIsPassedThrough) {
    sim->injectFault(Fault::completionCode(0xC0));
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_THAT(responseOf(getDeviceId), ElementsAre(0xC0));
}

TEST_F(Transport, FaultForOneCommandSparesOthers) {
    sim->injectFault(Fault::completionCode(0xD5).forCommand(0x06, 0x25));
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(responseOf(getDeviceId), sim->deviceId());
    QelIpmi_request_msg getWatchdog(0x06, 0x25, 0, nullptr);
    ASSERT_TRUE(ipmi.sendCmd(getWatchdog));
    EXPECT_THAT(responseOf(getWatchdog), ElementsAre(0xD5));
}

TEST_F(Transport, NoResponseWithinFiveSecondsGivesFalse) {
    // The one test that waits out the real 5-second window.
    sim->setRealTimeouts(true);
    sim->injectFault(Fault::noReply());
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(ipmi.sendCmd(getDeviceId));
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(4900));
    EXPECT_EQ(getDeviceId.responseData, nullptr);
    EXPECT_EQ(getDeviceId.responseLength, 0u);
}

TEST_F(Transport, NoResponseEndsAfterFivePasses) {
    sim->injectFault(Fault::noReply());
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    EXPECT_FALSE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(sim->selectCalls(), 5);
    EXPECT_EQ(getDeviceId.responseData, nullptr);
}

TEST_F(Transport, NoResponseDropsEarlierResponse) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    sim->injectFault(Fault::noReply());
    EXPECT_FALSE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(getDeviceId.responseData, nullptr);
    EXPECT_EQ(getDeviceId.responseLength, 0u);
}

TEST_F(Transport, ForeignMessageIdLeavesNoResponseData) {
    sim->injectFault(Fault::foreignMsgId());
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    EXPECT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(getDeviceId.responseData, nullptr);
    EXPECT_EQ(getDeviceId.responseLength, 0u);
}

TEST_F(Transport, ResponseWithoutDataLeavesNoResponseData) {
    sim->injectFault(Fault::emptyReply());
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    EXPECT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(getDeviceId.responseData, nullptr);
    EXPECT_EQ(getDeviceId.responseLength, 0u);
}

TEST_F(Transport, EventsAndCommandsBeforeTheAnswerAreSkipped) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    sim->injectFault(Fault::messagesBefore(IPMI_ASYNC_EVENT_RECV_TYPE, 2));
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(responseOf(getDeviceId), sim->deviceId());
    sim->injectFault(Fault::messagesBefore(IPMI_CMD_RECV_TYPE, 4));
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(responseOf(getDeviceId), sim->deviceId());
}

TEST_F(Transport, FiveEventsBeforeTheAnswerUseUpTheRetries) {
    sim->injectFault(Fault::messagesBefore(IPMI_ASYNC_EVENT_RECV_TYPE, 5));
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    EXPECT_FALSE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(getDeviceId.responseData, nullptr);
}

TEST_F(Transport, ReceiveTypeFourThrowsWithNumberOverwritingMessage) {
    sim->injectFault(Fault::wrongRecvType(4));
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmiError e = thrownBy([&] { (void)ipmi.sendCmd(getDeviceId); });
    EXPECT_THAT(e.errorText, StartsWith("4eply message has wrong type: "));
    EXPECT_EQ(e.fileName, "qelIpmi");
}

TEST_F(Transport, SendIoctlFailureThrowsWithSystemText) {
    sim->injectFault(Fault::sendFails(EIO));
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmiError e = thrownBy([&] { (void)ipmi.sendCmd(getDeviceId); });
    EXPECT_THAT(e.errorText,
                StartsWith("Error: ioctl IPMICTL_SEND_COMMAND failed: Input/output error(qelIpmi,"));
    // The object survives and can be used again.
    EXPECT_TRUE(ipmi.sendCmd(getDeviceId));
}

TEST_F(Transport, SelectFailureThrowsWithSystemText) {
    sim->injectFault(Fault::selectFails(EINTR));
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmiError e = thrownBy([&] { (void)ipmi.sendCmd(getDeviceId); });
    EXPECT_THAT(e.errorText, StartsWith("Error: select failed: Interrupted system call(qelIpmi,"));
}

TEST_F(Transport, SelectWithoutOurDescriptorThrows) {
    sim->injectFault(Fault::selectNotReady());
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmiError e = thrownBy([&] { (void)ipmi.sendCmd(getDeviceId); });
    EXPECT_THAT(e.errorText, StartsWith("Error: select after ioctl IPMICTL_SEND_COMMAND failed for "
                                        "unknown reasons(qelIpmi,"));
}

TEST_F(Transport, ReceiveIoctlFailureThrowsWithSystemText) {
    sim->injectFault(Fault::receiveFails(EBADF));
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmiError e = thrownBy([&] { (void)ipmi.sendCmd(getDeviceId); });
    EXPECT_THAT(e.errorText,
                StartsWith("Error: ioctl IPMICTL_RECEIVE_MSG failed: Bad file descriptor(qelIpmi,"));
}

TEST_F(Transport, ThrowAfterEarlierResponseLeavesItFreed) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    sim->injectFault(Fault::sendFails(EIO));
    (void)thrownBy([&] { (void)ipmi.sendCmd(getDeviceId); });
    EXPECT_EQ(getDeviceId.responseData, nullptr);
    EXPECT_EQ(getDeviceId.responseLength, 0u);
}

TEST_F(Transport, ReplyLargerThanReceiveBufferIsAnError) {
    sim->injectFault(Fault::oversizeReply(300));
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmiError e = thrownBy([&] { (void)ipmi.sendCmd(getDeviceId); });
    EXPECT_THAT(e.errorText, HasSubstr("ioctl IPMICTL_RECEIVE_MSG failed: Message too long"));
    EXPECT_EQ(getDeviceId.responseData, nullptr);
}

TEST_F(Transport, ReplyFillingTheWholeBufferIsKept) {
    Bytes full(272, 0x33);
    full[0] = 0;
    sim->injectFault(Fault::rawReply(full));
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(responseOf(getDeviceId), full);
}

TEST_F(Transport, ResponseAddressIsWrittenBackIntoActiveAddress) {
    QelIpmi ipmi(0, 0x24, QelIpmi::IPMB);
    ASSERT_TRUE(ipmi.sendCmd(getDeviceId));
    EXPECT_EQ(ipmi.ipmbAddr.addr_type, IPMI_IPMB_ADDR_TYPE);
    EXPECT_EQ(ipmi.ipmbAddr.slave_addr, 0x24);
}

TEST_F(Transport, GlobalEnablesAreKeptAndReadBack) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmi_request_msg get(0x06, 0x2F, 0, nullptr);
    ASSERT_TRUE(ipmi.sendCmd(get));
    EXPECT_THAT(responseOf(get), ElementsAre(0x00, 0x0C));
    const unsigned char interruptsOn = 0x0D;
    QelIpmi_request_msg set(0x06, 0x2E, 1, &interruptsOn);
    ASSERT_TRUE(ipmi.sendCmd(set));
    EXPECT_THAT(responseOf(set), ElementsAre(0x00));
    ASSERT_TRUE(ipmi.sendCmd(get));
    EXPECT_THAT(responseOf(get), ElementsAre(0x00, 0x0D));
    const unsigned char oemBit = 0x20;
    set.replaceSendData(&oemBit, 1);
    ASSERT_TRUE(ipmi.sendCmd(set));
    EXPECT_THAT(responseOf(set), ElementsAre(0xCC));
}
