// Which controller qeld's agent talks to, chosen by the executable only (the
// library's default stays the kernel device):
//
// - the kernel's IPMI device (the default);
// - a simulated controller inside this process (--simulate in the modes that
//   stay in one process: --once, --foreground, --shutdown), built from the
//   default description or from a description file;
// - a simulated controller process, qel-bmcsim, at a UNIX socket
//   (--bmc-socket PATH or $QEL_BMCSIM_SOCKET; and --simulate with --daemon,
//   since the daemon forks and parent, child and any qelctl must see one
//   controller). With --simulate, qeld starts qel-bmcsim there when nobody
//   serves the socket yet; it stays after the agent ends, so its state can be
//   read (`qel-bmcsim --socket PATH ctl dump`) until `ctl shutdown`.
#ifndef QELD_CONTROLLER_H
#define QELD_CONTROLLER_H

#include <memory>
#include <string>

#include "qelIpmiDevice.h"

namespace qelSim {
class SimBmc;
}

namespace qeld {

class Controller {
public:
    enum class Kind { Kernel, InProcess, Socket };

    // The kernel's device.
    Controller();
    ~Controller();
    Controller(const Controller&) = delete;
    Controller& operator=(const Controller&) = delete;

    // A simulated controller in this process: the default one, or the one
    // `descriptionFile` describes. Throws std::runtime_error with a readable
    // text for a file that cannot be read or holds a bad line.
    static std::unique_ptr<Controller> inProcess(const std::string& descriptionFile);
    // The controller process serving `socketPath`; nothing is checked yet.
    static std::unique_ptr<Controller> atSocket(const std::string& socketPath);
    // Makes sure a controller process serves `socketPath`: when nobody does,
    // starts qel-bmcsim there with `descriptionFile` (empty: the default
    // description). Throws std::runtime_error when it cannot. `started` says
    // whether a new process was started.
    static std::unique_ptr<Controller> shared(const std::string& socketPath,
                                              const std::string& descriptionFile, bool& started);

    Kind kind() const { return kind_; }
    const std::string& socketPath() const { return socketPath_; }
    // The provider the agent is to use (not yet installed).
    qelIpmi::QelIpmiDeviceProvider& provider();

    // Whether the device opens, without sending anything: "" when it does,
    // else the one line that says there is no controller and why (the text
    // qelctl prints too; qelNoController.h).
    std::string probe();

    // The controller's state dump (simulated controllers only); throws
    // std::runtime_error for the kernel device or a broken connection.
    std::string dump();

private:
    Kind kind_ = Kind::Kernel;
    std::string socketPath_;
    std::unique_ptr<qelSim::SimBmc> bmc_;
    std::unique_ptr<qelIpmi::QelIpmiDeviceProvider> provider_;
};

}  // namespace qeld

#endif
