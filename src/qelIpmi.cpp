#include "qelIpmi.h"

#include <fcntl.h>
#include <sys/select.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <stdexcept>

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

}  // namespace qelIpmi
