#include "qelIpmiDevice.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace qelIpmi {

QelIpmiDevice::~QelIpmiDevice() = default;
QelIpmiDeviceProvider::~QelIpmiDeviceProvider() = default;

namespace {

class KernelDevice : public QelIpmiDevice {
public:
    explicit KernelDevice(int fd) : fd_(fd) {}
    ~KernelDevice() override { ::close(fd_); }
    int fd() const override { return fd_; }
    int ioctl(unsigned long request, void* argument) override {
        return ::ioctl(fd_, request, argument);
    }
    int select(int nfds, fd_set* readSet, struct timeval* timeout) override {
        return ::select(nfds, readSet, nullptr, nullptr, timeout);
    }

private:
    int fd_;
};

std::atomic<QelIpmiDeviceProvider*> installed{nullptr};

}  // namespace

std::unique_ptr<QelIpmiDevice> QelKernelIpmiDeviceProvider::open(const char* path, int flags) {
    int fd = ::open(path, flags | O_CLOEXEC);
    if (fd < 0) return nullptr;  // errno is the caller's to report
    return std::make_unique<KernelDevice>(fd);
}

QelIpmiDeviceProvider& ipmiDeviceProvider() {
    static QelKernelIpmiDeviceProvider kernel;
    QelIpmiDeviceProvider* p = installed.load(std::memory_order_acquire);
    return p ? *p : kernel;
}

QelIpmiDeviceProvider* setIpmiDeviceProvider(QelIpmiDeviceProvider* provider) {
    return installed.exchange(provider, std::memory_order_acq_rel);
}

}  // namespace qelIpmi
