#include "qelIpmiWatchdog.h"

#include "qelIpmi.h"
#include "qelIpmiCommands.h"

#define QEL_SOURCE_NAME "qelIpmiWatchdog"

namespace qelIpmi {

QEL_DEFINE_ERROR(QelIpmiWatchdogError)

namespace {

namespace wire = watchdogWire;

// One command on the system interface (LUN 0); the device is closed again on
// return. True when a response with data came whose completion code is 0x00.
// Throws QelIpmiError when the device is missing or fails.
bool exchange(QelIpmi_request_msg& msg) {
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    if (!ipmi.sendCmd(msg)) return false;
    return msg.responseLength > 0 && msg.responseData != nullptr &&
           msg.responseData[0] == cc::ok;
}

}  // namespace

QelIpmiWatchdog::QelIpmiWatchdog(TimerUse use)
    : dontLog(false),
      timerUse(use),
      expired(false),
      running(false),
      preTimeoutInterrupt(0),
      timeoutAction(0),
      preTimeoutInterval(0),
      initialCountdown(0),
      presentCountdown(0) {
    update();
}

QelIpmiWatchdog::~QelIpmiWatchdog() = default;

void QelIpmiWatchdog::update() {
    try {
        QelIpmi_request_msg msg(netfn::app, cmd::getWatchdogTimer, 0, nullptr);
        // A response shorter than the full nine bytes is treated like a failed
        // read: reading the fields it lacks would go past the controller's
        // answer, and half a snapshot would mix old and new values.
        if (!exchange(msg) || msg.responseLength < wire::getResponseLength)
            QEL_THROW(QelIpmiWatchdogError, "GetWatchdogTimer Command failed.");

        const unsigned char* r = msg.responseData;
        const bool ours = (r[1] & wire::timerUseMask) == static_cast<unsigned>(timerUse);

        dontLog = (r[1] & wire::dontLogBit) != 0;
        running = (r[1] & wire::runningBit) != 0;
        preTimeoutInterrupt = (r[2] >> wire::preTimeoutInterruptShift) & wire::actionFieldMask;
        timeoutAction = r[2] & wire::actionFieldMask;
        expired = (r[4] & wire::expirationFlag(timerUse)) != 0;
        // The times belong to whichever use set the timer up; another use's
        // times mean nothing to this one, so they read as zero.
        if (ours) {
            preTimeoutInterval = r[3];
            initialCountdown = static_cast<unsigned short>(r[5] | (r[6] << 8));
            presentCountdown = static_cast<unsigned short>(r[7] | (r[8] << 8));
        } else {
            preTimeoutInterval = 0;
            initialCountdown = 0;
            presentCountdown = 0;
        }
    } catch (QelIpmiWatchdogError&) {
        // No reading: the previous snapshot stays, the caller sees no change.
    } catch (QelIpmiError&) {
        // No device or a failed exchange: likewise.
    }
}

bool QelIpmiWatchdog::set(bool dontStop) {
    unsigned char data[wire::setRequestLength];
    data[0] = static_cast<unsigned char>((static_cast<unsigned>(timerUse) & wire::timerUseMask) |
                                         (dontStop ? wire::dontStopBit : 0) |
                                         (dontLog ? wire::dontLogBit : 0));
    data[1] = static_cast<unsigned char>(
        ((preTimeoutInterrupt & wire::actionFieldMask) << wire::preTimeoutInterruptShift) |
        (timeoutAction & wire::actionFieldMask));
    data[2] = preTimeoutInterval;
    // Clear only our own expiration flag: another use's flag tells its owner
    // (the BIOS, say) that its timer ran out, and is not ours to drop.
    data[3] = wire::expirationFlag(timerUse);
    data[4] = static_cast<unsigned char>(initialCountdown & 0xFF);
    data[5] = static_cast<unsigned char>(initialCountdown >> 8);
    try {
        QelIpmi_request_msg msg(netfn::app, cmd::setWatchdogTimer, sizeof data, data);
        return exchange(msg);
    } catch (QelIpmiError&) {
        return false;
    }
}

bool QelIpmiWatchdog::resetTimer() {
    try {
        QelIpmi_request_msg msg(netfn::app, cmd::resetWatchdogTimer, 0, nullptr);
        return exchange(msg);
    } catch (QelIpmiError&) {
        return false;
    }
}

bool QelIpmiWatchdog::stopTimer() { return set(false); }

}  // namespace qelIpmi
