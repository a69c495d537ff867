// The IPMI device seam.
//
// QelIpmi talks to the controller through an open device: the kernel's IPMI
// message-handler character device in production, the simulated controller in
// tests. The seam sits at the level of the system calls, not of messages: the
// device takes the kernel's ioctl requests and structures (<linux/ipmi.h>)
// and answers select() for its descriptor. So the whole exchange in
// QelIpmi::sendCmd (message ids, the select/receive loop, the retry counter,
// the error texts) is one piece of code for every device.
//
// The provider is process-wide. Its default opens the kernel device; a test or
// an executable that wants another controller installs its own provider before
// creating QelIpmi objects. The library itself never reads the environment to
// pick one.
#ifndef QEL_IPMI_DEVICE_H
#define QEL_IPMI_DEVICE_H

#include <sys/select.h>

#include <memory>

#include "qelExport.h"

namespace qelIpmi {

class QEL_EXPORT QelIpmiDevice {
public:
    virtual ~QelIpmiDevice();
    // A descriptor that select() can watch; readable when a message waits.
    virtual int fd() const = 0;
    // As ioctl(2) on the device: 0 on success, -1 with errno set.
    virtual int ioctl(unsigned long request, void* argument) = 0;
    // As select(2) for a read set that holds this device's descriptor,
    // including the Linux behaviour of writing back the time that is left.
    virtual int select(int nfds, fd_set* readSet, struct timeval* timeout) = 0;
};

class QEL_EXPORT QelIpmiDeviceProvider {
public:
    virtual ~QelIpmiDeviceProvider();
    // Opens the device at `path` (as open(2) with `flags`). On failure returns
    // nullptr with errno set, so the caller can report the system's text.
    virtual std::unique_ptr<QelIpmiDevice> open(const char* path, int flags) = 0;
};

// The kernel character device, opened with open(2) and driven with ioctl(2)
// and select(2). This is the default provider.
class QEL_EXPORT QelKernelIpmiDeviceProvider : public QelIpmiDeviceProvider {
public:
    std::unique_ptr<QelIpmiDevice> open(const char* path, int flags) override;
};

// The installed provider: the kernel device unless another was installed.
QEL_EXPORT QelIpmiDeviceProvider& ipmiDeviceProvider();

// Installs `provider` (not owned; nullptr restores the kernel device) and
// returns the provider that was installed before (nullptr for the default).
QEL_EXPORT QelIpmiDeviceProvider* setIpmiDeviceProvider(QelIpmiDeviceProvider* provider);

}  // namespace qelIpmi

#endif
