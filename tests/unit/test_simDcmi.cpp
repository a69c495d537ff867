// The simulated controller's DCMI Get Power Reading (0x2C/0x02): answered
// only when the description gives it DCMI power, byte by byte.
#include "qelSimDcmi.h"

#include <gtest/gtest.h>

#include "qelSensors.h"

namespace {

using qelSim::Bytes;
namespace dc = qelSensors::dcmi;

class SimDcmiTest : public ::testing::Test {
protected:
    qelSim::SimBmc bmc;

    Bytes reading(Bytes data = {dc::groupExtension, dc::modeSystemPower, 0x00, 0x00}) {
        qelSim::Request r;
        r.netFn = dc::netfn;
        r.cmd = dc::getPowerReading;
        r.data = std::move(data);
        return bmc.dispatch(r);
    }
};

TEST_F(SimDcmiTest, WithoutDcmiPowerTheCommandIsUnknown) {
    EXPECT_EQ(reading(), Bytes{0xC1});
}

TEST_F(SimDcmiTest, ThePowerReadingCarriesTheDescriptionsWattsAndTheClock) {
    bmc.applyDescriptionLine("dcmi-power 300 120 520 290 60000");
    bmc.advanceMs(5000);
    const Bytes r = reading();
    ASSERT_EQ(r.size(), dc::replySize);
    const Bytes expected = {0x00, 0xDC,
                            0x2C, 0x01,  // 300
                            0x78, 0x00,  // 120
                            0x08, 0x02,  // 520
                            0x22, 0x01,  // 290
                            0x05, 0xF1, 0x53, 0x65,  // 1700000005
                            0x60, 0xEA, 0x00, 0x00,  // 60000 ms
                            0x40};
    EXPECT_EQ(r, expected);
    bmc.applyDescriptionLine("dcmi-power 10 10 10 10 1000 inactive");
    EXPECT_EQ(reading()[dc::state], 0x00);
    bmc.applyDescriptionLine("dcmi-power off");
    EXPECT_EQ(reading(), Bytes{0xC1});
}

TEST_F(SimDcmiTest, BadRequestsAreRefused) {
    bmc.applyDescriptionLine("dcmi-power 300 120 520 290 60000");
    EXPECT_EQ(reading({0xDC, 0x01, 0x00}), Bytes{0xC7});
    EXPECT_EQ(reading({0xDD, 0x01, 0x00, 0x00}), Bytes{0xCC});
    EXPECT_EQ(reading({0xDC, 0x02, 0x00, 0x00}), Bytes{0xCC});
    EXPECT_THROW(bmc.applyDescriptionLine("dcmi-power 300 120"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("dcmi-power 70000 1 1 1 1"), std::invalid_argument);
}

}  // namespace
