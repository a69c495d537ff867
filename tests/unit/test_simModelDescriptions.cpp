// The description keywords and dump sections of the watchdog, configuration
// space, FRU/PNI and LAN models, the traffic summary, and the default
// controller (sim/descriptions/default.conf).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

#include "PniAccess.h"
#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelIpmiWatchdog.h"
#include "qelSimBoard.h"
#include "qelSimConfSpace.h"
#include "qelSimDescription.h"
#include "qelSimDevice.h"
#include "qelSimFru.h"
#include "qelSimLan.h"
#include "qelSimModelDescriptions.h"
#include "qelSimWatchdog.h"

using qelSim::Bytes;
using testing::HasSubstr;
using testing::Not;

namespace {

class ModelDescriptions : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;
    void apply(const std::string& line) { sim->applyDescriptionLine(line); }
    std::string section(const std::string& name) {
        const std::string dump = sim->dump();
        const std::size_t start = dump.find("[" + name + "]\n");
        if (start == std::string::npos) return "<no section " + name + ">";
        const std::size_t body = start + name.size() + 3;
        const std::size_t end = dump.find("\n[", body);
        return dump.substr(body, end == std::string::npos ? std::string::npos : end + 1 - body);
    }
};

std::string macText(const qelSim::MacBytes& m) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return text;
}

TEST_F(ModelDescriptions, WatchdogStatePresetsTheWholeTimer) {
    apply("watchdog-state 44 03 0a 10 b8 0b 64 00");
    const qelSim::WatchdogState s = sim->watchdog().state();
    EXPECT_TRUE(s.running);
    EXPECT_EQ(s.timerUse, 4);
    EXPECT_EQ(s.timeoutAction, 3);
    EXPECT_EQ(s.preTimeoutInterval, 10);
    EXPECT_EQ(s.expirationFlags, 0x10);
    EXPECT_EQ(s.initialCountdown, 3000);
    EXPECT_EQ(s.presentCountdown, 100);
    EXPECT_THROW(apply("watchdog-state 44 03"), std::invalid_argument);
}

TEST_F(ModelDescriptions, PreTimeoutSurvivesTheAgentsReprogrammingAndShortensItsPeriod) {
    // What the agent's updateWatchdog does: read, change action and
    // countdown, write back.
    apply("watchdog-pretimeout 0 237");
    qelIpmi::QelIpmiWatchdog wd(qelIpmi::QelIpmiWatchdog::TIMER_USE_SMS_OS);
    EXPECT_EQ(wd.preTimeoutInterval, 237);
    wd.timeoutAction = 0;
    wd.initialCountdown = 2400;
    ASSERT_TRUE(wd.set(false));
    EXPECT_EQ(sim->watchdog().state().preTimeoutInterval, 237);
    EXPECT_EQ(sim->watchdog().state().initialCountdown, 2400);
    // A state the controller accepts: the countdown is raised to the interval.
    EXPECT_THROW(apply("watchdog-pretimeout 4 10"), std::invalid_argument);
}

TEST_F(ModelDescriptions, SoftWatchdogSetsTheConfigurationSpaceVariables) {
    apply("soft-watchdog off 240");
    EXPECT_EQ(sim->confSpace().variable(0x42), Bytes{0x00});
    EXPECT_EQ(sim->confSpace().variable(0x43), (Bytes{0xF0, 0x00}));
    EXPECT_THAT(section("confspace"), HasSubstr("soft-watchdog off 240 s behaviour 0\n"));
    EXPECT_THROW(apply("soft-watchdog maybe 240"), std::invalid_argument);
    EXPECT_THROW(apply("soft-watchdog on 70000"), std::invalid_argument);
}

TEST_F(ModelDescriptions, ConfSpaceKeywordsSetRemoveFailAndHeal) {
    apply("confspace-var 20c 0a 01 02 03");
    apply("confspace-text 0x201 two words");
    EXPECT_THAT(section("confspace"), HasSubstr("address-3 10.1.2.3  writes 0\n"));
    EXPECT_THAT(section("confspace"), HasSubstr("text 0201 \"two words\"\n"));
    apply("confspace-remove 200");
    EXPECT_FALSE(sim->confSpace().hasVariable(0x200));
    EXPECT_THAT(section("confspace"), HasSubstr("text 0200 -\n"));
    apply("confspace-fail 201 c0");
    apply("confspace-heal 201");
    EXPECT_THROW(apply("confspace-var 12345 00"), std::invalid_argument);
    EXPECT_THROW(apply("confspace-fail 201"), std::invalid_argument);
}

TEST_F(ModelDescriptions, PniNicsBuildsAValidImageWithOnePortPerMac) {
    apply("pni-nics 02:00:00:00:00:01 02:00:00:00:00:02");
    const Bytes image = sim->fru().image();
    EXPECT_EQ(qelSim::validatePniImage(image), "");
    auto layout = qelSim::readPniLayout(image);
    ASSERT_TRUE(layout);
    ASSERT_EQ(layout->adapters.size(), 1u);
    ASSERT_EQ(layout->adapters[0].ports.size(), 2u);
    EXPECT_EQ(macText(layout->function(0, 1, 0).mac), "02:00:00:00:00:02");
    EXPECT_THAT(section("pni"), HasSubstr("adapter 0 port 1 function 0 nic 02:00:00:00:00:02 ipv4 - ipv6 -\n"));
    // The library finds it.
    PniAccess pni;
    EXPECT_NE(pni.fruDeviceId(), 0);
    apply("pni-nics none");
    EXPECT_TRUE(sim->fru().image().empty());
    EXPECT_THAT(section("pni"), HasSubstr("fru none\n"));
    EXPECT_THROW(apply("pni-nics 02:00:00"), std::invalid_argument);
}

TEST_F(ModelDescriptions, PniDumpShowsPublishedAddresses) {
    apply("pni-nics 02:00:00:00:00:01");
    PniAccess pni;
    MacAddress mac;
    const unsigned char bytes[6] = {0x02, 0, 0, 0, 0, 0x01};
    std::copy(bytes, bytes + 6, mac.bytes);
    ASSERT_TRUE(pni.setIpv4Address(mac, IPv4Address("10.9.8.7")));
    EXPECT_THAT(section("pni"), HasSubstr("nic 02:00:00:00:00:01 ipv4 10.9.8.7 ipv6 -\n"));
}

TEST_F(ModelDescriptions, NicPortsSetTheBoardsPortsAndThePni) {
    apply("nic-ports 02:00:00:00:00:0a 02:00:00:00:00:0b");
    EXPECT_THAT(section("board"), HasSubstr("port 1 02:00:00:00:00:0a\nport 2 02:00:00:00:00:0b\n"));
    EXPECT_THAT(section("pni"), HasSubstr("adapter 0 port 0 function 0 nic 02:00:00:00:00:0a"));
}

TEST_F(ModelDescriptions, HostTakesTheHostsInterfacesThenPlaceholders) {
    const std::vector<qelSim::MacBytes> host = qelSim::hostNicMacs();
    apply("nic-ports host host host host host host host host");
    const std::string board = section("board");
    for (std::size_t i = 0; i < 8; ++i) {
        const std::string expected =
            i < host.size() ? macText(host[i])
                            : macText({0x02, 0x00, 0x00, 0x00, 0x0a, static_cast<unsigned char>(i + 1)});
        EXPECT_THAT(board, HasSubstr("port " + std::to_string(i + 1) + " " + expected + "\n"));
    }
    for (const qelSim::MacBytes& mac : host) EXPECT_NE(macText(mac), "00:00:00:00:00:00");
}

TEST_F(ModelDescriptions, LanChannelOnAndOff) {
    apply("lan-channel 2 on");
    EXPECT_THAT(section("lan"), HasSubstr("channel 2 medium 4 (802.3 LAN) ip 192.0.2.10"));
    apply("lan-channel 1 off");
    apply("lan-channel 2 off");
    EXPECT_EQ(section("lan"), "channels none\n");
    EXPECT_THROW(apply("lan-channel 0 on"), std::invalid_argument);
    EXPECT_THROW(apply("lan-channel 8 on"), std::invalid_argument);
}

TEST_F(ModelDescriptions, TrafficNamesCommandsAndConfSpaceVariables) {
    qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
    qelIpmi::QelIpmi_request_msg reset(qelIpmi::netfn::app, qelIpmi::cmd::resetWatchdogTimer, 0, nullptr);
    ipmi.sendCmd(reset);
    ipmi.sendCmd(reset);
    const unsigned char read[] = {qelIpmi::vendorIana[0], qelIpmi::vendorIana[1], qelIpmi::vendorIana[2],
                                  0x01, 0x00, 0x0a, 0x02};
    qelIpmi::QelIpmi_request_msg csRead(qelIpmi::netfn::oemGroup, qelIpmi::cmd::configSpace, sizeof read, read);
    ipmi.sendCmd(csRead);
    qelIpmi::QelIpmi_request_msg odd(0x3a, 0x99, 0, nullptr);
    ipmi.sendCmd(odd);
    const std::string traffic = section("traffic");
    EXPECT_THAT(traffic, HasSubstr("requests-total 4\n"));
    EXPECT_THAT(traffic, HasSubstr("sent 06 22 x2  Reset Watchdog Timer\n"));
    EXPECT_THAT(traffic, HasSubstr("sent 2e e0 read x1  configuration space read: 020a\n"));
    EXPECT_THAT(traffic, HasSubstr("sent 3a 99 x1  ?\n"));
}

// The agent's own events (OS boot, OS shutdown) go to the controller's event
// log on the system interface; OS status goes over IPMB to the board. One
// command, counted apart; and every command the agent sends has a name.
TEST_F(ModelDescriptions, TrafficCountsEventLogEventsApartFromBoardEventsAndNamesSystemInfo) {
    qelIpmi::QelIpmi system(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
    const unsigned char boot[] = {0x41, 0x04, 0x1F, 0x00, 0x6F, 0x01, 0xFF, 0xFF};
    qelIpmi::QelIpmi_request_msg bootEvent(qelIpmi::netfn::sensorEvent, qelIpmi::cmd::platformEvent, sizeof boot,
                                           boot);
    system.sendCmd(bootEvent);
    const unsigned char shutdown[] = {0x41, 0x04, 0x20, 0x00, 0x6F, 0x03, 0xFF, 0xFF};
    qelIpmi::QelIpmi_request_msg shutdownEvent(qelIpmi::netfn::sensorEvent, qelIpmi::cmd::platformEvent,
                                               sizeof shutdown, shutdown);
    system.sendCmd(shutdownEvent);
    qelIpmi::QelIpmi board(0, qelIpmi::mmb::boardIpmbAddress, qelIpmi::QelIpmi::IPMB);
    const unsigned char running[qelIpmi::mmb::osEventSize] = {
        qelIpmi::mmb::eventRevision, qelIpmi::mmb::osSensorType, qelIpmi::mmb::osSensorNumber,
        qelIpmi::mmb::osEventType, static_cast<unsigned char>(5 | qelIpmi::mmb::osStatusMarker),
        qelIpmi::mmb::osEventData2, qelIpmi::mmb::osEventData3};
    qelIpmi::QelIpmi_request_msg status(qelIpmi::netfn::sensorEvent, qelIpmi::cmd::platformEvent, sizeof running,
                                        running);
    board.sendCmd(status);
    const unsigned char name[] = {0x02, 0x00, 0x00, 0x04, 'h', 'o', 's', 't'};
    qelIpmi::QelIpmi_request_msg setName(qelIpmi::netfn::app, qelIpmi::cmd::setSystemInfoParameters, sizeof name,
                                         name);
    system.sendCmd(setName);
    const unsigned char which[] = {0x00, 0x02, 0x00, 0x00};
    qelIpmi::QelIpmi_request_msg getName(qelIpmi::netfn::app, qelIpmi::cmd::getSystemInfoParameters, sizeof which,
                                         which);
    system.sendCmd(getName);

    const std::string traffic = section("traffic");
    EXPECT_THAT(traffic, HasSubstr("requests-total 5\n"));
    EXPECT_THAT(traffic,
                HasSubstr("sent 04 02 log x2  Platform Event (OS boot or shutdown, to the controller's event log)\n"));
    EXPECT_THAT(traffic, HasSubstr("sent 04 02 x1  Platform Event (OS status to the board)\n"));
    EXPECT_THAT(traffic, HasSubstr("sent 06 58 x1  Set System Info Parameters\n"));
    EXPECT_THAT(traffic, HasSubstr("sent 06 59 x1  Get System Info Parameters\n"));
    EXPECT_THAT(traffic, Not(HasSubstr("?")));
}

TEST_F(ModelDescriptions, WatchdogDumpShowsAnExpiry) {
    apply("watchdog-state 44 01 00 00 0a 00 0a 00");  // running, hard reset, 1 s
    sim->advanceMs(1500);
    const std::string wd = section("watchdog");
    EXPECT_THAT(wd, HasSubstr("timer stopped\n"));
    EXPECT_THAT(wd, HasSubstr("expiries 1\n"));
    EXPECT_THAT(wd, HasSubstr("expired at-ms 1000 use 4 action 1 (hard reset)\n"));
    EXPECT_THAT(wd, HasSubstr("expiration-flags 10\n"));
}

TEST_F(ModelDescriptions, TheDefaultControllerIsTheFileAndABlade) {
    std::ifstream file(QEL_DEFAULT_DESCRIPTION_FILE);
    std::stringstream text;
    text << file.rdbuf();
    EXPECT_EQ(qelSim::defaultControllerDescription(), text.str());

    qelSim::applyDefaultController(sim.bmc());
    EXPECT_EQ(sim->board().kind(), qelSim::SimBoard::Kind::extended);
    EXPECT_THAT(section("board"), HasSubstr("slot 3\n"));
    EXPECT_EQ(qelSim::validatePniImage(sim->fru().image()), "");
    auto layout = qelSim::readPniLayout(sim->fru().image());
    ASSERT_TRUE(layout);
    EXPECT_EQ(layout->adapters.at(0).ports.size(), 2u);
    EXPECT_THAT(section("confspace"), HasSubstr("soft-watchdog on 300 s behaviour 0\n"));
    EXPECT_THAT(section("lan"), HasSubstr("channel 1 medium 4 (802.3 LAN)"));
    EXPECT_THAT(section("lan"), Not(HasSubstr("channel 2")));
}

}  // namespace
