// The agent object: construction by run mode, the daemon's start-up checks
// and signal handlers, the worker thread, and the loop with its watchdog
// cadence and address publication.
//
// Everything runs in this process against the simulated controller. The host
// (paths under a temporary root, kernel name, host name, clock, network
// inventory, waits, alarm and syslog) is an agentTest::AgentPlatform: a test
// ends the loop after a chosen number of passes from the sleep hook, or lets
// the worker thread wait on the real condition variable. Loop tests use an
// agent of mode Daemon whose start was refused by a pid file, and call its
// main_action directly: that is the daemon's loop without the fork.
#include "qelServerInfo.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "PniAccess.h"
#include "agentPlatform.h"
#include "qelBladeInfo.h"
#include "qelConfSpaceData.h"
#include "qelCondQueue.h"
#include "qelIp.h"
#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSimBoard.h"
#include "qelSimConfSpace.h"
#include "qelSimDevice.h"
#include "qelSimFru.h"
#include "qelSimWatchdog.h"
#include "qelSmbios.h"
#include "qelSystemInfo.h"
#include "smbiosImage.h"

// ---- Allocation failure on demand ------------------------------------------------
//
// The agent allocates its optional objects with non-throwing new. Replacing
// that operator lets a test make exactly one of them fail (by its size) and
// see the agent's fallback; every other allocation is the normal one.
namespace {
std::atomic<std::size_t> failingNothrowSize{0};
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (size != 0 && size == failingNothrowSize.load()) return nullptr;
    try {
        return ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using agentTest::Interface;
using agentTest::LogLine;
using qelSim::Bytes;
using qelSim::Request;
using qelSim::SimBoard;
using qelSim::WatchdogState;
namespace netfn = qelIpmi::netfn;
namespace cmd = qelIpmi::cmd;

constexpr const char* pidFile = "/var/run/qeld.pid";
constexpr unsigned char dontStopBit = 0x40;

// Fails the next non-throwing allocation of `size` bytes while it lives.
class FailNothrowAllocation {
public:
    explicit FailNothrowAllocation(std::size_t size) { failingNothrowSize = size; }
    ~FailNothrowAllocation() { failingNothrowSize = 0; }
};

// Standard error of this process, redirected into a file for a while.
class StderrCapture {
public:
    StderrCapture() {
        std::fflush(stderr);
        saved_ = dup(STDERR_FILENO);
        file_ = std::tmpfile();
        dup2(fileno(file_), STDERR_FILENO);
    }
    ~StderrCapture() { text(); }
    std::string text() {
        if (file_ == nullptr) return captured_;
        std::fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
        std::rewind(file_);
        char chunk[512];
        size_t n;
        while ((n = std::fread(chunk, 1, sizeof chunk, file_)) > 0) captured_.append(chunk, n);
        std::fclose(file_);
        file_ = nullptr;
        return captured_;
    }

private:
    int saved_ = -1;
    FILE* file_ = nullptr;
    std::string captured_;
};

// A one-shot event between the worker and the test thread.
class Latch {
public:
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        cond_.notify_all();
    }
    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait(lock, [this] { return open_; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cond_;
    bool open_ = false;
};

// The real timed wait, with a deadline of the test's choosing.
int realWait(pthread_cond_t* cond, pthread_mutex_t* mutex, int seconds) {
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += seconds;
    return pthread_cond_timedwait(cond, mutex, &deadline);
}

std::array<unsigned char, 6> mac(unsigned char last, unsigned char group = 0x0a) {
    return {0x02, 0x00, 0x00, 0x00, group, last};
}

Bytes v4(const char* text) {
    unsigned char b[4];
    inet_pton(AF_INET, text, b);
    return Bytes(b, b + 4);
}
std::array<unsigned char, 16> v6(const char* text) {
    std::array<unsigned char, 16> b{};
    inet_pton(AF_INET6, text, b.data());
    return b;
}

// A derived agent that says when it is destroyed (seen on standard error).
class TracingAgent : public QelServerInfo {
public:
    using QelServerInfo::QelServerInfo;
    ~TracingAgent() override { std::fprintf(stderr, "agent destroyed\n"); }
};

class Agent : public ::testing::Test {
protected:
    smbiosTest::TempDir root;
    agentTest::AgentPlatform host{root.path()};
    qelSim::ScopedSimulator sim;
    qelPlatform::Platform* previous = nullptr;

    void SetUp() override {
        previous = qelPlatform::setPlatform(&host);
        qelSmbios::QelSmbios::resetOsForTesting();
    }
    void TearDown() override {
        QelServerInfo::this_QelServerInfo = nullptr;
        qelSmbios::QelSmbios::resetOsForTesting();
        qelPlatform::setPlatform(previous);
    }

    std::string path(const std::string& fixed) const { return root.path() + fixed; }
    void writeFile(const std::string& fixed, const std::string& content) {
        std::filesystem::create_directories(std::filesystem::path(path(fixed)).parent_path());
        std::ofstream(path(fixed)) << content;
    }
    bool exists(const std::string& fixed) const { return std::filesystem::exists(path(fixed)); }

    // An agent of mode Daemon whose start a pid file refused: the daemon's
    // object without the fork. The controller traffic of its construction is
    // forgotten.
    std::unique_ptr<QelServerInfo> loopAgent() {
        writeFile(pidFile, "4242\n");
        std::unique_ptr<QelServerInfo> agent;
        {
            StderrCapture quiet;
            agent = std::make_unique<QelServerInfo>(QelServerInfo::Daemon);
        }
        sim->clearRequests();
        return agent;
    }
    // Runs the loop for `passes` passes (the sleep hook ends it).
    int run(QelServerInfo& agent, int passes) {
        host.onSleep = [&agent, passes](int call, unsigned int) {
            if (call >= passes) agent.running = false;
            return 0u;
        };
        agent.running = true;
        int exitCode = 99;
        agent.main_action(exitCode);
        return exitCode;
    }

    std::vector<Request> watchdogCommands() {
        std::vector<Request> out;
        for (const Request& r : sim->requests())
            if (r.netFn == netfn::app &&
                (r.cmd == cmd::getWatchdogTimer || r.cmd == cmd::setWatchdogTimer ||
                 r.cmd == cmd::resetWatchdogTimer))
                out.push_back(r);
        return out;
    }
    std::vector<unsigned char> watchdogCommandCodes() {
        std::vector<unsigned char> out;
        for (const Request& r : watchdogCommands()) out.push_back(r.cmd);
        return out;
    }
    size_t count(unsigned char netFn, unsigned char command) {
        return sim->requests(netFn, command).size();
    }

    // (variable, value) of every configuration-space write, in order.
    std::vector<std::pair<unsigned int, Bytes>> confWrites() {
        namespace layout = qelIpmi::confSpace;
        std::vector<std::pair<unsigned int, Bytes>> out;
        for (const Request& r : sim->requests(netfn::oemGroup, cmd::configSpace)) {
            if (r.data.size() <= layout::requestValue || r.data[layout::requestOperation] != layout::opWrite)
                continue;
            const unsigned int id = r.data[layout::requestVariable] |
                                    r.data[layout::requestVariable + 1] << 8;
            out.emplace_back(id, Bytes(r.data.begin() + layout::requestValue, r.data.end()));
        }
        return out;
    }
    std::vector<Bytes> confWritesOf(unsigned int id) {
        std::vector<Bytes> out;
        for (const auto& w : confWrites())
            if (w.first == id) out.push_back(w.second);
        return out;
    }

    void presetWatchdog(unsigned char interval, unsigned short countdown, unsigned char interrupt = 0,
                        bool running = false) {
        WatchdogState s;
        s.timerUse = 4;
        s.preTimeoutInterval = interval;
        s.preTimeoutInterrupt = interrupt;
        s.initialCountdown = countdown;
        s.presentCountdown = countdown;
        s.running = running;
        s.initialized = true;
        sim->watchdog().preset(s);
    }

    // A System Enclosure (type 3) structure; two of them make a blade.
    static Bytes enclosure(uint16_t handle) {
        Bytes body(0x0D - 4, 0);
        body[0x04 - 4] = 1;     // manufacturer
        body[0x05 - 4] = 0x17;  // rack mount chassis
        body[0x07 - 4] = 2;     // serial number
        return smbiosTest::structure(3, handle, body, {"Chassis Maker", "SN-1"});
    }
    // An SMBIOS table naming a blade of the ALDERCROFT line, for both kinds
    // of kernel (the SMBIOS reader keeps the first kernel it saw).
    void writeAldercroftHost() {
        std::vector<Bytes> all = {
            smbiosTest::systemInformation(1, {"Maker", "RS 410", "1.0", "SN-1", "SKU-1", "ALDERCROFT"}),
            enclosure(2), enclosure(3), smbiosTest::endOfTable(0xFF)};
        const Bytes table = smbiosTest::concat(all);
        smbiosTest::writeLinuxMemory(root.path(), 0xF0000, 0xE0000, table, 4);
        smbiosTest::writeEsxiDevice(root.path(), 0, table, 4);
    }
    // An extended board with the blade in slot 3 and two ports.
    void typicalBoard() {
        sim->board().setSlot(3);
        sim->board().setPorts({{1, mac(1)}, {2, mac(2)}});
    }

    std::vector<LogLine> errors() {
        std::vector<LogLine> out;
        for (const LogLine& l : host.logs())
            if (l.priority == LOG_ERR) out.push_back(l);
        return out;
    }
    bool logged(int priority, const std::string& text) {
        for (const LogLine& l : host.logs())
            if (l.priority == priority && l.text == text) return true;
        return false;
    }
};

// ================================================================ construction

TEST_F(Agent, ShutdownModeSendsOnlyTheWatchdogStop) {
    presetWatchdog(0, 3000, 0, true);
    QelServerInfo agent(QelServerInfo::Shutdown);

    const auto all = sim->requests();
    ASSERT_EQ(all.size(), 2u) << "no other controller traffic";
    EXPECT_EQ(all[0].netFn, netfn::app);
    EXPECT_EQ(all[0].cmd, cmd::getWatchdogTimer);
    EXPECT_EQ(all[1].netFn, netfn::app);
    EXPECT_EQ(all[1].cmd, cmd::setWatchdogTimer);
    ASSERT_EQ(all[1].data.size(), 6u);
    EXPECT_EQ(all[1].data[0] & dontStopBit, 0) << "the Set stops the timer";
    EXPECT_EQ(all[1].data[0] & 0x07, 4) << "SMS/OS timer use";
    EXPECT_FALSE(sim->watchdog().state().running);

    EXPECT_THAT(host.openlogs(), IsEmpty()) << "no syslog identity in this mode";
    EXPECT_THAT(host.logs(), IsEmpty());
    EXPECT_THAT(host.alarms(), ElementsAre(0u));
    EXPECT_EQ(agent.bladeInfo, nullptr);
    EXPECT_EQ(agent.confSpace, nullptr);
    EXPECT_EQ(agent.pniAccess, nullptr);
    EXPECT_EQ(agent.hostName, "");
}

TEST_F(Agent, FieldsStartAtTheirInitialValues) {
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.runMode, 3);
    EXPECT_EQ(agent.osName, "VMware ESXi ") << "the trailing blank is part of it";
    EXPECT_EQ(agent.osRelease, "");
    EXPECT_EQ(agent.lastInventory, nullptr);
    EXPECT_FALSE(agent.wdEnabled);
    EXPECT_EQ(agent.wdTime, 0);
    EXPECT_EQ(agent.wdForce, 0);
    EXPECT_FALSE(agent.running);
    EXPECT_TRUE(pthread_equal(agent.loopThread, pthread_self()));
    EXPECT_NE(agent.bladeInfo, nullptr) << "kept whatever it found";
    EXPECT_EQ(agent.bladeInfo->bladeSlot, QelBladeInfo::unknownSlot) << "no board: slot never learnt";
    EXPECT_EQ(QelServerInfo::this_QelServerInfo, nullptr);
}

TEST_F(Agent, OtherModesOpenSyslogAsQeldAndStartNothing) {
    for (int mode : {0, 3, 6, -1}) {
        sim->clearRequests();
        const size_t before = host.openlogs().size();
        QelServerInfo agent(static_cast<QelServerInfo::RunMode>(mode));
        const auto opened = host.openlogs();
        ASSERT_EQ(opened.size(), before + 1) << "mode " << mode;
        EXPECT_EQ(opened.back().ident, "QELD");
        EXPECT_EQ(opened.back().option, LOG_PID | LOG_CONS);
        EXPECT_EQ(opened.back().facility, LOG_USER);
        EXPECT_THAT(watchdogCommands(), IsEmpty()) << "mode " << mode;
        EXPECT_EQ(host.waits(), 0);
        EXPECT_EQ(host.scans(), 0) << "no pass of the loop";
        EXPECT_FALSE(agent.running);
    }
}

TEST_F(Agent, DeviceIdFlagCopiesTheControllersOemFeatures) {
    {
        QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
        EXPECT_TRUE(agent.deviceIdFlag) << "the default controller marks OEM features";
    }
    Bytes id = qelSim::SimBmc::defaultDeviceId();
    id[15] = 'A';  // firmware without OEM features
    sim->setDeviceId(id);
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_FALSE(agent.deviceIdFlag);
}

TEST_F(Agent, WithoutConfigurationSpaceNoAddressIsWrittenAtStart) {
    sim->confSpace().failVariable(QelConfSpaceData::CabinetLocation, 0xC1);
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.confSpace, nullptr);
    EXPECT_THAT(confWrites(), IsEmpty());
}

TEST_F(Agent, UnallocatableConfigurationSpaceIsLeftOutSilently) {
    {
        FailNothrowAllocation fail(sizeof(QelConfSpaceData));
        QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
        EXPECT_EQ(agent.confSpace, nullptr);
    }
    EXPECT_THAT(confWrites(), IsEmpty());
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Agent, ConfigurationSpaceAddressesAreClearedInOrderAtStart) {
    for (unsigned int id = 0x20A; id <= 0x20D; ++id)
        sim->confSpace().setAddress(id, 10, 0, 0, static_cast<unsigned char>(id & 0xFF));
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    ASSERT_NE(agent.confSpace, nullptr);
    const Bytes zero(4, 0);
    EXPECT_THAT(confWrites(), ElementsAre(std::make_pair(0x20Au, zero), std::make_pair(0x20Bu, zero),
                                          std::make_pair(0x20Cu, zero), std::make_pair(0x20Du, zero)));
    for (unsigned int id = 0x20A; id <= 0x20D; ++id)
        EXPECT_EQ(*sim->confSpace().variable(id), zero) << std::hex << id;
}

TEST_F(Agent, BladeAllocationFailureThrowsLogicError) {
    FailNothrowAllocation fail(sizeof(QelBladeInfo));
    try {
        QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
        FAIL() << "constructed without a blade object";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(), "new (nothrow) QelBladeInfo() failed");
    }
}

TEST_F(Agent, HostNameIsReadThroughA64ByteBuffer) {
    host.setHostName("blade-07.example.net");
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.hostName, "blade-07.example.net");
    EXPECT_THAT(host.hostNameLengths(), ElementsAre(64u));
}

TEST_F(Agent, HostNameOfAllSixtyFourBytesStaysWithinTheBuffer) {
    host.setHostName(std::string(80, 'h'));  // truncated without a terminating NUL
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.hostName, std::string(64, 'h'));
}

TEST_F(Agent, FailingGethostnameLeavesTheHostNameEmpty) {
    host.setHostName("ignored", EPERM);
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.hostName, "");
}

TEST_F(Agent, LinuxKeepsTheDefaultOsNameAndNoRelease) {
    host.setKernel("Linux", "6.1.0-18-amd64", "#1 SMP PREEMPT_DYNAMIC Debian");
    writeFile("/opt/zum/vmware-product-string", "VMware ESXi 8.0.2\n");
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.osName, "VMware ESXi ");
    EXPECT_EQ(agent.osRelease, "");
}

TEST_F(Agent, VmkernelTakesItsReleaseAndTheProductString) {
    host.setKernel("VMkernel", "8.0.2", "#1 SMP Release build-22380479");
    writeFile("/opt/zum/vmware-product-string", "VMware ESXi 8.0.2 build-22380479\nsecond line\n");
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.osRelease, "8.0.2");
    EXPECT_EQ(agent.osName, "VMware ESXi 8.0.2 build-22380479");
}

TEST_F(Agent, VmkernelProductStringIsReadUpTo255Characters) {
    host.setKernel("VMkernel", "8.0.2", "#1");
    writeFile("/opt/zum/vmware-product-string", std::string(300, 'v') + "\n");
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.osName, std::string(255, 'v'));
}

TEST_F(Agent, VmkernelWithoutProductStringKeepsTheDefaultName) {
    host.setKernel("VMkernel", "7.0.3", "#1");
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.osRelease, "7.0.3");
    EXPECT_EQ(agent.osName, "VMware ESXi ");
}

TEST_F(Agent, SystemInformationFailureIsLoggedAndDefaultsStay) {
    // Decide the SMBIOS reader's kernel first: the blade detection asks it too.
    { qelSmbios::QelSmbios decide; }
    host.setKernel("VMkernel", "8.0.2", "#1");
    host.setUnameErrno(EFAULT);
    std::string expected;
    try {
        qelSystemInfo::QelSystemInfo probe;
    } catch (const qelSystemInfo::QelSystemInfoError& e) {
        expected = e.errorText;
    }
    ASSERT_FALSE(expected.empty());

    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_TRUE(logged(LOG_ERR, expected)) << expected;
    EXPECT_EQ(agent.osName, "VMware ESXi ");
    EXPECT_EQ(agent.osRelease, "");
    EXPECT_NE(agent.bladeInfo, nullptr) << "construction goes on";
}

TEST_F(Agent, ControllerWithoutPniIsLeftOutSilently) {
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.pniAccess, nullptr);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Agent, UsablePniIsKept) {
    sim->fru().setImage(qelSim::PniImageBuilder::typical().build().bytes);
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_NE(agent.pniAccess, nullptr);
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(Agent, PniOnFruDeviceZeroIsLoggedAsNoAccess) {
    sim->fru().setImage(qelSim::PniImageBuilder::typical().build().bytes);
    sim->fru().setDeviceId(0);
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.pniAccess, nullptr);
    EXPECT_THAT(errors(), ElementsAre(LogLine{LOG_ERR, "QelServerInfo::QelServerInfo No access to PNI"}));
}

TEST_F(Agent, PniAccessErrorIsLoggedWithItsText) {
    sim->fru().setImage(qelSim::PniImageBuilder::typical().build().bytes);
    sim->fru().setLocateCompletionCode(0xCC);
    std::string expected;
    try {
        PniAccess probe;
    } catch (const PniAccessError& e) {
        expected = e.errorText;
    }
    ASSERT_NE(expected.find("IPMI access has failed. (Return code: cc)"), std::string::npos) << expected;

    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.pniAccess, nullptr);
    EXPECT_THAT(errors(), ElementsAre(LogLine{LOG_ERR, expected}));
}

// ================================================================ daemon start

TEST_F(Agent, DaemonModeRefusesWhenAPidFileExists) {
    writeFile(pidFile, "4242\n");
    StderrCapture capture;
    QelServerInfo agent(QelServerInfo::Daemon);
    const std::string text = capture.text();

    EXPECT_EQ(text, "It seems as if QELD daemon is already running.\nDelete file: '" + path(pidFile) +
                        "' if it does not\n");
    int status = 0;
    errno = 0;
    EXPECT_EQ(waitpid(-1, &status, WNOHANG), -1) << "no child was forked";
    EXPECT_EQ(errno, ECHILD);
    const auto opened = host.openlogs();
    ASSERT_EQ(opened.size(), 1u) << "only the agent's own identity";
    EXPECT_EQ(opened[0].ident, "QELD");
    EXPECT_FALSE(logged(LOG_INFO, "starting"));
    EXPECT_EQ(host.closelogs(), 0);
    EXPECT_EQ(host.waits(), 0);
    EXPECT_TRUE(exists(pidFile)) << "the file is left alone";
    EXPECT_EQ(QelServerInfo::this_QelServerInfo, nullptr);
}

TEST_F(Agent, DaemonRefusesToStartUnderInit) {
    if (geteuid() != 0) GTEST_SKIP() << "needs a PID namespace (root)";
    auto agent = loopAgent();
    std::filesystem::remove(path(pidFile));
    // In a new PID namespace the first process is pid 1; its child is then a
    // process whose parent is init.
    EXPECT_EXIT(
        {
            if (unshare(CLONE_NEWPID) != 0) _exit(90);
            const pid_t init = fork();
            if (init == 0) {
                const pid_t caller = fork();
                if (caller == 0) {
                    if (getppid() != 1) _exit(91);
                    // Were it not refused, the start would wait for a child
                    // that never reports; the real alarm ends that wait.
                    alarm(5);
                    agent->start_main_action_daemon();
                    _exit(92);
                }
                int status = 0;
                waitpid(caller, &status, 0);
                _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 93);
            }
            int status = 0;
            waitpid(init, &status, 0);
            _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 94);
        },
        ::testing::ExitedWithCode(1), "");
    EXPECT_FALSE(exists(pidFile)) << "no daemon was started";
}

TEST_F(Agent, ChildHandlerReportOfTheChildDeletesTheAgentAndExitsZero) {
    writeFile(pidFile, "4242\n");
    TracingAgent* agent = nullptr;
    {
        StderrCapture quiet;
        agent = new TracingAgent(QelServerInfo::Daemon);
    }
    QelServerInfo::this_QelServerInfo = agent;
    EXPECT_EXIT(QelServerInfo::child_handler(SIGUSR1), ::testing::ExitedWithCode(0), "agent destroyed");
    EXPECT_EXIT(QelServerInfo::child_handler(SIGCHLD), ::testing::ExitedWithCode(1), "agent destroyed");
    EXPECT_EXIT(QelServerInfo::child_handler(SIGALRM), ::testing::ExitedWithCode(1), "agent destroyed");
    QelServerInfo::this_QelServerInfo = nullptr;
    EXPECT_EXIT(QelServerInfo::child_handler(SIGUSR1), ::testing::ExitedWithCode(0), "");
    {
        StderrCapture capture;
        delete agent;
        EXPECT_EQ(capture.text(), "agent destroyed\n");
    }
}

TEST_F(Agent, ChildHandlerIgnoresOtherSignals) {
    auto agent = loopAgent();
    QelServerInfo::this_QelServerInfo = agent.get();
    QelServerInfo::child_handler(SIGHUP);
    QelServerInfo::child_handler(SIGTERM);
    EXPECT_EQ(QelServerInfo::this_QelServerInfo, agent.get()) << "returned without deleting";
}

TEST_F(Agent, TerminationSignalReportsShutdownStopsTheLoopAndRemovesThePidFile) {
    writeAldercroftHost();
    typicalBoard();
    auto agent = loopAgent();
    ASSERT_TRUE(agent->bladeInfo->acSystem);
    ASSERT_TRUE(agent->bladeInfo->bladeSystem);
    QelServerInfo::this_QelServerInfo = agent.get();
    agent->running = true;

    QelServerInfo::signal_handler(SIGTERM);
    EXPECT_FALSE(agent->running);
    EXPECT_FALSE(exists(pidFile));
    EXPECT_THAT(host.logs(), ElementsAre(LogLine{LOG_INFO, "Termination signal received"}));
    EXPECT_THAT(sim->board().osStatuses(), ElementsAre(6));
    ASSERT_TRUE(sim->board().osText().has_value());
    EXPECT_EQ(sim->board().osText()->text, "");
    EXPECT_EQ(sim->board().platformText()->text, "");

    // The file is gone now: the next signal says so.
    agent->running = true;
    QelServerInfo::signal_handler(SIGINT);
    EXPECT_FALSE(agent->running);
    EXPECT_THAT(host.logs(),
                ElementsAre(LogLine{LOG_INFO, "Termination signal received"},
                            LogLine{LOG_INFO, "Termination signal received"},
                            LogLine{LOG_ERR, "unable to remove file " + path(pidFile) +
                                                 ", code 2 (No such file or directory)"}));
    QelServerInfo::signal_handler(SIGHUP);
    EXPECT_EQ(host.logs().size(), 5u);
}

TEST_F(Agent, TerminationSignalOutsideDaemonModeKeepsThePidFile) {
    writeFile(pidFile, "4242\n");
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    QelServerInfo::this_QelServerInfo = &agent;
    agent.running = true;
    QelServerInfo::signal_handler(SIGTERM);
    EXPECT_FALSE(agent.running);
    EXPECT_TRUE(exists(pidFile));
}

TEST_F(Agent, TerminationSignalWithoutAgentOnlyLogs) {
    writeFile(pidFile, "4242\n");
    QelServerInfo::signal_handler(SIGTERM);
    EXPECT_THAT(host.logs(), ElementsAre(LogLine{LOG_INFO, "Termination signal received"}));
    EXPECT_TRUE(exists(pidFile));
    EXPECT_THAT(sim->requests(), IsEmpty());
}

TEST_F(Agent, AlarmSignalLogsAndResetsTheWatchdog) {
    presetWatchdog(0, 3000, 0, true);
    QelServerInfo::signal_handler(SIGALRM);
    EXPECT_THAT(host.logs(), ElementsAre(LogLine{LOG_INFO, "Alarm signal received"}));
    EXPECT_THAT(watchdogCommandCodes(), ElementsAre(cmd::getWatchdogTimer, cmd::resetWatchdogTimer));
    EXPECT_THAT(host.alarms(), ElementsAre(150u)) << "the safety net is armed again";
}

TEST_F(Agent, SignalHandlerIgnoresOtherSignals) {
    QelServerInfo::signal_handler(SIGUSR2);
    QelServerInfo::signal_handler(SIGCHLD);
    EXPECT_THAT(host.logs(), IsEmpty());
    EXPECT_THAT(sim->requests(), IsEmpty());
}

// ================================================================ version string

TEST_F(Agent, VibVersionOfAMissingFileIsEmpty) {
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.getVibVersionString("qel-provider"), "");
}

TEST_F(Agent, VibVersionWithAKeyNoLineHoldsIsEmpty) {
    writeFile("/opt/zum/cimprovider-versionstring", "alpha 1.0\nbeta 2.0\n");
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.getVibVersionString("gamma"), "");
    EXPECT_EQ(agent.getVibVersionString(nullptr), "");
}

TEST_F(Agent, VibVersionIsTheFirstLineHoldingTheKey) {
    writeFile("/opt/zum/cimprovider-versionstring",
              "alpha 1.0\nqel-provider 7.10.2-01\nqel-provider 9.9\n");
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(3));
    EXPECT_EQ(agent.getVibVersionString("provider"), "qel-provider 7.10.2-01");
    EXPECT_EQ(agent.getVibVersionString("alpha"), "alpha 1.0");
}

// ================================================================ watchdog

TEST_F(Agent, WatchdogUnder240SecondsIsRaisedTo240AndAppliedAs2400) {
    sim->confSpace().setWord(QelConfSpaceData::SoftWatchdogTime, 100);
    auto agent = loopAgent();
    EXPECT_EQ(run(*agent, 1), 0);

    EXPECT_EQ(*sim->confSpace().variable(QelConfSpaceData::SoftWatchdogTime), (Bytes{240, 0}));
    const auto sets = sim->requests(netfn::app, cmd::setWatchdogTimer);
    ASSERT_GE(sets.size(), 1u);
    EXPECT_EQ(sets[0].data[0] & 0x07, 4);
    EXPECT_EQ(sets[0].data[1] & 0x07, 0) << "time-out action: none";
    EXPECT_EQ(sets[0].data[4] | sets[0].data[5] << 8, 2400);
    EXPECT_EQ(agent->wdTime, 2400);
    EXPECT_TRUE(agent->wdEnabled);
    EXPECT_EQ(sim->watchdog().state().initialCountdown, 2400);
}

TEST_F(Agent, WatchdogBehaviourIsWrittenBackAsContinue) {
    sim->confSpace().setByte(QelConfSpaceData::SoftWatchdogBehaviour, 2);
    auto agent = loopAgent();
    run(*agent, 1);
    EXPECT_EQ(*sim->confSpace().variable(QelConfSpaceData::SoftWatchdogBehaviour), (Bytes{0}));
}

TEST_F(Agent, WatchdogBehaviourOfADisabledWatchdogIsLeftAlone) {
    sim->confSpace().setByte(QelConfSpaceData::SoftWatchdogEnabled, 0);
    sim->confSpace().setByte(QelConfSpaceData::SoftWatchdogBehaviour, 2);
    auto agent = loopAgent();
    run(*agent, 1);
    EXPECT_EQ(*sim->confSpace().variable(QelConfSpaceData::SoftWatchdogBehaviour), (Bytes{2}));
}

TEST_F(Agent, WatchdogLongerThanTheControllerHoldsIsAppliedAsTheLongestCountdown) {
    sim->confSpace().setWord(QelConfSpaceData::SoftWatchdogTime, 7000);
    auto agent = loopAgent();
    run(*agent, 3);
    const auto sets = sim->requests(netfn::app, cmd::setWatchdogTimer);
    ASSERT_EQ(sets.size(), 2u) << "applied once, stopped at the end";
    EXPECT_EQ(sets[0].data[4] | sets[0].data[5] << 8, 0xFFFF);
    EXPECT_EQ(agent->wdTime, 0xFFFF);
}

TEST_F(Agent, UnchangedWatchdogSettingsAreAppliedOnceAndResetEveryPeriod) {
    // 300 s configured: a reset every 100 s, that is every fifth 20-second pass.
    auto agent = loopAgent();
    run(*agent, 11);
    EXPECT_EQ(count(netfn::app, cmd::setWatchdogTimer), 2u) << "applied once, stopped at the end";
    EXPECT_EQ(count(netfn::app, cmd::resetWatchdogTimer), 3u) << "passes 1, 6 and 11";
    EXPECT_THAT(host.sleeps(), ::testing::Each(20u));
    EXPECT_EQ(host.sleeps().size(), 11u);
    EXPECT_THAT(host.alarms(), ElementsAre(150u, 150u, 150u, 0u));
}

TEST_F(Agent, WatchdogAlreadyRightIsNotWrittenButResetAtOnce) {
    presetWatchdog(0, 3000, 0, true);
    auto agent = loopAgent();
    run(*agent, 1);
    EXPECT_THAT(watchdogCommandCodes(),
                ElementsAre(cmd::getWatchdogTimer,    // updateWatchdog reads it: already right
                            cmd::getWatchdogTimer, cmd::resetWatchdogTimer,  // reset_watchdog
                            cmd::getWatchdogTimer, cmd::setWatchdogTimer));  // stop at the end
    EXPECT_TRUE(agent->wdEnabled);
    EXPECT_EQ(agent->wdTime, 3000);
}

TEST_F(Agent, ForcedWatchdogSettingsAreAppliedAgain) {
    auto agent = loopAgent();
    EXPECT_TRUE(agent->updateWatchdog());
    EXPECT_FALSE(agent->updateWatchdog()) << "nothing changed";
    agent->wdForce = 1;
    sim->clearRequests();
    EXPECT_TRUE(agent->updateWatchdog());
    EXPECT_EQ(agent->wdForce, 0);
    // Nobody reset the timer in between, so it stands still while enabled:
    // the settings go out again.
    const auto sets = sim->requests(netfn::app, cmd::setWatchdogTimer);
    ASSERT_EQ(sets.size(), 1u);
    EXPECT_EQ(sets[0].data[4] | sets[0].data[5] << 8, 3000);
}

TEST_F(Agent, UpdateWatchdogWithoutConfigurationSpaceChangesNothing) {
    sim->confSpace().failVariable(QelConfSpaceData::CabinetLocation, 0xC1);
    auto agent = loopAgent();
    ASSERT_EQ(agent->confSpace, nullptr);
    EXPECT_FALSE(agent->updateWatchdog());
    EXPECT_THAT(sim->requests(), IsEmpty());
}

TEST_F(Agent, DisabledWatchdogIsStoppedAndNeverReset) {
    sim->confSpace().setByte(QelConfSpaceData::SoftWatchdogEnabled, 0);
    presetWatchdog(0, 3000, 0, true);
    auto agent = loopAgent();
    run(*agent, 3);
    EXPECT_EQ(count(netfn::app, cmd::resetWatchdogTimer), 0u);
    EXPECT_FALSE(agent->wdEnabled);
    EXPECT_THAT(host.sleeps(), ElementsAre(20u, 20u, 20u));
    EXPECT_FALSE(sim->watchdog().state().running);
}

TEST_F(Agent, ResetAnswerOfZeroSecondsGivesATwentySecondPeriodAndAResetEveryPass) {
    // 240 s configured and a 240 s pre-timeout interval: nothing usable is left.
    sim->confSpace().setWord(QelConfSpaceData::SoftWatchdogTime, 240);
    presetWatchdog(240, 2400);
    auto agent = loopAgent();
    run(*agent, 5);
    EXPECT_THAT(host.sleeps(), ElementsAre(20u, 20u, 20u, 20u, 20u));
    EXPECT_EQ(count(netfn::app, cmd::resetWatchdogTimer), 5u);
}

TEST_F(Agent, ResetIntervalOfSevenSecondsGivesASevenSecondPeriod) {
    // 240 s less a 220 s pre-timeout interval: 20 s, reset every 7 s.
    sim->confSpace().setWord(QelConfSpaceData::SoftWatchdogTime, 240);
    presetWatchdog(220, 2400);
    auto agent = loopAgent();
    std::vector<int> infoPasses;
    host.onScan = [this, &infoPasses](int) { infoPasses.push_back(host.waits() + 1); };
    run(*agent, 35);
    EXPECT_EQ(host.sleeps().size(), 35u);
    EXPECT_THAT(host.sleeps(), ::testing::Each(7u));
    EXPECT_EQ(count(netfn::app, cmd::resetWatchdogTimer), 35u) << "a reset every pass";
    EXPECT_THAT(infoPasses, ElementsAre(1, 18, 35)) << "info every 120 / 7 = 17 passes";
    const auto alarms = host.alarms();
    ASSERT_EQ(alarms.size(), 36u);
    EXPECT_EQ(alarms.front(), 10u) << "half of the 20 usable seconds";
    EXPECT_EQ(alarms.back(), 0u) << "cancelled at the end";
}

// ---- reset_watchdog and stop_watchdog

TEST_F(Agent, ResetWatchdogSubtractsThePreTimeoutIntervalWithoutAnInterrupt) {
    presetWatchdog(10, 3000);
    EXPECT_EQ(QelServerInfo::reset_watchdog(qelIpmi::QelIpmiWatchdog::TIMER_USE_SMS_OS, true), 97u);
    EXPECT_THAT(host.alarms(), ElementsAre(145u));
    EXPECT_TRUE(sim->watchdog().state().running);
}

TEST_F(Agent, ResetWatchdogKeepsTheIntervalWhenAPreTimeoutInterruptIsSet) {
    presetWatchdog(10, 3000, 2);
    EXPECT_EQ(QelServerInfo::reset_watchdog(qelIpmi::QelIpmiWatchdog::TIMER_USE_SMS_OS, false), 100u);
    EXPECT_THAT(host.alarms(), ElementsAre(150u));
}

TEST_F(Agent, ResetWatchdogIntervalLongerThanTheCountdownLeavesNoUsableTime) {
    presetWatchdog(250, 2400);  // a controller that accepted an impossible interval
    EXPECT_EQ(QelServerInfo::reset_watchdog(qelIpmi::QelIpmiWatchdog::TIMER_USE_SMS_OS, true), 0u);
    EXPECT_THAT(host.alarms(), ElementsAre(0u));
}

TEST_F(Agent, FailedResetStopsTheTimer) {
    // A timer that was never set answers the reset with 0x80.
    EXPECT_EQ(QelServerInfo::reset_watchdog(qelIpmi::QelIpmiWatchdog::TIMER_USE_SMS_OS, true), 0u);
    EXPECT_THAT(watchdogCommandCodes(),
                ElementsAre(cmd::getWatchdogTimer, cmd::resetWatchdogTimer, cmd::setWatchdogTimer));
    EXPECT_EQ(sim->requests(netfn::app, cmd::setWatchdogTimer)[0].data[0] & dontStopBit, 0);
}

TEST_F(Agent, StopWatchdogCancelsTheAlarmAndStopsTheTimer) {
    presetWatchdog(0, 3000, 0, true);
    EXPECT_TRUE(QelServerInfo::stop_watchdog(qelIpmi::QelIpmiWatchdog::TIMER_USE_SMS_OS));
    EXPECT_THAT(host.alarms(), ElementsAre(0u));
    EXPECT_THAT(watchdogCommandCodes(), ElementsAre(cmd::getWatchdogTimer, cmd::setWatchdogTimer));
    EXPECT_FALSE(sim->watchdog().state().running);

    sim->setAllPathsMissing(true);
    EXPECT_FALSE(QelServerInfo::stop_watchdog(qelIpmi::QelIpmiWatchdog::TIMER_USE_SMS_OS));
}

// ================================================================ the loop

TEST_F(Agent, OnceModeSendsNoWatchdogCommandAndDoesNotWait) {
    host.setInterfaces({{"eth0", 2, "10.0.0.2", mac(1)}, {"eth1", 3, "10.0.0.3", mac(2)}});
    presetWatchdog(0, 3000, 0, true);
    QelServerInfo agent(QelServerInfo::Once);
    EXPECT_THAT(watchdogCommands(), IsEmpty());
    EXPECT_THAT(host.sleeps(), IsEmpty());
    EXPECT_THAT(host.condWaits(), IsEmpty());
    EXPECT_THAT(host.alarms(), IsEmpty());
    EXPECT_EQ(host.scans(), 1) << "one pass, with information";
    EXPECT_EQ(sim->confSpace().agentState(), 1) << "no disconnection outside Daemon and Thread";
    EXPECT_FALSE(agent.running);
    EXPECT_NE(agent.lastInventory, nullptr);
}

TEST_F(Agent, EveryPassReportsTheOsRunningAndTheDaemonEndsWithShutdown) {
    host.setKernel("VMkernel", "8.0.2", "#1");
    writeFile("/opt/zum/vmware-product-string", "VMware ESXi 8.0.2 build-22380479\n");
    writeAldercroftHost();
    typicalBoard();
    auto agent = loopAgent();
    ASSERT_TRUE(agent->bladeInfo->acSystem);
    std::string osText;
    std::string platformText;
    host.onSleep = [&](int call, unsigned int) {
        if (call == 1) {
            osText = sim->board().osText().value_or(SimBoard::ReceivedText{}).text;
            platformText = sim->board().platformText().value_or(SimBoard::ReceivedText{}).text;
        }
        if (call >= 2) agent->running = false;
        return 0u;
    };
    agent->running = true;
    int exitCode = 99;
    agent->main_action(exitCode);

    EXPECT_EQ(exitCode, 0);
    // Pass 1: status, then platform info and status again in setInfo; pass 2:
    // status; the end: shut down.
    EXPECT_THAT(sim->board().osStatuses(), ElementsAre(5, 5, 5, 6));
    EXPECT_EQ(osText, "VMware ESXi 8.0.2 build-22380479");
    EXPECT_EQ(platformText, "8.0.2");
    EXPECT_EQ(sim->board().osText()->text, "");
    EXPECT_EQ(sim->board().platformText()->text, "");
    EXPECT_EQ(sim->confSpace().agentState(), 2) << "agent disconnected";
    EXPECT_FALSE(sim->watchdog().state().running);
}

TEST_F(Agent, ScanFailureEndsTheLoopWithMinusOneAndStillShutsDown) {
    // Two interfaces with one index: the inventory refuses the scan.
    host.setInterfaces({{"eth0", 2, "10.0.0.2", mac(1)}, {"eth1", 2, "10.0.0.3", mac(2)}});
    auto agent = loopAgent();
    EXPECT_EQ(run(*agent, 5), -1);
    EXPECT_THAT(errors(), ElementsAre(LogLine{LOG_ERR, "if entry for eth1 is already existing."}));
    EXPECT_THAT(host.sleeps(), IsEmpty()) << "ended in the first pass";
    const auto wd = watchdogCommands();
    ASSERT_GE(wd.size(), 2u);
    EXPECT_EQ(wd.back().cmd, cmd::setWatchdogTimer);
    EXPECT_EQ(wd.back().data[0] & dontStopBit, 0) << "the watchdog is stopped";
    EXPECT_EQ(host.alarms().back(), 0u);
    EXPECT_EQ(sim->confSpace().agentState(), 2);
}

TEST_F(Agent, LibraryErrorIsLoggedWithItsErrorTextNotItsEmptyWhat) {
    auto agent = loopAgent();
    host.onSleep = [](int, unsigned int) -> unsigned int {
        throw qelIpmi::QelIpmiError("device went away", "qelIpmi", 7);
    };
    agent->running = true;
    int exitCode = 99;
    agent->main_action(exitCode);
    EXPECT_EQ(exitCode, -1);
    EXPECT_THAT(errors(), ElementsAre(LogLine{LOG_ERR, "Error: device went away(qelIpmi,7)\n"}));
    EXPECT_EQ(sim->confSpace().agentState(), 2);
}

TEST_F(Agent, EveryLibraryErrorClassIsLoggedWithItsErrorText) {
    auto agent = loopAgent();
    auto throwing = [&](auto error) {
        host.onSleep = [error](int, unsigned int) -> unsigned int { throw error; };
        agent->running = true;
        int exitCode = 99;
        agent->main_action(exitCode);
        EXPECT_EQ(exitCode, -1);
        return error.errorText;
    };
    const std::vector<std::string> expected = {
        throwing(PniAccessError("Format error ", "PniAccess", 12)),
        throwing(qelIp::QelIpError("SIOCGIFCONF failed: ", "qelIp", 3, 4)),
        throwing(QelConfSpaceDataError("Cannot read ConfigSpaceVariable: ", "qelConfSpaceData", 923)),
        throwing(QelCondQueueError("pthread_mutex_lock error: Invalid argument", "qelCondQueue", 5)),
        throwing(qelIpmi::QelIpmiWatchdogError("GetWatchdogTimer Command failed.", "w", 1)),
    };
    std::vector<std::string> texts;
    for (const LogLine& line : errors()) texts.push_back(line.text);
    EXPECT_EQ(texts, expected);
    EXPECT_EQ(expected[0], "Error: Format error (PniAccess, 12)\n");
    EXPECT_EQ(expected[1], "4IOCGIFCONF failed: ") << "the number written over the message";
}

TEST_F(Agent, OtherLogicErrorIsLoggedWithWhat) {
    auto agent = loopAgent();
    host.onSleep = [](int, unsigned int) -> unsigned int { throw std::logic_error("no data available"); };
    agent->running = true;
    int exitCode = 99;
    agent->main_action(exitCode);
    EXPECT_EQ(exitCode, -1);
    EXPECT_THAT(errors(), ElementsAre(LogLine{LOG_ERR, "no data available"}));
}

TEST_F(Agent, AnyOtherExceptionEndsTheLoopSilently) {
    auto agent = loopAgent();
    host.onSleep = [](int, unsigned int) -> unsigned int { throw 42; };
    agent->running = true;
    int exitCode = 99;
    agent->main_action(exitCode);
    EXPECT_EQ(exitCode, -1);
    EXPECT_THAT(errors(), IsEmpty());
    EXPECT_EQ(sim->confSpace().agentState(), 2);
    EXPECT_FALSE(sim->watchdog().state().running);
}

// ================================================================ publication

TEST_F(Agent, FiveQualifyingInterfacesFillTheFourSlotsInIndexOrder) {
    host.setInterfaces({
        {"eth7", 7, "10.0.0.7", mac(7)},
        {"lo", 1, "127.0.0.1", {}, IFF_UP | IFF_LOOPBACK},
        {"eth3", 3, "10.0.0.3", mac(3)},
        {"eth9", 9, "10.0.0.9", mac(9)},
        {"eth5", 5, "10.0.0.5", mac(5)},
        {"eth2", 2, "10.0.0.2", mac(2)},
    });
    QelServerInfo agent(QelServerInfo::Once);
    const Bytes zero(4, 0);
    EXPECT_THAT(confWrites(),
                ElementsAre(std::make_pair(0x20Au, zero), std::make_pair(0x20Bu, zero),
                            std::make_pair(0x20Cu, zero), std::make_pair(0x20Du, zero),
                            std::make_pair(0x20Au, v4("10.0.0.2")), std::make_pair(0x20Bu, v4("10.0.0.3")),
                            std::make_pair(0x20Cu, v4("10.0.0.5")), std::make_pair(0x20Du, v4("10.0.0.7"))));
}

TEST_F(Agent, InterfaceWithoutIpv4IsSkippedAsAWhole) {
    typicalBoard();
    host.setInterfaces({
        {"eth1", 2, "0.0.0.0", mac(1), IFF_UP, {"2001:db8::1"}},
        {"eth2", 3, "10.0.0.3", mac(2)},
    });
    QelServerInfo agent(QelServerInfo::Once);
    EXPECT_EQ(confWritesOf(0x20A).back(), v4("10.0.0.3"));
    EXPECT_FALSE(sim->board().portReport(3, 1).has_value()) << "not even its IPv6 address";
    ASSERT_TRUE(sim->board().portReport(3, 2).has_value());
}

TEST_F(Agent, UnchangedNetworkIsPublishedOnlyOnce) {
    host.setInterfaces({{"eth0", 2, "10.0.0.2", mac(1)}, {"eth1", 3, "10.0.0.3", mac(2)}});
    auto agent = loopAgent();
    run(*agent, 13);  // info passes 1, 7 and 13
    EXPECT_EQ(host.scans(), 3);
    EXPECT_THAT(confWritesOf(0x20A), ElementsAre(v4("10.0.0.2")));
    EXPECT_THAT(confWritesOf(0x20B), ElementsAre(v4("10.0.0.3")));
    EXPECT_NE(agent->lastInventory, nullptr);
}

TEST_F(Agent, ChangedNetworkIsPublishedAgain) {
    host.setInterfaces({{"eth0", 2, "10.0.0.2", mac(1)}, {"eth1", 3, "10.0.0.3", mac(2)}});
    auto agent = loopAgent();
    host.onSleep = [&](int call, unsigned int) {
        if (call == 3)
            host.setInterfaces({{"eth0", 2, "10.0.0.20", mac(1)}, {"eth1", 3, "10.0.0.3", mac(2)}});
        if (call >= 13) agent->running = false;
        return 0u;
    };
    agent->running = true;
    int exitCode = 99;
    agent->main_action(exitCode);
    EXPECT_THAT(confWritesOf(0x20A), ElementsAre(v4("10.0.0.2"), v4("10.0.0.20")));
}

TEST_F(Agent, FailingFirstAddressWritePublishesAgainOnEveryInfoPass) {
    host.setInterfaces({{"eth0", 2, "10.0.0.2", mac(1)}, {"eth1", 3, "10.0.0.3", mac(2)}});
    auto agent = loopAgent();
    sim->confSpace().failVariable(QelConfSpaceData::IpAddr_1, 0xC0);
    run(*agent, 13);
    EXPECT_EQ(host.scans(), 3);
    EXPECT_EQ(confWritesOf(0x20A).size(), 3u) << "tried on every info pass";
    EXPECT_THAT(confWritesOf(0x20B), IsEmpty()) << "no slot after a failed write";
    EXPECT_EQ(agent->lastInventory, nullptr);
}

TEST_F(Agent, WithoutConfigurationSpaceEveryInfoPassPublishesAgain) {
    typicalBoard();
    sim->confSpace().failVariable(QelConfSpaceData::CabinetLocation, 0xC1);
    host.setInterfaces({{"eth0", 2, "10.0.0.2", mac(1)}, {"eth1", 3, "10.0.0.3", mac(2)}});
    auto agent = loopAgent();
    run(*agent, 7);  // info passes 1 and 7
    EXPECT_EQ(agent->lastInventory, nullptr);
    EXPECT_EQ(count(netfn::oemBoard, qelIpmi::cmd::setPortAddress) +
                  count(netfn::oemBoard, qelIpmi::cmd::setPortIpv4),
              4u)
        << "both interfaces, twice";
}

TEST_F(Agent, WithoutPniTheBoardGetsIpv4ThenEachIpv6) {
    typicalBoard();
    host.setInterfaces({
        {"eth0", 2, "10.1.0.5", mac(1), IFF_UP, {"fe80::5", "2001:db8::5"}},
        {"eth1", 3, "10.1.0.6", mac(2)},
    });
    QelServerInfo agent(QelServerInfo::Once);
    ASSERT_EQ(agent.pniAccess, nullptr);
    const auto port1 = sim->board().portReport(3, 1);
    ASSERT_TRUE(port1.has_value());
    ASSERT_TRUE(port1->ipv4.has_value());
    EXPECT_EQ(Bytes(port1->ipv4->begin(), port1->ipv4->end()), v4("10.1.0.5"));
    ASSERT_EQ(port1->ipv6.size(), 2u);
    EXPECT_EQ(port1->ipv6[0].address, v6("fe80::5"));
    EXPECT_EQ(port1->ipv6[1].address, v6("2001:db8::5"));
    const auto port2 = sim->board().portReport(3, 2);
    ASSERT_TRUE(port2.has_value());
    EXPECT_EQ(Bytes(port2->ipv4->begin(), port2->ipv4->end()), v4("10.1.0.6"));
}

class AgentWithPni : public Agent {
protected:
    void SetUp() override {
        Agent::SetUp();
        sim->fru().setImage(qelSim::PniImageBuilder::typical().build().bytes);
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
};

TEST_F(AgentWithPni, AddressesGoToThePniRecordAndNotToTheBoard) {
    typicalBoard();
    host.setInterfaces({{"eth0", 2, "192.0.2.50", mac(1), IFF_UP, {"2001:db8::50"}}});
    QelServerInfo agent(QelServerInfo::Once);
    ASSERT_NE(agent.pniAccess, nullptr);
    EXPECT_THAT(sim->board().portReports(), IsEmpty());

    const Bytes area = nicArea(0, 0, 0, 45 + 4 + 16);
    EXPECT_EQ(area[44], 0x11) << "one IPv6 and one IPv4 address";
    EXPECT_EQ(Bytes(area.begin() + 45, area.begin() + 49), v4("192.0.2.50"));
    const auto ipv6 = v6("2001:db8::50");
    EXPECT_EQ(Bytes(area.begin() + 49, area.end()), Bytes(ipv6.begin(), ipv6.end()));
    EXPECT_EQ(qelSim::validatePniImage(sim->fru().image()), "");
}

TEST_F(AgentWithPni, EveryInterfaceClearsThePniAddressesBeforeItsOwn) {
    host.setInterfaces({{"eth0", 2, "192.0.2.50", mac(1)}, {"eth1", 3, "192.0.2.60", mac(2)}});
    QelServerInfo agent(QelServerInfo::Once);
    ASSERT_NE(agent.pniAccess, nullptr);
    // The second interface's clear took the first one's address away again.
    EXPECT_EQ(nicArea(0, 0, 0, 45)[44], 0x00);
    const Bytes second = nicArea(0, 1, 0, 49);
    EXPECT_EQ(second[44], 0x01);
    EXPECT_EQ(Bytes(second.begin() + 45, second.end()), v4("192.0.2.60"));
}

TEST_F(Agent, UnallocatableInventoryIsLoggedAndThePassGoesOn) {
    host.setInterfaces({{"eth0", 2, "10.0.0.2", mac(1)}, {"eth1", 3, "10.0.0.3", mac(2)}});
    auto agent = loopAgent();
    int exitCode = 99;
    {
        FailNothrowAllocation fail(sizeof(qelIp::QelIp));
        exitCode = run(*agent, 2);
    }
    EXPECT_EQ(exitCode, 0);
    EXPECT_THAT(errors(),
                ElementsAre(LogLine{LOG_ERR, "QelServerInfo::setInfo()  new(nothrow)QelIp failed."}));
    EXPECT_EQ(host.sleeps().size(), 2u);
    EXPECT_EQ(confWritesOf(0x20A).size(), 0u);
}

TEST_F(Agent, FreeDataReleasesTheOwnedObjectsButNotTheConfigurationSpace) {
    host.setInterfaces({{"eth0", 2, "10.0.0.2", mac(1)}, {"eth1", 3, "10.0.0.3", mac(2)}});
    sim->fru().setImage(qelSim::PniImageBuilder::typical().build().bytes);
    QelServerInfo agent(QelServerInfo::Once);
    ASSERT_NE(agent.lastInventory, nullptr);
    ASSERT_NE(agent.pniAccess, nullptr);
    QelConfSpaceData* space = agent.confSpace;
    agent.free_data();
    EXPECT_EQ(agent.lastInventory, nullptr);
    EXPECT_EQ(agent.pniAccess, nullptr);
    EXPECT_EQ(agent.bladeInfo, nullptr);
    EXPECT_EQ(agent.confSpace, space);
    EXPECT_TRUE(space->configSpaceAvailable) << "still alive";
    agent.setShutdownInfo();  // without a blade object: nothing
}

// ================================================================ thread mode

TEST_F(Agent, ThreadModeLoopsUntilStoppedAndShutsDown) {
    host.setTime(1700000000);
    Latch entered;
    host.onCondWait = [&entered](int call, pthread_cond_t* cond, pthread_mutex_t* mutex,
                                 const struct timespec*) {
        if (call == 1) entered.open();
        if (call < 3) return ETIMEDOUT;
        return realWait(cond, mutex, 30);
    };
    QelServerInfo agent(QelServerInfo::Thread);
    EXPECT_THAT(host.openlogs(), IsEmpty()) << "the host program owns syslog";
    // From here the worker holds the mutex until its third, real wait.
    entered.wait();
    agent.stop_main_action_thread();

    EXPECT_TRUE(pthread_equal(agent.loopThread, pthread_self()));
    EXPECT_FALSE(agent.running);
    const auto waits = host.condWaits();
    ASSERT_EQ(waits.size(), 3u);
    for (const auto& deadline : waits) {
        EXPECT_EQ(deadline.tv_sec, 1700000000 + 20);
        EXPECT_EQ(deadline.tv_nsec, 0);
    }
    EXPECT_THAT(host.sleeps(), IsEmpty());
    EXPECT_EQ(count(netfn::app, cmd::resetWatchdogTimer), 1u) << "300 s: every fifth pass";
    const auto wd = watchdogCommands();
    EXPECT_EQ(wd.back().cmd, cmd::setWatchdogTimer);
    EXPECT_EQ(wd.back().data[0] & dontStopBit, 0);
    EXPECT_EQ(sim->confSpace().agentState(), 2);
    EXPECT_FALSE(sim->board().osText().has_value()) << "no shutdown report outside Daemon";

    agent.stop_main_action_thread();  // a second stop finds no worker
}

TEST_F(Agent, StopFromTheWorkerItselfDoesNothing) {
    std::atomic<QelServerInfo*> published{nullptr};
    Latch entered;
    Latch ready;
    std::atomic<bool> stillTheWorker{false};
    host.onCondWait = [&](int call, pthread_cond_t* cond, pthread_mutex_t* mutex,
                          const struct timespec*) {
        if (call == 1) {
            entered.open();
            ready.wait();
            QelServerInfo* agent = published.load();
            agent->stop_main_action_thread();  // from the worker: must return at once
            stillTheWorker = pthread_equal(agent->loopThread, pthread_self()) != 0;
            return ETIMEDOUT;
        }
        return realWait(cond, mutex, 30);
    };
    QelServerInfo agent(QelServerInfo::Thread);
    entered.wait();
    published = &agent;
    ready.open();
    agent.stop_main_action_thread();
    EXPECT_TRUE(stillTheWorker);
    EXPECT_EQ(host.condWaits().size(), 2u) << "the loop went on after the worker's own stop";
}

TEST_F(Agent, SecondLoopOnTheSameObjectDoesNotStart) {
    Latch entered;
    Latch release;
    host.onCondWait = [&](int call, pthread_cond_t* cond, pthread_mutex_t* mutex,
                          const struct timespec*) {
        if (call == 1) {
            entered.open();
            release.wait();  // the worker holds the mutex here
            return ETIMEDOUT;
        }
        return realWait(cond, mutex, 30);
    };
    QelServerInfo agent(QelServerInfo::Thread);
    entered.wait();
    int exitCode = 77;
    agent.main_action(exitCode);
    EXPECT_EQ(exitCode, 77) << "returned at once, untouched";
    release.open();
    agent.stop_main_action_thread();
    EXPECT_EQ(host.condWaits().size(), 2u);
}

TEST_F(Agent, DestructorStopsAndJoinsTheWorker) {
    Latch entered;
    host.onCondWait = [&](int call, pthread_cond_t* cond, pthread_mutex_t* mutex,
                          const struct timespec*) {
        if (call == 1) {
            entered.open();
            return ETIMEDOUT;
        }
        return realWait(cond, mutex, 30);
    };
    auto agent = std::make_unique<QelServerInfo>(QelServerInfo::Thread);
    entered.wait();
    agent.reset();
    // Everything the worker did is visible: it has been joined.
    EXPECT_EQ(host.condWaits().size(), 2u);
    EXPECT_EQ(sim->confSpace().agentState(), 2);
    EXPECT_FALSE(sim->watchdog().state().running);
}

TEST_F(Agent, ExceptionInTheWorkerEndsItAndReleasesTheMutex) {
    Latch entered;
    host.onCondWait = [&entered](int, pthread_cond_t*, pthread_mutex_t*, const struct timespec*) -> int {
        entered.open();
        throw std::runtime_error("wait failed");
    };
    QelServerInfo agent(QelServerInfo::Thread);
    entered.wait();
    // Takes the mutex only once the ended loop gave it back.
    agent.stop_main_action_thread();
    EXPECT_EQ(host.condWaits().size(), 1u);
    EXPECT_EQ(sim->confSpace().agentState(), 2);
    EXPECT_THAT(errors(), IsEmpty()) << "not a logic_error: no message";
    EXPECT_EQ(pthread_mutex_trylock(&agent.loopMutex), 0);
    pthread_mutex_unlock(&agent.loopMutex);
}

TEST_F(Agent, StopRightAfterConstructionIsNeverLost) {
    // Whether the stop comes before the worker took the mutex, while it runs
    // its pass or while it waits, the worker ends and is joined.
    std::atomic<int> lost{0};
    host.onCondWait = [&lost](int, pthread_cond_t* cond, pthread_mutex_t* mutex,
                              const struct timespec*) {
        const int result = realWait(cond, mutex, 5);
        if (result == ETIMEDOUT) {
            ++lost;
            return EINVAL;  // end the loop rather than hang the test
        }
        return result;
    };
    for (int i = 0; i < 30; ++i) {
        QelServerInfo agent(QelServerInfo::Thread);
        agent.stop_main_action_thread();
    }
    EXPECT_EQ(lost.load(), 0);
}

}  // namespace
