// IPMI access: the request message, the transport over the IPMI device, and
// the vendor's IANA number.
//
// Every conversation with the controller is a short-lived QelIpmi object (one
// open device) and one QelIpmi_request_msg per command. sendCmd performs one
// synchronous exchange; byte 0 of the stored response is the completion code.
// sendCmd's result says only whether a response came: callers check the
// response length (0: no data, also when sendCmd returned true) and byte 0.
#ifndef QEL_IPMI_H
#define QEL_IPMI_H

#include <linux/ipmi.h>
#include <sys/ioctl.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

#include "qelError.h"
#include "qelExport.h"
#include "qelIpmiDevice.h"

namespace qelIpmi {

// Thrown by the transport and the controller identity. Unlike the other error
// classes its three-argument form composes "Error: msg(file,line)\n", and it
// adds a non-const what() returning that text. The non-const what() does not
// override std::exception::what() const on purpose: a handler holding the
// object as std::exception gets the base text ("errm" or ""), one holding it
// as a (non-const) QelIpmiError gets the composed text. Log code relies on it.
class QEL_EXPORT QelIpmiError : public std::logic_error {
public:
    std::string fileName;
    unsigned int lineNumber;
    std::string errorText;

    QelIpmiError(const std::string& message, const std::string& file, const unsigned int& line);
    QelIpmiError(const std::string& message, const std::string& file, const unsigned int& line,
                 const int& errorNumber);
    QelIpmiError(const QelIpmiError& other);
    ~QelIpmiError() override;

    using std::logic_error::what;
    virtual const char* what();
};

// Belongs to the LAN configuration reader; nothing throws it today, but
// callers catch it by name.
QEL_DECLARE_ERROR(QelIpmiLanError);

// The vendor IANA enterprise number, least significant byte first, as it
// heads the data of every OEM command (set at configure time).
QEL_EXPORT extern const unsigned char vendorIana[3];

// One request (network function, command, data) and, after an exchange, its
// response. Owns the response buffer.
class QEL_EXPORT QelIpmi_request_msg {
public:
    static constexpr unsigned short maxDataLength = 271;

    // Copies 1 to 271 data bytes. Any other length stores none, silently:
    // constructing a message never fails (replaceSendData, by contrast, is
    // strict).
    QelIpmi_request_msg(unsigned char netFn, unsigned char cmd, unsigned short dataLength,
                        const unsigned char* data);
    virtual ~QelIpmi_request_msg();
    QelIpmi_request_msg(const QelIpmi_request_msg&) = delete;
    QelIpmi_request_msg& operator=(const QelIpmi_request_msg&) = delete;

    // New data for the same command; drops any response. Throws
    // std::length_error("QelIpmi_request_msg::replaceSendData") for a length
    // of 0 or above 271 and then changes nothing.
    void replaceSendData(const unsigned char* data, unsigned short dataLength);

    // Drops the stored response (sendCmd does this before every exchange).
    void freeResponse();

    unsigned char netFn;
    unsigned char cmd;
    std::size_t dataLength;
    std::size_t responseLength;   // 0 until a response with data was stored
    unsigned char* data;          // always dataBuffer
    unsigned char* responseData;  // calloc'ed, owned; null when there is none
    unsigned char dataBuffer[maxDataLength];
};

// One open IPMI device and the address that requests go to.
class QEL_EXPORT QelIpmi {
public:
    enum IpmiAddressType {
        SYSTEM_INTERFACE = IPMI_SYSTEM_INTERFACE_ADDR_TYPE,  // 0x0C: the BMC itself
        IPMB = IPMI_IPMB_ADDR_TYPE,                          // 0x01
        IPMB_BROADCAST = IPMI_IPMB_BROADCAST_ADDR_TYPE,      // 0x41
    };

    // The device paths tried in order; the first that opens wins.
    static const char* const devicePaths[3];

    // Opens the device and builds the address: the system interface (channel
    // 0x0F, `lun`), or IPMB / IPMB broadcast (channel 0, `slaveAddress`,
    // `lun`). Throws QelIpmiError "Open failed: <system text>" when no device
    // path opens, "Address Type not supported" for any other type.
    QelIpmi(unsigned char lun, unsigned char slaveAddress, IpmiAddressType type);
    virtual ~QelIpmi();
    QelIpmi(const QelIpmi&) = delete;
    QelIpmi& operator=(const QelIpmi&) = delete;

    // rand_r over the process-wide seed; every call advances it.
    static int getMsgId();

    // One exchange. True when a response of the response type arrived (with
    // or without data for this message), false when the device is not open or
    // nothing came within the 5-second window. Throws QelIpmiError when the
    // device fails.
    bool sendCmd(QelIpmi_request_msg& msg) const;

    int fd;
    // The kernel writes the responder's address into the active address on
    // every receive, so the addresses change under a const sendCmd.
    mutable struct ipmi_system_interface_addr systemInterfaceAddr;
    mutable struct ipmi_ipmb_addr ipmbAddr;
    void* activeAddr;
    unsigned int activeAddrLength;

private:
    std::unique_ptr<QelIpmiDevice> device_;
    // Seeded with the load time. Shared without a lock: concurrent callers may
    // see the same id, which costs nothing since every object has its own
    // device queue. Atomic only so that the race is not undefined behaviour.
    static std::atomic<unsigned int> msgId_seed;
};

}  // namespace qelIpmi

#endif
