// IPMI access: the request message, the transport over the IPMI device, the
// vendor's IANA number, the controller identity and the LAN configuration.
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
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qelAddress.h"
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

// ================================================================ identity

// A 16-byte identifier and its text: the bytes in storage order as upper-case
// hexadecimal, "-" after bytes 3, 5, 7 and 9, no byte swapping of the first
// groups ("00000000-0000-0000-0000-000000000000" for a fresh one). `text` is
// rebuilt whenever the bytes are set through this interface.
class QEL_EXPORT Guid {
public:
    Guid();
    Guid(const Guid& other) = default;
    // Copies the bytes and rebuilds the text; nothing on self-assignment.
    Guid& operator=(const Guid& other);
    void buildString();

    unsigned char bytes[16];
    std::string text;
};

namespace qelIpmi {

// The controller's Get Device ID answer, decoded into strings.
//
// The raw answer is kept once per process (`data`) and the controller is asked
// at most every 300 seconds, by the wall clock of the platform seam. An object
// that is created while the gate is closed does not ask and keeps its default
// strings; code that needs filled strings copies an object that has them. The
// cache lives until the last object is destroyed; the next object asks again
// at once. A machine of the ALDERCROFT line (decided from SMBIOS; no System
// Information structure, or a table the SMBIOS reader cannot read, counts as
// another machine) never sends Get Device ID. IPMI failures are caught:
// `ipmiAvailable` tells.
class QEL_EXPORT QelIpmiDeviceIdData {
public:
    // Decides acSystem, counts the object and calls update().
    QelIpmiDeviceIdData();
    // Copies every member, acSystem and guid included, and counts the object.
    QelIpmiDeviceIdData(const QelIpmiDeviceIdData& other);
    // Copies the strings, firmwareRevision, the two flags and guid, but leaves
    // acSystem as it is: it describes the machine this object was built on.
    QelIpmiDeviceIdData& operator=(const QelIpmiDeviceIdData& other);
    // The last object frees the cache and reopens the gate.
    virtual ~QelIpmiDeviceIdData();

    // Asks the controller when the 300-second gate is open. True when a new
    // answer was taken over into the cache and this object's fields; false
    // when the gate was closed, the answer equals the cached one, or IPMI
    // failed (then ipmiAvailable is false and the gate stays closed).
    bool update();

    std::string manufacturerId;   // 6 hex digits, least significant byte first
    std::string productId;        // 4 hex digits
    std::string versionString;    // "IPMIv51 - fw v1.07.00.00.00.47"
    std::string firmwareVersion;  // "1.07.00000047"; "0.0.0000" until filled
    unsigned short firmwareRevision;  // major << 8 | minor (BCD)
    bool oemFeatureAvailable;
    bool ipmiAvailable;
    bool acSystem;
    Guid guid;  // carried along by copies; never filled from the controller

    // Process-wide, all guarded by base_mutex (constant-initialised, so it is
    // usable from static constructors of other libraries).
    static unsigned char* data;  // last Get Device ID response (16 bytes) or null
    static int instance_count;
    static time_t last_update;   // time of the last attempt; 0: never
    static std::mutex base_mutex;
};

// Two EEPROM version records of the controller, read with the OEM version
// command (IANA, 0x12, index 0 and 1) and kept raw: 20 bytes each, the
// completion code included. A shorter answer is compared and kept as far as
// it goes, the rest of the record reading as zero. Transport errors pass on
// to the caller (the constructor included).
class QEL_EXPORT QelIpmiEEPROMVersionInfo {
public:
    QelIpmiEEPROMVersionInfo();
    virtual ~QelIpmiEEPROMVersionInfo();

    // Reads both records; true if either changed.
    bool update();
    // Reads again only when more than 120 seconds passed since the last look.
    // True means "the records changed", despite the name: callers use it so.
    [[nodiscard]] bool isUpToDate();

    unsigned char versionRecord[2][20];
    time_t lastCheck;
};

// ================================================================ LAN

// One IPv6 address of the controller's LAN channel.
struct QEL_EXPORT QelIpmiIpv6AddressInfo {
    QelIpmiIpv6AddressInfo();

    IPv6Address address;
    int prefixLength;
    int source;  // 0, 5 (static) or 6 (dynamic)
    int state;   // 0 to 3
};

// The network settings of the controller's own LAN channel, read with Get LAN
// Configuration Parameters (standard parameters 3, 4, 5, 6, 12 and the vendor
// IPv6 parameters). The object keeps one open connection for its lifetime.
//
// A parameter counts as answered when the response has completion code 0 and
// is long enough to hold every byte the decoder reads; a shorter response is
// treated exactly like an unanswered one, so nothing is read past its end.
class QEL_EXPORT QelIpmiLan {
public:
    // Opens the connection (a QelIpmiError from opening passes on). Channel 0
    // finds the LAN channel and reads it at once; any other channel is taken
    // as it is and nothing is read until the caller calls update().
    explicit QelIpmiLan(unsigned char channel);
    virtual ~QelIpmiLan();
    QelIpmiLan(const QelIpmiLan&) = delete;
    QelIpmiLan& operator=(const QelIpmiLan&) = delete;

    // The first channel above `after` whose Get Channel Info reports 802.3
    // LAN with IPMB-1.0, as the controller numbers it; 8 when there is none
    // or the controller cannot be asked.
    [[nodiscard]] static unsigned char getLanChannelNumber(unsigned char after);

    // Reads the parameters. Never throws QelIpmiError: a transport failure
    // makes `valid` false and keeps what was read so far. Each call appends
    // the IPv6 addresses to ipv6Addresses again (callers use fresh objects).
    void update();

    bool valid;
    unsigned char channel;
    bool ipv6Enabled;
    unsigned int ipv6AddressCount;
    int ipAddressSource;  // 0 unspecified, 1 static, 2 DHCP, 3 BIOS/system software, 4 other
    QelIpmi ipmi;
    MacAddress macAddress;
    IPv4Address ipAddress;
    IPv4Address subnetMask;
    IPv4Address defaultGateway;
    std::vector<QelIpmiIpv6AddressInfo> ipv6Addresses;
    QelIpmiIpv6AddressInfo ipv6PrimaryAddress;
};

}  // namespace qelIpmi

#endif
