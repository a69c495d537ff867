// The controller's watchdog timer, seen by one timer use.
//
// A QelIpmiWatchdog is a snapshot of the controller's watchdog (read by the
// constructor and by update()) plus the three operations the agent needs:
// program the timer from the members (set), restart its countdown
// (resetTimer) and stop it (stopTimer). Every operation opens its own IPMI
// device on the system interface, sends one command and closes it again.
//
// Nothing here throws for IPMI reasons: update() keeps the previous members
// when the controller cannot be read, and the writing operations answer
// false. The times of the snapshot (pre-timeout interval, initial and present
// countdown) are only taken when the controller's timer is set up for this
// object's timer use; a timer owned by another use reads as zero times.
#ifndef QEL_IPMI_WATCHDOG_H
#define QEL_IPMI_WATCHDOG_H

#include "qelError.h"
#include "qelExport.h"

namespace qelIpmi {

// A failed Get Watchdog Timer; the watchdog catches it itself.
QEL_DECLARE_ERROR(QelIpmiWatchdogError);

// The byte layout of the three watchdog commands (IPMI 2.0, section 27),
// shared by the library and the simulated controller.
namespace watchdogWire {
// Get Watchdog Timer response, completion code included.
constexpr unsigned getResponseLength = 9;
// Set Watchdog Timer request data.
constexpr unsigned setRequestLength = 6;
// Reset Watchdog Timer's own completion code: the timer was never set, so
// there is no countdown to start.
constexpr unsigned char ccUninitialized = 0x80;
// Timer use byte (Get response byte 1, Set request byte 0).
constexpr unsigned char dontLogBit = 0x80;
constexpr unsigned char runningBit = 0x40;   // Get: the timer is started
constexpr unsigned char dontStopBit = 0x40;  // Set: a running timer keeps running
constexpr unsigned char timerUseMask = 0x07;
// Timer actions byte: pre-timeout interrupt in bits 6-4, time-out action in 2-0.
constexpr unsigned char preTimeoutInterruptShift = 4;
constexpr unsigned char actionFieldMask = 0x07;
// Expiration-flag bit of a timer use (Get response byte 4, Set request byte
// 3): bit n for use n, 1 to 5. Any other use has no flag and gives 0.
constexpr unsigned char expirationFlag(int timerUse) {
    return timerUse >= 1 && timerUse <= 5 ? static_cast<unsigned char>(1u << timerUse) : 0;
}
}  // namespace watchdogWire

class QEL_EXPORT QelIpmiWatchdog {
public:
    // IPMI timer-use numbers. The agent uses TIMER_USE_SMS_OS; other values
    // are accepted and simply match no expiration flag.
    enum TimerUse {
        TIMER_USE_BIOS_FRB2 = 1,
        TIMER_USE_BIOS_POST = 2,
        TIMER_USE_OS_LOAD = 3,
        TIMER_USE_SMS_OS = 4,
        TIMER_USE_OEM = 5,
    };

    // Zeroes the members, keeps `use` and reads the controller's timer.
    // Never fails: without a controller the members stay zero.
    explicit QelIpmiWatchdog(TimerUse use);
    virtual ~QelIpmiWatchdog();

    // Get Watchdog Timer into the members. On any failure (no device, no
    // answer, a completion code other than 0x00, a short answer) the members
    // keep their previous values and nothing escapes.
    void update();

    // Set Watchdog Timer from the members. `dontStop` false makes the
    // controller stop a running timer; true keeps it running with the new
    // values. Clears this timer use's expiration flag. True on completion
    // code 0x00.
    bool set(bool dontStop);

    // Reset Watchdog Timer: (re)starts the countdown from the initial value.
    // True on completion code 0x00; a failed reset leaves the timer as it was,
    // so the caller decides whether to stop it.
    [[nodiscard]] bool resetTimer();

    // The same as set(false).
    bool stopTimer();

    bool dontLog;
    TimerUse timerUse;
    bool expired;
    bool running;
    int preTimeoutInterrupt : 3;    // 0 none, 1 SMI, 2 NMI/diagnostic, 3 messaging
    int timeoutAction : 3;          // 0 none, 1 hard reset, 2 power down, 3 power cycle
    unsigned char preTimeoutInterval;  // seconds
    unsigned short initialCountdown;   // 100 ms units
    unsigned short presentCountdown;   // 100 ms units
};

}  // namespace qelIpmi

#endif
