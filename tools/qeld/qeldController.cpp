#include "qeldController.h"

#include <fcntl.h>
#include <limits.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "qelIpmi.h"
#include "qelNoController.h"
#include "qelSimBmc.h"
#include "qelSimDescription.h"
#include "qelSimDevice.h"
#include "qelSimModelDescriptions.h"
#include "qelSimSocket.h"

extern char** environ;

namespace qeld {

namespace {

std::string directoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash);
}

bool executable(const std::string& path) { return !path.empty() && ::access(path.c_str(), X_OK) == 0; }

// qel-bmcsim beside this executable (installed together), else the one of the
// build tree qeld was built in, else whatever PATH finds.
std::string bmcsimProgram() {
    char self[PATH_MAX];
    const ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n > 0) {
        self[n] = '\0';
        const std::string beside = directoryOf(self) + "/qel-bmcsim";
        if (executable(beside)) return beside;
    }
#ifdef QEL_BMCSIM_BUILD_PATH
    if (executable(QEL_BMCSIM_BUILD_PATH)) return QEL_BMCSIM_BUILD_PATH;
#endif
    return "qel-bmcsim";
}

// "/run/qeld-bmcsim.sock" -> "/run/qeld-bmcsim.pid"
std::string pidFileFor(const std::string& socketPath) {
    const std::string suffix = ".sock";
    if (socketPath.size() > suffix.size() &&
        socketPath.compare(socketPath.size() - suffix.size(), suffix.size(), suffix) == 0)
        return socketPath.substr(0, socketPath.size() - suffix.size()) + ".pid";
    return socketPath + ".pid";
}

bool serving(const std::string& socketPath) {
    try {
        qelSim::SimControlClient probe(socketPath);
        return true;
    } catch (const qelSim::SimSocketError&) {
        return false;
    }
}

// Starts `qel-bmcsim --daemon`, which returns once it serves the socket.
void startBmcsim(const std::string& socketPath, const std::string& descriptionFile) {
    std::string description = descriptionFile;
    std::string temporary;
    if (description.empty()) {
        char name[] = "/tmp/qeld-default-controller-XXXXXX";
        const int fd = ::mkstemp(name);
        if (fd < 0) throw std::runtime_error(std::string("cannot write the default description: ") + std::strerror(errno));
        const std::string& text = qelSim::defaultControllerDescription();
        const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        ::close(fd);
        temporary = name;
        if (!written) {
            ::unlink(name);
            throw std::runtime_error("cannot write the default description to " + temporary);
        }
        description = temporary;
    }
    const std::string program = bmcsimProgram();
    std::vector<std::string> args = {program,        "--socket",  socketPath, "--config", description,
                                     "--pidfile",    pidFileFor(socketPath), "--daemon"};
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int rc = ::posix_spawnp(&pid, program.c_str(), nullptr, nullptr, argv.data(), environ);
    int status = 0;
    if (rc == 0)
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    if (!temporary.empty()) ::unlink(temporary.c_str());
    if (rc != 0)
        throw std::runtime_error("cannot start " + program + ": " + std::strerror(rc) +
                                 " (it is installed beside qeld; or give --bmc-socket of a running one)");
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw std::runtime_error(program + " did not start a controller at " + socketPath +
                                 " (its message is above)");
}

}  // namespace

Controller::Controller() : provider_(new qelIpmi::QelKernelIpmiDeviceProvider) {}

Controller::~Controller() = default;

std::unique_ptr<Controller> Controller::inProcess(const std::string& descriptionFile) {
    std::unique_ptr<Controller> c(new Controller);
    c->kind_ = Kind::InProcess;
    c->bmc_.reset(new qelSim::SimBmc);
    try {
        if (descriptionFile.empty()) {
            qelSim::applyDefaultController(*c->bmc_);
        } else {
            std::ifstream in(descriptionFile);
            if (!in) throw std::runtime_error(descriptionFile + ": " + std::strerror(errno));
            qelSim::loadDescription(*c->bmc_, in, descriptionFile);
        }
    } catch (const std::invalid_argument& e) {
        throw std::runtime_error(e.what());
    }
    c->provider_.reset(new qelSim::SimDeviceProvider(*c->bmc_));
    return c;
}

std::unique_ptr<Controller> Controller::atSocket(const std::string& socketPath) {
    std::unique_ptr<Controller> c(new Controller);
    c->kind_ = Kind::Socket;
    c->socketPath_ = socketPath;
    c->provider_.reset(new qelSim::SocketDeviceProvider(socketPath));
    return c;
}

std::unique_ptr<Controller> Controller::shared(const std::string& socketPath,
                                               const std::string& descriptionFile, bool& started) {
    started = false;
    if (!serving(socketPath)) {
        startBmcsim(socketPath, descriptionFile);
        started = true;
    }
    return atSocket(socketPath);
}

qelIpmi::QelIpmiDeviceProvider& Controller::provider() { return *provider_; }

std::string Controller::probe() {
    const std::string problems = qelTool::probeDevices(*provider_);
    if (problems.empty()) return "";
    return qelTool::noControllerText(problems, kind_ == Kind::Socket ? socketPath_ : std::string());
}

std::string Controller::dump() {
    switch (kind_) {
    case Kind::InProcess:
        return bmc_->dump();
    case Kind::Socket:
        try {
            return qelSim::SimControlClient(socketPath_).dump();
        } catch (const qelSim::SimSocketError& e) {
            throw std::runtime_error(e.what());
        }
    case Kind::Kernel:
        break;
    }
    throw std::runtime_error("the kernel's IPMI device has no state dump; --report needs a simulated controller");
}

}  // namespace qeld
