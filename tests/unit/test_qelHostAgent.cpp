// The host agent: its loop against the simulated controller, pass by pass on
// the controller's own clock. The host is an agentTest::AgentPlatform (paths
// under a temporary root, kernel and host name, waits, syslog); its network
// is a complete inventory the test hands the agent, which can change or fail
// between passes.
//
// Loop tests build the agent (which starts nothing), set the mode of the
// daemon's loop and call main_action: the daemon's loop without the fork.
// Each wait advances the controller's clock by the period asked, so the
// watchdog really counts down between passes.
#include "qelHostAgent.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <syslog.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <set>
#include <string>
#include <vector>

#include "PniAccess.h"
#include "agentPlatform.h"
#include "qelConfSpaceData.h"
#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSelForwarder.h"
#include "qelSimBoard.h"
#include "qelSimSel.h"
#include "qelSimConfSpace.h"
#include "qelSimDevice.h"
#include "qelSimFru.h"
#include "qelSimSystemInfo.h"
#include "qelSimWatchdog.h"
#include "qelSmbios.h"
#include "selTestSupport.h"
#include "smbiosImage.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using agentTest::LogLine;
using qelHostInventory::Interface;
using qelHostInventory::Ipv4AddressEntry;
using qelHostInventory::Ipv6AddressEntry;
using qelHostInventory::QelHostInventory;
using qelSim::Bytes;
namespace netfn = qelIpmi::netfn;
namespace cmd = qelIpmi::cmd;

MacAddress macOf(unsigned char last, unsigned char group = 0x0a) {
    MacAddress mac;
    const unsigned char bytes[6] = {0x02, 0x00, 0x00, 0x00, group, last};
    std::memcpy(mac.bytes, bytes, 6);
    return mac;
}

Ipv4AddressEntry v4entry(const std::string& text, bool secondary = false, const std::string& label = "") {
    Ipv4AddressEntry e;
    e.address = IPv4Address(text);
    e.prefixLength = 24;
    e.secondary = secondary;
    e.label = label;
    return e;
}

Ipv6AddressEntry v6entry(const std::string& text, std::uint32_t flags = 0x80 /* permanent */) {
    in6_addr raw{};
    inet_pton(AF_INET6, text.c_str(), &raw);
    return Ipv6AddressEntry{IPv6Address(raw), 64, Ipv6AddressEntry::Universe, flags};
}

Interface nic(int index, const std::string& name, const MacAddress& mac, std::vector<Ipv4AddressEntry> ipv4,
              std::vector<Ipv6AddressEntry> ipv6 = {}, unsigned int flags = IFF_UP | IFF_RUNNING) {
    Interface itf;
    itf.index = index;
    itf.name = name;
    itf.hasMac = true;
    itf.mac = mac;
    itf.mtu = 1500;
    itf.flags = flags;
    itf.ipv4 = std::move(ipv4);
    itf.ipv6 = std::move(ipv6);
    return itf;
}

Interface loopback() {
    Interface lo = nic(1, "lo", MacAddress(), {v4entry("127.0.0.1")}, {v6entry("::1")},
                       IFF_UP | IFF_RUNNING | IFF_LOOPBACK);
    lo.hasMac = false;
    return lo;
}

Bytes v4(const char* text) {
    unsigned char b[4];
    inet_pton(AF_INET, text, b);
    return Bytes(b, b + 4);
}
Bytes v6(const char* text) {
    unsigned char b[16];
    inet_pton(AF_INET6, text, b);
    return Bytes(b, b + 16);
}

// The network the agent sees; a test changes it or makes it fail between
// passes.
class Network {
public:
    void set(std::vector<Interface> interfaces) {
        std::lock_guard<std::mutex> lock(mutex_);
        interfaces_ = std::move(interfaces);
    }
    // The inventory fails on the calls for which `rule` says so.
    void failWhen(std::function<bool(int call)> rule) {
        std::lock_guard<std::mutex> lock(mutex_);
        fail_ = std::move(rule);
    }
    int calls() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    QelHostInventory read() {
        std::lock_guard<std::mutex> lock(mutex_);
        ++calls_;
        if (fail_ && fail_(calls_))
            throw qelHostInventory::QelHostInventoryError("netlink: dump interrupted 5 times", "test", 1);
        return QelHostInventory(interfaces_);
    }

private:
    mutable std::mutex mutex_;
    std::vector<Interface> interfaces_;
    std::function<bool(int)> fail_;
    int calls_ = 0;
};

class HostAgentTest : public ::testing::Test {
protected:
    smbiosTest::TempDir root;
    agentTest::AgentPlatform host{root.path()};
    qelSim::ScopedSimulator sim;
    qelPlatform::Platform* previous = nullptr;
    Network network;

    void SetUp() override {
        previous = qelPlatform::setPlatform(&host);
        qelSmbios::QelSmbios::resetOsForTesting();
        writeFile("/etc/os-release", "NAME=\"Debian GNU/Linux\"\nVERSION=\"12 (bookworm)\"\n"
                                     "PRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\n");
        host.setKernel("Linux", "6.1.0-27-amd64", "#1 SMP PREEMPT_DYNAMIC");
        host.setHostName("web-07");
        // The software watchdog on at 300 s, as the configuration space says.
        sim->confSpace().setByte(QelConfSpaceData::SoftWatchdogEnabled, 1);
        sim->confSpace().setWord(QelConfSpaceData::SoftWatchdogTime, 300);
    }
    void TearDown() override {
        QelServerInfo::this_QelServerInfo = nullptr;
        qelSmbios::QelSmbios::resetOsForTesting();
        qelPlatform::setPlatform(previous);
    }

    void writeFile(const std::string& fixed, const std::string& content) {
        const std::string path = root.path() + fixed;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path) << content;
    }

    QelHostAgent::Options options(unsigned int republish = 3600) {
        QelHostAgent::Options o;
        o.inventory = [this] { return network.read(); };
        o.republishSeconds = republish;
        return o;
    }
    std::unique_ptr<QelHostAgent> agent(unsigned int republish = 3600) {
        auto a = std::make_unique<QelHostAgent>(options(republish));
        sim->clearRequests();
        return a;
    }

    // Runs the daemon's loop for `passes` passes. Every wait moves the
    // controller's clock (and the host's) on by the period asked; `between`
    // runs after each pass.
    int run(QelHostAgent& a, int passes, std::function<void(int pass)> between = nullptr) {
        a.runMode = QelServerInfo::Daemon;
        host.setTime(1700000000);
        clock_ = 1700000000;
        host.onSleep = [&, passes, between](int call, unsigned int seconds) {
            sim->advanceMs(static_cast<std::uint64_t>(seconds) * 1000);
            clock_ += seconds;
            host.setTime(clock_);
            if (between) between(call);
            if (call >= passes) a.running = false;
            return 0u;
        };
        a.running = true;
        int exitCode = 99;
        a.main_action(exitCode);
        return exitCode;
    }

    size_t count(unsigned char netFn, unsigned char command) { return sim->requests(netFn, command).size(); }
    size_t resets() { return count(netfn::app, cmd::resetWatchdogTimer); }

    std::vector<LogLine> logsContaining(const std::string& part) {
        std::vector<LogLine> out;
        for (const LogLine& l : host.logs())
            if (l.text.find(part) != std::string::npos) out.push_back(l);
        return out;
    }

    // The NIC specific area of (adapter, port, function), as a fresh reader sees it.
    Bytes nicArea(unsigned char adapter, unsigned char port, unsigned char function, int length) {
        PniAccess reader;
        qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
        Bytes area(static_cast<size_t>(length), 0);
        EXPECT_EQ(reader.readPortFnSpecificArea(ipmi, adapter, port, function, length, area.data()),
                  PniAccess::resultOk);
        return area;
    }
    std::string slot(int n) {
        const auto value = sim->confSpace().variable(QelConfSpaceData::IpAddr_1 + static_cast<unsigned int>(n) - 1);
        if (!value || value->size() != 4) return "?";
        char text[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, value->data(), text, sizeof text);
        return text;
    }

    time_t clock_ = 0;
};

// ---------------------------------------------------------------- facts

TEST_F(HostAgentTest, OnLinuxTheOsIsNamedByOsReleaseAndTheKernelRelease) {
    auto a = agent();
    EXPECT_EQ(a->osName, "Debian GNU/Linux 12 (bookworm)");
    EXPECT_EQ(a->osRelease, "6.1.0-27-amd64");
    EXPECT_EQ(a->status().osName, "Debian GNU/Linux 12 (bookworm)");
}

TEST_F(HostAgentTest, WithoutOsReleaseTheOsIsLinux) {
    std::filesystem::remove(root.path() + "/etc/os-release");
    auto a = agent();
    EXPECT_EQ(a->osName, "Linux");
}

TEST_F(HostAgentTest, OnVmkernelTheLibrarysTextsStand) {
    host.setKernel("VMkernel", "8.0.2", "#1 SMP Release build-22380479");
    auto a = agent();
    EXPECT_EQ(a->osName.compare(0, 12, "VMware ESXi "), 0) << a->osName;
}

TEST_F(HostAgentTest, TheBoardGetsTheTrueOsNameAndKernelRelease) {
    sim->board().setSlot(3);
    sim->board().setPorts({{1, {0x02, 0, 0, 0, 0x0a, 1}}, {2, {0x02, 0, 0, 0, 0x0a, 2}}});
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("10.0.0.2")})});
    auto a = agent();
    ASSERT_TRUE(a->start(QelServerInfo::Once));
    ASSERT_TRUE(sim->board().osText().has_value());
    EXPECT_EQ(sim->board().osText()->text, "Debian GNU/Linux 12 (bookworm)");
    ASSERT_TRUE(sim->board().platformText().has_value());
    EXPECT_EQ(sim->board().platformText()->text, "6.1.0-27-amd64");
}

TEST_F(HostAgentTest, HostVariablesAreWrittenWhenTheyDifferAndAdministratorsOnesNever) {
    sim->confSpace().setText(QelConfSpaceData::SystemName, "old-name");
    sim->confSpace().setText(QelConfSpaceData::ServerOperatingSystem, "Debian GNU/Linux 12 (bookworm)");
    sim->confSpace().setText(QelConfSpaceData::CabinetLocation, "Row 4");
    sim->confSpace().setText(QelConfSpaceData::SystemContact, "ops@example.org");
    sim->confSpace().setText(QelConfSpaceData::SystemDescription, "frontend");
    network.set({loopback()});
    auto a = agent();
    a->start(QelServerInfo::Once);
    EXPECT_EQ(sim->confSpace().text(QelConfSpaceData::SystemName), "web-07");
    EXPECT_EQ(sim->confSpace().writeCount(QelConfSpaceData::ServerOperatingSystem), 0) << "already right";
    EXPECT_EQ(sim->confSpace().writeCount(QelConfSpaceData::CabinetLocation), 0);
    EXPECT_EQ(sim->confSpace().writeCount(QelConfSpaceData::SystemContact), 0);
    EXPECT_EQ(sim->confSpace().writeCount(QelConfSpaceData::SystemDescription), 0);
    EXPECT_EQ(sim->confSpace().text(QelConfSpaceData::CabinetLocation), "Row 4");
}

TEST_F(HostAgentTest, BiosVersionComesFromSmbiosTypeZero) {
    Bytes body(0x12 - 4, 0);
    body[0] = 1;
    body[1] = 2;
    const Bytes table = smbiosTest::concat({smbiosTest::structure(0, 0, body, {"Vendor", "V2.10"}),
                                            smbiosTest::endOfTable(1)});
    smbiosTest::writeLinuxMemory(root.path(), 0xF0000, 0xE0000, table, 2);
    network.set({loopback()});
    auto a = agent();
    a->start(QelServerInfo::Once);
    EXPECT_EQ(sim->confSpace().text(QelConfSpaceData::BiosVersion), "V2.10");
}

// ---------------------------------------------------------------- addresses

TEST_F(HostAgentTest, SlotsTakeTheFirstFourPrimaryIpv4AddressesInIndexOrder) {
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("10.0.0.2"), v4entry("10.0.0.200", true, "eth0:vip")}),
                 nic(3, "eth1", macOf(2), {}, {v6entry("2001:db8::3")}),
                 nic(4, "eth2", macOf(3), {v4entry("10.0.2.4")}), nic(5, "eth3", macOf(4), {v4entry("10.0.3.5")}),
                 nic(6, "eth4", macOf(5), {v4entry("10.0.4.6")}), nic(7, "eth5", macOf(6), {v4entry("10.0.5.7")})});
    auto a = agent();
    EXPECT_TRUE(a->start(QelServerInfo::Once));
    EXPECT_EQ(slot(1), "10.0.0.2");
    EXPECT_EQ(slot(2), "10.0.2.4") << "eth1 has no IPv4 address, the secondary is no slot of its own";
    EXPECT_EQ(slot(3), "10.0.3.5");
    EXPECT_EQ(slot(4), "10.0.4.6");
}

TEST_F(HostAgentTest, SlotsWithoutAnInterfaceAreCleared) {
    sim->confSpace().setVariable(QelConfSpaceData::IpAddr_4, v4("192.0.2.99"));
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("10.0.0.2")})});
    auto a = agent();
    a->start(QelServerInfo::Once);
    EXPECT_EQ(slot(1), "10.0.0.2");
    EXPECT_EQ(slot(4), "0.0.0.0");
}

class HostAgentWithPni : public HostAgentTest {
protected:
    void SetUp() override {
        HostAgentTest::SetUp();
        // Two NIC functions: adapter 0, ports 0 and 1, MACs 02:00:00:00:0a:01 and :02.
        sim->fru().setImage(qelSim::PniImageBuilder::typical().build().bytes);
    }
};

TEST_F(HostAgentWithPni, EveryNicKeepsItsAddresses) {
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("192.0.2.50")}, {v6entry("2001:db8::50")}),
                 nic(3, "eth1", macOf(2), {v4entry("192.0.2.60")})});
    auto a = agent();
    ASSERT_NE(a->pniAccess, nullptr);
    a->start(QelServerInfo::Once);
    const Bytes first = nicArea(0, 0, 0, 45 + 4 + 16);
    EXPECT_EQ(first[44], 0x11) << "one IPv6 and one IPv4 address";
    EXPECT_EQ(Bytes(first.begin() + 45, first.begin() + 49), v4("192.0.2.50"));
    EXPECT_EQ(Bytes(first.begin() + 49, first.end()), v6("2001:db8::50"));
    const Bytes second = nicArea(0, 1, 0, 49);
    EXPECT_EQ(second[44], 0x01);
    EXPECT_EQ(Bytes(second.begin() + 45, second.end()), v4("192.0.2.60"));
    EXPECT_EQ(qelSim::validatePniImage(sim->fru().image()), "");
}

TEST_F(HostAgentWithPni, AnIpv6OnlyNicPublishesItsPublishableIpv6Addresses) {
    const std::uint32_t tentative = 0x40, dadFailed = 0x08;
    network.set({loopback(), nic(2, "eth0", macOf(1), {},
                                 {v6entry("2001:db8::1"), v6entry("2001:db8::2", tentative),
                                  v6entry("2001:db8::3", dadFailed), v6entry("fe80::1")})});
    auto a = agent();
    a->start(QelServerInfo::Once);
    const Bytes area = nicArea(0, 0, 0, 45 + 32);
    EXPECT_EQ(area[44], 0x20) << "two IPv6 addresses, no IPv4";
    EXPECT_EQ(Bytes(area.begin() + 45, area.begin() + 61), v6("2001:db8::1"));
    EXPECT_EQ(Bytes(area.begin() + 61, area.end()), v6("fe80::1"));
}

TEST_F(HostAgentWithPni, AtMostFifteenIpv6AddressesGoToANic) {
    std::vector<Ipv6AddressEntry> many;
    for (int i = 1; i <= 20; ++i) many.push_back(v6entry("2001:db8::" + std::to_string(i)));
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("192.0.2.1")}, many)});
    auto a = agent();
    a->start(QelServerInfo::Once);
    EXPECT_EQ(nicArea(0, 0, 0, 45)[44], 0xF1);
    EXPECT_EQ(qelSim::validatePniImage(sim->fru().image()), "");
}

TEST_F(HostAgentWithPni, StatusCountsTheNicsThatGotAddresses) {
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("192.0.2.50")}), nic(3, "eth1", macOf(2), {})});
    auto a = agent();
    EXPECT_EQ(a->status().nicsPublished, 0u);
    a->start(QelServerInfo::Once);
    EXPECT_EQ(a->status().nicsPublished, 1u) << "eth1 has no address to publish";
}

TEST_F(HostAgentWithPni, AFailedFruWriteIsLoggedOnceAndRetriedOnTheNextInfoPass) {
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("192.0.2.50")}),
                 nic(3, "eth1", macOf(2), {v4entry("192.0.2.60")})});
    auto a = agent();
    sim->fru().failWrite(2, 0xC0);
    // Info passes come every 6 passes of 20 s.
    EXPECT_EQ(run(*a, 7), 0);
    EXPECT_THAT(logsContaining("PNI addresses failed"), ::testing::SizeIs(1));
    EXPECT_THAT(logsContaining("PNI addresses works again"), ::testing::SizeIs(1));
    EXPECT_EQ(nicArea(0, 0, 0, 49)[44], 0x01);
    EXPECT_EQ(nicArea(0, 1, 0, 49)[44], 0x01);
    EXPECT_FALSE(a->status().publicationPending);
}

// ---------------------------------------------------------------- when to publish

TEST_F(HostAgentTest, AnUnchangedNetworkIsPublishedOnceUntilTheHourIsOver) {
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("10.0.0.2")})});
    auto a = agent(600);
    run(*a, 6 * 6);  // six info passes, 120 s apart: 0, 120, ..., 600
    EXPECT_EQ(sim->confSpace().writeCount(QelConfSpaceData::IpAddr_1), 2 + 1) << "cleared at start, published at 0 and at 600 s";
    EXPECT_EQ(network.calls(), 6);
    EXPECT_EQ(a->status().publications, 2u);
}

TEST_F(HostAgentTest, AChangedNetworkIsPublishedOnTheNextInfoPass) {
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("10.0.0.2")})});
    auto a = agent();
    run(*a, 7, [&](int pass) {
        if (pass == 3) network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("10.0.0.3")})});
    });
    EXPECT_EQ(slot(1), "10.0.0.3");
}

// ---------------------------------------------------------------- the loop goes on

TEST_F(HostAgentTest, AnInventoryFailingEveryOtherPassNeverEndsTheLoopOrTheWatchdog) {
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("10.0.0.2"), v4entry("10.0.0.9", true)})});
    network.failWhen([](int call) { return call % 2 == 0; });
    auto a = agent();
    EXPECT_EQ(run(*a, 6 * 10), 0);
    EXPECT_EQ(network.calls(), 10);
    EXPECT_THAT(sim->watchdog().expiries(), IsEmpty());
    EXPECT_GE(resets(), 10u);
    // Started and cleared five times each: logged on each change only.
    EXPECT_THAT(logsContaining("network inventory failed: netlink: dump interrupted 5 times"),
                ::testing::SizeIs(5));
    EXPECT_THAT(logsContaining("network inventory works again"), ::testing::SizeIs(4));
    EXPECT_EQ(slot(1), "10.0.0.2");
}

TEST_F(HostAgentTest, AnInventoryThatNeverWorksIsLoggedOnce) {
    network.failWhen([](int) { return true; });
    auto a = agent();
    run(*a, 6 * 4);
    EXPECT_THAT(logsContaining("network inventory failed"), ::testing::SizeIs(1));
    EXPECT_EQ(a->status().failing.count("network inventory"), 1u);
    EXPECT_THAT(sim->watchdog().expiries(), IsEmpty());
}

TEST_F(HostAgentTest, AControllerBusyForAMinuteNeitherEndsTheLoopNorLetsTheWatchdogExpire) {
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("10.0.0.2")})});
    auto a = agent();
    size_t resetsBefore = 0, resetsDuring = 0;
    bool runningLate = false;
    // Busy from 90 s after a reset (the worst moment) for a minute of the
    // controller's clock: every exchange then answers 0xC0.
    run(*a, 40, [&](int pass) {
        if (pass >= 9 && pass < 12)
            for (int i = 0; i < 200; ++i) sim->injectFault(qelSim::Fault::completionCode(0xC0));
        if (pass == 9) resetsBefore = resets();
        if (pass == 12) {
            sim->clearFaults();
            resetsDuring = resets();
        }
        if (pass == 39) runningLate = sim->watchdog().state().running;
    });
    EXPECT_GT(resetsDuring, resetsBefore) << "resets were tried while it was busy";
    EXPECT_THAT(sim->watchdog().expiries(), IsEmpty());
    EXPECT_TRUE(runningLate) << "kept after the busy minute";
    EXPECT_EQ(host.sleeps().size(), 40u);
}

TEST_F(HostAgentTest, TheLoopEndsOnlyOnTerminationAndThenStopsTheWatchdog) {
    network.set({loopback()});
    auto a = agent();
    EXPECT_EQ(run(*a, 3), 0);
    EXPECT_FALSE(sim->watchdog().state().running);
    EXPECT_EQ(sim->confSpace().agentState(), QelConfSpaceData::AgentDisconnected);
}

// ---------------------------------------------------------------- run modes

TEST_F(HostAgentTest, OnceSendsNoWatchdogCommand) {
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("10.0.0.2")})});
    auto a = agent();
    EXPECT_TRUE(a->start(QelServerInfo::Once));
    EXPECT_EQ(count(netfn::app, cmd::setWatchdogTimer), 0u);
    EXPECT_EQ(count(netfn::app, cmd::resetWatchdogTimer), 0u);
    EXPECT_EQ(slot(1), "10.0.0.2");
}

TEST_F(HostAgentTest, ThreadModeRunsThisLoopUntilStopped) {
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("10.0.0.2")})});
    std::mutex m;
    std::condition_variable cv;
    int waits = 0;
    host.onCondWait = [&](int, pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec*) {
        {
            std::lock_guard<std::mutex> lock(m);
            ++waits;
        }
        cv.notify_all();
        // The real wait, long enough that only the stop ends it.
        struct timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 60;
        return pthread_cond_timedwait(cond, mutex, &deadline);
    };
    auto a = agent();
    ASSERT_TRUE(a->start(QelServerInfo::Thread));
    {
        std::unique_lock<std::mutex> lock(m);
        ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(30), [&] { return waits >= 1; }));
    }
    EXPECT_EQ(network.calls(), 1) << "the derived loop ran (QelServerInfo's would not use the inventory)";
    a->stop_main_action_thread();
    EXPECT_FALSE(sim->watchdog().state().running);
    a.reset();  // no second stop, no hang
}

TEST_F(HostAgentTest, DaemonStartIsRefusedByAnExistingPidFile) {
    writeFile("/var/run/qeld.pid", "4242\n");
    auto a = agent();
    ::testing::internal::CaptureStderr();
    EXPECT_FALSE(a->start(QelServerInfo::Daemon));
    const std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("It seems as if QELD daemon is already running."), std::string::npos);
    EXPECT_NE(err.find(root.path() + "/var/run/qeld.pid"), std::string::npos);
}

TEST_F(HostAgentTest, OtherModesStartNothing) {
    auto a = agent();
    EXPECT_FALSE(a->start(QelServerInfo::Shutdown));
    EXPECT_FALSE(a->start(static_cast<QelServerInfo::RunMode>(0)));
    EXPECT_EQ(network.calls(), 0);
}

}  // namespace

// ---------------------------------------------------------------- System Info Parameters

namespace {

class HostAgentSystemInfo : public HostAgentTest {
protected:
    size_t setsOf(unsigned char parameter) {
        size_t n = 0;
        for (const auto& r : sim->requests(netfn::app, cmd::setSystemInfoParameters))
            if (!r.data.empty() && r.data[0] == parameter) ++n;
        return n;
    }
};

TEST_F(HostAgentSystemInfo, TheFactsGoToTheStandardParameters) {
    Bytes body(0x12 - 4, 0);
    body[0] = 1;
    body[1] = 2;
    smbiosTest::writeLinuxMemory(root.path(), 0xF0000, 0xE0000,
                                 smbiosTest::concat({smbiosTest::structure(0, 0, body, {"Vendor", "V2.10"}),
                                                     smbiosTest::endOfTable(1)}),
                                 2);
    network.set({loopback()});
    auto a = agent();
    a->start(QelServerInfo::Once);
    EXPECT_EQ(sim->systemInfo().text(1), "V2.10");
    EXPECT_EQ(sim->systemInfo().text(2), "web-07");
    EXPECT_EQ(sim->systemInfo().text(3), "Debian GNU/Linux") << "16 bytes: two blocks";
    EXPECT_EQ(sim->systemInfo().text(4), "Debian GNU/Linux");
    EXPECT_EQ(sim->systemInfo().text(5), "12 (bookworm)");
    EXPECT_EQ(setsOf(3), 2u);
    EXPECT_EQ(setsOf(2), 1u);
}

TEST_F(HostAgentSystemInfo, WithoutAVersionTheKernelReleaseIsTheOsVersion) {
    writeFile("/etc/os-release", "NAME=Gentoo\n");
    network.set({loopback()});
    auto a = agent();
    a->start(QelServerInfo::Once);
    EXPECT_EQ(sim->systemInfo().text(4), "Gentoo");
    EXPECT_EQ(sim->systemInfo().text(5), "6.1.0-27-amd64");
}

TEST_F(HostAgentSystemInfo, ALongNameFillsAsManyBlocksAsItNeeds) {
    const std::string name(60, 'n');  // host names have at most 64 bytes
    host.setHostName(name);
    network.set({loopback()});
    auto a = agent();
    a->start(QelServerInfo::Once);
    EXPECT_EQ(sim->systemInfo().text(2), name);
    EXPECT_EQ(setsOf(2), 1u + (60 - 14 + 15) / 16);
}

TEST_F(HostAgentSystemInfo, AControllerWithoutTheCommandIsNotAskedAgain) {
    sim->systemInfo().setKnown(false);
    network.set({loopback()});
    auto a = agent(240);
    run(*a, 6 * 5);  // republication every 240 s: three of them
    EXPECT_EQ(sim->requests(netfn::app, cmd::setSystemInfoParameters).size(), 1u);
    EXPECT_EQ(a->status().publications, 3u);
}

TEST_F(HostAgentSystemInfo, AnUnsupportedParameterIsNotAskedAgainTheOthersAre) {
    sim->systemInfo().setUnsupported(2, true);
    network.set({loopback()});
    auto a = agent(240);
    run(*a, 6 * 5);
    EXPECT_EQ(setsOf(2), 1u);
    EXPECT_EQ(setsOf(4), 2u * 3) << "two blocks, three republications";
    EXPECT_FALSE(sim->systemInfo().text(2).has_value());
}

}  // namespace

// ---------------------------------------------------------------- one owner for the timer

namespace {

TEST_F(HostAgentTest, TheKernelsIpmiWatchdogDriverKeepsTheTimerAlone) {
    writeFile("/sys/module/ipmi_watchdog/parameters/timeout", "10\n");
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("10.0.0.2")})});
    auto a = agent();
    EXPECT_EQ(a->status().watchdogKeeper, "the kernel's IPMI watchdog driver (ipmi_watchdog module)");
    EXPECT_EQ(run(*a, 12), 0);
    EXPECT_EQ(count(netfn::app, cmd::getWatchdogTimer), 0u);
    EXPECT_EQ(count(netfn::app, cmd::setWatchdogTimer), 0u) << "neither set nor stopped";
    EXPECT_EQ(count(netfn::app, cmd::resetWatchdogTimer), 0u);
    EXPECT_THAT(logsContaining("the kernel's IPMI watchdog driver is loaded (ipmi_watchdog module) and keeps the "
                               "BMC watchdog: qeld leaves the timer to it and only publishes"),
                ::testing::SizeIs(1));
    EXPECT_EQ(slot(1), "10.0.0.2") << "publication goes on";
    EXPECT_EQ(a->status().watchdogSeconds, 0u);
}

TEST_F(HostAgentTest, WithoutTheDriverQeldKeepsTheTimer) {
    writeFile("/sys/class/watchdog/watchdog0/identity", "iTCO_wdt\n");
    network.set({loopback()});
    auto a = agent();
    EXPECT_EQ(a->status().watchdogKeeper, "qeld");
    run(*a, 6);
    EXPECT_GE(resets(), 1u);
}

TEST_F(HostAgentTest, StatusShowsTheTimersTimeOut) {
    network.set({loopback()});
    auto a = agent();
    EXPECT_EQ(a->status().watchdogSeconds, 0u) << "nothing programmed yet";
    run(*a, 2);
    EXPECT_EQ(a->status().watchdogSeconds, 300u);
}

TEST_F(HostAgentTest, StatusShowsATimerTheConfigurationTurnedOffAsOff) {
    network.set({loopback()});
    auto a = agent();
    unsigned int beforeTheNextRead = 99;
    // Turned off after the first pass; the settings are read again 300 s
    // after the first read (the 16th wait of 20 s).
    run(*a, 17, [&](int pass) {
        if (pass == 1) sim->confSpace().setByte(QelConfSpaceData::SoftWatchdogEnabled, 0);
        if (pass == 14) beforeTheNextRead = a->status().watchdogSeconds;
    });
    EXPECT_EQ(beforeTheNextRead, 300u);
    EXPECT_EQ(a->status().watchdogSeconds, 0u);
}

// ---------------------------------------------------------------- what the agent asks

// Configuration-space reads of one variable.
size_t variableReads(qelSim::ScopedSimulator& sim, unsigned int variable) {
    size_t n = 0;
    for (const qelSim::Request& r : sim->requests(netfn::oemGroup, cmd::configSpace))
        if (r.data.size() > qelIpmi::confSpace::requestVariable + 1 &&
            r.data[qelIpmi::confSpace::requestOperation] == qelIpmi::confSpace::opRead &&
            (r.data[qelIpmi::confSpace::requestVariable] | (r.data[qelIpmi::confSpace::requestVariable + 1] << 8)) ==
                static_cast<int>(variable))
            ++n;
    return n;
}

TEST_F(HostAgentTest, WatchdogSettingsAreReadAtTheStartAndThenEveryFiveMinutes) {
    network.set({loopback()});
    auto a = agent();
    // 46 waits of 20 s: 920 s, so reads at 0, 300, 600 and 900 s.
    run(*a, 46);
    EXPECT_EQ(variableReads(sim, QelConfSpaceData::SoftWatchdogTime), 4u);
    EXPECT_EQ(variableReads(sim, QelConfSpaceData::SoftWatchdogEnabled), 4u);
    EXPECT_THAT(sim->watchdog().expiries(), IsEmpty());
}

TEST_F(HostAgentTest, AChangedWatchdogTimeIsAppliedWhenItIsNextRead) {
    network.set({loopback()});
    auto a = agent();
    std::vector<unsigned int> countdowns;  // the timer's time-out after each pass, in seconds
    run(*a, 20, [&](int pass) {
        if (pass == 3) sim->confSpace().setWord(QelConfSpaceData::SoftWatchdogTime, 600);
        countdowns.push_back(sim->watchdog().state().initialCountdown / 10u);
    });
    ASSERT_EQ(countdowns.size(), 20u);
    EXPECT_EQ(countdowns[13], 300u) << "not read again before 300 s";
    EXPECT_EQ(countdowns[15], 600u) << "applied at the read 300 s after the first";
    EXPECT_THAT(sim->watchdog().expiries(), IsEmpty());
}

TEST_F(HostAgentTest, TheTimerIsReadOnlyBeforeAResetBetweenSettingsReads) {
    network.set({loopback()});
    auto a = agent();
    run(*a, 46);
    // Every settings read reads the timer once; every reset reads it before
    // (was it stopped?) and in the reset itself; the stop at the end reads it
    // once. Nothing else reads it. The first reset follows the Set: no check
    // before it.
    const size_t settingsReads = variableReads(sim, QelConfSpaceData::SoftWatchdogTime);
    EXPECT_EQ(count(netfn::app, cmd::getWatchdogTimer), settingsReads + (2 * resets() - 1) + 1);
}

TEST_F(HostAgentTest, TheBoardsTextsGoWhenTheyChangeAndAtTheRepublication) {
    sim->board().setSlot(3);
    sim->board().setPorts({{1, {0x02, 0, 0, 0, 0x0a, 1}}});
    network.set({loopback(), nic(2, "eth0", macOf(1), {v4entry("10.0.0.2")})});
    auto a = agent(1200);
    size_t osTextAtStart = 0, osTexts = 0, platformTexts = 0;
    std::string platformText;
    // 70 waits of 20 s: info passes every 120 s, a republication at 1200 s.
    // (The daemon's end sends empty texts with the shutdown status: counted
    // before it.)
    run(*a, 70, [&](int pass) {
        if (pass == 1) osTextAtStart = count(netfn::oemBoard, cmd::setOsText);
        if (pass == 70) {
            osTexts = count(netfn::oemBoard, cmd::setOsText);
            platformTexts = count(netfn::oemBoard, cmd::setPlatformText);
            platformText = sim->board().platformText()->text;
        }
    });
    EXPECT_EQ(platformTexts, 2u) << "at the start and at the republication";
    ASSERT_GT(osTextAtStart, 0u);
    EXPECT_EQ(osTexts, 2 * osTextAtStart);
    EXPECT_EQ(platformText, "6.1.0-27-amd64");
}

TEST_F(HostAgentTest, ExtraStepsRunEveryPassGuardedUnderTheirName) {
    network.set({loopback()});
    QelHostAgent::Options o = options();
    int calls = 0;
    o.steps.push_back({"event log forwarding", [&] {
                           if (++calls % 2 == 0) throw std::runtime_error("controller busy");
                       }});
    auto a = std::make_unique<QelHostAgent>(o);
    run(*a, 6);
    EXPECT_EQ(calls, 6);
    EXPECT_THAT(logsContaining("event log forwarding failed: controller busy"), ::testing::SizeIs(3));
    EXPECT_THAT(logsContaining("event log forwarding works again"), ::testing::SizeIs(2))
        << "after the 2nd and the 4th call";
    EXPECT_GE(resets(), 1u) << "a failing step never stops the watchdog";
}

// The event log's forwarder as qeld runs it, one step of every pass, behind
// a backlog of a thousand records: each pass takes at most its 32, the
// watchdog's reset comes every time it is due, and the backlog drains over
// the passes, every record once.
TEST_F(HostAgentTest, AThousandRecordBacklogDrainsOverPassesWithoutDelayingAReset) {
    network.set({loopback()});
    sim->sel().setCapacity(2000);
    for (uint16_t i = 0; i < 1000; ++i) {
        selTest::Event e;
        e.sensorNumber = static_cast<uint8_t>(i & 0xFF);
        sim->sel().add(selTest::rawOf(e));
    }
    struct Counting : qelSel::SelSink {
        std::vector<qelSel::RawRecord> taken;
        bool deliver(const qelSel::LogEntry& entry) override {
            if (entry.record) taken.push_back(*entry.record);
            return true;
        }
    } sink;
    qelSel::ForwarderOptions f;
    f.replay = true;
    qelSel::QelSelForwarder forwarder(sink, f);
    QelHostAgent::Options o = options();
    std::vector<size_t> perPass;
    std::vector<size_t> selRequests;
    o.steps.push_back({"event log forwarding", [&] {
                           const size_t before = sink.taken.size();
                           const size_t requestsBefore = count(0x0A, 0x43);
                           forwarder.pass();
                           perPass.push_back(sink.taken.size() - before);
                           selRequests.push_back(count(0x0A, 0x43) - requestsBefore);
                       }});
    auto a = std::make_unique<QelHostAgent>(o);
    sim->clearRequests();
    // Where each reset fell, in passes: the watchdog's period is 300 s, and
    // the agent resets it every 100 s (five passes of 20 s).
    std::vector<int> resetPasses;
    size_t lastResets = 0;
    run(*a, 45, [&](int pass) {
        if (resets() != lastResets) resetPasses.push_back(pass);
        lastResets = resets();
    });
    ASSERT_EQ(sink.taken.size(), 1000u) << "drained within 45 passes";
    for (size_t n : perPass) EXPECT_LE(n, 32u);
    for (size_t n : selRequests) EXPECT_LE(n, 36u) << "Get SEL Entry requests in one pass";
    EXPECT_GE(std::count_if(perPass.begin(), perPass.end(), [](size_t n) { return n > 0; }), 31)
        << "1,000 records take at least 32 passes";
    std::set<std::vector<uint8_t>> unique;
    for (const auto& r : sink.taken) unique.insert(std::vector<uint8_t>(r.begin(), r.end()));
    EXPECT_EQ(unique.size(), 1000u) << "every record once";
    ASSERT_GE(resetPasses.size(), 8u);
    for (size_t i = 1; i < resetPasses.size(); ++i)
        EXPECT_LE(resetPasses[i] - resetPasses[i - 1], 5) << "a reset is never late, also while the backlog drains";
    EXPECT_THAT(sim->watchdog().expiries(), IsEmpty());
}

TEST_F(HostAgentTest, ATimerStoppedBySomeoneElseIsLoggedAndStartedAgain) {
    network.set({loopback()});
    auto a = agent();
    bool runningLate = false;
    run(*a, 16, [&](int pass) {
        if (pass == 7) {
            qelSim::WatchdogState s = sim->watchdog().state();
            s.running = false;  // another program's Set without "don't stop"
            sim->watchdog().preset(s);
        }
        if (pass == 15) runningLate = sim->watchdog().state().running;
    });
    EXPECT_THAT(logsContaining("the BMC watchdog was stopped by someone else; qeld starts it again"),
                ::testing::SizeIs(1));
    EXPECT_TRUE(runningLate);
    EXPECT_THAT(sim->watchdog().expiries(), IsEmpty());
}

// ---------------------------------------------------------------- the event log

class HostAgentEvents : public HostAgentTest {
protected:
    std::vector<Bytes> osEvents() {
        std::vector<Bytes> out;
        for (const auto& e : sim->board().platformEvents())
            if (e.addrType == qelIpmi::QelIpmi::SYSTEM_INTERFACE) out.push_back(e.data);
        return out;
    }
    void startAndStop() {
        host.onCondWait = [](int, pthread_cond_t*, pthread_mutex_t*, const struct timespec*) { return 0; };
        auto a = agent();
        a->start(QelServerInfo::Thread);
        a.reset();
    }
};

TEST_F(HostAgentEvents, AFreshBootIsLoggedOnceAsBootCompleted) {
    writeFile("/proc/sys/kernel/random/boot_id", "0b6f4c2e-0000-4000-8000-000000000001\n");
    host.setUptime(95);
    network.set({loopback()});
    startAndStop();
    startAndStop();  // the agent restarted in the same boot
    EXPECT_THAT(osEvents(), ElementsAre(Bytes{0x41, 0x04, 0x1F, 0x00, 0x6F, 0x01, 0xFF, 0xFF}));
    std::string marker;
    std::getline(std::ifstream(root.path() + "/run/qeld/boot-id"), marker);
    EXPECT_EQ(marker, "0b6f4c2e-0000-4000-8000-000000000001");

    writeFile("/proc/sys/kernel/random/boot_id", "0b6f4c2e-0000-4000-8000-000000000002\n");
    startAndStop();  // the next boot
    EXPECT_EQ(osEvents().size(), 2u);
}

TEST_F(HostAgentEvents, AStartLongAfterTheBootLogsNothing) {
    writeFile("/proc/sys/kernel/random/boot_id", "0b6f4c2e-0000-4000-8000-000000000003\n");
    host.setUptime(QelHostAgent::freshBootSeconds + 5);
    network.set({loopback()});
    startAndStop();
    EXPECT_THAT(osEvents(), IsEmpty());
}

TEST_F(HostAgentEvents, OnceModeLogsNoBoot) {
    writeFile("/proc/sys/kernel/random/boot_id", "0b6f4c2e-0000-4000-8000-000000000004\n");
    host.setUptime(10);
    network.set({loopback()});
    auto a = agent();
    a->start(QelServerInfo::Once);
    EXPECT_THAT(osEvents(), IsEmpty());
}

TEST_F(HostAgentEvents, GracefulShutdownGoesToTheEventLog) {
    EXPECT_TRUE(QelHostAgent::sendOsEvent(QelHostAgent::OsEvent::GracefulShutdown));
    EXPECT_THAT(osEvents(), ElementsAre(Bytes{0x41, 0x04, 0x20, 0x00, 0x6F, 0x03, 0xFF, 0xFF}));
    sim->injectFault(qelSim::Fault::completionCode(0xC1));
    EXPECT_FALSE(QelHostAgent::sendOsEvent(QelHostAgent::OsEvent::GracefulShutdown));
}

}  // namespace

// ---------------------------------------------------------------- a controller without a configuration space

// A controller of another make has no configuration space to hold the
// watchdog settings: without settings of its own the agent never arms the
// timer (it stops it at its end, as always) and says so once; with them the
// timer runs with that time and action, is reset on schedule and never
// expires, and is stopped at the end.
class HostAgentWithoutConfSpace : public HostAgentTest {
protected:
    void SetUp() override {
        HostAgentTest::SetUp();
        sim->applyDescriptionLine("vendor-commands off");
        sim->applyDescriptionLine("board none");
        network.set({loopback()});
    }
};

TEST_F(HostAgentWithoutConfSpace, WithoutItsOwnSettingsTheAgentNeverArmsTheTimerAndSaysSoOnce) {
    auto a = agent();
    std::size_t sets = 99;
    run(*a, 30, [&](int pass) {
        if (pass == 29) sets = count(netfn::app, cmd::setWatchdogTimer);
    });
    EXPECT_EQ(sets, 0u) << "while it runs";
    EXPECT_EQ(resets(), 0u);
    EXPECT_FALSE(sim->watchdog().state().running);
    EXPECT_EQ(logsContaining("no configuration space to hold the watchdog settings").size(), 1u);
}

TEST_F(HostAgentWithoutConfSpace, WithItsOwnSettingsTheTimerRunsResetOnTimeAndStopsAtTheEnd) {
    auto o = options();
    o.watchdogSeconds = 300;
    o.watchdogAction = 1;  // hard reset
    QelHostAgent a(o);
    sim->clearRequests();
    qelSim::WatchdogState during;
    std::size_t sets = 0;
    // Twenty minutes of passes: four settings reads, reset every 100 s.
    run(a, 60, [&](int pass) {
        if (pass == 59) {
            during = sim->watchdog().state();
            sets = count(netfn::app, cmd::setWatchdogTimer);
        }
    });
    EXPECT_TRUE(during.running);
    EXPECT_EQ(during.timerUse, 4) << "SMS/OS";
    EXPECT_EQ(during.timeoutAction, 1);
    EXPECT_EQ(during.initialCountdown, 3000);
    EXPECT_TRUE(sim->watchdog().expiries().empty());
    EXPECT_EQ(sets, 1u) << "unchanged settings are not written again";
    EXPECT_GE(resets(), 12u);
    EXPECT_FALSE(sim->watchdog().state().running) << "stopped when the agent ends";
    EXPECT_EQ(logsContaining("keeps the BMC watchdog with its own settings").size(), 1u);
}

TEST_F(HostAgentWithoutConfSpace, TheOwnTimeIsAtLeastFourMinutes) {
    auto o = options();
    o.watchdogSeconds = 30;
    o.watchdogAction = 0;
    QelHostAgent a(o);
    run(a, 3);
    const auto sets = sim->requests(netfn::app, cmd::setWatchdogTimer);
    ASSERT_FALSE(sets.empty());
    const Bytes& set = sets.front().data;
    ASSERT_EQ(set.size(), 6u) << testing::PrintToString(set);
    EXPECT_EQ(set[0] & 0x07, 4) << "SMS/OS";
    EXPECT_EQ(set[1] & 0x07, 0) << "action none";
    EXPECT_EQ(set[4] | (set[5] << 8), 2400) << "240 s, not 30";
    EXPECT_FALSE(sim->watchdog().state().running) << "stopped at the end";
}

// Where the configuration space exists its settings win over the agent's own.
TEST_F(HostAgentTest, TheConfigurationSpacesSettingsWinOverTheAgentsOwn) {
    network.set({loopback()});
    auto o = options();
    o.watchdogSeconds = 600;
    QelHostAgent a(o);
    qelSim::WatchdogState during;
    run(a, 5, [&](int pass) {
        if (pass == 4) during = sim->watchdog().state();
    });
    EXPECT_EQ(during.initialCountdown, 3000) << "the configured 300 s";
    EXPECT_EQ(logsContaining("--watchdog is not used").size(), 1u);
}
