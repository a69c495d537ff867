// The simulated controller's watchdog model, driven by raw requests and its
// own clock, so the library's tests run against a timer that behaves as a
// real controller's does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "qelIpmiCommands.h"
#include "qelSimBmc.h"
#include "qelSimWatchdog.h"

using qelSim::Bytes;
using qelSim::Request;
using qelSim::SimBmc;
using qelSim::WatchdogExpiry;
using qelSim::WatchdogState;
using testing::ElementsAre;

namespace {

namespace cc = qelIpmi::cc;

class SimWatchdogModel : public testing::Test {
protected:
    SimBmc bmc;

    Bytes send(unsigned char cmd, Bytes data = {}) {
        Request r;
        r.netFn = qelIpmi::netfn::app;
        r.cmd = cmd;
        r.data = std::move(data);
        return bmc.dispatch(r);
    }
    Bytes get() { return send(qelIpmi::cmd::getWatchdogTimer); }
    unsigned char reset() { return send(qelIpmi::cmd::resetWatchdogTimer).at(0); }
    // Set Watchdog Timer with its six bytes; the completion code.
    unsigned char set(Bytes six) { return send(qelIpmi::cmd::setWatchdogTimer, std::move(six)).at(0); }

    // SMS/OS, hard reset, `tenths` of a second, nothing else.
    unsigned char program(unsigned short tenths, unsigned char action = 1, bool dontStop = false) {
        return set({static_cast<unsigned char>(dontStop ? 0x44 : 0x04), action, 0, 0,
                    static_cast<unsigned char>(tenths & 0xFF), static_cast<unsigned char>(tenths >> 8)});
    }

    WatchdogState state() { return bmc.watchdog().state(); }
    std::vector<WatchdogExpiry> expiries() { return bmc.watchdog().expiries(); }
};

}  // namespace

// ---------------------------------------------------------------- commands

TEST_F(SimWatchdogModel, PowerOnTimerIsStoppedAndNeverSet) {
    EXPECT_THAT(get(), ElementsAre(0x00, 0, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_FALSE(state().initialized);
}

TEST_F(SimWatchdogModel, GetAnswersCompletionCodeAndEightBytes) {
    bmc.watchdog().preset(WatchdogState::fromBytes({0xC4, 0x23, 0x05, 0x12, 0x2C, 0x01, 0x2C, 0x01}));
    EXPECT_THAT(get(), ElementsAre(0x00, 0xC4, 0x23, 0x05, 0x12, 0x2C, 0x01, 0x2C, 0x01));
}

TEST_F(SimWatchdogModel, ResetOfNeverSetTimerAnswers0x80) {
    EXPECT_EQ(reset(), 0x80);
    EXPECT_FALSE(state().running);
    bmc.advanceMs(1000000);
    EXPECT_TRUE(expiries().empty());
}

TEST_F(SimWatchdogModel, WrongRequestLengthsAnswer0xC7) {
    EXPECT_THAT(send(qelIpmi::cmd::getWatchdogTimer, {0x00}), ElementsAre(cc::requestDataLengthInvalid));
    EXPECT_THAT(send(qelIpmi::cmd::resetWatchdogTimer, {0x00}),
                ElementsAre(cc::requestDataLengthInvalid));
    EXPECT_EQ(set({0x04, 0x01, 0x00, 0x10, 0x60}), cc::requestDataLengthInvalid);
    EXPECT_EQ(set({0x04, 0x01, 0x00, 0x10, 0x60, 0x09, 0x00}), cc::requestDataLengthInvalid);
    EXPECT_EQ(set({}), cc::requestDataLengthInvalid);
    EXPECT_FALSE(state().initialized);
}

TEST_F(SimWatchdogModel, SetStoresEveryFieldWithoutStartingTheTimer) {
    ASSERT_EQ(set({0x84, 0x32, 0x0A, 0x00, 0x60, 0x09}), cc::ok);
    WatchdogState s = state();
    EXPECT_TRUE(s.dontLog);
    EXPECT_FALSE(s.running);
    EXPECT_EQ(s.timerUse, 4);
    EXPECT_EQ(s.preTimeoutInterrupt, 3);
    EXPECT_EQ(s.timeoutAction, 2);
    EXPECT_EQ(s.preTimeoutInterval, 10);
    EXPECT_EQ(s.initialCountdown, 2400);
    EXPECT_EQ(s.presentCountdown, 2400);
    EXPECT_TRUE(s.initialized);
    EXPECT_THAT(get(), ElementsAre(0x00, 0x84, 0x32, 0x0A, 0x00, 0x60, 0x09, 0x60, 0x09));
    bmc.advanceMs(3600000);
    EXPECT_TRUE(expiries().empty()) << "Set alone never starts the timer";
}

TEST_F(SimWatchdogModel, ReservedTimerUsesAnswer0xCC) {
    for (unsigned char use : {0, 6, 7}) {
        EXPECT_EQ(set({use, 0x01, 0x00, 0x00, 0x64, 0x00}), cc::invalidDataField) << int(use);
    }
    EXPECT_FALSE(state().initialized);
}

TEST_F(SimWatchdogModel, PreTimeoutIntervalLongerThanCountdownAnswers0xCC) {
    // 11 s before a 10 s time-out cannot be honoured.
    EXPECT_EQ(set({0x04, 0x11, 11, 0x00, 100, 0x00}), cc::invalidDataField);
    EXPECT_FALSE(state().initialized);
    // Exactly the countdown is accepted.
    EXPECT_EQ(set({0x04, 0x11, 10, 0x00, 100, 0x00}), cc::ok);
}

TEST_F(SimWatchdogModel, ReservedFieldValuesAndBitsAnswer0xCC) {
    const Bytes good{0x04, 0x01, 0x00, 0x00, 0x64, 0x00};
    ASSERT_EQ(set(good), cc::ok);
    WatchdogState before = state();
    auto with = [&](std::size_t index, unsigned char value) {
        Bytes b = good;
        b[index] = value;
        return set(b);
    };
    EXPECT_EQ(with(1, 0x41), cc::invalidDataField);  // pre-timeout interrupt 4
    EXPECT_EQ(with(1, 0x04), cc::invalidDataField);  // time-out action 4
    EXPECT_EQ(with(1, 0x81), cc::invalidDataField);  // bit 7
    EXPECT_EQ(with(1, 0x09), cc::invalidDataField);  // bit 3
    EXPECT_EQ(with(0, 0x0C), cc::invalidDataField);  // bit 3 of the use byte
    EXPECT_EQ(with(3, 0x01), cc::invalidDataField);  // clear mask bit 0
    EXPECT_EQ(with(3, 0x40), cc::invalidDataField);  // clear mask bit 6
    EXPECT_EQ(with(3, 0x80), cc::invalidDataField);  // clear mask bit 7
    EXPECT_EQ(state(), before) << "a refused Set changes nothing";
}

TEST_F(SimWatchdogModel, RefusedSetDoesNotStopARunningTimer) {
    ASSERT_EQ(program(100), cc::ok);
    ASSERT_EQ(reset(), cc::ok);
    EXPECT_EQ(set({0x04, 0x01, 20, 0x00, 100, 0x00}), cc::invalidDataField);
    EXPECT_TRUE(state().running);
}

// ---------------------------------------------------------------- countdown

TEST_F(SimWatchdogModel, ProgrammedTenSecondsExpiresOnlyWhenResetIsMissed) {
    ASSERT_EQ(program(100, 1), cc::ok);
    ASSERT_EQ(reset(), cc::ok);
    bmc.advanceMs(9900);
    EXPECT_TRUE(expiries().empty());
    EXPECT_TRUE(state().running);
    EXPECT_EQ(state().presentCountdown, 1);

    ASSERT_EQ(reset(), cc::ok);
    EXPECT_EQ(state().presentCountdown, 100);
    bmc.advanceMs(9900);
    EXPECT_TRUE(expiries().empty());

    bmc.advanceMs(200);
    auto e = expiries();
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0].timeMs, 9900u + 10000u);
    EXPECT_EQ(e[0].timerUse, 4);
    EXPECT_EQ(e[0].action, 1);
    EXPECT_TRUE(e[0].logged);
    WatchdogState s = state();
    EXPECT_FALSE(s.running);
    EXPECT_EQ(s.expirationFlags, 0x10);
    EXPECT_EQ(s.presentCountdown, 0);
    EXPECT_EQ(s.initialCountdown, 100);

    bmc.advanceMs(60000);
    EXPECT_EQ(expiries().size(), 1u) << "a stopped timer expires once";
}

TEST_F(SimWatchdogModel, ExpiresAtItsOwnTickWhenTheClockJumps) {
    ASSERT_EQ(program(15), cc::ok);
    ASSERT_EQ(reset(), cc::ok);
    bmc.advanceMs(60000);
    auto e = expiries();
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0].timeMs, 1500u);
}

TEST_F(SimWatchdogModel, PresentCountdownCountsWholeTenthsLeft) {
    ASSERT_EQ(program(10), cc::ok);
    ASSERT_EQ(reset(), cc::ok);
    bmc.advanceMs(50);
    EXPECT_EQ(state().presentCountdown, 10);
    bmc.advanceMs(50);
    EXPECT_EQ(state().presentCountdown, 9);
    bmc.advanceMs(899);
    EXPECT_EQ(state().presentCountdown, 1);
    EXPECT_TRUE(expiries().empty());
    bmc.advanceMs(1);
    EXPECT_EQ(expiries().size(), 1u);
}

TEST_F(SimWatchdogModel, EveryActionIsTakenAndStopsTheTimer) {
    for (unsigned char action = 0; action <= 3; ++action) {
        SimBmc fresh;
        Request set;
        set.netFn = qelIpmi::netfn::app;
        set.cmd = qelIpmi::cmd::setWatchdogTimer;
        set.data = {0x04, action, 0x00, 0x10, 10, 0x00};
        ASSERT_THAT(fresh.dispatch(set), ElementsAre(cc::ok));
        Request reset;
        reset.netFn = qelIpmi::netfn::app;
        reset.cmd = qelIpmi::cmd::resetWatchdogTimer;
        ASSERT_THAT(fresh.dispatch(reset), ElementsAre(cc::ok));
        fresh.advanceMs(1000);
        auto e = fresh.watchdog().expiries();
        ASSERT_EQ(e.size(), 1u) << "action " << int(action);
        EXPECT_EQ(e[0].action, action);
        EXPECT_FALSE(fresh.watchdog().state().running) << "action " << int(action);
        EXPECT_EQ(fresh.watchdog().state().expirationFlags, 0x10);
    }
}

TEST_F(SimWatchdogModel, ExpirationSetsTheFlagOfTheRunningUse) {
    for (unsigned char use = 1; use <= 5; ++use) {
        SimBmc fresh;
        fresh.watchdog().preset(
            WatchdogState::fromBytes({static_cast<unsigned char>(0x40 | use), 0x00, 0, 0, 10, 0, 10, 0}));
        fresh.advanceMs(1000);
        EXPECT_EQ(fresh.watchdog().state().expirationFlags, 1u << use) << "use " << int(use);
        ASSERT_EQ(fresh.watchdog().expiries().size(), 1u);
        EXPECT_EQ(fresh.watchdog().expiries()[0].timerUse, use);
    }
}

TEST_F(SimWatchdogModel, ClearMaskClearsOnlyTheGivenFlags) {
    bmc.watchdog().preset(WatchdogState::fromBytes({0x04, 0x00, 0, 0x3E, 0x64, 0, 0x64, 0}));
    ASSERT_EQ(set({0x04, 0x00, 0x00, 0x10, 0x64, 0x00}), cc::ok);
    EXPECT_EQ(state().expirationFlags, 0x2E);
    ASSERT_EQ(set({0x04, 0x00, 0x00, 0x00, 0x64, 0x00}), cc::ok);
    EXPECT_EQ(state().expirationFlags, 0x2E);
    ASSERT_EQ(set({0x04, 0x00, 0x00, 0x3E, 0x64, 0x00}), cc::ok);
    EXPECT_EQ(state().expirationFlags, 0x00);
}

// ---------------------------------------------------------------- don't stop, don't log

TEST_F(SimWatchdogModel, SetWithoutDontStopStopsARunningTimer) {
    ASSERT_EQ(program(100), cc::ok);
    ASSERT_EQ(reset(), cc::ok);
    bmc.advanceMs(5000);
    ASSERT_EQ(program(100, 1, false), cc::ok);
    EXPECT_FALSE(state().running);
    EXPECT_EQ(state().presentCountdown, 100);
    bmc.advanceMs(60000);
    EXPECT_TRUE(expiries().empty());
}

TEST_F(SimWatchdogModel, SetWithDontStopRestartsFromTheNewCountdown) {
    ASSERT_EQ(program(100), cc::ok);
    ASSERT_EQ(reset(), cc::ok);
    bmc.advanceMs(5000);
    ASSERT_EQ(program(300, 2, true), cc::ok);
    EXPECT_TRUE(state().running);
    EXPECT_EQ(state().presentCountdown, 300);
    bmc.advanceMs(29900);
    EXPECT_TRUE(expiries().empty());
    bmc.advanceMs(100);
    auto e = expiries();
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0].timeMs, 35000u);
    EXPECT_EQ(e[0].action, 2) << "the new action is the one taken";
}

TEST_F(SimWatchdogModel, SetWithDontStopLeavesAStoppedTimerStopped) {
    ASSERT_EQ(program(100, 1, true), cc::ok);
    EXPECT_FALSE(state().running);
    bmc.advanceMs(60000);
    EXPECT_TRUE(expiries().empty());
}

TEST_F(SimWatchdogModel, DontLogSuppressesTheLogEntryButNotTheExpiry) {
    ASSERT_EQ(set({0x84, 0x01, 0x00, 0x00, 10, 0x00}), cc::ok);
    EXPECT_EQ(get().at(1), 0x84);
    ASSERT_EQ(reset(), cc::ok);
    EXPECT_EQ(get().at(1), 0xC4);
    bmc.advanceMs(1000);
    ASSERT_EQ(set({0x04, 0x01, 0x00, 0x00, 10, 0x00}), cc::ok);
    ASSERT_EQ(reset(), cc::ok);
    bmc.advanceMs(1000);
    auto e = expiries();
    ASSERT_EQ(e.size(), 2u);
    EXPECT_FALSE(e[0].logged);
    EXPECT_TRUE(e[1].logged);
    EXPECT_EQ(state().expirationFlags, 0x10);
}

// ---------------------------------------------------------------- pre-timeout

TEST_F(SimWatchdogModel, PreTimeoutFiresItsIntervalBeforeTheTimeout) {
    // NMI 3 s before a 10 s time-out.
    ASSERT_EQ(set({0x04, 0x21, 3, 0x00, 100, 0x00}), cc::ok);
    ASSERT_EQ(reset(), cc::ok);
    bmc.advanceMs(6900);
    EXPECT_TRUE(bmc.watchdog().preTimeouts().empty());
    bmc.advanceMs(100);
    auto p = bmc.watchdog().preTimeouts();
    ASSERT_EQ(p.size(), 1u);
    EXPECT_EQ(p[0].timeMs, 7000u);
    EXPECT_EQ(p[0].timerUse, 4);
    EXPECT_EQ(p[0].interrupt, 2);
    EXPECT_TRUE(expiries().empty());

    // A reset re-arms it.
    ASSERT_EQ(reset(), cc::ok);
    bmc.advanceMs(10000);
    p = bmc.watchdog().preTimeouts();
    ASSERT_EQ(p.size(), 2u);
    EXPECT_EQ(p[1].timeMs, 14000u);
    ASSERT_EQ(expiries().size(), 1u);
    EXPECT_EQ(expiries()[0].timeMs, 17000u);
}

TEST_F(SimWatchdogModel, NoPreTimeoutWithoutAnInterrupt) {
    ASSERT_EQ(set({0x04, 0x01, 3, 0x00, 100, 0x00}), cc::ok);
    ASSERT_EQ(reset(), cc::ok);
    bmc.advanceMs(20000);
    EXPECT_TRUE(bmc.watchdog().preTimeouts().empty());
    EXPECT_EQ(expiries().size(), 1u);
}

// ---------------------------------------------------------------- fixtures

TEST_F(SimWatchdogModel, PresetRunningTimerCountsDownFromItsPresentValue) {
    bmc.advanceMs(1000);
    bmc.watchdog().preset(WatchdogState::fromBytes({0x43, 0x03, 0, 0, 0x58, 0x02, 0x14, 0x00}));
    EXPECT_EQ(state().presentCountdown, 20);
    EXPECT_EQ(reset(), cc::ok) << "a preset timer counts as set";
    EXPECT_EQ(state().presentCountdown, 600);
    bmc.watchdog().preset(WatchdogState::fromBytes({0x43, 0x03, 0, 0, 0x58, 0x02, 0x14, 0x00}));
    bmc.advanceMs(2000);
    auto e = expiries();
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0].timeMs, 3000u);
    EXPECT_EQ(e[0].timerUse, 3);
    EXPECT_EQ(e[0].action, 3);
}

TEST_F(SimWatchdogModel, StateBytesRoundTrip) {
    const Bytes eight{0xC5, 0x13, 0x07, 0x2A, 0x34, 0x12, 0x78, 0x56};
    WatchdogState s = WatchdogState::fromBytes(eight);
    EXPECT_TRUE(s.dontLog);
    EXPECT_TRUE(s.running);
    EXPECT_EQ(s.timerUse, 5);
    EXPECT_EQ(s.preTimeoutInterrupt, 1);
    EXPECT_EQ(s.timeoutAction, 3);
    EXPECT_EQ(s.preTimeoutInterval, 7);
    EXPECT_EQ(s.expirationFlags, 0x2A);
    EXPECT_EQ(s.initialCountdown, 0x1234);
    EXPECT_EQ(s.presentCountdown, 0x5678);
    EXPECT_EQ(s.toBytes(), eight);
    EXPECT_THROW(WatchdogState::fromBytes(Bytes(7, 0)), std::invalid_argument);
    EXPECT_THROW(WatchdogState::fromBytes(Bytes(9, 0)), std::invalid_argument);
}

TEST_F(SimWatchdogModel, StoppedPresetKeepsItsPresentCountdown) {
    bmc.watchdog().preset(WatchdogState::fromBytes({0x04, 0x01, 0, 0, 0x58, 0x02, 0x2C, 0x01}));
    bmc.advanceMs(100000);
    EXPECT_EQ(state().presentCountdown, 300);
    EXPECT_TRUE(expiries().empty());
}
