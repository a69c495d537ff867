// The simulated controller's Get Chassis Status (0x00/0x01): the power state,
// restore policy and faults of its description, byte by byte.
#include "qelSimChassis.h"

#include <gtest/gtest.h>

#include "qelSensors.h"

namespace {

using qelSim::Bytes;
namespace ch = qelSensors::chassis;

class SimChassisTest : public ::testing::Test {
protected:
    qelSim::SimBmc bmc;

    Bytes status(Bytes data = {}) {
        qelSim::Request r;
        r.netFn = ch::netfn;
        r.cmd = ch::getChassisStatus;
        r.data = std::move(data);
        return bmc.dispatch(r);
    }
};

TEST_F(SimChassisTest, APoweredChassisWithoutFaultsAnswersFourBytes) {
    // Power on, restore policy 2 (always on) in bits 6:5, no event, no fault.
    EXPECT_EQ(status(), (Bytes{0x00, 0x41, 0x00, 0x00}));
}

TEST_F(SimChassisTest, TheDescriptionSetsPowerAndFaultBits) {
    bmc.applyDescriptionLine("chassis-power off");
    bmc.applyDescriptionLine("chassis-faults cooling-fault drive-fault power-fault");
    EXPECT_EQ(status(), (Bytes{0x00, 0x40 | ch::powerFault, 0x00, ch::coolingFault | ch::driveFault}));
    bmc.applyDescriptionLine("chassis-faults none");
    bmc.applyDescriptionLine("chassis-power on");
    EXPECT_EQ(status(), (Bytes{0x00, 0x41, 0x00, 0x00}));
    bmc.applyDescriptionLine("chassis-faults intrusion");
    EXPECT_EQ(status()[ch::miscState], ch::intrusion);
}

TEST_F(SimChassisTest, BadRequestsAndUnknownWordsAreRefused) {
    EXPECT_EQ(status({0x01}), Bytes{0xC7});
    EXPECT_THROW(bmc.applyDescriptionLine("chassis-faults smoke"), std::invalid_argument);
    EXPECT_THROW(bmc.applyDescriptionLine("chassis-power maybe"), std::invalid_argument);
}

TEST_F(SimChassisTest, AControllerWithoutTheCommandAnswersInvalidCommand) {
    bmc.applyDescriptionLine("chassis unknown");
    EXPECT_EQ(status(), Bytes{0xC1});
    bmc.applyDescriptionLine("chassis known");
    EXPECT_EQ(status().size(), 4u);
}

}  // namespace
