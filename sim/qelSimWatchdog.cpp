// The watchdog timer of the simulated controller: Get, Set and Reset Watchdog
// Timer (network function 0x06) and the countdown on the controller's clock.
#include "qelSimWatchdog.h"

#include <stdexcept>

#include "qelIpmiCommands.h"
#include "qelIpmiWatchdog.h"

namespace qelSim {

namespace wire = qelIpmi::watchdogWire;
namespace cc = qelIpmi::cc;
using Lock = std::lock_guard<std::recursive_mutex>;

namespace {

constexpr std::uint64_t msPerCount = 100;

// Timer uses 1-5 exist; 0 is reserved and 6-7 are not defined.
bool validTimerUse(unsigned use) { return use >= 1 && use <= 5; }

// Reserved bits a controller refuses to see set, per request byte of Set.
constexpr unsigned char reservedTimerUseBits = 0x38;     // byte 0, bits 5-3
constexpr unsigned char reservedActionBits = 0x88;       // byte 1, bits 7 and 3
constexpr unsigned char reservedClearMaskBits = 0xC1;    // byte 3, bits 7, 6 and 0
constexpr unsigned char maxInterrupt = 3;                // messaging interrupt
constexpr unsigned char maxAction = 3;                   // power cycle

}  // namespace

// ---------------------------------------------------------------- state

Bytes WatchdogState::toBytes() const {
    return {
        static_cast<unsigned char>((dontLog ? wire::dontLogBit : 0) |
                                   (running ? wire::runningBit : 0) |
                                   (timerUse & wire::timerUseMask)),
        static_cast<unsigned char>(
            ((preTimeoutInterrupt & wire::actionFieldMask) << wire::preTimeoutInterruptShift) |
            (timeoutAction & wire::actionFieldMask)),
        preTimeoutInterval,
        expirationFlags,
        static_cast<unsigned char>(initialCountdown & 0xFF),
        static_cast<unsigned char>(initialCountdown >> 8),
        static_cast<unsigned char>(presentCountdown & 0xFF),
        static_cast<unsigned char>(presentCountdown >> 8),
    };
}

WatchdogState WatchdogState::fromBytes(const Bytes& eight) {
    if (eight.size() != wire::getResponseLength - 1)
        throw std::invalid_argument("WatchdogState::fromBytes needs the 8 bytes behind the completion code");
    WatchdogState s;
    s.dontLog = (eight[0] & wire::dontLogBit) != 0;
    s.running = (eight[0] & wire::runningBit) != 0;
    s.timerUse = eight[0] & wire::timerUseMask;
    s.preTimeoutInterrupt = (eight[1] >> wire::preTimeoutInterruptShift) & wire::actionFieldMask;
    s.timeoutAction = eight[1] & wire::actionFieldMask;
    s.preTimeoutInterval = eight[2];
    s.expirationFlags = eight[3];
    s.initialCountdown = static_cast<unsigned short>(eight[4] | (eight[5] << 8));
    s.presentCountdown = static_cast<unsigned short>(eight[6] | (eight[7] << 8));
    s.initialized = true;
    return s;
}

bool operator==(const WatchdogState& a, const WatchdogState& b) {
    return a.dontLog == b.dontLog && a.running == b.running && a.timerUse == b.timerUse &&
           a.preTimeoutInterrupt == b.preTimeoutInterrupt && a.timeoutAction == b.timeoutAction &&
           a.preTimeoutInterval == b.preTimeoutInterval && a.expirationFlags == b.expirationFlags &&
           a.initialCountdown == b.initialCountdown && a.presentCountdown == b.presentCountdown &&
           a.initialized == b.initialized;
}

std::ostream& operator<<(std::ostream& out, const WatchdogState& s) {
    return out << "{use " << int(s.timerUse) << (s.running ? " running" : " stopped")
               << (s.dontLog ? " dont-log" : "") << ", interrupt " << int(s.preTimeoutInterrupt)
               << ", action " << int(s.timeoutAction) << ", interval " << int(s.preTimeoutInterval)
               << " s, flags 0x" << std::hex << int(s.expirationFlags) << std::dec << ", initial "
               << s.initialCountdown << ", present " << s.presentCountdown
               << (s.initialized ? "" : ", never set") << "}";
}

// ---------------------------------------------------------------- model

SimWatchdog::SimWatchdog(SimBmc& bmc) : bmc_(bmc) {}

WatchdogState SimWatchdog::state() const {
    Lock lock(bmc_.mutex());
    WatchdogState s = state_;
    if (s.running) {
        // Whole counts left, rounded up: the counter only drops when a full
        // 100 ms have passed.
        std::uint64_t left = deadlineMs_ - bmc_.nowMs();
        s.presentCountdown = static_cast<unsigned short>((left + msPerCount - 1) / msPerCount);
    }
    return s;
}

void SimWatchdog::preset(const WatchdogState& state) {
    Lock lock(bmc_.mutex());
    state_ = state;
    if (state_.running) {
        std::uint64_t now = bmc_.nowMs();
        deadlineMs_ = now + state_.presentCountdown * msPerCount;
        // A pre-timeout whose moment already lies behind the preset countdown
        // is taken as having fired before the test began.
        preTimeoutPending_ = state_.presentCountdown > state_.preTimeoutInterval * 10u;
    }
}

std::vector<WatchdogExpiry> SimWatchdog::expiries() const {
    Lock lock(bmc_.mutex());
    return expiries_;
}

std::vector<WatchdogPreTimeout> SimWatchdog::preTimeouts() const {
    Lock lock(bmc_.mutex());
    return preTimeouts_;
}

void SimWatchdog::start(std::uint64_t nowMs, unsigned short countdown) {
    state_.running = true;
    state_.presentCountdown = countdown;
    deadlineMs_ = nowMs + countdown * msPerCount;
    preTimeoutPending_ = true;
}

Response SimWatchdog::get(const Request& request) {
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    Response r{cc::ok};
    Bytes body = state().toBytes();
    r.insert(r.end(), body.begin(), body.end());
    return r;
}

Response SimWatchdog::set(const Request& request) {
    if (request.data.size() != wire::setRequestLength) return {cc::requestDataLengthInvalid};
    const Bytes& d = request.data;
    unsigned use = d[0] & wire::timerUseMask;
    unsigned interrupt = (d[1] >> wire::preTimeoutInterruptShift) & wire::actionFieldMask;
    unsigned action = d[1] & wire::actionFieldMask;
    unsigned interval = d[2];
    unsigned countdown = d[4] | (d[5] << 8);
    if (!validTimerUse(use) || (d[0] & reservedTimerUseBits) || (d[1] & reservedActionBits) ||
        (d[3] & reservedClearMaskBits) || interrupt > maxInterrupt || action > maxAction)
        return {cc::invalidDataField};
    // The pre-timeout must come before the time-out itself: an interval
    // (seconds) longer than the countdown (100 ms units) is refused.
    if (interval * 10 > countdown) return {cc::invalidDataField};

    Lock lock(bmc_.mutex());
    const bool keepRunning = (d[0] & wire::dontStopBit) != 0 && state_.running;
    state_.dontLog = (d[0] & wire::dontLogBit) != 0;
    state_.timerUse = static_cast<unsigned char>(use);
    state_.preTimeoutInterrupt = static_cast<unsigned char>(interrupt);
    state_.timeoutAction = static_cast<unsigned char>(action);
    state_.preTimeoutInterval = static_cast<unsigned char>(interval);
    state_.expirationFlags &= static_cast<unsigned char>(~d[3]);
    state_.initialCountdown = static_cast<unsigned short>(countdown);
    state_.initialized = true;
    if (keepRunning) {
        // Don't-stop on a running timer: the new values take effect at once
        // and the countdown goes on from the new initial value.
        start(bmc_.nowMs(), state_.initialCountdown);
    } else {
        // Without don't-stop a Set stops the timer; a stopped timer stays
        // stopped either way. Only Reset starts it.
        state_.running = false;
        state_.presentCountdown = state_.initialCountdown;
    }
    return {cc::ok};
}

Response SimWatchdog::reset(const Request& request) {
    if (!request.data.empty()) return {cc::requestDataLengthInvalid};
    Lock lock(bmc_.mutex());
    if (!state_.initialized) return {wire::ccUninitialized};
    start(bmc_.nowMs(), state_.initialCountdown);
    return {cc::ok};
}

void SimWatchdog::tick(std::uint64_t nowMs) {
    Lock lock(bmc_.mutex());
    if (!state_.running) return;
    if (preTimeoutPending_ && state_.preTimeoutInterrupt != 0) {
        // Pending only while the interval lies within the countdown, so this
        // does not go below the start of the countdown.
        const std::uint64_t preTimeoutAt = deadlineMs_ - state_.preTimeoutInterval * 1000u;
        if (nowMs >= preTimeoutAt) {
            preTimeoutPending_ = false;
            preTimeouts_.push_back({preTimeoutAt, state_.timerUse, state_.preTimeoutInterrupt});
        }
    }
    if (nowMs < deadlineMs_) return;
    // Time-out: take the action, remember which use ran out, and stop, also
    // for action "none", as controllers do.
    expiries_.push_back({deadlineMs_, state_.timerUse, state_.timeoutAction, !state_.dontLog});
    state_.expirationFlags |= wire::expirationFlag(state_.timerUse);
    state_.running = false;
    state_.presentCountdown = 0;
    preTimeoutPending_ = false;
}

// ---------------------------------------------------------------- registration

SimWatchdog& SimBmc::watchdog() {
    Lock lock(mutex_);
    if (!watchdog_) watchdog_ = std::make_shared<SimWatchdog>(*this);
    return *watchdog_;
}

void registerWatchdogCommands(SimBmc& bmc) {
    SimWatchdog* wd = &bmc.watchdog();
    using qelIpmi::netfn::app;
    namespace cmd = qelIpmi::cmd;
    bmc.setHandler(app, cmd::getWatchdogTimer, [wd](const Request& r) { return wd->get(r); });
    bmc.setHandler(app, cmd::setWatchdogTimer, [wd](const Request& r) { return wd->set(r); });
    bmc.setHandler(app, cmd::resetWatchdogTimer, [wd](const Request& r) { return wd->reset(r); });
    bmc.addTicker([wd](std::uint64_t now) { wd->tick(now); });
}

}  // namespace qelSim
