// The simulated controller's watchdog timer, modelled on IPMI 2.0 section 27.
//
// Set Watchdog Timer programs the timer (and stops a running one unless the
// don't-stop bit is given), Reset Watchdog Timer (re)starts the countdown from
// the initial value, Get Watchdog Timer reports it. The countdown runs on the
// controller's clock (SimBmc::advanceMs): when it reaches the pre-timeout
// interval the pre-timeout interrupt fires, when it reaches zero the time-out
// action fires, the timer use's expiration flag is set and the timer stops.
// Both events are recorded with their time so a test can show that a missed
// reset lets the timer run out, and when.
//
// Tests read and preset the whole state in one line:
//   sim->watchdog().preset(WatchdogState::fromBytes({0x43, 0x01, 0, 0, 0x58, 0x02, 0x58, 0x02}));
//   EXPECT_EQ(sim->watchdog().state().initialCountdown, 600);
#ifndef QEL_SIM_WATCHDOG_H
#define QEL_SIM_WATCHDOG_H

#include <cstdint>
#include <ostream>
#include <vector>

#include "qelSimBmc.h"

namespace qelSim {

// The watchdog's settings and state, in the order of the Get response.
struct WatchdogState {
    bool dontLog = false;
    bool running = false;
    unsigned char timerUse = 0;             // 1 FRB2, 2 POST, 3 OS load, 4 SMS/OS, 5 OEM
    unsigned char preTimeoutInterrupt = 0;  // 0 none, 1 SMI, 2 NMI, 3 messaging
    unsigned char timeoutAction = 0;        // 0 none, 1 hard reset, 2 power down, 3 power cycle
    unsigned char preTimeoutInterval = 0;   // seconds
    unsigned char expirationFlags = 0;      // bit n: use n ran out since last cleared
    unsigned short initialCountdown = 0;    // 100 ms units
    unsigned short presentCountdown = 0;    // 100 ms units
    // A Set was accepted since power-on; Reset answers 0x80 until then.
    bool initialized = false;

    // The eight bytes of a Get Watchdog Timer answer behind the completion
    // code, and back. A state built from them counts as initialized.
    Bytes toBytes() const;
    static WatchdogState fromBytes(const Bytes& eight);
};
bool operator==(const WatchdogState& a, const WatchdogState& b);
inline bool operator!=(const WatchdogState& a, const WatchdogState& b) { return !(a == b); }
std::ostream& operator<<(std::ostream& out, const WatchdogState& s);

// The countdown reached zero.
struct WatchdogExpiry {
    std::uint64_t timeMs = 0;       // controller clock at expiry
    unsigned char timerUse = 0;
    unsigned char action = 0;       // the time-out action that was taken
    bool logged = false;            // a SEL event was written (don't-log was clear)
};

// The countdown reached the pre-timeout interval with an interrupt configured.
struct WatchdogPreTimeout {
    std::uint64_t timeMs = 0;
    unsigned char timerUse = 0;
    unsigned char interrupt = 0;
};

class SimWatchdog {
public:
    explicit SimWatchdog(SimBmc& bmc);
    SimWatchdog(const SimWatchdog&) = delete;
    SimWatchdog& operator=(const SimWatchdog&) = delete;

    // The state now, with the present countdown of a running timer.
    WatchdogState state() const;
    // Replaces the whole state; a running timer counts down from
    // `presentCountdown` starting now. Recorded events stay.
    void preset(const WatchdogState& state);

    std::vector<WatchdogExpiry> expiries() const;
    std::vector<WatchdogPreTimeout> preTimeouts() const;

    // The command handlers and the clock, as registered on the controller.
    Response get(const Request& request);
    Response set(const Request& request);
    Response reset(const Request& request);
    void tick(std::uint64_t nowMs);

private:
    void start(std::uint64_t nowMs, unsigned short countdown);

    SimBmc& bmc_;
    WatchdogState state_;
    std::uint64_t deadlineMs_ = 0;    // while running: when the countdown hits zero
    bool preTimeoutPending_ = false;  // while running: the pre-timeout has yet to fire
    std::vector<WatchdogExpiry> expiries_;
    std::vector<WatchdogPreTimeout> preTimeouts_;
};

}  // namespace qelSim

#endif
