#define QEL_SOURCE_NAME "PniAccess"

#include "PniAccess.h"

#include <syslog.h>

#include "qelPlatform.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>

#include "qelIpmi.h"
#include "qelIpmiCommands.h"

QEL_DEFINE_ERROR_COMMON(PniAccessError, "", qelError::composeText(message, file, line, ", "))

using qelIpmi::QelIpmi;
using qelIpmi::QelIpmi_request_msg;

namespace {

// Read/Write FRU Data carry at most this many data bytes per request: small
// enough for every controller's message buffer.
constexpr int fruChunk = 64;

// FRU layout that construction reads.
constexpr int commonHeaderSize = 8;
constexpr int commonHeaderInternalUse = 1;  // offset in units of 8
constexpr int areaHeaderSize = 8;
constexpr int areaHeaderRecordOffset = 2;  // from the area's start, units of 8
constexpr int areaHeaderAdapters = 3;
constexpr int recordHeaderSize = 6;
constexpr unsigned char recordTypePni = 0xF0;
constexpr int recordHeaderLength = 2;  // 2 bytes, least significant first
constexpr int recordHeaderChecksum = 4;
constexpr int recordHeaderHeaderChecksum = 5;
constexpr int recordDataFormat = 3;
constexpr unsigned char recordFormat = 1;
constexpr unsigned char firstEntry = 4;
constexpr unsigned char minVersion = 10;
constexpr unsigned char maxVersion = 12;

// Entries: byte 0 last-entry mark and index, byte 1 length, byte 2 the
// number of children (adapters, ports) or the common-area length (functions).
constexpr int entryHeaderSize = 3;
constexpr unsigned char lastEntryMark = 0x80;
constexpr unsigned char indexMask = 0x1F;
constexpr int commonEntryLength = 1;  // in units of 4 bytes
constexpr int commonType = 14;        // text (version 10) or number (11, 12)

// Specific area of a NIC function.
constexpr int areaMacOther = 0;
constexpr int areaMacReported = 6;
constexpr int areaCounts = 44;
constexpr int areaAddresses = 45;
constexpr int maxAddressesPerKind = 15;
// Read with room for 15 addresses of each kind; the buffer has 4 more bytes
// so the padding behind a full area can be zeroed in place.
constexpr int areaReadLength = 345;
constexpr int areaBufferSize = areaReadLength + 4;

const char* const typeNames[] = {"NIC", "FC", "FCoE", "iSCSI", "IB"};
constexpr unsigned char typeCount = 5;
const char* const unknownType = "Unknown";

// The area is followed by 1 to 4 zero bytes so that the entry ends on a
// multiple of 4. An entry that would already end on one still gets 4 bytes:
// existing records were written that way and readers expect it.
int padding(int commonLength, int dataLength) { return 4 - ((commonLength + dataLength) % 4); }

unsigned char lowByte(unsigned int value) { return static_cast<unsigned char>(value & 0xFF); }
unsigned char highByte(unsigned int value) { return static_cast<unsigned char>((value >> 8) & 0xFF); }

// Through the platform, so tests can read what was logged.
void logError(const std::string& text) { qelPlatform::platform().syslog(LOG_ERR, text.c_str()); }

}  // namespace

PniAccess::PniAccess() {
    try {
        QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
        bool unknownCommand = false;
        try {
            locate(ipmi, unknownCommand);
            parse(ipmi);
        } catch (PniAccessError& e) {
            // A controller without the locate command has no PNI at all; the
            // agent treats that as the normal case and says nothing.
            if (unknownCommand) throw std::runtime_error("IPMI access has failed.");
            // The caught text is wrapped once more; the agent logs this text
            // and the log readers expect both layers.
            throw PniAccessError(e.errorText, QEL_SOURCE_NAME, 640);
        }
    } catch (qelIpmi::QelIpmiError& e) {
        logError("IPMI access has failed.");
        logError(e.errorText);
        statusFlags_ = 0;
    }
}

PniAccess::~PniAccess() = default;

bool PniAccess::usable() const {
    return fruDeviceId_ != 0 && (statusFlags_ & statusTableValid) != 0;
}

// ---------------------------------------------------------------- construction

void PniAccess::locate(const QelIpmi& ipmi, bool& unknownCommand) {
    namespace layout = qelIpmi::pniLocate;
    QelIpmi_request_msg msg(qelIpmi::netfn::oemPni, qelIpmi::cmd::pniLocate,
                            sizeof(layout::request), layout::request);
    bool answered = ipmi.sendCmd(msg);
    // No answer, or one too short to name the device, reports as "unspecified".
    unsigned char code = qelIpmi::cc::unspecified;
    if (answered && msg.responseLength >= 1) code = msg.responseData[0];
    if (code != qelIpmi::cc::ok || msg.responseLength < layout::responseSize) {
        if (code == qelIpmi::cc::ok) code = qelIpmi::cc::unspecified;
        unknownCommand = code == qelIpmi::cc::invalidCommand;
        std::ostringstream text;
        text << "IPMI access has failed. (Return code: " << std::hex << static_cast<int>(code)
             << ") ";
        QEL_THROW(PniAccessError, text.str());
    }
    fruDeviceId_ = msg.responseData[layout::responseDeviceId];
    fruCapacity_ = static_cast<unsigned short>(msg.responseData[layout::responseCapacity] |
                                               msg.responseData[layout::responseCapacity + 1] << 8);
}

void PniAccess::parse(const QelIpmi& ipmi) {
    unsigned char common[commonHeaderSize];
    if (readFru(ipmi, 0, commonHeaderSize, common) != resultOk)
        QEL_THROW(PniAccessError, "Read FRU failed ");
    if (!validateZeroChecksum(common, commonHeaderSize, 0))
        QEL_THROW(PniAccessError, "Checksum error ");

    const unsigned short areaOffset =
        static_cast<unsigned short>(common[commonHeaderInternalUse] * 8);
    unsigned char area[areaHeaderSize];
    if (readFru(ipmi, areaOffset, areaHeaderSize, area) != resultOk)
        QEL_THROW(PniAccessError, "Read FRU failed ");
    if (!validateZeroChecksum(area, areaHeaderSize, 0))
        QEL_THROW(PniAccessError, "Checksum error ");
    if (area[0] != 1 || area[1] != 1) QEL_THROW(PniAccessError, "Invalid unsupported record ");

    recordHeaderOffset_ =
        static_cast<unsigned short>(areaOffset + area[areaHeaderRecordOffset] * 8);
    numberOfAdapters_ = area[areaHeaderAdapters];
    unsigned char header[recordHeaderSize];
    if (readFru(ipmi, recordHeaderOffset_, recordHeaderSize, header) != resultOk)
        QEL_THROW(PniAccessError, "Read FRU failed ");
    if (!validateZeroChecksum(header, recordHeaderSize, 0))
        QEL_THROW(PniAccessError, "Checksum error ");
    recordVersion_ = header[1] & 0x0F;
    if (header[0] != recordTypePni || recordVersion_ < minVersion || recordVersion_ > maxVersion)
        QEL_THROW(PniAccessError, "Invalid unsupported record ");

    recordDataOffset_ = static_cast<unsigned short>(recordHeaderOffset_ + recordHeaderSize);
    firstEntryOffset_ = firstEntry;
    const unsigned int dataLength =
        header[recordHeaderLength] | header[recordHeaderLength + 1] << 8;
    // FRU offsets are 16 bits wide: a record that would run past them cannot
    // be addressed, let alone grown.
    if (recordDataOffset_ + dataLength > 0xFFFF) QEL_THROW(PniAccessError, "Format error ");

    std::unique_ptr<unsigned char[]> data(new (std::nothrow) unsigned char[dataLength + 1]);
    if (!data) QEL_THROW(PniAccessError, "Memory Error ");
    if (readFru(ipmi, recordDataOffset_, static_cast<int>(dataLength), data.get()) != resultOk)
        QEL_THROW(PniAccessError, "Read FRU failed ");
    if (!validateZeroChecksum(data.get(), static_cast<int>(dataLength),
                              header[recordHeaderChecksum]))
        QEL_THROW(PniAccessError, "Checksum error ");
    if (dataLength <= recordDataFormat || data[recordDataFormat] != recordFormat)
        QEL_THROW(PniAccessError, "Format error ");

    walkEntries(data.get(), dataLength);
    statusFlags_ |= statusTableValid | statusConstructed;
}

// Walks adapters, their ports and the ports' functions, checking the
// last-entry marks and indices and that every entry lies inside the record.
// Every step advances by at least three bytes (entry lengths below the three
// header bytes are rejected) and every loop is bounded by an announced count,
// so a corrupt record ends in "Format error ", never in a read outside `data`.
void PniAccess::walkEntries(const unsigned char* data, unsigned int length) {
    unsigned int pos = firstEntryOffset_;
    auto fits = [&](unsigned int size) { return pos + size <= length; };
    auto markRight = [](unsigned char byte0, bool last) {
        return ((byte0 & lastEntryMark) != 0) == last;
    };
    const int adapters = std::min<int>(numberOfAdapters_, maxAdapters);
    for (int a = 0; a < adapters; ++a) {
        if (!fits(entryHeaderSize)) QEL_THROW(PniAccessError, "Format error ");
        const unsigned char* entry = data + pos;
        if (!markRight(entry[0], a == numberOfAdapters_ - 1))
            QEL_THROW(PniAccessError, "Format error ");
        if (entry[1] < entryHeaderSize || !fits(entry[1])) QEL_THROW(PniAccessError, "Format error ");
        PniAdapterInfo& adapter = adapter_[a];
        adapter.index = entry[0] & indexMask;
        adapter.fruOffset = static_cast<unsigned short>(recordDataOffset_ + pos);
        adapter.entryLength = entry[1];
        adapter.numberOfPorts = entry[2];
        pos += entry[1];

        for (int p = 0; p < adapter.numberOfPorts; ++p) {
            if (!fits(entryHeaderSize)) QEL_THROW(PniAccessError, "Format error ");
            const unsigned char* portEntry = data + pos;
            if (!markRight(portEntry[0], p == adapter.numberOfPorts - 1) ||
                (portEntry[0] & indexMask) != p)
                QEL_THROW(PniAccessError, "Format error ");
            if (portEntry[1] < entryHeaderSize || !fits(portEntry[1]))
                QEL_THROW(PniAccessError, "Format error ");
            const unsigned char functions = portEntry[2];
            // Ports and functions beyond 16 are checked but have no room in
            // the table.
            PniPortInfo* port = p < maxPorts ? &adapter.port[p] : nullptr;
            if (port != nullptr) {
                port->fruOffset = static_cast<unsigned short>(recordDataOffset_ + pos);
                port->entryLength = portEntry[1];
                port->numberOfFunctions = functions;
            }
            pos += portEntry[1];

            for (int f = 0; f < functions; ++f) {
                if (!fits(entryHeaderSize)) QEL_THROW(PniAccessError, "Format error ");
                const unsigned char* fnEntry = data + pos;
                if (!markRight(fnEntry[0], f == functions - 1) || (fnEntry[0] & indexMask) != f)
                    QEL_THROW(PniAccessError, "Format error ");
                const unsigned int entryLength = fnEntry[commonEntryLength] * 4u;
                const unsigned int commonLength = fnEntry[2];
                // The common area holds the type at byte 14 and lies inside
                // the entry, which lies inside the record.
                if (commonLength <= commonType || commonLength > entryLength || !fits(entryLength))
                    QEL_THROW(PniAccessError, "Format error ");
                if (port != nullptr && f < maxFunctions) {
                    PniPortFnInfo& fn = port->function[f];
                    fn.fruOffset = static_cast<unsigned short>(recordDataOffset_ + pos);
                    fn.entryLength = static_cast<unsigned short>(entryLength);
                    fn.commonLength = static_cast<unsigned short>(commonLength);
                    if (recordVersion_ == minVersion) {
                        // The text ends at its NUL or at the end of the part
                        // of the common area that is ever transferred.
                        char text[PniPortfnCommon::maxTransfer - commonType + 1] = {};
                        const unsigned int textRoom =
                            std::min<unsigned int>(commonLength, PniPortfnCommon::maxTransfer) -
                            commonType;
                        std::memcpy(text, fnEntry + commonType, textRoom);
                        fn.type = techTypeStringToEnum(text);
                    } else {
                        const unsigned char type = fnEntry[commonType];
                        fn.type = type < typeCount ? type : typeUnknown;
                    }
                }
                pos += entryLength;
            }
        }
    }
    endOffset_ = static_cast<unsigned short>(recordDataOffset_ + pos);
}

// ---------------------------------------------------------------- FRU primitives

int PniAccess::readFru(const QelIpmi& ipmi, unsigned short offset, int length,
                       unsigned char* out) const {
    if (length <= 0) return resultOk;
    // The offsets are 16 bits wide; nothing longer can be asked for.
    if (length > 0xFFFF) return resultNoRoom;
    std::memset(out, 0, static_cast<std::size_t>(length));
    for (unsigned short done = 0; done < length;) {
        const int chunk = std::min(length - done, fruChunk);
        unsigned char request[qelIpmi::fruData::readRequestSize] = {
            fruDeviceId_, lowByte(offset), highByte(offset), static_cast<unsigned char>(chunk)};
        QelIpmi_request_msg msg(qelIpmi::netfn::storage, qelIpmi::cmd::readFruData,
                                sizeof(request), request);
        if (!ipmi.sendCmd(msg) || msg.responseLength == 0 ||
            msg.responseData[0] != qelIpmi::cc::ok)
            return resultIpmiFailed;
        // The count byte is not trusted; what matters is what arrived. A
        // controller that returns fewer bytes (end of the device) has not
        // given us the data we asked for.
        if (msg.responseLength < qelIpmi::fruData::readResponseData + static_cast<unsigned>(chunk))
            return resultIpmiFailed;
        std::memcpy(out + done, msg.responseData + qelIpmi::fruData::readResponseData,
                    static_cast<std::size_t>(chunk));
        offset = static_cast<unsigned short>(offset + chunk);
        done = static_cast<unsigned short>(done + chunk);
    }
    return resultOk;
}

int PniAccess::writeFru(const QelIpmi& ipmi, unsigned short offset, int length,
                        unsigned char* data) {
    if (length > 0xFFFF) return resultNoRoom;
    for (int done = 0; done < length;) {
        const int chunk = std::min(length - done, fruChunk);
        unsigned char request[qelIpmi::fruData::writeRequestData + fruChunk] = {
            fruDeviceId_, lowByte(offset), highByte(offset)};
        std::memcpy(request + qelIpmi::fruData::writeRequestData, data + done,
                    static_cast<std::size_t>(chunk));
        QelIpmi_request_msg msg(qelIpmi::netfn::storage, qelIpmi::cmd::writeFruData,
                                static_cast<unsigned short>(qelIpmi::fruData::writeRequestData + chunk),
                                request);
        // The count written is not examined: the controller takes a request
        // whole or fails it.
        if (!ipmi.sendCmd(msg) || msg.responseLength == 0 ||
            msg.responseData[0] != qelIpmi::cc::ok)
            return resultIpmiFailed;
        offset = static_cast<unsigned short>(offset + chunk);
        done += chunk;
    }
    return resultOk;
}

int PniAccess::moveFru(const QelIpmi& ipmi, unsigned short to, unsigned short from,
                       unsigned short length) {
    if (length == 0) return resultOk;
    // The whole block is read before any of it is written, so overlapping
    // ranges come out right in either direction.
    std::unique_ptr<unsigned char[]> buffer(new (std::nothrow) unsigned char[length]);
    if (!buffer) return resultNoMemory;
    int result = readFru(ipmi, from, length, buffer.get());
    if (result == resultOk) result = writeFru(ipmi, to, length, buffer.get());
    return result;
}

// ---------------------------------------------------------------- function areas

const PniPortFnInfo* PniAccess::functionAt(unsigned char adapter, unsigned char port,
                                           unsigned char function) const {
    if (adapter >= std::min<int>(numberOfAdapters_, maxAdapters)) return nullptr;
    const PniAdapterInfo& a = adapter_[adapter];
    if (port >= std::min<int>(a.numberOfPorts, maxPorts)) return nullptr;
    const PniPortInfo& p = a.port[port];
    if (function >= std::min<int>(p.numberOfFunctions, maxFunctions)) return nullptr;
    return &p.function[function];
}

PniPortFnInfo* PniAccess::functionAt(unsigned char adapter, unsigned char port,
                                     unsigned char function) {
    return const_cast<PniPortFnInfo*>(
        static_cast<const PniAccess*>(this)->functionAt(adapter, port, function));
}

int PniAccess::readPortFnCommonArea(const QelIpmi& ipmi, unsigned char adapter, unsigned char port,
                                    unsigned char function, PniPortfnCommon* out) const {
    const PniPortFnInfo* fn = functionAt(adapter, port, function);
    if (fn == nullptr) return resultNoRoom;
    return readFru(ipmi, fn->fruOffset, std::min<int>(fn->commonLength, PniPortfnCommon::maxTransfer),
                   out->bytes);
}

int PniAccess::writePortFnCommonArea(const QelIpmi& ipmi, unsigned char adapter, unsigned char port,
                                     unsigned char function, PniPortfnCommon* data) {
    const PniPortFnInfo* fn = functionAt(adapter, port, function);
    if (fn == nullptr) return resultNoRoom;
    return writeFru(ipmi, fn->fruOffset,
                    std::min<int>(fn->commonLength, PniPortfnCommon::maxTransfer), data->bytes);
}

int PniAccess::readPortFnSpecificArea(const QelIpmi& ipmi, unsigned char adapter,
                                      unsigned char port, unsigned char function, int length,
                                      unsigned char* out) const {
    const PniPortFnInfo* fn = functionAt(adapter, port, function);
    if (fn == nullptr) return resultNoRoom;
    const int current = fn->entryLength - fn->commonLength;
    return readFru(ipmi, static_cast<unsigned short>(fn->fruOffset + fn->commonLength),
                   std::min(current, length), out);
}

int PniAccess::writePortFnSpecificArea(const QelIpmi& ipmi, unsigned char adapter,
                                       unsigned char port, unsigned char function, int length,
                                       unsigned char* data) {
    const PniPortFnInfo* fn = functionAt(adapter, port, function);
    if (fn == nullptr || length < 0) return resultNoRoom;
    int current = fn->entryLength - fn->commonLength;
    const unsigned short start = static_cast<unsigned short>(fn->fruOffset + fn->commonLength);
    if (length < current) {
        // Never shrunk: only the first `length` bytes are rewritten.
        current = length;
    } else if (length > current) {
        const int result = growSpecificArea(ipmi, adapter, port, function, current, length);
        if (result != resultOk) return result;
    }

    std::unique_ptr<unsigned char[]> old(new (std::nothrow) unsigned char[length + 1]());
    if (!old) return resultNoMemory;
    int result = readFru(ipmi, start, current, old.get());
    if (result != resultOk) return result;
    result = writeFru(ipmi, start, length, data);
    if (result != resultOk) return result;
    unsigned char header[recordHeaderSize];
    result = readFru(ipmi, recordHeaderOffset_, recordHeaderSize, header);
    if (result != resultOk) return result;
    // The record checksum takes the change of the data; the header checksum
    // takes the change of the record checksum, so both sums stay zero.
    const unsigned char newSum = sum(data, static_cast<unsigned int>(length));
    const unsigned char oldSum = sum(old.get(), static_cast<unsigned int>(current));
    header[recordHeaderChecksum] =
        static_cast<unsigned char>(header[recordHeaderChecksum] + oldSum - newSum);
    header[recordHeaderHeaderChecksum] =
        static_cast<unsigned char>(header[recordHeaderHeaderChecksum] + newSum - oldSum);
    return writeFru(ipmi, recordHeaderOffset_, recordHeaderSize, header);
}

// Widens the specific area of (adapter, port, function) from `current` to
// `length` bytes: the entries behind it move up, then the entry length, the
// record length and both checksums follow, and the descriptor table last.
// The new bytes of the area are left to the caller's write.
int PniAccess::growSpecificArea(const QelIpmi& ipmi, unsigned char adapter, unsigned char port,
                                unsigned char function, int current, int length) {
    PniPortFnInfo* fn = functionAt(adapter, port, function);
    const long wanted = static_cast<long>(length) - current;
    if (wanted % 4 != 0 || wanted > static_cast<long>(fruCapacity_) - endOffset_)
        return resultNoRoom;
    const unsigned short grow = static_cast<unsigned short>(wanted);
    const unsigned char growUnits = static_cast<unsigned char>(grow / 4);
    // The entry length is one byte of 4-byte units.
    if ((fn->entryLength + grow) / 4 > 0xFF) return resultNoRoom;
    const unsigned int start = fn->fruOffset + fn->commonLength;
    const unsigned int areaEnd = start + static_cast<unsigned int>(current);
    if (areaEnd > endOffset_) return resultNoRoom;

    int result = moveFru(ipmi, static_cast<unsigned short>(start + length),
                         static_cast<unsigned short>(areaEnd),
                         static_cast<unsigned short>(endOffset_ - areaEnd));
    if (result != resultOk) return result;

    PniPortfnCommon common = {};
    result = readPortFnCommonArea(ipmi, adapter, port, function, &common);
    if (result != resultOk) return result;
    common.bytes[commonEntryLength] = static_cast<unsigned char>(common.bytes[commonEntryLength] + growUnits);
    result = writePortFnCommonArea(ipmi, adapter, port, function, &common);
    if (result != resultOk) return result;

    unsigned char header[recordHeaderSize];
    result = readFru(ipmi, recordHeaderOffset_, recordHeaderSize, header);
    if (result != resultOk) return result;
    const int oldLengthSum = header[recordHeaderLength] + header[recordHeaderLength + 1];
    const unsigned int recordLength =
        (header[recordHeaderLength] | header[recordHeaderLength + 1] << 8) + grow;
    header[recordHeaderLength] = lowByte(recordLength);
    header[recordHeaderLength + 1] = highByte(recordLength);
    const int newLengthSum = header[recordHeaderLength] + header[recordHeaderLength + 1];
    // The record data gained growUnits in the entry-length byte (the moved
    // and the new bytes are settled by the caller's write of the area).
    header[recordHeaderChecksum] = static_cast<unsigned char>(header[recordHeaderChecksum] - growUnits);
    header[recordHeaderHeaderChecksum] = static_cast<unsigned char>(
        header[recordHeaderHeaderChecksum] - (newLengthSum - oldLengthSum) + growUnits);
    result = writeFru(ipmi, recordHeaderOffset_, recordHeaderSize, header);
    if (result != resultOk) return result;

    // Everything behind this function in (adapter, port, function) order
    // moved up by `grow`.
    statusFlags_ &= static_cast<unsigned char>(~statusTableValid);
    endOffset_ = static_cast<unsigned short>(endOffset_ + grow);
    auto shift = [grow](unsigned short& offset) { offset = static_cast<unsigned short>(offset + grow); };
    const int adapters = std::min<int>(numberOfAdapters_, maxAdapters);
    for (int a = adapter; a < adapters; ++a) {
        PniAdapterInfo& ad = adapter_[a];
        if (a > adapter) shift(ad.fruOffset);
        const int ports = std::min<int>(ad.numberOfPorts, maxPorts);
        for (int p = a > adapter ? 0 : port; p < ports; ++p) {
            PniPortInfo& po = ad.port[p];
            const bool samePort = a == adapter && p == port;
            if (!samePort) shift(po.fruOffset);
            const int functions = std::min<int>(po.numberOfFunctions, maxFunctions);
            for (int f = samePort ? function + 1 : 0; f < functions; ++f) shift(po.function[f].fruOffset);
        }
    }
    fn->entryLength = static_cast<unsigned short>(fn->entryLength + grow);
    statusFlags_ |= statusTableValid;
    return resultOk;
}

std::string PniAccess::getPortFunctionType(const QelIpmi& ipmi, unsigned char adapter,
                                           unsigned char port, unsigned char function) {
    PniPortfnCommon common = {};
    if (readPortFnCommonArea(ipmi, adapter, port, function, &common) != resultOk) return unknownType;
    const unsigned char* type = common.bytes + commonType;
    if (recordVersion_ == minVersion) {
        const std::size_t room = PniPortfnCommon::maxTransfer - commonType;
        return std::string(reinterpret_cast<const char*>(type),
                           strnlen(reinterpret_cast<const char*>(type), room));
    }
    if (recordVersion_ > minVersion && recordVersion_ <= maxVersion && *type < typeCount)
        return typeNames[*type];
    return unknownType;
}

// ---------------------------------------------------------------- helpers

unsigned char PniAccess::techTypeStringToEnum(char* text) {
    for (unsigned char i = 0; i < typeCount; ++i)
        if (std::strcmp(text, typeNames[i]) == 0) return i;
    return typeUnknown;
}

unsigned char PniAccess::sum(unsigned char* data, unsigned int length) {
    unsigned char total = 0;
    for (unsigned int i = 0; i < length; ++i) total = static_cast<unsigned char>(total + data[i]);
    return total;
}

bool PniAccess::validateZeroChecksum(unsigned char* data, int length, unsigned char initial) {
    if (length < 0) return false;
    return static_cast<unsigned char>(sum(data, static_cast<unsigned int>(length)) + initial) == 0;
}

// ---------------------------------------------------------------- publication

namespace {

// Calls `visit(adapter, port, function, info)` for every stored function in
// (adapter, port, function) order until it returns false.
template <typename Visit>
void forEachFunction(const PniAccess& pni, Visit visit) {
    const int adapters = std::min<int>(pni.numberOfAdapters(), PniAccess::maxAdapters);
    for (int a = 0; a < adapters; ++a) {
        const PniAdapterInfo& adapter = pni.adapterInfo(a);
        const int ports = std::min<int>(adapter.numberOfPorts, PniAccess::maxPorts);
        for (int p = 0; p < ports; ++p) {
            const PniPortInfo& port = adapter.port[p];
            const int functions = std::min<int>(port.numberOfFunctions, PniAccess::maxFunctions);
            for (int f = 0; f < functions; ++f)
                if (!visit(static_cast<unsigned char>(a), static_cast<unsigned char>(p),
                           static_cast<unsigned char>(f), port.function[f]))
                    return;
        }
    }
}

}  // namespace

int PniAccess::getNumberOfMacAddresses() const {
    if (!usable()) return 0;
    int count = 0;
    forEachFunction(*this, [&](unsigned char, unsigned char, unsigned char, const PniPortFnInfo& fn) {
        if (fn.type == typeNic) ++count;
        return true;
    });
    return count;
}

MacAddress PniAccess::getMacAddress(int n) const {
    MacAddress mac;
    if (!usable()) return mac;
    try {
        QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
        int seen = 0;
        forEachFunction(*this, [&](unsigned char a, unsigned char p, unsigned char f,
                                   const PniPortFnInfo& fn) {
            if (fn.type != typeNic) return true;
            unsigned char area[areaBufferSize] = {};
            // An unreadable area is not counted, so the functions behind it
            // move up by one. Callers ask for 0..count-1 and take what comes;
            // the agent depends on getting some MAC rather than a gap.
            if (readPortFnSpecificArea(ipmi, a, p, f, areaReadLength, area) != resultOk) return true;
            if (seen++ != n) return true;
            std::memcpy(mac.bytes, area + areaMacReported, sizeof(mac.bytes));
            return false;
        });
    } catch (qelIpmi::QelIpmiError& e) {
        logError(e.errorText);
        return MacAddress();
    }
    return mac;
}

namespace {

// The NIC function that publication writes to: found by MAC in its area.
struct Target {
    bool found = false;
    unsigned char adapter = 0, port = 0, function = 0;
    unsigned short commonLength = 0;
    unsigned char area[areaBufferSize] = {};

    void select(unsigned char a, unsigned char p, unsigned char f, const PniPortFnInfo& fn,
                const unsigned char* bytes) {
        found = true;
        adapter = a;
        port = p;
        function = f;
        commonLength = fn.commonLength;
        std::memcpy(area, bytes, sizeof(area));
    }
};

bool sameMac(const unsigned char* bytes, const MacAddress& mac) {
    return std::memcmp(bytes, mac.bytes, sizeof(mac.bytes)) == 0;
}

// Reads the specific area of a NIC function into `area` (areaBufferSize
// bytes). False for a function that is no NIC by its stored type or by its
// type text (asked only when the stored type says NIC), and for an area that
// cannot be read.
bool readNicArea(PniAccess& pni, const QelIpmi& ipmi, unsigned char a, unsigned char p,
                 unsigned char f, const PniPortFnInfo& fn, unsigned char* area) {
    constexpr unsigned char nic = PniAccess::typeNic;
    if (fn.type != nic || pni.getPortFunctionType(ipmi, a, p, f) != typeNames[nic]) return false;
    return pni.readPortFnSpecificArea(ipmi, a, p, f, areaReadLength, area) == PniAccess::resultOk;
}

// The first NIC function, in (adapter, port, function) order, whose area
// `matches`.
template <typename Matches>
Target findNicFunction(PniAccess& pni, const QelIpmi& ipmi, Matches matches) {
    Target target;
    forEachFunction(pni, [&](unsigned char a, unsigned char p, unsigned char f, const PniPortFnInfo& fn) {
        unsigned char area[areaBufferSize] = {};
        if (!readNicArea(pni, ipmi, a, p, f, fn, area) || !matches(area)) return true;
        target.select(a, p, f, fn, area);
        return false;
    });
    return target;
}

// Writes the first `dataLength` bytes of `area` back with their padding
// zeroed behind them; `area` has room for it.
int writePadded(PniAccess& pni, const QelIpmi& ipmi, unsigned char a, unsigned char p,
                unsigned char f, unsigned short commonLength, unsigned char* area, int dataLength) {
    const int pad = padding(commonLength, dataLength);
    std::memset(area + dataLength, 0, pad);
    return pni.writePortFnSpecificArea(ipmi, a, p, f, dataLength + pad, area);
}

}  // namespace

bool PniAccess::setIpv4Address(const MacAddress& mac, const IPv4Address& address) {
    if (!usable()) return false;
    try {
        QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
        Target target = findNicFunction(*this, ipmi, [&](const unsigned char* area) {
            // Per function: the reported MAC first, then the other one.
            return sameMac(area + areaMacReported, mac) || sameMac(area + areaMacOther, mac);
        });
        if (!target.found) return false;

        unsigned char* area = target.area;
        const int ipv4Count = area[areaCounts] & 0x0F;
        const int ipv6Count = area[areaCounts] >> 4;
        // Only the first stored address is compared, however many there are:
        // the agent publishes one IPv4 address per interface.
        for (int i = 0; i < ipv4Count; ++i)
            if (std::memcmp(area + areaAddresses, address.octets, 4) == 0) return true;
        if (ipv4Count == maxAddressesPerKind) return true;
        // The IPv6 block is saved from 45 + count (bytes, not addresses) and
        // put back from byte 46, over the new address's last three bytes.
        // Records in the field were written this way and the management
        // board reads them back the same way; keep both offsets.
        unsigned char savedIpv6[maxAddressesPerKind * 16];
        if (ipv6Count != 0) std::memcpy(savedIpv6, area + areaAddresses + ipv4Count, ipv6Count * 16);
        area[areaCounts] = static_cast<unsigned char>(ipv6Count << 4 | 1);
        std::memcpy(area + areaAddresses, address.octets, 4);
        if (ipv6Count != 0) std::memcpy(area + areaAddresses + 1, savedIpv6, ipv6Count * 16);
        const int dataLength = areaAddresses + 4 + 16 * ipv6Count;
        return writePadded(*this, ipmi, target.adapter, target.port, target.function,
                           target.commonLength, area, dataLength) == resultOk;
    } catch (qelIpmi::QelIpmiError& e) {
        logError(e.errorText);
        return false;
    }
}

bool PniAccess::setIpv6Address(const MacAddress& mac, const std::list<IPv6Address>& addresses) {
    if (!usable()) return false;
    try {
        QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
        Target target = findNicFunction(*this, ipmi, [&](const unsigned char* area) {
            // Only the reported MAC identifies the target here.
            return sameMac(area + areaMacReported, mac);
        });
        if (!target.found) return false;

        unsigned char* area = target.area;
        const int ipv4Count = area[areaCounts] & 0x0F;
        // The count has four bits and the area room for 15: a longer list is
        // cut, not wrapped.
        const int count = static_cast<int>(std::min<std::size_t>(addresses.size(), maxAddressesPerKind));
        int pos = areaAddresses + 4 * ipv4Count;
        int written = 0;
        for (const IPv6Address& address : addresses) {
            if (written++ == count) break;
            // Network order from the authoritative (reversed) bytes.
            for (int i = 0; i < 16; ++i) area[pos + i] = address.reversedBytes[15 - i];
            pos += 16;
        }
        area[areaCounts] = static_cast<unsigned char>((count % 16) << 4 | ipv4Count);
        const int dataLength = areaAddresses + 4 * ipv4Count + 16 * count;
        return writePadded(*this, ipmi, target.adapter, target.port, target.function,
                           target.commonLength, area, dataLength) == resultOk;
    } catch (qelIpmi::QelIpmiError& e) {
        logError(e.errorText);
        return false;
    }
}

bool PniAccess::clearIpAddressData() {
    if (!usable()) return false;
    try {
        QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
        bool ok = true;
        forEachFunction(*this, [&](unsigned char a, unsigned char p, unsigned char f,
                                   const PniPortFnInfo& fn) {
            unsigned char area[areaBufferSize] = {};
            if (!readNicArea(*this, ipmi, a, p, f, fn, area)) return true;
            area[areaCounts] = 0;
            if (writePadded(*this, ipmi, a, p, f, fn.commonLength, area, areaAddresses) != resultOk) {
                ok = false;
                return false;
            }
            return true;
        });
        return ok;
    } catch (qelIpmi::QelIpmiError& e) {
        // Reported as done: the agent clears at start-up and must not stop
        // over a controller that does not answer.
        logError(e.errorText);
        return true;
    }
}
