// The watchdog snapshot and its operations, against the simulated controller's
// watchdog model.
#include <linux/ipmi.h>

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "qelIpmiCommands.h"
#include "qelIpmiWatchdog.h"
#include "qelSimDevice.h"
#include "qelSimWatchdog.h"

using qelIpmi::QelIpmiWatchdog;
using qelSim::Bytes;
using qelSim::Fault;
using qelSim::WatchdogState;
using testing::ElementsAre;
using testing::ElementsAreArray;

namespace {

constexpr unsigned char app = qelIpmi::netfn::app;
constexpr unsigned char getCmd = qelIpmi::cmd::getWatchdogTimer;
constexpr unsigned char setCmd = qelIpmi::cmd::setWatchdogTimer;
constexpr unsigned char resetCmd = qelIpmi::cmd::resetWatchdogTimer;

constexpr auto SMS_OS = QelIpmiWatchdog::TIMER_USE_SMS_OS;

// The nine members as one comparable value.
struct Snapshot {
    bool dontLog;
    int timerUse;
    bool expired;
    bool running;
    int preTimeoutInterrupt;
    int timeoutAction;
    int preTimeoutInterval;
    int initialCountdown;
    int presentCountdown;
    bool operator==(const Snapshot& o) const {
        return dontLog == o.dontLog && timerUse == o.timerUse && expired == o.expired &&
               running == o.running && preTimeoutInterrupt == o.preTimeoutInterrupt &&
               timeoutAction == o.timeoutAction && preTimeoutInterval == o.preTimeoutInterval &&
               initialCountdown == o.initialCountdown && presentCountdown == o.presentCountdown;
    }
};

std::ostream& operator<<(std::ostream& out, const Snapshot& s) {
    return out << "{dontLog " << s.dontLog << ", use " << s.timerUse << ", expired " << s.expired
               << ", running " << s.running << ", interrupt " << s.preTimeoutInterrupt
               << ", action " << s.timeoutAction << ", interval " << s.preTimeoutInterval
               << ", initial " << s.initialCountdown << ", present " << s.presentCountdown << "}";
}

Snapshot snapshot(const QelIpmiWatchdog& w) {
    return {w.dontLog,          static_cast<int>(w.timerUse), w.expired,
            w.running,          w.preTimeoutInterrupt,        w.timeoutAction,
            w.preTimeoutInterval, w.initialCountdown,         w.presentCountdown};
}

QelIpmiWatchdog::TimerUse use(int n) { return static_cast<QelIpmiWatchdog::TimerUse>(n); }

class Watchdog : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;

    // The controller's timer, as the eight bytes behind the Get completion code.
    void controllerHas(const Bytes& eight) { sim->watchdog().preset(WatchdogState::fromBytes(eight)); }

    // Data bytes of the last Set Watchdog Timer the controller received.
    Bytes lastSet() {
        auto sets = sim->requests(app, setCmd);
        if (sets.empty()) {
            ADD_FAILURE() << "no Set Watchdog Timer was sent";
            return {};
        }
        return sets.back().data;
    }

    // A use-4 object that has read a timer with every field non-zero.
    // Timer use 4 running, don't log, NMI, power down, 20 s, use-4 flag,
    // initial 3000, present 1500.
    const Bytes ownTimer{0xC4, 0x22, 0x14, 0x10, 0xB8, 0x0B, 0xDC, 0x05};
    const Snapshot ownSnapshot{true, 4, true, true, 2, 2, 20, 3000, 1500};
};

}  // namespace

// ---------------------------------------------------------------- reading

TEST_F(Watchdog, ConstructorReadsAllMembersOfOwnTimerUse) {
    controllerHas(ownTimer);
    QelIpmiWatchdog w(SMS_OS);
    EXPECT_EQ(snapshot(w), ownSnapshot);
}

TEST_F(Watchdog, GetIsOneRequestWithoutDataOnSystemInterfaceLun0) {
    QelIpmiWatchdog w(SMS_OS);
    auto gets = sim->requests(app, getCmd);
    ASSERT_EQ(gets.size(), 1u);
    EXPECT_TRUE(gets[0].data.empty());
    EXPECT_EQ(gets[0].addrType, IPMI_SYSTEM_INTERFACE_ADDR_TYPE);
    EXPECT_EQ(gets[0].channel, IPMI_BMC_CHANNEL);
    EXPECT_EQ(gets[0].lun, 0);
    EXPECT_EQ(sim->requestCount(), 1u);
    EXPECT_EQ(sim->openDevices(), 0);
}

TEST_F(Watchdog, TimerSetUpForOsLoadGivesSmsOsObjectZeroTimesButControllerRunningBit) {
    // Use 3, running, NMI, hard reset, 10 s, use-3 flag, initial 600, present 300.
    controllerHas({0x43, 0x21, 0x0A, 0x08, 0x58, 0x02, 0x2C, 0x01});
    QelIpmiWatchdog w(SMS_OS);
    EXPECT_EQ(w.preTimeoutInterval, 0);
    EXPECT_EQ(w.initialCountdown, 0);
    EXPECT_EQ(w.presentCountdown, 0);
    EXPECT_TRUE(w.running);
    // The other fields are the controller's whoever owns the timer.
    EXPECT_EQ(w.preTimeoutInterrupt, 2);
    EXPECT_EQ(w.timeoutAction, 1);
    EXPECT_FALSE(w.dontLog);
    EXPECT_FALSE(w.expired);  // the flag that is set is use 3's
    EXPECT_EQ(w.timerUse, SMS_OS);

    QelIpmiWatchdog owner(QelIpmiWatchdog::TIMER_USE_OS_LOAD);
    EXPECT_EQ(snapshot(owner), (Snapshot{false, 3, true, true, 2, 1, 10, 600, 300}));
}

TEST_F(Watchdog, TimerStoppedByOtherUseReadsNotRunning) {
    controllerHas({0x03, 0x01, 0x00, 0x00, 0x58, 0x02, 0x58, 0x02});
    QelIpmiWatchdog w(SMS_OS);
    EXPECT_FALSE(w.running);
    EXPECT_EQ(w.initialCountdown, 0);
}

TEST_F(Watchdog, UpdateZeroesOwnTimesWhenAnotherUseTookTheTimerOver) {
    controllerHas(ownTimer);
    QelIpmiWatchdog w(SMS_OS);
    ASSERT_EQ(w.initialCountdown, 3000);
    controllerHas({0x43, 0x01, 0x0A, 0x00, 0x58, 0x02, 0x2C, 0x01});
    w.update();
    EXPECT_EQ(w.preTimeoutInterval, 0);
    EXPECT_EQ(w.initialCountdown, 0);
    EXPECT_EQ(w.presentCountdown, 0);
    EXPECT_TRUE(w.running);
    EXPECT_FALSE(w.dontLog);
    EXPECT_EQ(w.preTimeoutInterrupt, 0);
    EXPECT_EQ(w.timeoutAction, 1);
    EXPECT_FALSE(w.expired);
}

TEST_F(Watchdog, UpdateFollowsTheRunningCountdown) {
    controllerHas({0x44, 0x01, 0x00, 0x00, 0x64, 0x00, 0x64, 0x00});  // 10 s, running
    QelIpmiWatchdog w(SMS_OS);
    EXPECT_EQ(w.presentCountdown, 100);
    sim->advanceMs(2500);
    w.update();
    EXPECT_EQ(w.presentCountdown, 75);
    EXPECT_EQ(w.initialCountdown, 100);
}

// ---------------------------------------------------------------- expiration flags

TEST_F(Watchdog, ExpiredIsTheFlagOfOwnTimerUseOnly) {
    const unsigned char bits[] = {0, 0x02, 0x04, 0x08, 0x10, 0x20};
    for (int own = 1; own <= 5; ++own) {
        for (int flagged = 1; flagged <= 5; ++flagged) {
            controllerHas({static_cast<unsigned char>(own), 0, 0, bits[flagged], 0, 0, 0, 0});
            QelIpmiWatchdog w(use(own));
            EXPECT_EQ(w.expired, own == flagged) << "use " << own << ", flag of use " << flagged;
        }
    }
}

TEST_F(Watchdog, SetClearsExactlyTheFlagOfOwnTimerUse) {
    const unsigned char bits[] = {0, 0x02, 0x04, 0x08, 0x10, 0x20};
    for (int own = 1; own <= 5; ++own) {
        controllerHas({0x00, 0, 0, 0x3E, 0, 0, 0, 0});
        QelIpmiWatchdog w(use(own));
        w.initialCountdown = 100;
        ASSERT_TRUE(w.set(false)) << "use " << own;
        Bytes sent = lastSet();
        ASSERT_EQ(sent.size(), 6u);
        EXPECT_EQ(sent[0], own);
        EXPECT_EQ(sent[3], bits[own]) << "use " << own;
        EXPECT_EQ(sim->watchdog().state().expirationFlags, 0x3E & ~bits[own]);
    }
}

TEST_F(Watchdog, TimerUseOutsideOneToFiveMatchesNoFlagAndClearsNone) {
    for (int odd : {0, 6, 7}) {
        // Every flag set, and the controller's timer reports the same use.
        controllerHas({static_cast<unsigned char>(odd), 0, 0x05, 0xFF, 0x64, 0, 0x64, 0});
        QelIpmiWatchdog w(use(odd));
        EXPECT_FALSE(w.expired) << "use " << odd;
        EXPECT_EQ(w.initialCountdown, 100) << "the use still matches byte 1";
        EXPECT_EQ(w.preTimeoutInterval, 5);

        sim->clearRequests();
        // The controller refuses a reserved timer use, but the bytes are sent.
        EXPECT_FALSE(w.set(false)) << "use " << odd;
        Bytes sent = lastSet();
        ASSERT_EQ(sent.size(), 6u);
        EXPECT_EQ(sent[0], odd & 7);
        EXPECT_EQ(sent[3], 0) << "use " << odd;
    }
}

// ---------------------------------------------------------------- writing

TEST_F(Watchdog, SetFalseSendsTheDocumentedBytes) {
    QelIpmiWatchdog w(SMS_OS);
    w.dontLog = false;
    w.preTimeoutInterrupt = 0;
    w.timeoutAction = 1;
    w.preTimeoutInterval = 0;
    w.initialCountdown = 2400;
    EXPECT_TRUE(w.set(false));
    EXPECT_THAT(lastSet(), ElementsAre(0x04, 0x01, 0x00, 0x10, 0x60, 0x09));
    auto sets = sim->requests(app, setCmd);
    ASSERT_EQ(sets.size(), 1u);
    EXPECT_EQ(sets[0].addrType, IPMI_SYSTEM_INTERFACE_ADDR_TYPE);
    EXPECT_EQ(sets[0].lun, 0);
}

TEST_F(Watchdog, StopTimerSendsByteZeroWithBit6Clear) {
    controllerHas(ownTimer);
    QelIpmiWatchdog w(SMS_OS);
    EXPECT_TRUE(w.stopTimer());
    Bytes sent = lastSet();
    ASSERT_EQ(sent.size(), 6u);
    EXPECT_EQ(sent[0] & 0x40, 0);
    // Otherwise the same bytes as set(false): don't log, NMI, power down,
    // 20 s, use-4 flag, 3000.
    EXPECT_THAT(sent, ElementsAre(0x84, 0x22, 0x14, 0x10, 0xB8, 0x0B));
    EXPECT_TRUE(w.set(false));
    EXPECT_EQ(lastSet(), sent);
    // And the controller's timer is stopped.
    EXPECT_FALSE(sim->watchdog().state().running);
}

TEST_F(Watchdog, SetTrueSendsByteZeroWithBit6Set) {
    controllerHas(ownTimer);
    QelIpmiWatchdog w(SMS_OS);
    EXPECT_TRUE(w.set(true));
    EXPECT_THAT(lastSet(), ElementsAre(0xC4, 0x22, 0x14, 0x10, 0xB8, 0x0B));
    EXPECT_TRUE(sim->watchdog().state().running);
}

TEST_F(Watchdog, SetMasksInterruptAndActionToThreeBits) {
    QelIpmiWatchdog w(SMS_OS);
    w.preTimeoutInterrupt = 3;
    w.timeoutAction = 3;
    w.preTimeoutInterval = 0xFF;
    w.initialCountdown = 0xFFFF;
    w.dontLog = true;
    EXPECT_TRUE(w.set(false));
    EXPECT_THAT(lastSet(), ElementsAre(0x84, 0x33, 0xFF, 0x10, 0xFF, 0xFF));
    w.preTimeoutInterrupt = -1;  // all three bits of the field
    w.timeoutAction = -1;
    EXPECT_FALSE(w.set(false));  // reserved values: the controller refuses them
    EXPECT_THAT(lastSet(), ElementsAre(0x84, 0x77, 0xFF, 0x10, 0xFF, 0xFF));
}

TEST_F(Watchdog, ResetTimerSendsNoDataAndStartsTheCountdown) {
    QelIpmiWatchdog w(SMS_OS);
    w.initialCountdown = 2400;
    ASSERT_TRUE(w.set(false));
    EXPECT_TRUE(w.resetTimer());
    auto resets = sim->requests(app, resetCmd);
    ASSERT_EQ(resets.size(), 1u);
    EXPECT_TRUE(resets[0].data.empty());
    EXPECT_EQ(resets[0].addrType, IPMI_SYSTEM_INTERFACE_ADDR_TYPE);
    EXPECT_TRUE(sim->watchdog().state().running);
}

TEST_F(Watchdog, ResetTimerOfNeverSetTimerIsFalse) {
    QelIpmiWatchdog w(SMS_OS);
    EXPECT_FALSE(w.resetTimer());  // the controller answers 0x80
    EXPECT_FALSE(sim->watchdog().state().running);
}

// ---------------------------------------------------------------- no controller

TEST_F(Watchdog, NoIpmiDeviceConstructsWithAllMembersZeroAndResetFails) {
    sim->setAllPathsMissing(true);
    QelIpmiWatchdog w(SMS_OS);
    EXPECT_EQ(snapshot(w), (Snapshot{false, 4, false, false, 0, 0, 0, 0, 0}));
    EXPECT_FALSE(w.resetTimer());
    EXPECT_FALSE(w.set(true));
    EXPECT_FALSE(w.stopTimer());
    EXPECT_NO_THROW(w.update());
    EXPECT_EQ(sim->requestCount(), 0u);
}

TEST_F(Watchdog, NoIpmiDeviceLeavesEarlierReadingInPlace) {
    controllerHas(ownTimer);
    QelIpmiWatchdog w(SMS_OS);
    sim->setAllPathsMissing(true);
    w.update();
    EXPECT_EQ(snapshot(w), ownSnapshot);
}

// ---------------------------------------------------------------- bad answers

TEST_F(Watchdog, GetAnswerShorterThanNineBytesLeavesMembersUnchanged) {
    controllerHas(ownTimer);
    QelIpmiWatchdog w(SMS_OS);
    ASSERT_EQ(snapshot(w), ownSnapshot);
    // A complete answer that would change every member.
    const Bytes full{0x00, 0x04, 0x13, 0x05, 0x00, 0x64, 0x00, 0x32, 0x00};
    for (std::size_t n = 0; n < full.size(); ++n) {
        sim->injectFault(Fault::rawReply(Bytes(full.begin(), full.begin() + n)));
        w.update();
        EXPECT_EQ(snapshot(w), ownSnapshot) << n << " bytes";
    }
    // The nine bytes themselves are taken.
    sim->injectFault(Fault::rawReply(full));
    w.update();
    EXPECT_EQ(snapshot(w), (Snapshot{false, 4, false, false, 1, 3, 5, 100, 50}));
}

TEST_F(Watchdog, ShortAnswersAtConstructionLeaveAllMembersZero) {
    controllerHas(ownTimer);
    for (std::size_t n = 0; n < 9; ++n) {
        sim->injectFault(Fault::rawReply(Bytes(n, 0x00)));
        QelIpmiWatchdog w(SMS_OS);
        EXPECT_EQ(snapshot(w), (Snapshot{false, 4, false, false, 0, 0, 0, 0, 0})) << n << " bytes";
    }
}

TEST_F(Watchdog, LongerAnswerIsReadFromItsFirstNineBytes) {
    QelIpmiWatchdog w(SMS_OS);
    sim->injectFault(Fault::rawReply({0x00, 0x44, 0x01, 0x00, 0x00, 0x64, 0x00, 0x32, 0x00, 0xEE}));
    w.update();
    EXPECT_EQ(snapshot(w), (Snapshot{false, 4, false, true, 0, 1, 0, 100, 50}));
}

TEST_F(Watchdog, NonZeroCompletionCodeLeavesMembersUnchanged) {
    controllerHas(ownTimer);
    QelIpmiWatchdog w(SMS_OS);
    for (unsigned char code : {0xC0, 0xC1, 0xCC, 0xFF}) {
        sim->injectFault(Fault::completionCode(code));
        w.update();
        EXPECT_EQ(snapshot(w), ownSnapshot) << "code " << int(code);
    }
    // A failing code with a full body behind it is not read either.
    sim->injectFault(Fault::rawReply({0xD5, 0x04, 0x13, 0x05, 0x00, 0x64, 0x00, 0x32, 0x00}));
    w.update();
    EXPECT_EQ(snapshot(w), ownSnapshot);
}

TEST_F(Watchdog, NoReplyLeavesMembersUnchanged) {
    controllerHas(ownTimer);
    QelIpmiWatchdog w(SMS_OS);
    sim->injectFault(Fault::noReply());
    w.update();
    EXPECT_EQ(snapshot(w), ownSnapshot);
    sim->injectFault(Fault::emptyReply());
    w.update();
    EXPECT_EQ(snapshot(w), ownSnapshot);
}

TEST_F(Watchdog, SendFailureLeavesMembersUnchangedAndDoesNotThrow) {
    controllerHas(ownTimer);
    QelIpmiWatchdog w(SMS_OS);
    sim->injectFault(Fault::sendFails(EIO));
    EXPECT_NO_THROW(w.update());
    EXPECT_EQ(snapshot(w), ownSnapshot);
    sim->injectFault(Fault::receiveFails(EIO));
    EXPECT_NO_THROW(w.update());
    EXPECT_EQ(snapshot(w), ownSnapshot);
    EXPECT_EQ(sim->openDevices(), 0);
}

TEST_F(Watchdog, SetResetAndStopAreFalseOnEveryFailure) {
    controllerHas(ownTimer);
    QelIpmiWatchdog w(SMS_OS);
    const Fault faults[] = {Fault::noReply(), Fault::emptyReply(), Fault::completionCode(0xC0),
                            Fault::sendFails(EIO), Fault::receiveFails(EBADF)};
    for (const Fault& f : faults) {
        sim->injectFault(f);
        EXPECT_FALSE(w.set(true)) << "fault " << f.kind;
        sim->injectFault(f);
        EXPECT_FALSE(w.resetTimer()) << "fault " << f.kind;
        sim->injectFault(f);
        EXPECT_FALSE(w.stopTimer()) << "fault " << f.kind;
    }
    EXPECT_EQ(sim->openDevices(), 0);
    // Each of them succeeds without a fault.
    EXPECT_TRUE(w.set(true));
    EXPECT_TRUE(w.resetTimer());
    EXPECT_TRUE(w.stopTimer());
}

TEST_F(Watchdog, FailedOperationsDoNotTouchTheMembers) {
    controllerHas(ownTimer);
    QelIpmiWatchdog w(SMS_OS);
    sim->injectFault(Fault::completionCode(0xC0));
    EXPECT_FALSE(w.set(false));
    EXPECT_EQ(snapshot(w), ownSnapshot);
}

// ---------------------------------------------------------------- with the controller's timer

TEST_F(Watchdog, SettingsWrittenByOneObjectAreReadBackByAnother) {
    {
        QelIpmiWatchdog w(SMS_OS);
        w.dontLog = true;
        w.preTimeoutInterrupt = 1;
        w.timeoutAction = 3;
        w.preTimeoutInterval = 30;
        w.initialCountdown = 3000;
        ASSERT_TRUE(w.set(false));
    }
    QelIpmiWatchdog stopped(SMS_OS);
    EXPECT_EQ(snapshot(stopped), (Snapshot{true, 4, false, false, 1, 3, 30, 3000, 3000}));

    ASSERT_TRUE(stopped.resetTimer());
    sim->advanceMs(1000);
    QelIpmiWatchdog running(SMS_OS);
    EXPECT_EQ(snapshot(running), (Snapshot{true, 4, false, true, 1, 3, 30, 3000, 2990}));
    EXPECT_TRUE(running.stopTimer());
    QelIpmiWatchdog after(SMS_OS);
    EXPECT_FALSE(after.running);
}

TEST_F(Watchdog, MissedResetLetsTheTimerExpireAndTheNextReadSeesIt) {
    // What the agent does: program 240 s with no action, start it, reset it.
    {
        QelIpmiWatchdog w(SMS_OS);
        w.timeoutAction = 0;
        w.initialCountdown = 2400;
        ASSERT_TRUE(w.set(false));
        ASSERT_TRUE(QelIpmiWatchdog(SMS_OS).resetTimer());
    }
    sim->advanceMs(200000);
    ASSERT_TRUE(QelIpmiWatchdog(SMS_OS).resetTimer());
    sim->advanceMs(239900);
    EXPECT_TRUE(sim->watchdog().expiries().empty());
    EXPECT_FALSE(QelIpmiWatchdog(SMS_OS).expired);

    // The agent stops resetting.
    sim->advanceMs(200);
    auto expiries = sim->watchdog().expiries();
    ASSERT_EQ(expiries.size(), 1u);
    EXPECT_EQ(expiries[0].timeMs, 200000u + 240000u);
    QelIpmiWatchdog w(SMS_OS);
    EXPECT_TRUE(w.expired);
    EXPECT_FALSE(w.running);
    EXPECT_EQ(w.presentCountdown, 0);
    EXPECT_EQ(w.initialCountdown, 2400);

    // Programming it again clears the flag.
    ASSERT_TRUE(w.set(false));
    EXPECT_FALSE(QelIpmiWatchdog(SMS_OS).expired);
}
