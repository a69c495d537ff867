#define QEL_SOURCE_NAME "qelConfSpaceData"

#include "qelConfSpaceData.h"

#include <cstddef>
#include <cstring>

#include "qelIpmi.h"
#include "qelIpmiCommands.h"

QEL_DEFINE_ERROR(QelConfSpaceDataError)

namespace {

using qelIpmi::QelIpmi;
using qelIpmi::QelIpmi_request_msg;
using qelIpmi::QelIpmiError;
namespace layout = qelIpmi::confSpace;

const char* const unknownText = "- unknown -";
const char* const cannotReadMessage = "Cannot read ConfigSpaceVariable: ";

// The value bytes of a successful read; they point into the request message's
// response and stay valid until the message is sent again.
struct Value {
    const unsigned char* bytes = nullptr;
    std::size_t length = 0;
};

// True when `msg` holds a successful read reply and the value it announces
// was received in full. A reply with no data, a completion code other than 0,
// no length byte, or a length byte claiming more bytes than arrived counts as
// a failed read: a short reply is a malformed one, and taking "whatever is
// there" would hand the agent half a name or read past the buffer.
bool parseReadReply(const QelIpmi_request_msg& msg, Value& out) {
    if (msg.responseData == nullptr || msg.responseLength == 0) return false;
    if (msg.responseData[0] != qelIpmi::cc::ok) return false;
    if (msg.responseLength <= layout::responseLength) return false;
    std::size_t length = msg.responseData[layout::responseLength];
    if (msg.responseLength - layout::responseValue < length) return false;
    out.bytes = msg.responseData + layout::responseValue;
    out.length = length;
    return true;
}

bool completedOk(const QelIpmi_request_msg& msg) {
    return msg.responseData != nullptr && msg.responseLength > 0 &&
           msg.responseData[0] == qelIpmi::cc::ok;
}

// One device and one request message, re-used for every read of an operation.
class Reader {
public:
    Reader()
        : ipmi_(0, 0, QelIpmi::SYSTEM_INTERFACE),
          msg_(qelIpmi::netfn::oemGroup, qelIpmi::cmd::configSpace, 0, nullptr) {}

    // Sends the read request for `id`; true with `out` set for a well-formed
    // successful reply. Throws QelIpmiError when the device fails.
    bool read(std::uint32_t id, Value& out) {
        unsigned char request[layout::readRequestSize] = {
            qelIpmi::vendorIana[0],
            qelIpmi::vendorIana[1],
            qelIpmi::vendorIana[2],
            layout::opRead,
            0x00,
            static_cast<unsigned char>(id & 0xFF),
            static_cast<unsigned char>((id >> 8) & 0xFF),
        };
        msg_.replaceSendData(request, sizeof request);
        ipmi_.sendCmd(msg_);
        return parseReadReply(msg_, out);
    }

    // A read that must bring exactly `length` bytes.
    bool readExactly(std::uint32_t id, std::size_t length, Value& out) {
        return read(id, out) && out.length == length;
    }

private:
    QelIpmi ipmi_;
    QelIpmi_request_msg msg_;
};

std::uint16_t littleEndian16(const unsigned char* bytes) {
    return static_cast<std::uint16_t>(bytes[0] | (bytes[1] << 8));
}

bool knownBehaviour(unsigned char value) {
    return value == QelConfSpaceData::ContinueOnTimeout ||
           value == QelConfSpaceData::ResetOnTimeout ||
           value == QelConfSpaceData::PowerCycleOnTimeout;
}

}  // namespace

QelConfSpaceData::QelConfSpaceData(bool readConnectionStatus)
    : configSpaceAvailable(true),
      cabinetLocation(unknownText),
      systemName(unknownText),
      biosVersion(unknownText),
      systemDescription(unknownText),
      systemContact(unknownText),
      serverCabinetModel(unknownText),
      serverChassisModel(unknownText),
      serverSerialNumber(unknownText),
      serverOperatingSystem(unknownText),
      serverVendorName(unknownText),
      softWatchdogEnabled(false),
      bootWatchdogEnabled(false),
      softWatchdogTime(0),
      bootWatchdogTime(0),
      softWatchdogBehaviour(ContinueOnTimeout),
      bootWatchdogBehaviour(ContinueOnTimeout),
      agentConnectionStatus(AgentStatusUnknown),
      agentConnected(false) {
    update(readConnectionStatus);
}

QelConfSpaceData::~QelConfSpaceData() = default;

// ---------------------------------------------------------------- reading

void QelConfSpaceData::update(bool readConnectionStatus) {
    try {
        Reader reader;
        Value value;

        // A controller that cannot give the first variable has no usable
        // configuration space; the agent then drops this object, so reading
        // on would only cost time-outs.
        if (!reader.read(CabinetLocation, value)) {
            cabinetLocation = unknownText;
            configSpaceAvailable = false;
            return;
        }
        cabinetLocation.assign(reinterpret_cast<const char*>(value.bytes), value.length);

        struct TextVariable {
            ValueIds id;
            std::string QelConfSpaceData::*field;
        };
        static const TextVariable texts[] = {
            {SystemName, &QelConfSpaceData::systemName},
            {BiosVersion, &QelConfSpaceData::biosVersion},
            {SystemDescription, &QelConfSpaceData::systemDescription},
            {SystemContact, &QelConfSpaceData::systemContact},
            {ServerCabinetModel, &QelConfSpaceData::serverCabinetModel},
            {ServerChassisModel, &QelConfSpaceData::serverChassisModel},
            {ServerSerialNumber, &QelConfSpaceData::serverSerialNumber},
            {ServerOperatingSystem, &QelConfSpaceData::serverOperatingSystem},
            {ServerVendorName, &QelConfSpaceData::serverVendorName},
        };
        for (const TextVariable& text : texts) {
            if (reader.read(text.id, value))
                (this->*text.field).assign(reinterpret_cast<const char*>(value.bytes), value.length);
            else
                this->*text.field = unknownText;
        }

        struct AddressVariable {
            ValueIds id;
            IPv4Address QelConfSpaceData::*field;
        };
        static const AddressVariable addresses[] = {
            {IpAddr_1, &QelConfSpaceData::ipAddr_1},
            {IpAddr_2, &QelConfSpaceData::ipAddr_2},
            {IpAddr_3, &QelConfSpaceData::ipAddr_3},
            {IpAddr_4, &QelConfSpaceData::ipAddr_4},
        };
        for (const AddressVariable& address : addresses) {
            if (reader.readExactly(address.id, sizeof(IPv4Address::octets), value))
                this->*address.field = value.bytes;
            else
                this->*address.field = IPv4Address();
        }

        if (readConnectionStatus && reader.readExactly(AgentConnectionStatusId, 1, value))
            agentConnectionStatus = static_cast<AgentConnectionStatus>(value.bytes[0]);
    } catch (const QelIpmiError&) {
        // No device or a failing one: what was read so far stays.
    }
}

QelConfSpaceDataError QelConfSpaceData::watchdogReadError(ValueIds id) {
    // The line numbers are part of the error's contract (one per variable),
    // not the lines of this file.
    unsigned int line = 0;
    switch (id) {
    case BootWatchdogEnabled: line = 923; break;
    case SoftWatchdogEnabled: line = 936; break;
    case BootWatchdogTime: line = 951; break;
    case SoftWatchdogTime: line = 966; break;
    case BootWatchdogBehaviour: line = 994; break;
    case SoftWatchdogBehaviour: line = 1022; break;
    default: break;
    }
    return QelConfSpaceDataError(cannotReadMessage, QEL_SOURCE_NAME, line);
}

void QelConfSpaceData::updateWatchdogParameter() {
    try {
        Reader reader;
        Value value;

        if (!reader.readExactly(BootWatchdogEnabled, 1, value)) throw watchdogReadError(BootWatchdogEnabled);
        bootWatchdogEnabled = value.bytes[0] == 1;

        if (!reader.readExactly(SoftWatchdogEnabled, 1, value)) throw watchdogReadError(SoftWatchdogEnabled);
        softWatchdogEnabled = value.bytes[0] == 1;

        if (!reader.readExactly(BootWatchdogTime, 2, value)) throw watchdogReadError(BootWatchdogTime);
        bootWatchdogTime = littleEndian16(value.bytes);

        if (!reader.readExactly(SoftWatchdogTime, 2, value)) throw watchdogReadError(SoftWatchdogTime);
        softWatchdogTime = littleEndian16(value.bytes);

        // A behaviour this agent does not know is left alone rather than
        // guessed at; the walk goes on.
        if (!reader.readExactly(BootWatchdogBehaviour, 1, value))
            throw watchdogReadError(BootWatchdogBehaviour);
        if (knownBehaviour(value.bytes[0]))
            bootWatchdogBehaviour = static_cast<WatchdogBehaviour>(value.bytes[0]);

        if (!reader.readExactly(SoftWatchdogBehaviour, 1, value))
            throw watchdogReadError(SoftWatchdogBehaviour);
        if (knownBehaviour(value.bytes[0]))
            softWatchdogBehaviour = static_cast<WatchdogBehaviour>(value.bytes[0]);
    } catch (const QelConfSpaceDataError&) {
        // Deliberately silent: the caller runs the watchdog with whatever
        // values the object holds now.
    } catch (const QelIpmiError&) {
    }
}

// ---------------------------------------------------------------- writing

bool QelConfSpaceData::set(ValueIds id) {
    unsigned char request[layout::requestValue + layout::maxValueLength];
    std::size_t length = 0;
    const unsigned char* bytes = nullptr;
    unsigned char fixed[4] = {0, 0, 0, 0};

    auto text = [&](const std::string& value) {
        // The setters never let more than 255 characters in. A field written
        // directly with a longer text goes out as its length modulo 256 says,
        // so the request stays consistent with its own length byte.
        length = value.size() % 256;
        bytes = reinterpret_cast<const unsigned char*>(value.data());
    };
    auto address = [&](const IPv4Address& value) {
        length = sizeof value.octets;
        bytes = value.octets;
    };
    auto byte = [&](std::uint32_t value) {
        fixed[0] = static_cast<unsigned char>(value & 0xFF);
        length = 1;
        bytes = fixed;
    };
    auto word = [&](std::uint16_t value) {
        fixed[0] = static_cast<unsigned char>(value & 0xFF);
        fixed[1] = static_cast<unsigned char>(value >> 8);
        length = 2;
        bytes = fixed;
    };

    switch (id) {
    case BootWatchdogEnabled: byte(bootWatchdogEnabled ? 1 : 0); break;
    case BootWatchdogTime: word(bootWatchdogTime); break;
    case SoftWatchdogEnabled: byte(softWatchdogEnabled ? 1 : 0); break;
    case SoftWatchdogTime: word(softWatchdogTime); break;
    case BootWatchdogBehaviour: byte(bootWatchdogBehaviour); break;
    case SoftWatchdogBehaviour: byte(softWatchdogBehaviour); break;
    case CabinetLocation: text(cabinetLocation); break;
    case SystemName: text(systemName); break;
    case BiosVersion: text(biosVersion); break;
    case SystemDescription: text(systemDescription); break;
    case SystemContact: text(systemContact); break;
    case ServerCabinetModel: text(serverCabinetModel); break;
    case ServerChassisModel: text(serverChassisModel); break;
    // The vendor name under the serial number's variable: intended, see the
    // header.
    case ServerSerialNumber: text(serverVendorName); break;
    case ServerVendorName: text(serverVendorName); break;
    case IpAddr_1: address(ipAddr_1); break;
    case IpAddr_2: address(ipAddr_2); break;
    case IpAddr_3: address(ipAddr_3); break;
    case IpAddr_4: address(ipAddr_4); break;
    case ServerOperatingSystem: text(serverOperatingSystem); break;
    default: return false;  // 0x2300 and unknown numbers: nothing is sent
    }

    request[0] = qelIpmi::vendorIana[0];
    request[1] = qelIpmi::vendorIana[1];
    request[2] = qelIpmi::vendorIana[2];
    request[layout::requestOperation] = layout::opWrite;
    request[layout::requestIndex] = 0x00;
    request[layout::requestVariable] = static_cast<unsigned char>(id & 0xFF);
    request[layout::requestVariable + 1] = static_cast<unsigned char>((id >> 8) & 0xFF);
    request[layout::requestLength] = static_cast<unsigned char>(length);
    if (length > 0) std::memcpy(request + layout::requestValue, bytes, length);

    try {
        QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
        QelIpmi_request_msg msg(qelIpmi::netfn::oemGroup, qelIpmi::cmd::configSpace,
                                static_cast<unsigned short>(layout::requestValue + length), request);
        ipmi.sendCmd(msg);
        return completedOk(msg);
    } catch (const QelIpmiError&) {
        return false;
    }
}

bool QelConfSpaceData::setText(std::string QelConfSpaceData::*field, ValueIds id,
                               const std::string& text) {
    if (text.size() > layout::maxValueLength) return false;
    std::string old = this->*field;
    if (text.empty())
        systemName = unknownText;  // intended, see the header
    else
        this->*field = text;
    bool ok = set(id);
    if (!ok) this->*field = std::move(old);
    return ok;
}

bool QelConfSpaceData::setCabinetLocation(const std::string& text) {
    return setText(&QelConfSpaceData::cabinetLocation, CabinetLocation, text);
}
bool QelConfSpaceData::setSystemName(const std::string& text) {
    return setText(&QelConfSpaceData::systemName, SystemName, text);
}
bool QelConfSpaceData::setBiosVersion(const std::string& text) {
    return setText(&QelConfSpaceData::biosVersion, BiosVersion, text);
}
bool QelConfSpaceData::setSystemDescription(const std::string& text) {
    return setText(&QelConfSpaceData::systemDescription, SystemDescription, text);
}
bool QelConfSpaceData::setSystemContact(const std::string& text) {
    return setText(&QelConfSpaceData::systemContact, SystemContact, text);
}
bool QelConfSpaceData::setServerCabinetModel(const std::string& text) {
    return setText(&QelConfSpaceData::serverCabinetModel, ServerCabinetModel, text);
}
bool QelConfSpaceData::setServerChassisModel(const std::string& text) {
    return setText(&QelConfSpaceData::serverChassisModel, ServerChassisModel, text);
}
bool QelConfSpaceData::setServerSerialNumber(const std::string& text) {
    return setText(&QelConfSpaceData::serverSerialNumber, ServerSerialNumber, text);
}
bool QelConfSpaceData::setServerOperatingSystem(const std::string& text) {
    return setText(&QelConfSpaceData::serverOperatingSystem, ServerOperatingSystem, text);
}
bool QelConfSpaceData::setServerVendorName(const std::string& text) {
    return setText(&QelConfSpaceData::serverVendorName, ServerVendorName, text);
}

namespace {

// Store, send, restore on failure: the field never shows a value the
// controller refused.
template <typename T>
bool storeAndSend(QelConfSpaceData& data, T& field, const T& value,
                  QelConfSpaceData::ValueIds id) {
    T old = field;
    field = value;
    bool ok = data.set(id);
    if (!ok) field = old;
    return ok;
}

}  // namespace

bool QelConfSpaceData::setIpAddr_1(const IPv4Address& address) {
    return storeAndSend(*this, ipAddr_1, address, IpAddr_1);
}
bool QelConfSpaceData::setIpAddr_2(const IPv4Address& address) {
    return storeAndSend(*this, ipAddr_2, address, IpAddr_2);
}
bool QelConfSpaceData::setIpAddr_3(const IPv4Address& address) {
    return storeAndSend(*this, ipAddr_3, address, IpAddr_3);
}
bool QelConfSpaceData::setIpAddr_4(const IPv4Address& address) {
    return storeAndSend(*this, ipAddr_4, address, IpAddr_4);
}
bool QelConfSpaceData::setSoftWatchdogEnabled(bool enabled) {
    return storeAndSend(*this, softWatchdogEnabled, enabled, SoftWatchdogEnabled);
}
bool QelConfSpaceData::setBootWatchdogEnabled(bool enabled) {
    return storeAndSend(*this, bootWatchdogEnabled, enabled, BootWatchdogEnabled);
}
bool QelConfSpaceData::setSoftWatchdogTime(const unsigned short& seconds) {
    return storeAndSend<std::uint16_t>(*this, softWatchdogTime, seconds, SoftWatchdogTime);
}
bool QelConfSpaceData::setBootWatchdogTime(const unsigned short& seconds) {
    return storeAndSend<std::uint16_t>(*this, bootWatchdogTime, seconds, BootWatchdogTime);
}
bool QelConfSpaceData::setSoftWatchdogBehaviour(const WatchdogBehaviour& behaviour) {
    return storeAndSend(*this, softWatchdogBehaviour, behaviour, SoftWatchdogBehaviour);
}
bool QelConfSpaceData::setBootWatchdogBehaviour(const WatchdogBehaviour& behaviour) {
    return storeAndSend(*this, bootWatchdogBehaviour, behaviour, BootWatchdogBehaviour);
}

// ---------------------------------------------------------------- agent state

bool QelConfSpaceData::changeAgentConnectionStatus(AgentConnectionStatus status) {
    try {
        QelIpmi ipmi(0, 0, QelIpmi::SYSTEM_INTERFACE);
        unsigned char request[layout::agentRequestSize] = {
            qelIpmi::vendorIana[0], qelIpmi::vendorIana[1], qelIpmi::vendorIana[2],
            layout::agentQuery};
        QelIpmi_request_msg msg(qelIpmi::netfn::oemGroup, qelIpmi::cmd::agentConnectionStatus,
                                sizeof request, request);
        ipmi.sendCmd(msg);
        Value state;
        if (parseReadReply(msg, state) && state.length == 1) agentConnected = state.bytes[0] == 1;

        // A change is only ever sent while the controller counts the agent as
        // connected: a controller that never saw the agent has nothing to be
        // told, and that counts as done.
        if (!agentConnected) return true;

        if (status == AgentDisconnected)
            request[3] = AgentDisconnected;
        else if (status == AgentConnected)
            request[3] = AgentConnected;
        else
            return false;  // not a state the controller accepts; nothing sent
        msg.replaceSendData(request, sizeof request);
        ipmi.sendCmd(msg);
        if (!completedOk(msg)) return false;
        agentConnected = status == AgentConnected;
        return true;
    } catch (const QelIpmiError&) {
        return false;
    }
}
