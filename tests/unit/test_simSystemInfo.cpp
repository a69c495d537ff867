// The simulated System Info Parameters (0x06/0x58 and 0x59), request by
// request: block layout, the checks common BMC firmware makes, Get.
#include "qelSimSystemInfo.h"

#include <gtest/gtest.h>

#include "qelIpmiCommands.h"

namespace {

using qelSim::Bytes;
using qelSim::Request;

class SimSystemInfoTest : public ::testing::Test {
protected:
    qelSim::SimBmc bmc;

    Bytes send(unsigned char cmd, Bytes data) {
        Request r;
        r.netFn = qelIpmi::netfn::app;
        r.cmd = cmd;
        r.data = std::move(data);
        return bmc.dispatch(r);
    }
    static Bytes block(unsigned char parameter, unsigned char set, const std::string& sixteen) {
        Bytes d = {parameter, set};
        for (std::size_t i = 0; i < 16; ++i) d.push_back(i < sixteen.size() ? sixteen[i] : 0);
        return d;
    }
    static Bytes first(unsigned char parameter, unsigned char length, const std::string& fourteen,
                       unsigned char encoding = 0) {
        Bytes d = {parameter, 0, encoding, length};
        for (std::size_t i = 0; i < 14; ++i) d.push_back(i < fourteen.size() ? fourteen[i] : 0);
        return d;
    }
    Bytes set(Bytes d) { return send(qelIpmi::cmd::setSystemInfoParameters, std::move(d)); }
    Bytes get(unsigned char parameter, unsigned char set, unsigned char flags = 0) {
        return send(qelIpmi::cmd::getSystemInfoParameters, {flags, parameter, set, 0});
    }
};

TEST_F(SimSystemInfoTest, AStringOfTwoBlocksIsStoredAndReadBack) {
    EXPECT_EQ(set(first(2, 20, "abcdefghijklmn")), Bytes{0x00});
    EXPECT_EQ(set(block(2, 1, "opqrst")), Bytes{0x00});
    EXPECT_EQ(bmc.systemInfo().text(2), "abcdefghijklmnopqrst");
    const Bytes zero = get(2, 0);
    ASSERT_EQ(zero.size(), 19u);
    EXPECT_EQ(zero[1], 0x11) << "parameter revision";
    EXPECT_EQ(zero[2], 0);
    EXPECT_EQ(zero[3], 0) << "encoding";
    EXPECT_EQ(zero[4], 20) << "length";
    EXPECT_EQ(std::string(zero.begin() + 5, zero.end()), "abcdefghijklmn");
    const Bytes one = get(2, 1);
    ASSERT_EQ(one.size(), 19u);
    EXPECT_EQ(std::string(one.begin() + 3, one.begin() + 9), "opqrst");
}

TEST_F(SimSystemInfoTest, ANeverSetParameterAnswersCB) { EXPECT_EQ(get(1, 0), Bytes{0xCB}); }

TEST_F(SimSystemInfoTest, RevisionOnly) { EXPECT_EQ(get(1, 0, 0x80), (Bytes{0x00, 0x11})); }

TEST_F(SimSystemInfoTest, ALaterBlockNeedsBlockZeroAndRoomInItsLength) {
    EXPECT_EQ(set(block(3, 1, "x")), Bytes{0xCC}) << "no block 0 yet";
    EXPECT_EQ(set(first(3, 14, "fourteen bytes")), Bytes{0x00});
    EXPECT_EQ(set(block(3, 1, "x")), Bytes{0xCC}) << "the length ends inside block 0";
    EXPECT_EQ(set(first(3, 15, "fourteen bytes")), Bytes{0x00});
    EXPECT_EQ(set(block(3, 1, "!")), Bytes{0x00});
    EXPECT_EQ(set(block(3, 2, "x")), Bytes{0xCC});
    EXPECT_EQ(bmc.systemInfo().text(3), "fourteen bytes!");
}

TEST_F(SimSystemInfoTest, BadEncodingLengthAndParameterAreRefused) {
    EXPECT_EQ(set(first(4, 3, "abc", 3)), Bytes{0xCC});
    EXPECT_EQ(set(Bytes{4, 0, 0, 3}), Bytes{0xC7});
    EXPECT_EQ(set(Bytes{}), Bytes{0xC7});
    EXPECT_EQ(set(first(6, 3, "abc")), Bytes{0x80});
    EXPECT_EQ(get(6, 0), Bytes{0x80});
    EXPECT_EQ(send(qelIpmi::cmd::getSystemInfoParameters, {0, 1}), Bytes{0xC7});
}

TEST_F(SimSystemInfoTest, SetInProgressTakesAStateByte) {
    EXPECT_EQ(set(Bytes{0, 1}), Bytes{0x00});
    EXPECT_EQ(get(0, 0), (Bytes{0x00, 0x11, 0x01}));
    EXPECT_EQ(set(Bytes{0, 2}), Bytes{0xCC});
}

TEST_F(SimSystemInfoTest, UnknownCommandsAndUnsupportedParameters) {
    bmc.systemInfo().setUnsupported(2, true);
    EXPECT_EQ(set(first(2, 3, "abc")), Bytes{0x80});
    bmc.systemInfo().setKnown(false);
    EXPECT_EQ(set(first(1, 3, "abc")), Bytes{0xC1});
    EXPECT_EQ(get(1, 0), Bytes{0xC1});
    bmc.systemInfo().setKnown(true);
    EXPECT_EQ(set(first(1, 3, "abc")), Bytes{0x00});
}

TEST_F(SimSystemInfoTest, DescriptionKeywordsAndDump) {
    bmc.applyDescriptionLine("sysinfo-text 2 my host");
    EXPECT_EQ(bmc.systemInfo().text(2), "my host");
    EXPECT_NE(bmc.dump().find("sysinfo-2 \"my host\"\n"), std::string::npos) << bmc.dump();
    bmc.applyDescriptionLine("sysinfo unknown");
    EXPECT_NE(bmc.dump().find("sysinfo unknown\n"), std::string::npos);
    EXPECT_THROW(bmc.applyDescriptionLine("sysinfo maybe"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("sysinfo-unsupported x"), std::invalid_argument);
}

}  // namespace
