#include "qelBladeInfo.h"

#include <algorithm>
#include <cstring>

#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSmbios.h"

#define QEL_SOURCE_NAME "qelBladeInfo"

QEL_DEFINE_ERROR(QelBladeInfoError)

namespace {

using qelIpmi::QelIpmi;
using qelIpmi::QelIpmi_request_msg;
namespace netfn = qelIpmi::netfn;
namespace cmd = qelIpmi::cmd;
namespace cc = qelIpmi::cc;
namespace mmb = qelIpmi::mmb;

// One request and what came back for it.
class Exchange {
public:
    Exchange(const QelIpmi& ipmi, unsigned char netFn, unsigned char command,
             const unsigned char* data, std::size_t length)
        : msg_(netFn, command, static_cast<unsigned short>(length), data) {
        answered_ = ipmi.sendCmd(msg_) && msg_.responseData != nullptr && msg_.responseLength > 0;
    }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    // A response holding at least its completion code came.
    bool answered() const { return answered_; }
    unsigned char code() const { return answered_ ? msg_.responseData[0] : 0; }
    // Completion code 0 and at least `need` bytes (completion code included).
    // A success that is too short for its decoder counts as no answer.
    bool ok(std::size_t need) const {
        return answered_ && msg_.responseData[0] == cc::ok && msg_.responseLength >= need;
    }
    const unsigned char* bytes() const { return msg_.responseData; }
    std::size_t length() const { return answered_ ? msg_.responseLength : 0; }

private:
    QelIpmi_request_msg msg_;
    bool answered_ = false;
};

// The request byte "slot - 1": the low eight bits of the slot, minus one.
unsigned char slotByte(uint32_t slot) { return static_cast<unsigned char>(slot - 1); }

// ------------------------------------------------------------ board settings

// 0xE1/0xE3 for an IPv4 value. True when the board answered the request
// (whatever family it named); the value is taken only for an IPv4 answer.
bool readIpv4(const QelIpmi& ipmi, unsigned char command, const unsigned char selector[2],
              IPv4Address& out) {
    Exchange e(ipmi, netfn::oemBoard, command, selector, mmb::addressRequestSize);
    if (!e.ok(mmb::ipv4ResponseSize)) return false;
    if (e.bytes()[mmb::addressResponseFamily] == mmb::familyIpv4)
        out = e.bytes() + mmb::addressResponseValue;
    return true;
}

// The old boards' 0x80/0x81: four octets behind the completion code.
void readLegacyIpv4(const QelIpmi& ipmi, unsigned char command, IPv4Address& out) {
    Exchange e(ipmi, netfn::oemBoard, command, nullptr, 0);
    if (e.ok(mmb::legacyAddressResponseSize)) out = e.bytes() + 1;
}

// 0xE1 for an IPv6 address.
void readIpv6(const QelIpmi& ipmi, const unsigned char selector[2], IPv6Address& out) {
    Exchange e(ipmi, netfn::oemBoard, cmd::getBoardAddress, selector, mmb::addressRequestSize);
    if (e.ok(mmb::ipv6ResponseSize) && e.bytes()[mmb::addressResponseFamily] == mmb::familyIpv6)
        out = IPv6Address(e.bytes() + mmb::addressResponseValue);
}

// 0xE3 for an IPv6 mask, kept as its prefix length.
void readIpv6Prefix(const QelIpmi& ipmi, const unsigned char selector[2], uint32_t& out) {
    Exchange e(ipmi, netfn::oemBoard, cmd::getBoardMask, selector, mmb::addressRequestSize);
    if (e.ok(mmb::ipv6ResponseSize) && e.bytes()[mmb::addressResponseFamily] == mmb::familyIpv6)
        out = IPv6Address(e.bytes() + mmb::addressResponseValue).getNumberOfLeadingOnes();
}

void readBoardMac(const QelIpmi& ipmi, unsigned char selector, MacAddress& out) {
    Exchange e(ipmi, netfn::oemBoard, cmd::getBoardMac, &selector, mmb::macRequestSize);
    if (e.ok(mmb::macResponseSize)) std::memcpy(out.bytes, e.bytes() + 1, sizeof out.bytes);
}

bool allZero(const MacAddress& mac) {
    return std::all_of(std::begin(mac.bytes), std::end(mac.bytes), [](uint8_t b) { return b == 0; });
}

// ------------------------------------------------------------ construction

// SMBIOS offsets of the string numbers used: System Information (type 1)
// product name, serial number and family; System Enclosure (type 3) serial
// number.
constexpr unsigned int systemProductName = 0x05;
constexpr unsigned int systemSerialNumber = 0x07;
constexpr unsigned int systemFamily = 0x1A;
constexpr unsigned int enclosureSerialNumber = 0x07;
const char* const aldercroftLine = "ALDERCROFT";

// The string whose number stands at `offset` of the structure's formatted
// area, as the reader gives it (one blank for a string that does not exist).
// A structure too short to hold the offset has no such string.
std::string smbiosString(qelSmbios::SmbiosStructHeader* entry, unsigned int offset) {
    if (entry == nullptr || entry->length <= offset) return qelSmbios::QelSmbios::empty_string;
    const unsigned char number = reinterpret_cast<const unsigned char*>(entry)[offset];
    return qelSmbios::QelSmbios::getSmbiosString(entry, number);
}

// Whether the host has a management board, and whether it belongs to the
// ALDERCROFT line. Errors of the SMBIOS reader and the identity pass on.
void detectBladeSystem(QelBladeInfo& blade) {
    qelSmbios::QelSmbios smbios;
    qelSmbios::SmbiosStructHeader* system = smbios.getFirstEntry(qelSmbios::SystemInformation);
    const unsigned int enclosures = smbios.getEntryNumber(qelSmbios::SystemEnclosure);
    qelIpmi::QelIpmiDeviceIdData identity;

    blade.bladeSystem = enclosures > 1 || identity.oemFeatureAvailable;
    if (!blade.bladeSystem) {
        // A blade in a chassis carries the chassis' serial number in its
        // enclosure structure, which then differs from its own. A missing
        // string reads as one blank and so never counts.
        const std::string enclosureSerial =
            smbiosString(smbios.getFirstEntry(qelSmbios::SystemEnclosure), enclosureSerialNumber);
        const std::string systemSerial = smbiosString(system, systemSerialNumber);
        if (enclosures == 1 && enclosureSerial.size() > 1 && systemSerial.size() > 1 &&
            enclosureSerial != systemSerial)
            blade.bladeSystem = true;
    }
    blade.acSystem = smbiosString(system, systemFamily) == aldercroftLine ||
                     smbiosString(system, systemProductName).find(aldercroftLine) != std::string::npos;
}

// The slot query; the slot stays unknown unless the board names it.
void readSlot(const QelIpmi& ipmi, uint32_t& slot) {
    Exchange e(ipmi, netfn::oemBoard, cmd::getBoardSlot, nullptr, 0);
    if (e.ok(mmb::slotResponseSize)) slot = e.bytes()[1];
}

// The legacy list of every port's MAC, for boards that do not know 0x75.
// Record k is port k, its bytes reversed. A trailing partial record is
// ignored. Returns the number of records (0 when the board did not answer).
unsigned int readLegacyPortMacs(const QelIpmi& ipmi, std::map<uint32_t, MacAddress>& macs) {
    Exchange e(ipmi, netfn::oemBoard, cmd::getPortMacsLegacy, nullptr, 0);
    if (!e.ok(mmb::legacyRecords)) return 0;
    const std::size_t records = (e.length() - mmb::legacyRecords) / mmb::legacyRecordSize;
    for (std::size_t k = 0; k < records; ++k) {
        const unsigned char* record = e.bytes() + mmb::legacyRecords + k * mmb::legacyRecordSize;
        MacAddress mac;
        for (unsigned int j = 0; j < mmb::legacyRecordSize; ++j)
            mac.bytes[j] = record[mmb::legacyRecordSize - 1 - j];
        macs.emplace(static_cast<uint32_t>(k + 1), mac);  // an existing port keeps its MAC
    }
    return static_cast<unsigned int>(records);
}

// Asks port after port until as many answered as the board says it has. A
// port number the board has no record for (0xC9) is skipped without counting;
// a board that does not know the command (0xC1) is asked for the legacy list
// instead; anything else, a missing or short reply included, ends the walk.
// Port numbers stop below 32 whatever the board's count says.
void readPortMacs(const QelIpmi& ipmi, std::map<uint32_t, MacAddress>& macs) {
    uint32_t port = 1;
    unsigned int count = 0;
    unsigned int answered = 0;
    do {
        const unsigned char number = static_cast<unsigned char>(port & mmb::portNumberMask);
        Exchange e(ipmi, netfn::oemBoard, cmd::getPortMac, &number, 1);
        const unsigned char code = e.code();
        if (!e.answered()) {
            count = answered = 0;
        } else if (code == cc::ok) {
            const bool present = e.length() >= mmb::portHeaderSize &&
                                 (e.bytes()[mmb::portResponseFlags] & mmb::portPresent) != 0;
            if (!e.ok(present ? mmb::portResponseSize : mmb::portHeaderSize)) {
                count = answered = 0;  // too short for what it says: no answer
            } else {
                count = e.bytes()[mmb::portResponseCount];
                if (present) {
                    MacAddress mac;
                    std::memcpy(mac.bytes, e.bytes() + mmb::portResponseMac, sizeof mac.bytes);
                    macs.emplace(port, mac);
                }
                ++answered;
                ++port;
            }
        } else if (code == cc::parameterOutOfRange) {
            ++port;
        } else if (code == cc::invalidCommand) {
            answered = count = readLegacyPortMacs(ipmi, macs);
        } else {
            count = answered = 0;
        }
    } while (answered != count && port < mmb::portLimit);
}

// The port whose MAC is `mac`, walking the ports in order.
bool findPort(const std::map<uint32_t, MacAddress>& macs, const MacAddress& mac, uint32_t& port) {
    for (const auto& entry : macs) {
        if (std::memcmp(entry.second.bytes, mac.bytes, sizeof mac.bytes) == 0) {
            port = entry.first;
            return true;
        }
    }
    return false;
}

// fe80::/10, from the authoritative (reversed) bytes: a caller's value may be
// an assignment target whose network-order copy is stale.
bool isLinkLocal(const uint8_t network[16]) { return network[0] == 0xFE && (network[1] & 0xC0) == 0x80; }

// One OS or platform text request of the old single-request form: byte 0 as
// given, then the text; `maxText` or fewer characters and a NUL. Returns the
// request length.
std::size_t singleTextRequest(unsigned char request[mmb::textRequestMax], const std::string& text) {
    const std::size_t maxText = mmb::textRequestMax - 2;  // byte 0 and the NUL
    const std::size_t n = std::min(text.size(), maxText);
    std::memcpy(request + 1, text.data(), n);
    request[1 + n] = 0;
    return n + 2;
}

}  // namespace

QelBladeInfo::QelBladeInfo(unsigned int slot, bool detect)
    : bladeSystem(false),
      acSystem(false),
      mmbNetworkInfoRead(false),
      extendedMmbInterface(false),
      bladeSlot(slot),
      mmbIpv6Prefix_1(0),
      mmbIpv6Prefix_2(0) {
    if (!detect) {
        bladeSystem = true;
    } else {
        detectBladeSystem(*this);
    }
    if (!bladeSystem) return;

    mmbNetworkInfoRead = getMMBNetworkInfo();
    try {
        QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
        if (bladeSlot == unknownSlot) readSlot(ipmi, bladeSlot);
        readPortMacs(ipmi, macAddresses);
    } catch (qelIpmi::QelIpmiError&) {
        // No controller to ask, ignoring: the object keeps what it learnt and
        // the reporting operations find out for themselves.
    }
}

QelBladeInfo::~QelBladeInfo() = default;

bool QelBladeInfo::getMMBNetworkInfo() {
    if (!bladeSystem) return false;
    try {
        QelIpmi ipmi(1, 0, QelIpmi::SYSTEM_INTERFACE);
        {
            Exchange e(ipmi, netfn::oemBoard, cmd::getBoardCapabilities, nullptr, 0);
            if (e.ok(mmb::capabilitiesResponseSize) && (e.bytes()[1] & mmb::capabilityExtended) != 0)
                extendedMmbInterface = true;
        }

        // The selector of the most recent 0xE1 request. Every 0xE3 request
        // after the first carries it instead of its own selector: boards in
        // the field have only ever been asked this sequence, and the IPv6
        // prefixes they report depend on it, so it is kept as it is.
        unsigned char lastAddressSelector[mmb::addressRequestSize] = {mmb::familyIpv4, 0x00};

        // Old boards know neither 0xE1 nor 0xE3; both address members then
        // take the single address of 0x80 (deliberately the same command).
        if (!readIpv4(ipmi, cmd::getBoardAddress, lastAddressSelector, mmbIpv4_1))
            readLegacyIpv4(ipmi, cmd::getBoardIpv4Legacy, mmbIpv4_1);
        lastAddressSelector[1] = 0x01;
        if (!readIpv4(ipmi, cmd::getBoardAddress, lastAddressSelector, mmbIpv4_2))
            readLegacyIpv4(ipmi, cmd::getBoardIpv4Legacy, mmbIpv4_2);

        const unsigned char firstMask[mmb::addressRequestSize] = {mmb::familyIpv4, 0x00};
        readIpv4(ipmi, cmd::getBoardMask, firstMask, mmbIpv4_3);
        if (!readIpv4(ipmi, cmd::getBoardMask, lastAddressSelector, mmbIpv4_4))
            readLegacyIpv4(ipmi, cmd::getBoardMaskLegacy, mmbIpv4_4);
        readIpv6Prefix(ipmi, lastAddressSelector, mmbIpv6Prefix_1);

        if (extendedMmbInterface) {
            lastAddressSelector[0] = mmb::familyIpv6;
            lastAddressSelector[1] = 0x02;
            readIpv6(ipmi, lastAddressSelector, mmbIpv6_1);
            lastAddressSelector[1] = 0x03;
            readIpv6(ipmi, lastAddressSelector, mmbIpv6_2);
            readIpv6Prefix(ipmi, lastAddressSelector, mmbIpv6Prefix_1);
            readIpv6Prefix(ipmi, lastAddressSelector, mmbIpv6Prefix_2);
        }

        readBoardMac(ipmi, 0x00, mmbMacAddress);
        if (allZero(mmbMacAddress)) readBoardMac(ipmi, 0x01, mmbMacAddress);
    } catch (qelIpmi::QelIpmiError&) {
        return false;  // the members keep what was read before the failure
    }
    return true;
}

bool QelBladeInfo::sendIpAddressInfo(const IPv4Address& address, const MacAddress& mac) const {
    uint32_t port = 0;
    if (!bladeSystem || bladeSlot == unknownSlot || !findPort(macAddresses, mac, port)) return false;
    try {
        QelIpmi ipmi(1, 0, QelIpmi::SYSTEM_INTERFACE);
        unsigned char report[mmb::ipv4ReportSize] = {slotByte(bladeSlot), static_cast<unsigned char>(port - 1)};
        std::memcpy(report + mmb::ipv4ReportAddress, address.octets, sizeof address.octets);
        {
            Exchange e(ipmi, netfn::oemBoard, cmd::setPortIpv4, report, sizeof report);
            if (e.ok(1)) return true;
        }
        // Boards that dropped the old command take IPv4 in the common form.
        unsigned char extended[mmb::ipv4AddressReportSize] = {
            slotByte(bladeSlot), static_cast<unsigned char>((port - 1) & mmb::portNumberMask),
            mmb::kindIpv4, mmb::familyIpv4};
        std::memcpy(extended + mmb::reportAddress, address.octets, sizeof address.octets);
        Exchange e(ipmi, netfn::oemBoard, cmd::setPortAddress, extended, sizeof extended);
        return e.ok(1);
    } catch (qelIpmi::QelIpmiError&) {
        return false;
    }
}

bool QelBladeInfo::sendIpAddressInfo(const IPv6Address& address, const MacAddress& mac) const {
    uint32_t port = 0;
    if (!bladeSystem || bladeSlot == unknownSlot || !findPort(macAddresses, mac, port)) return false;
    uint8_t network[16];
    for (unsigned int i = 0; i < 16; ++i) network[i] = address.reversedBytes[15 - i];
    try {
        QelIpmi ipmi(1, 0, QelIpmi::SYSTEM_INTERFACE);
        unsigned char report[mmb::ipv6AddressReportSize] = {
            slotByte(bladeSlot), static_cast<unsigned char>((port - 1) & mmb::portNumberMask),
            isLinkLocal(network) ? mmb::kindLinkLocal : mmb::kindGlobal, mmb::familyIpv6};
        std::memcpy(report + mmb::reportAddress, network, sizeof network);
        Exchange e(ipmi, netfn::oemBoard, cmd::setPortAddress, report, sizeof report);
        return e.ok(1);
    } catch (qelIpmi::QelIpmiError&) {
        return false;
    }
}

bool QelBladeInfo::setOSStatus(AC_systemStatus status) const {
    if (!acSystem) return false;
    try {
        QelIpmi ipmi(0, mmb::boardIpmbAddress, QelIpmi::IPMB);
        const unsigned char event[mmb::osEventSize] = {
            mmb::eventRevision, mmb::osSensorType, mmb::osSensorNumber, mmb::osEventType,
            static_cast<unsigned char>(status | mmb::osStatusMarker), mmb::osEventData2,
            mmb::osEventData3};
        Exchange e(ipmi, netfn::sensorEvent, cmd::platformEvent, event, sizeof event);
        return e.ok(1);
    } catch (qelIpmi::QelIpmiError&) {
        return false;
    }
}

bool QelBladeInfo::setOSPlatformInfo(const std::string& osText, const std::string& platformText) const {
    if (!bladeSystem || bladeSlot == unknownSlot) return false;
    try {
        QelIpmi ipmi(1, 0, QelIpmi::SYSTEM_INTERFACE);
        // One request buffer for every text request: byte 0 carries over from
        // one request to the next, as the board has always received it.
        unsigned char request[mmb::textRequestMax] = {};
        const unsigned char slotBits = slotByte(bladeSlot) & mmb::textSlotMask;
        bool answered = false;
        unsigned char code = 0;

        // The OS text in chunks of 32 bytes. A chunk shorter than 32 bytes
        // (possibly empty) ends the text with a NUL; chunk 3 ends it in any
        // case, its last byte given over to the NUL.
        for (unsigned int chunk = 0; chunk < mmb::osTextChunks; ++chunk) {
            request[0] = static_cast<unsigned char>(slotBits | (chunk << mmb::chunkShift));
            const std::size_t start = chunk * mmb::textChunkSize;
            const std::size_t rest = start < osText.size() ? osText.size() - start : 0;
            std::size_t length;
            bool last;
            if (rest < mmb::textChunkSize) {
                if (rest > 0) std::memcpy(request + 1, osText.data() + start, rest);
                request[1 + rest] = 0;
                length = rest + 2;
                last = true;
            } else {
                std::memcpy(request + 1, osText.data() + start, mmb::textChunkSize);
                length = mmb::textRequestMax;
                last = chunk + 1 == mmb::osTextChunks;
                if (last) request[mmb::textRequestMax - 1] = 0;
            }
            Exchange e(ipmi, netfn::oemBoard, cmd::setOsText, request, length);
            answered = e.answered();
            code = e.code();
            if (last || !e.ok(1)) break;
        }
        if (!answered) return false;

        if (code == cc::invalidCommand) {
            // A board without the chunked command takes the text in one
            // request. Only the chunk number stays in byte 0: these boards
            // never got the slot there.
            request[0] &= mmb::chunkMask;
            const std::size_t length = singleTextRequest(request, osText);
            Exchange e(ipmi, netfn::oemBoard, cmd::setOsTextLegacy, request, length);
            if (!e.answered()) return false;
            code = e.code();
        }
        if (code != cc::ok) return false;

        const std::size_t length = singleTextRequest(request, platformText);
        Exchange e(ipmi, netfn::oemBoard, cmd::setPlatformText, request, length);
        return e.ok(1);
    } catch (qelIpmi::QelIpmiError&) {
        return false;
    }
}
