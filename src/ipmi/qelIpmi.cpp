#include "qelIpmi.h"

#include <fcntl.h>
#include <sys/select.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "qelIpmiCommands.h"
#include "qelPlatform.h"
#include "qelSmbios.h"

#define QEL_SOURCE_NAME "qelIpmi"

namespace qelIpmi {

// ---------------------------------------------------------------- errors

QelIpmiError::QelIpmiError(const std::string& message, const std::string& file,
                           const unsigned int& line)
    : std::logic_error("errm"),
      fileName(file),
      lineNumber(line),
      errorText(qelError::composeText(message, file, line, ",")) {}

QelIpmiError::QelIpmiError(const std::string& message, const std::string& file,
                           const unsigned int& line, const int& errorNumber)
    : std::logic_error(""),
      fileName(file),
      lineNumber(line),
      errorText(qelError::overwriteWithNumber(message, errorNumber)) {}

QelIpmiError::QelIpmiError(const QelIpmiError& other)
    : std::logic_error(other),
      fileName(other.fileName),
      lineNumber(other.lineNumber),
      errorText(other.errorText) {}

QelIpmiError::~QelIpmiError() = default;

const char* QelIpmiError::what() { return errorText.c_str(); }

QEL_DEFINE_ERROR(QelIpmiLanError)

// ---------------------------------------------------------------- IANA

#ifndef QEL_VENDOR_IANA
#error "QEL_VENDOR_IANA must be defined by the build"
#endif
static_assert(QEL_VENDOR_IANA >= 0 && QEL_VENDOR_IANA <= 0xFFFFFF,
              "the vendor IANA number travels in three bytes");

const unsigned char vendorIana[3] = {
    static_cast<unsigned char>(QEL_VENDOR_IANA & 0xFF),
    static_cast<unsigned char>((QEL_VENDOR_IANA >> 8) & 0xFF),
    static_cast<unsigned char>((QEL_VENDOR_IANA >> 16) & 0xFF),
};

// ---------------------------------------------------------------- request message

QelIpmi_request_msg::QelIpmi_request_msg(unsigned char netFn_, unsigned char cmd_,
                                         unsigned short dataLength_, const unsigned char* data_)
    : netFn(netFn_),
      cmd(cmd_),
      dataLength(0),
      responseLength(0),
      data(dataBuffer),
      responseData(nullptr) {
    dataBuffer[0] = 0;
    if (dataLength_ >= 1 && dataLength_ <= maxDataLength && data_ != nullptr) {
        std::memcpy(dataBuffer, data_, dataLength_);
        dataLength = dataLength_;
    }
}

QelIpmi_request_msg::~QelIpmi_request_msg() { freeResponse(); }

void QelIpmi_request_msg::freeResponse() {
    std::free(responseData);
    responseData = nullptr;
    responseLength = 0;
}

void QelIpmi_request_msg::replaceSendData(const unsigned char* data_, unsigned short dataLength_) {
    if (dataLength_ == 0 || dataLength_ > maxDataLength || data_ == nullptr)
        throw std::length_error("QelIpmi_request_msg::replaceSendData");
    std::memmove(dataBuffer, data_, dataLength_);
    dataLength = dataLength_;
    freeResponse();
}

// ---------------------------------------------------------------- transport

const char* const QelIpmi::devicePaths[3] = {"/dev/ipmi0", "/dev/ipmi/0", "/dev/ipmidev/0"};

std::atomic<unsigned int> QelIpmi::msgId_seed{static_cast<unsigned int>(std::time(nullptr))};

QelIpmi::QelIpmi(unsigned char lun, unsigned char slaveAddress, IpmiAddressType type)
    : fd(-1), systemInterfaceAddr{}, ipmbAddr{}, activeAddr(nullptr), activeAddrLength(8) {
    int lastErrno = ENOENT;
    for (const char* path : devicePaths) {
        device_ = ipmiDeviceProvider().open(path, O_RDWR);
        if (device_) break;
        lastErrno = errno;
    }
    if (!device_)
        QEL_THROW(QelIpmiError, std::string("Open failed: ") + std::strerror(lastErrno));
    fd = device_->fd();

    switch (type) {
    case SYSTEM_INTERFACE:
        systemInterfaceAddr.addr_type = IPMI_SYSTEM_INTERFACE_ADDR_TYPE;
        systemInterfaceAddr.channel = IPMI_BMC_CHANNEL;
        systemInterfaceAddr.lun = lun;
        activeAddr = &systemInterfaceAddr;
        break;
    case IPMB:
    case IPMB_BROADCAST:
        ipmbAddr.addr_type = type;
        ipmbAddr.channel = 0;
        ipmbAddr.slave_addr = slaveAddress;
        ipmbAddr.lun = lun;
        activeAddr = &ipmbAddr;
        break;
    default:
        // The object never completes; the device opened above is closed with
        // it rather than leaked, since nobody could close it later.
        QEL_THROW(QelIpmiError, "Address Type not supported");
    }
}

QelIpmi::~QelIpmi() = default;  // closing the device closes the descriptor

int QelIpmi::getMsgId() {
    unsigned int seed = msgId_seed.load(std::memory_order_relaxed);
    int id = rand_r(&seed);
    msgId_seed.store(seed, std::memory_order_relaxed);
    return id;
}

bool QelIpmi::sendCmd(QelIpmi_request_msg& msg) const {
    // The set and the time-out are prepared once, before sending. select()
    // consumes both: after a time-out the set is empty and no time is left, so
    // the remaining passes of the loop return at once and the exchange ends
    // after one 5-second window, however many events arrive in it.
    fd_set readSet;
    FD_ZERO(&readSet);
    struct timeval timeout = {5, 0};
    if (fd == -1 || !device_) return false;
    FD_SET(fd, &readSet);

    msg.freeResponse();

    const long msgId = getMsgId();
    struct ipmi_req req;
    std::memset(&req, 0, sizeof req);
    req.addr = static_cast<unsigned char*>(activeAddr);
    req.addr_len = activeAddrLength;
    req.msgid = msgId;
    req.msg.netfn = msg.netFn;
    req.msg.cmd = msg.cmd;
    req.msg.data = msg.data;
    req.msg.data_len = static_cast<unsigned short>(msg.dataLength);
    if (device_->ioctl(IPMICTL_SEND_COMMAND, &req) == -1)
        QEL_THROW(QelIpmiError,
                  std::string("ioctl IPMICTL_SEND_COMMAND failed: ") + std::strerror(errno));

    int retries = 0;
    do {
        int ready = device_->select(fd + 1, &readSet, &timeout);
        if (ready == 0) {
            ++retries;
            continue;
        }
        if (ready < 0)
            QEL_THROW(QelIpmiError, std::string("select failed: ") + std::strerror(errno));
        if (!FD_ISSET(fd, &readSet))
            QEL_THROW(QelIpmiError,
                      "select after ioctl IPMICTL_SEND_COMMAND failed for unknown reasons");

        unsigned char buffer[IPMI_MAX_MSG_LENGTH];
        struct ipmi_recv recv;
        std::memset(&recv, 0, sizeof recv);
        recv.addr = static_cast<unsigned char*>(activeAddr);
        recv.addr_len = activeAddrLength;
        recv.msg.data = buffer;
        recv.msg.data_len = sizeof buffer;
        if (device_->ioctl(IPMICTL_RECEIVE_MSG, &recv) == -1)
            QEL_THROW(QelIpmiError,
                      std::string("ioctl IPMICTL_RECEIVE_MSG failed: ") + std::strerror(errno));

        switch (recv.recv_type) {
        case IPMI_RESPONSE_RECV_TYPE:
            retries = 0;
            // A response to another message, or one without data, ends the
            // exchange too, leaving this message without a response: waiting
            // on for the right one could hold the caller far past 5 seconds.
            if (recv.msgid == msgId && recv.msg.data_len != 0) {
                // The kernel never reports more than the buffer; a device that
                // does must not make us read past it.
                std::size_t length = recv.msg.data_len;
                if (length > sizeof buffer) length = sizeof buffer;
                auto* copy = static_cast<unsigned char*>(std::calloc(length, 1));
                if (copy == nullptr) QEL_THROW(QelIpmiError, "memory request error");
                std::memcpy(copy, buffer, length);
                msg.responseData = copy;
                msg.responseLength = length;
            }
            break;
        case IPMI_ASYNC_EVENT_RECV_TYPE:
        case IPMI_CMD_RECV_TYPE:
            ++retries;
            break;
        default:
            throw QelIpmiError("reply message has wrong type: ", QEL_SOURCE_NAME, __LINE__,
                               recv.recv_type);
        }
    } while (retries >= 1 && retries <= 4);

    return retries != 5;
}

// ================================================================ identity

namespace {

std::string hex2(unsigned int value) {
    char text[3];
    std::snprintf(text, sizeof text, "%02x", value & 0xFFu);
    return text;
}

std::string hexPlain(unsigned int value) {
    char text[9];
    std::snprintf(text, sizeof text, "%x", value);
    return text;
}

// SMBIOS System Information (type 1): the string numbers of the product name
// and the family.
constexpr unsigned int productNameOffset = 0x05;
constexpr unsigned int familyOffset = 0x1A;
const char* const aldercroftLine = "ALDERCROFT";

// Machines of the ALDERCROFT line name it as their family or within their
// product name. Only strings that the structure's formatted area really
// holds are looked at (an SMBIOS 2.0 structure ends before the family).
bool belongsToAldercroftLine() {
    try {
        qelSmbios::QelSmbios smbios;
        qelSmbios::SmbiosStructHeader* system =
            smbios.getFirstEntry(qelSmbios::SystemInformation);
        if (system == nullptr) return false;
        const auto* formatted = reinterpret_cast<const unsigned char*>(system);
        if (system->length > familyOffset) {
            const char* family =
                qelSmbios::QelSmbios::getSmbiosString(system, formatted[familyOffset]);
            if (std::strcmp(family, aldercroftLine) == 0) return true;
        }
        if (system->length > productNameOffset) {
            const char* product =
                qelSmbios::QelSmbios::getSmbiosString(system, formatted[productNameOffset]);
            if (std::strstr(product, aldercroftLine) != nullptr) return true;
        }
        return false;
    } catch (const std::exception&) {
        // An unreadable table (unsupported system, no memory, a failed
        // mapping) cannot show the product line: the machine is then taken
        // for an ordinary one, which asks its controller as usual.
        return false;
    }
}

}  // namespace

}  // namespace qelIpmi

Guid::Guid() {
    std::memset(bytes, 0, sizeof bytes);
    buildString();
}

Guid& Guid::operator=(const Guid& other) {
    if (this == &other) return *this;
    std::memcpy(bytes, other.bytes, sizeof bytes);
    buildString();
    return *this;
}

void Guid::buildString() {
    static const char digits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(36);
    for (unsigned int i = 0; i < sizeof bytes; ++i) {
        out += digits[bytes[i] >> 4];
        out += digits[bytes[i] & 0x0F];
        if (i == 3 || i == 5 || i == 7 || i == 9) out += '-';
    }
    text = out;
}

namespace qelIpmi {

unsigned char* QelIpmiDeviceIdData::data = nullptr;
int QelIpmiDeviceIdData::instance_count = 0;
time_t QelIpmiDeviceIdData::last_update = 0;
std::mutex QelIpmiDeviceIdData::base_mutex;

QelIpmiDeviceIdData::QelIpmiDeviceIdData()
    : firmwareVersion("0.0.0000"),
      firmwareRevision(0),
      oemFeatureAvailable(false),
      ipmiAvailable(true),
      acSystem(belongsToAldercroftLine()) {
    {
        std::lock_guard<std::mutex> lock(base_mutex);
        ++instance_count;
    }
    update();
}

namespace {

// The decoded answer (or the defaults standing in for it) and guid: what a
// copy and an assignment both take over. acSystem is left out on purpose:
// an assignment keeps the target's, which describes the machine that object
// was built on; the copy constructor takes it over itself.
void copyControllerFacts(QelIpmiDeviceIdData& to, const QelIpmiDeviceIdData& from) {
    to.manufacturerId = from.manufacturerId;
    to.productId = from.productId;
    to.versionString = from.versionString;
    to.firmwareVersion = from.firmwareVersion;
    to.firmwareRevision = from.firmwareRevision;
    to.oemFeatureAvailable = from.oemFeatureAvailable;
    to.ipmiAvailable = from.ipmiAvailable;
    to.guid = from.guid;
}

}  // namespace

QelIpmiDeviceIdData::QelIpmiDeviceIdData(const QelIpmiDeviceIdData& other) {
    std::lock_guard<std::mutex> lock(base_mutex);
    copyControllerFacts(*this, other);
    acSystem = other.acSystem;
    ++instance_count;
}

QelIpmiDeviceIdData& QelIpmiDeviceIdData::operator=(const QelIpmiDeviceIdData& other) {
    if (this == &other) return *this;
    copyControllerFacts(*this, other);
    return *this;
}

QelIpmiDeviceIdData::~QelIpmiDeviceIdData() {
    std::lock_guard<std::mutex> lock(base_mutex);
    --instance_count;
    if (instance_count == 0 && data != nullptr) {
        std::free(data);
        data = nullptr;
        last_update = 0;
    }
}

bool QelIpmiDeviceIdData::update() {
    const time_t now = qelPlatform::platform().time();
    if (acSystem) return false;

    {
        // The gate is taken before the controller is asked, so a failed
        // attempt is not repeated within 300 seconds either.
        std::lock_guard<std::mutex> lock(base_mutex);
        if (last_update != 0 && std::difftime(now, last_update) <= 300.0) return false;
        last_update = now;
    }

    // Asked outside the mutex: the controller may take seconds to answer.
    unsigned char response[deviceId::responseSize];
    bool oemFeatures = false;
    try {
        QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
        ipmiAvailable = true;
        QelIpmi_request_msg getDeviceId(netfn::app, cmd::getDeviceId, 0, nullptr);
        ipmi.sendCmd(getDeviceId);
        // Anything but the full answer is useless: every field below is read
        // at a fixed position, and the cache compares all 16 bytes.
        if (getDeviceId.responseData == nullptr ||
            getDeviceId.responseLength != deviceId::responseSize ||
            getDeviceId.responseData[0] != cc::ok)
            QEL_THROW(QelIpmiError, "GetDeviceId does not yield response data.");
        std::memcpy(response, getDeviceId.responseData, sizeof response);

        switch (response[deviceId::oemMarker]) {
        case deviceId::oemMarkerPresent:
            oemFeatures = true;
            break;
        case deviceId::oemMarkerAbsent:
            oemFeatures = false;
            break;
        default: {
            // Firmware that does not mark its features: a controller that
            // knows the board's slot query offers them.
            QelIpmi_request_msg probe(netfn::oemBoard, cmd::getBoardSlot, 0, nullptr);
            ipmi.sendCmd(probe);
            oemFeatures = probe.responseData != nullptr && probe.responseLength >= 1 &&
                          probe.responseData[0] == cc::ok;
            break;
        }
        }
    } catch (QelIpmiError&) {
        ipmiAvailable = false;
        return false;
    }

    std::lock_guard<std::mutex> lock(base_mutex);
    if (data != nullptr && std::memcmp(data, response, sizeof response) == 0) return false;
    if (data == nullptr) {
        data = static_cast<unsigned char*>(std::malloc(deviceId::responseSize));
        if (data == nullptr) return true;
    }
    std::memcpy(data, response, deviceId::responseSize);

    // The major revision is read as a signed 7-bit field, as it always has
    // been: 64 and above come out negative and print as a 32-bit two's
    // complement ("ffffffc0" for 0x40). Controllers keep it within 0-63.
    int major = data[deviceId::firmwareRevision1] & 0x7F;
    if (major & 0x40) major -= 0x80;
    const unsigned int majorBits = static_cast<unsigned int>(major);
    const unsigned char minor = data[deviceId::firmwareRevision2];
    const unsigned char* aux = data + deviceId::auxFirmwareRevision;

    manufacturerId = hex2(data[deviceId::manufacturerId]) + hex2(data[deviceId::manufacturerId + 1]) +
                     hex2(data[deviceId::manufacturerId + 2]);
    productId = hex2(data[deviceId::productId]) + hex2(data[deviceId::productId + 1]);
    versionString = "IPMIv" + hexPlain(data[deviceId::ipmiVersion]) + " - fw v" +
                    hexPlain(majorBits) + "." + hex2(minor) + "." + hex2(aux[0]) + "." +
                    hex2(aux[1]) + "." + hex2(aux[2]) + "." + hex2(aux[3]);
    firmwareVersion = hexPlain(majorBits) + "." + hex2(minor) + "." + hex2(aux[0]) +
                      hex2(aux[1]) + hex2(aux[2]) + hex2(aux[3]);
    firmwareRevision = static_cast<unsigned short>((majorBits << 8) | minor);
    oemFeatureAvailable = oemFeatures;
    return true;
}

QelIpmiEEPROMVersionInfo::QelIpmiEEPROMVersionInfo()
    : lastCheck(qelPlatform::platform().time()) {
    std::memset(versionRecord, 0, sizeof versionRecord);
    update();
}

QelIpmiEEPROMVersionInfo::~QelIpmiEEPROMVersionInfo() = default;

bool QelIpmiEEPROMVersionInfo::update() {
    static_assert(sizeof versionRecord[0] == eepromVersion::recordSize, "one record per answer");
    QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
    QelIpmi_request_msg msg(netfn::oemGroup, cmd::oemVersionInfo, 0, nullptr);
    bool changed = false;
    for (unsigned char index = 0; index < eepromVersion::records; ++index) {
        const unsigned char request[eepromVersion::requestSize] = {
            vendorIana[0], vendorIana[1], vendorIana[2], eepromVersion::selector, index};
        msg.replaceSendData(request, sizeof request);
        ipmi.sendCmd(msg);
        if (msg.responseData == nullptr || msg.responseLength == 0 || msg.responseData[0] != cc::ok)
            continue;
        // A short answer is taken as far as it goes; the rest of the record
        // reads as zero, so nothing past the answer is ever read.
        unsigned char record[eepromVersion::recordSize] = {};
        std::memcpy(record, msg.responseData,
                    msg.responseLength < sizeof record ? msg.responseLength : sizeof record);
        if (std::memcmp(record, versionRecord[index], sizeof record) != 0) {
            std::memcpy(versionRecord[index], record, sizeof record);
            changed = true;
        }
    }
    return changed;
}

bool QelIpmiEEPROMVersionInfo::isUpToDate() {
    const time_t now = qelPlatform::platform().time();
    if (std::difftime(now, lastCheck) > 120.0) {
        lastCheck = now;
        return update();
    }
    return false;
}

// ================================================================ LAN

QelIpmiIpv6AddressInfo::QelIpmiIpv6AddressInfo() : prefixLength(0), source(0), state(0) {}

namespace {

// One Get LAN Configuration Parameters read through `msg`. Returns the
// response when the parameter was answered: completion code 0 and at least
// `needed` bytes (completion code included). A shorter response is taken as
// not answered, so no decoder reads past its end.
const unsigned char* readLanParameter(const QelIpmi& ipmi, QelIpmi_request_msg& msg,
                                      unsigned char channel, unsigned char parameter,
                                      unsigned char setSelector, std::size_t needed) {
    const unsigned char request[lanConfig::requestSize] = {
        static_cast<unsigned char>(channel & 0x07), parameter, setSelector, 0};
    msg.replaceSendData(request, sizeof request);
    ipmi.sendCmd(msg);
    if (msg.responseData == nullptr || msg.responseLength < needed || msg.responseData[0] != cc::ok)
        return nullptr;
    return msg.responseData;
}

int ipv6SourceOf(unsigned char value) {
    const int source = value & 0x07;
    return source == 5 || source == 6 ? source : 0;
}

int ipv6StateOf(unsigned char value) {
    const int state = value & 0x07;
    return state >= 1 && state <= 3 ? state : 0;
}

// Four bytes in network order; 0.0.0.0 for a parameter that was not answered.
IPv4Address ipv4From(const unsigned char* bytes) {
    IPv4Address address;
    if (bytes != nullptr) address = bytes;
    return address;
}

// IPv6Address assignment copies only the authoritative array; set the
// network-order copy as well, so that both read the same address.
void setIpv6Address(IPv6Address& target, const unsigned char* networkOrder) {
    target = IPv6Address(networkOrder);
    std::memcpy(target.networkBytes, networkOrder, sizeof target.networkBytes);
}

}  // namespace

QelIpmiLan::QelIpmiLan(unsigned char channel_)
    : valid(false),
      channel(channel_),
      ipv6Enabled(false),
      ipv6AddressCount(0),
      ipAddressSource(0),
      ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE) {
    // A given channel is taken as it is and read when the caller asks.
    if (channel != 0) return;
    channel = getLanChannelNumber(0);
    if (channel <= channelInfo::lastChannel) valid = true;
    update();
}

QelIpmiLan::~QelIpmiLan() = default;

unsigned char QelIpmiLan::getLanChannelNumber(unsigned char after) {
    constexpr unsigned char none = channelInfo::lastChannel + 1;
    try {
        QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
        QelIpmi_request_msg msg(netfn::app, cmd::getChannelInfo, 0, nullptr);
        for (unsigned int number = after + 1u; number <= channelInfo::lastChannel; ++number) {
            const unsigned char request = static_cast<unsigned char>(number);
            msg.replaceSendData(&request, 1);
            ipmi.sendCmd(msg);
            const unsigned char* r = msg.responseData;
            if (r == nullptr || msg.responseLength <= channelInfo::responseProtocol ||
                r[0] != cc::ok)
                continue;
            if ((r[channelInfo::responseMedium] & 0x7F) == channelInfo::mediumLan8023 &&
                (r[channelInfo::responseProtocol] & 0x1F) == channelInfo::protocolIpmb)
                return r[channelInfo::responseChannel];
        }
    } catch (QelIpmiError&) {
        // No controller to ask: no LAN channel either.
    }
    return none;
}

void QelIpmiLan::update() {
    if (channel > channelInfo::lastChannel) return;
    constexpr std::size_t first = lanConfig::responseData;  // parameter data start here

    try {
        QelIpmi_request_msg msg(netfn::transport, cmd::getLanConfigParameters, 0, nullptr);
        auto read = [&](unsigned char parameter, unsigned char setSelector, std::size_t needed) {
            return readLanParameter(ipmi, msg, channel, parameter, setSelector, needed);
        };
        const unsigned char* r;

        r = read(lanConfig::ipAddress, 0, first + 4);
        ipAddress = ipv4From(r ? r + first : nullptr);
        r = read(lanConfig::ipAddressSource, 0, first + 1);
        ipAddressSource = r ? r[first] & 0x07 : 0;
        r = read(lanConfig::macAddress, 0, first + 6);
        macAddress = MacAddress();
        if (r) std::memcpy(macAddress.bytes, r + first, sizeof macAddress.bytes);
        r = read(lanConfig::subnetMask, 0, first + 4);
        subnetMask = ipv4From(r ? r + first : nullptr);
        r = read(lanConfig::defaultGateway, 0, first + 4);
        defaultGateway = ipv4From(r ? r + first : nullptr);
        valid = true;

        r = read(lanConfig::ipv6Status, 0, first + 1);
        if (r) ipv6Enabled = (r[first] & lanConfig::ipv6DisabledBit) == 0;
        if (!ipv6Enabled) return;

        r = read(lanConfig::ipv6AddressCount, 0, first + 1);
        if (!r) return;
        ipv6AddressCount = r[first];

        for (unsigned int i = 0; i < ipv6AddressCount; ++i) {
            const auto index = static_cast<unsigned char>(i);
            QelIpmiIpv6AddressInfo entry;
            if ((r = read(lanConfig::ipv6Address, index, first + 16)))
                setIpv6Address(entry.address, r + first);
            if ((r = read(lanConfig::ipv6AddressSource, index, first + 1)))
                entry.source = ipv6SourceOf(r[first]);
            if ((r = read(lanConfig::ipv6AddressState, index, first + 1)))
                entry.state = ipv6StateOf(r[first]);
            if ((r = read(lanConfig::ipv6PrefixLength, index, first + 1)))
                entry.prefixLength = r[first];
            // Not emptied first: a second update() appends again. Callers use
            // a fresh object for every look.
            ipv6Addresses.push_back(entry);
        }

        // The primary address is taken from byte 1 on, the revision byte
        // included: one byte earlier than the indexed addresses, on purpose.
        // What reads ipv6PrimaryAddress relies on this form; do not "fix" it.
        r = read(lanConfig::ipv6PrimaryAddress, 0, 1 + 16);
        if (r) setIpv6Address(ipv6PrimaryAddress.address, r + 1);
        // Likewise the primary state comes from byte 1.
        r = read(lanConfig::ipv6PrimaryState, 0, 1 + 1);
        if (r) ipv6PrimaryAddress.state = ipv6StateOf(r[1]);
    } catch (QelIpmiError&) {
        // A failing device leaves what was read so far; the rest keeps its
        // old values.
        valid = false;
    }
}

}  // namespace qelIpmi
