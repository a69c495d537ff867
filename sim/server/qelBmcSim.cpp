// qel-bmcsim: the simulated controller as a process of its own, shared by
// every process that connects to its socket, and the control client for it.
//
//   qel-bmcsim [--socket PATH] [--config FILE]... [--pidfile FILE]
//              [--qemu-port PORT] [--wall-clock] [--ready-fd N | --daemon]
//   qel-bmcsim [--socket PATH] ctl COMMAND [ARGS...]
//   qel-bmcsim --keywords
//
// The socket defaults to $QEL_BMCSIM_SOCKET. The server tells it is ready
// (listening, pid file written) by writing "ready\n" to the descriptor of
// --ready-fd, by returning from the parent with --daemon, or else by printing
// "ready" on standard output; tests wait for that instead of sleeping. With
// --qemu-port it also serves a virtual machine's KCS interface over QEMU's
// external-BMC protocol on 127.0.0.1:PORT (qelSimExternBmc.h). It ends
// cleanly on SIGTERM, SIGINT, SIGHUP or `ctl shutdown`, removing its socket
// and pid file.
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qelSelRecord.h"
#include "qelSimBmc.h"
#include "qelSimDescription.h"
#include "qelSimExternBmc.h"
#include "qelSimServer.h"
#include "qelSimSocket.h"

namespace {

const char usageText[] =
    "usage: qel-bmcsim [--socket PATH] [--config FILE]... [--pidfile FILE] [--qemu-port PORT] [--wall-clock]\n"
    "                  [--ready-fd N | --daemon]\n"
    "       qel-bmcsim [--socket PATH] ctl COMMAND [ARGS...]\n"
    "       qel-bmcsim --keywords\n"
    "The socket defaults to $QEL_BMCSIM_SOCKET. --qemu-port serves a QEMU ipmi-bmc-extern\n"
    "device on 127.0.0.1:PORT; the controller's clock then follows the wall clock, as it does\n"
    "with --wall-clock (a stand-in on a bench: the watchdog counts down in real time).\n"
    "ctl commands:\n"
    "  advance MS            move the controller's clock on; prints the new time\n"
    "  now                   print the controller's clock\n"
    "  fault KIND [ARGS] [for NETFN CMD]\n"
    "                        a fault for the next exchange (see --keywords)\n"
    "  clear-faults          drop the faults not yet applied\n"
    "  requests              the recorded requests, one line each\n"
    "  clear-requests        forget them\n"
    "  dump                  the controller's state, section by section\n"
    "  deviceid BYTE...      the Get Device ID answer, completion code first (hex)\n"
    "  set KEYWORD WORD...   one controller description line\n"
    "  keywords              the description keywords the controller knows\n"
    "  sel add BYTE x16      add an event log record as Add SEL Entry does (ID and time set)\n"
    "  sel add-many N        add N temperature events\n"
    "  sel clear             erase the event log at once\n"
    "  sel dump              the event log's state and records\n"
    "  sensor NUMBER RAW     a sensor's raw reading (a threshold sensor's state follows it)\n"
    "  shutdown              end the controller; returns once it is gone\n";

int usage(int status) {
    std::fputs(usageText, status == 0 ? stdout : stderr);
    return status;
}

int fail(const std::string& text, int status = 1) {
    std::fprintf(stderr, "qel-bmcsim: %s\n", text.c_str());
    return status;
}

std::string joined(const std::vector<std::string>& words, std::size_t from) {
    std::string out;
    for (std::size_t i = from; i < words.size(); ++i) out += (out.empty() ? "" : " ") + words[i];
    return out;
}

// ---------------------------------------------------------------- ctl

// The event log's section of the dump: the lines between "[sel]" and the
// next section.
std::string selSection(const std::string& dump) {
    const std::size_t start = dump.find("[sel]\n");
    if (start == std::string::npos) return "";
    const std::size_t body = start + 6;
    const std::size_t end = dump.find("\n[", body);
    return dump.substr(body, end == std::string::npos ? std::string::npos : end + 1 - body);
}

// ctl sel ...: the event log's description keywords, spelled as commands.
int selControl(qelSim::SimControlClient& ctl, const std::vector<std::string>& args) {
    const std::string& what = args[1];
    if (what == "add" && args.size() == 2 + qelSel::recordSize) {
        ctl.describe("sel-add " + joined(args, 2));
    } else if (what == "record" && args.size() == 2 + qelSel::recordSize) {
        ctl.describe("sel-record " + joined(args, 2));
    } else if (what == "add-many" && args.size() == 3) {
        ctl.describe("sel-add-many " + args[2]);
    } else if (what == "clear" && args.size() == 2) {
        ctl.describe("sel-clear");
    } else if (what == "dump" && args.size() == 2) {
        std::fputs(selSection(ctl.dump()).c_str(), stdout);
    } else {
        return usage(2);
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}

int control(const std::string& socketPath, const std::vector<std::string>& args) {
    if (args.empty()) return usage(2);
    const std::string& cmd = args[0];
    try {
        qelSim::SimControlClient ctl(socketPath);
        if (cmd == "advance" && args.size() == 2) {
            std::uint64_t ms = qelSim::parseNumber(args[1], 1ULL << 48);
            std::printf("clock-ms %llu\n", static_cast<unsigned long long>(ctl.advanceMs(ms)));
        } else if (cmd == "now" && args.size() == 1) {
            std::printf("clock-ms %llu\n", static_cast<unsigned long long>(ctl.nowMs()));
        } else if (cmd == "fault" && args.size() >= 2) {
            ctl.injectFault(qelSim::parseFault(std::vector<std::string>(args.begin() + 1, args.end())));
        } else if (cmd == "clear-faults" && args.size() == 1) {
            ctl.clearFaults();
        } else if (cmd == "requests" && args.size() == 1) {
            for (const std::string& line : ctl.requestLines()) std::printf("%s\n", line.c_str());
        } else if (cmd == "clear-requests" && args.size() == 1) {
            ctl.clearRequests();
        } else if (cmd == "dump" && args.size() == 1) {
            std::fputs(ctl.dump().c_str(), stdout);
        } else if (cmd == "deviceid" && args.size() >= 2) {
            ctl.setDeviceId(qelSim::parseHexBytes(args, 1));
        } else if (cmd == "set" && args.size() >= 2) {
            ctl.describe(joined(args, 1));
        } else if (cmd == "sensor" && args.size() == 3) {
            ctl.describe("sensor-reading " + args[1] + " " + args[2]);
        } else if (cmd == "sel" && args.size() >= 2) {
            return selControl(ctl, args);
        } else if (cmd == "keywords" && args.size() == 1) {
            std::fputs(ctl.keywords().c_str(), stdout);
        } else if (cmd == "shutdown" && args.size() == 1) {
            ctl.shutdown();
        } else {
            return usage(2);
        }
    } catch (const std::invalid_argument& e) {
        return fail(e.what(), 2);
    } catch (const qelSim::SimSocketError& e) {
        return fail(e.what());
    }
    return std::fflush(stdout) == 0 ? 0 : 1;
}

// ---------------------------------------------------------------- server

int stopPipe[2] = {-1, -1};

extern "C" void onStopSignal(int) {
    int saved = errno;
    char c = 's';
    if (::write(stopPipe[1], &c, 1) < 0) {
        // The pipe is full: a stop is pending already.
    }
    errno = saved;
}

std::string absolute(const std::string& path) {
    if (path.empty() || path[0] == '/') return path;
    char cwd[4096];
    if (::getcwd(cwd, sizeof cwd) == nullptr) return path;
    return std::string(cwd) + "/" + path;
}

// A bound, listening, non-blocking socket at `path`, or -1 after a message.
// A socket file that nobody serves any more (a controller that was killed)
// is replaced; a live one or any other file is left alone.
int listenAt(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        fail("socket path too long for a UNIX socket (" + std::to_string(path.size()) + " bytes): " + path);
        return -1;
    }
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            fail(path + " exists and is no socket");
            return -1;
        }
        qelSim::SocketConnection probe;
        int e = probe.connect(path);
        if (e == 0) {
            fail("another controller serves " + path);
            return -1;
        }
        if (e != ECONNREFUSED) {
            fail(path + ": " + std::strerror(e));
            return -1;
        }
        ::unlink(path.c_str());  // stale
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        fail(std::string("socket: ") + std::strerror(errno));
        return -1;
    }
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) < 0 || ::listen(fd, 64) < 0) {
        fail(path + ": " + std::strerror(errno));
        ::close(fd);
        return -1;
    }
    return fd;
}

bool writePidFile(const std::string& path) {
    std::FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr) return false;
    bool ok = std::fprintf(f, "%d\n", static_cast<int>(::getpid())) > 0;
    return std::fclose(f) == 0 && ok;
}

struct ServerOptions {
    std::string socketPath;
    std::vector<std::string> configs;
    std::string pidFile;
    int readyFd = -1;
    bool daemon = false;
    int qemuPort = -1;
    bool wallClock = false;
};

// The controller's clock following the wall clock, for a controller that
// stands in for a real one on a bench: its watchdog then counts down in real
// time. A tick every 50 ms keeps it within the watchdog's tenth of a second.
class WallClock {
public:
    explicit WallClock(qelSim::SimBmc& bmc) : bmc_(bmc), thread_([this] { run(); }) {}
    ~WallClock() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        wake_.notify_one();
        thread_.join();
    }

private:
    void run() {
        using Clock = std::chrono::steady_clock;
        auto last = Clock::now();
        std::unique_lock<std::mutex> lock(mutex_);
        while (!stop_) {
            wake_.wait_for(lock, std::chrono::milliseconds(50));
            const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - last).count();
            if (ms <= 0) continue;
            last += std::chrono::milliseconds(ms);
            bmc_.advanceMs(static_cast<std::uint64_t>(ms));
        }
    }

    qelSim::SimBmc& bmc_;
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stop_ = false;
    std::thread thread_;
};

int serve(ServerOptions o) {
    qelSim::SimBmc bmc;
    for (const std::string& name : o.configs) {
        std::ifstream in(name);
        if (!in) return fail(name + ": " + std::strerror(errno), 2);
        try {
            qelSim::loadDescription(bmc, in, name);
        } catch (const std::invalid_argument& e) {
            return fail(e.what(), 2);
        }
    }
    // The daemon changes to "/"; the paths removed at the end must survive that.
    o.socketPath = absolute(o.socketPath);
    if (!o.pidFile.empty()) o.pidFile = absolute(o.pidFile);

    int listenFd = listenAt(o.socketPath);
    if (listenFd < 0) return 1;
    std::unique_ptr<qelSim::SimExternBmc> machine;
    if (o.qemuPort >= 0) {
        machine = std::make_unique<qelSim::SimExternBmc>(bmc, o.qemuPort);
        std::string error;
        if (!machine->listen(error)) {
            ::close(listenFd);
            ::unlink(o.socketPath.c_str());
            return fail(error);
        }
    }

    int daemonPipe[2] = {-1, -1};
    if (o.daemon) {
        if (::pipe2(daemonPipe, O_CLOEXEC) < 0) return fail(std::string("pipe: ") + std::strerror(errno));
        pid_t child = ::fork();
        if (child < 0) return fail(std::string("fork: ") + std::strerror(errno));
        if (child > 0) {
            // The parent returns once the daemon serves, so a script can
            // use the socket right after.
            ::close(daemonPipe[1]);
            char c = 0;
            ssize_t n;
            while ((n = ::read(daemonPipe[0], &c, 1)) < 0 && errno == EINTR) {
            }
            if (n == 1 && c == 'r') std::_Exit(0);
            int status = 0;
            ::waitpid(child, &status, 0);
            std::_Exit(1);
        }
        ::close(daemonPipe[0]);
        ::setsid();
        if (::chdir("/") < 0) return fail(std::string("chdir /: ") + std::strerror(errno));
        int null = ::open("/dev/null", O_RDWR);
        if (null >= 0) {
            ::dup2(null, 0);
            ::dup2(null, 1);
            if (null > 2) ::close(null);
        }
    }

    auto cleanUp = [&] {
        ::unlink(o.socketPath.c_str());
        if (!o.pidFile.empty()) ::unlink(o.pidFile.c_str());
    };
    if (!o.pidFile.empty() && !writePidFile(o.pidFile)) {
        int e = errno;
        ::unlink(o.socketPath.c_str());
        return fail(o.pidFile + ": " + std::strerror(e));
    }

    if (::pipe2(stopPipe, O_CLOEXEC | O_NONBLOCK) < 0) {
        cleanUp();
        return fail(std::string("pipe: ") + std::strerror(errno));
    }
    struct sigaction sa {};
    sa.sa_handler = onStopSignal;
    sigemptyset(&sa.sa_mask);
    for (int s : {SIGTERM, SIGINT, SIGHUP}) ::sigaction(s, &sa, nullptr);
    ::signal(SIGPIPE, SIG_IGN);

    if (o.daemon) {
        if (::write(daemonPipe[1], "r", 1) < 0) {
            // The parent is gone; serve anyway.
        }
        ::close(daemonPipe[1]);
    } else if (o.readyFd >= 0) {
        if (::write(o.readyFd, "ready\n", 6) != 6)
            std::fprintf(stderr, "qel-bmcsim: ready-fd %d: %s, ignoring\n", o.readyFd, std::strerror(errno));
        ::close(o.readyFd);
    } else {
        std::printf("ready\n");
        std::fflush(stdout);
    }

    qelSim::SimServer server(bmc, listenFd, stopPipe[0]);
    if (machine) machine->start();  // a thread: after the daemon's fork
    std::unique_ptr<WallClock> wallClock;
    if (o.wallClock && !machine) wallClock = std::make_unique<WallClock>(bmc);  // a machine's clock is the wall clock already
    server.run();
    wallClock.reset();
    if (machine) machine->stop();
    // Socket and pid file go first: a client that sees its connection close
    // may start the next controller at once.
    cleanUp();
    ::close(listenFd);
    server.finish();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    ServerOptions o;
    if (const char* env = std::getenv("QEL_BMCSIM_SOCKET")) o.socketPath = env;
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        bool hasValue = i + 1 < args.size();
        if (a == "--help" || a == "-h") return usage(0);
        if (a == "--keywords") {
            qelSim::SimBmc bmc;
            for (const auto& k : bmc.keywords()) std::printf("%-20s %s\n", k.first.c_str(), k.second.c_str());
            std::printf("fault kinds: %s\n", qelSim::faultUsage);
            return 0;
        }
        if (a == "ctl") {
            if (o.socketPath.empty()) return fail("no socket: give --socket PATH or set QEL_BMCSIM_SOCKET", 2);
            return control(o.socketPath, std::vector<std::string>(args.begin() + i + 1, args.end()));
        }
        if (a == "--daemon") {
            o.daemon = true;
        } else if (a == "--socket" && hasValue) {
            o.socketPath = args[++i];
        } else if (a == "--config" && hasValue) {
            o.configs.push_back(args[++i]);
        } else if (a == "--wall-clock") {
            o.wallClock = true;
        } else if (a == "--qemu-port" && hasValue) {
            try {
                o.qemuPort = static_cast<int>(qelSim::parseNumber(args[++i], 65535));
            } catch (const std::invalid_argument& e) {
                return fail(std::string("--qemu-port: ") + e.what(), 2);
            }
        } else if (a == "--pidfile" && hasValue) {
            o.pidFile = args[++i];
        } else if (a == "--ready-fd" && hasValue) {
            try {
                o.readyFd = static_cast<int>(qelSim::parseNumber(args[++i], 65535));
            } catch (const std::invalid_argument& e) {
                return fail(std::string("--ready-fd: ") + e.what(), 2);
            }
        } else {
            return usage(2);
        }
    }
    if (o.socketPath.empty()) return fail("no socket: give --socket PATH or set QEL_BMCSIM_SOCKET", 2);
    if (o.daemon && o.readyFd >= 0) return fail("--daemon and --ready-fd exclude each other", 2);
    return serve(o);
}
