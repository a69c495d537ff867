// qeld: the agent's executable. It picks the run mode and the controller,
// constructs the agent, and turns what happened into an exit status. The
// agent's work itself is all in the library: QelHostAgent by default (a loop
// that no publication failure can end, the host's true facts, every NIC's
// addresses), QelServerInfo's own loop with --strict.
//
//   qeld --daemon       fork a daemon (pid file /var/run/qeld.pid), loop there
//   qeld --foreground   loop in a worker thread until SIGTERM/SIGINT/SIGHUP
//   qeld --once         one pass: report, publish, no watchdog
//   qeld --shutdown     stop the watchdog only (at system halt)
//
// `qeld --help` lists the options and the exit statuses; packaging/qeld.8
// says the same at length.
#include <signal.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "PniAccess.h"
#include "qelBladeInfo.h"
#include "qelConfSpaceData.h"
#include "qelErrorText.h"
#include "qelHostAgent.h"
#include "qelHostFacts.h"
#include "qelIp.h"
#include "qelIpmi.h"
#include "qelIpmiWatchdog.h"
#include "qelPlatform.h"
#include "qelServerInfo.h"
#include "qelSystemInfo.h"
#include "qeldBladeSmbios.h"
#include "qeldController.h"
#include "qeldNotify.h"
#include "qeldPlatform.h"
#include "qeldSel.h"

namespace {

// Exit statuses. 1 is what the library itself ends a daemon with; the others
// are qeld's own, so a service manager (and a person) can tell them apart.
enum ExitStatus : int {
    exitOk = 0,
    exitDaemonStart = 1,     // the daemon did not come up (parent is init, child silent or dead, ...)
    exitLoopError = 2,       // the agent's loop ended by itself with an error (see syslog)
    exitNoController = 3,    // no IPMI device to talk to
    exitAlreadyRunning = 4,  // --daemon: the pid file exists
    exitAgentFailed = 5,     // the agent could not be built, or failed unexpectedly
    exitSimulator = 6,       // the simulated controller could not be set up
    exitUsage = 64,          // bad command line (EX_USAGE)
};

const char usageText[] =
    "usage: qeld MODE [OPTIONS]\n"
    "Keeps the BMC's watchdog alive while the OS runs and publishes the host's facts\n"
    "(OS status and name, network addresses) to the BMC.\n"
    "\n"
    "MODE, exactly one:\n"
    "  --daemon           fork a daemon that writes /var/run/qeld.pid and runs the loop\n"
    "                     until SIGTERM, SIGHUP or SIGINT (SIGALRM resets the watchdog)\n"
    "  --foreground       run the loop in a worker thread until SIGTERM, SIGINT or\n"
    "                     SIGHUP; for service managers (systemd Type=notify: with\n"
    "                     NOTIFY_SOCKET set, READY=1 after the first pass, then\n"
    "                     WATCHDOG=1 and a STATUS= line after every pass)\n"
    "  --once             one pass: OS status, platform texts and addresses; no watchdog\n"
    "  --shutdown         stop the watchdog only (what the system does at halt); when the\n"
    "                     system is going down (systemd says \"stopping\", or\n"
    "                     --system-shutdown) also log \"OS graceful shutdown\" in the BMC's\n"
    "                     event log"
    "\n"
    "OPTIONS:\n"
    "  --system-shutdown  with --shutdown: the system is going down (see --shutdown)\n"
    "  --strict           run the library's historic loop (QelServerInfo) instead of the\n"
    "                     host agent: its first failing publication ends the loop and\n"
    "                     stops the watchdog, the OS is named as on the hypervisor, one\n"
    "                     NIC's PNI addresses replace another's. For sites that need\n"
    "                     exactly the old behaviour\n"
    "  --simulate[=FILE]  use a simulated controller instead of the kernel's IPMI device:\n"
    "                     the default one (a blade with its management board, a PNI FRU\n"
    "                     whose two NIC ports carry this host's first two interface MACs,\n"
    "                     the software watchdog enabled at 300 s, a LAN channel) or the\n"
    "                     one FILE describes (qel-bmcsim --keywords lists the keywords).\n"
    "                     The agent then also reads the simulated blade's SMBIOS tables\n"
    "                     (family ALDERCROFT) instead of /dev/mem, unless --root DIR has\n"
    "                     a DIR/dev/mem of its own.\n"
    "                     --once, --foreground, --shutdown: inside this process.\n"
    "                     --daemon (parent and child must share it), or with --bmc-socket:\n"
    "                     a qel-bmcsim process at the socket, started when nobody serves\n"
    "                     it; it outlives qeld (qel-bmcsim --socket PATH ctl shutdown).\n"
    "  --bmc-socket PATH  talk to the simulated controller process (qel-bmcsim) at PATH;\n"
    "                     $QEL_BMCSIM_SOCKET gives the default. With --daemon --simulate\n"
    "                     and neither, PATH is <root>/run/qeld-bmcsim.sock.\n"
    "  --root DIR         put DIR in front of the agent's fixed paths (pid file\n"
    "                     DIR/var/run/qeld.pid, DIR/opt/zum/...): a sandbox, or tests\n"
    "  --report           at the end, print the simulated controller's state: what the\n"
    "                     agent sent, the watchdog, configuration space, PNI and board\n"
    "  --watchdog SECONDS where the controller has no configuration space (a controller\n"
    "                     of another make), keep the BMC watchdog with this time (at least\n"
    "                     240 s); elsewhere the configuration space's settings hold. 0,\n"
    "                     the default: no watchdog on such a controller\n"
    "  --watchdog-action none|reset|power-off|power-cycle\n"
    "                     what the controller does when that timer expires (reset)\n"
    "  --sel-replay       forward the controller's whole event log (SEL) to the journal\n"
    "                     once, as if nothing had been forwarded before (normally a\n"
    "                     first start forwards only what was logged since the boot)\n"
    "  --no-sel           do not forward the controller's event log at all\n"
    "  --stderr           copy the agent's syslog messages to standard error (the default,\n"
    "                     unless standard error is the journal, which has them anyway)\n"
    "  --no-stderr        do not\n"
    "  --version, --help\n"
    "\n"
    "Test aids (not for production):\n"
    "  --test-time-scale=N     every wait of the loop lasts 1/N of its time (the 20 s\n"
    "                          period, the watchdog alarm); the daemon's 3 s start-up\n"
    "                          wait stays real\n"
    "  --test-stall-child=S    the daemon child waits S seconds before it writes the pid\n"
    "                          file and reports to its parent\n"
    "  --test-stats=FILE       CPU per pass by kind, descriptors and memory, rewritten\n"
    "                          after every pass\n"
    "  --test-sel-log=FILE     the event log's records as lines appended to FILE instead\n"
    "                          of the journal or syslog\n"
    "\n"
    "Exit status:\n"
    "  0   done (--daemon: the daemon runs; --foreground: stopped by a signal)\n"
    "  1   --daemon: the daemon did not start (qeld's parent is init, the child did not\n"
    "      report within 3 s or died, fork/session/signal setup failed); the daemon\n"
    "      process itself ends with 1 when something outside its loop failed\n"
    "  2   the agent's loop ended by itself with an error (its text is in syslog); the\n"
    "      watchdog was stopped. Also the daemon process's status in that case\n"
    "  3   no controller: the IPMI device does not open\n"
    "  4   --daemon: the pid file exists (another daemon runs, or it is stale)\n"
    "  5   the agent could not be built or failed unexpectedly\n"
    "  6   the simulated controller could not be set up\n"
    "  64  bad command line\n";

// The message of an exception, on one line.
std::string messageOf(const std::exception& e) {
    std::string text = qelError::textOf(e);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text.empty() ? "(no message)" : text;
}

int usage(FILE* out, int status) {
    std::fputs(usageText, out);
    return status;
}

int badUsage(const std::string& text) {
    std::fprintf(stderr, "qeld: %s\n(qeld --help lists the options)\n", text.c_str());
    return exitUsage;
}

enum class Mode { None, Daemon, Foreground, Once, Shutdown };

struct Options {
    Mode mode = Mode::None;
    bool simulate = false;
    bool strict = false;
    bool systemShutdown = false;
    std::string simulateFile;
    std::string bmcSocket;
    bool bmcSocketGiven = false;
    std::string root;
    bool report = false;
    int teeChoice = -1;  // -1: by default; 0 off; 1 on
    unsigned int timeScale = 1;
    unsigned int stallChild = 0;
    std::string statsFile;
    bool sel = true;
    bool selReplay = false;
    unsigned int watchdogSeconds = 0;
    int watchdogAction = -1;  // -1: not given (hard reset)
    std::string selLogFile;
};

bool parseCount(const std::string& text, unsigned int max, unsigned int& value) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
    const unsigned long v = std::strtoul(text.c_str(), nullptr, 10);
    if (v > max) return false;
    value = static_cast<unsigned int>(v);
    return true;
}

// Parses argv into `o`; returns -1 to go on, else the status to exit with.
int parse(int argc, char** argv, Options& o) {
    auto setMode = [&](Mode m, const char* name) {
        if (o.mode != Mode::None) return badUsage(std::string("more than one mode (") + name + ")");
        o.mode = m;
        return -1;
    };
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        bool hasValue = false;
        const std::size_t eq = arg.find('=');
        if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            value = arg.substr(eq + 1);
            arg = arg.substr(0, eq);
            hasValue = true;
        }
        // Options that need a value take it after '=' or as the next word.
        auto need = [&](const char* name) -> bool {
            if (hasValue) return true;
            if (i + 1 >= argc) return false;
            value = argv[++i];
            hasValue = true;
            (void)name;
            return true;
        };
        int r = -1;
        if (arg == "--help" || arg == "-h") {
            std::exit(usage(stdout, exitOk));
        } else if (arg == "--version") {
            std::printf("qeld %s (libqelbase)\n", QELD_VERSION);
            std::exit(exitOk);
        } else if (arg == "--daemon") {
            r = setMode(Mode::Daemon, "--daemon");
        } else if (arg == "--foreground") {
            r = setMode(Mode::Foreground, "--foreground");
        } else if (arg == "--once") {
            r = setMode(Mode::Once, "--once");
        } else if (arg == "--shutdown") {
            r = setMode(Mode::Shutdown, "--shutdown");
        } else if (arg == "--system-shutdown") {
            o.systemShutdown = true;
        } else if (arg == "--strict") {
            o.strict = true;
        } else if (arg == "--simulate") {
            o.simulate = true;
            if (hasValue) {
                if (value.empty()) return badUsage("--simulate= needs a file name");
                o.simulateFile = value;
            }
        } else if (arg == "--bmc-socket") {
            if (!need("--bmc-socket") || value.empty()) return badUsage("--bmc-socket needs a path");
            o.bmcSocket = value;
            o.bmcSocketGiven = true;
        } else if (arg == "--root") {
            if (!need("--root") || value.empty()) return badUsage("--root needs a directory");
            o.root = value;
        } else if (arg == "--report") {
            o.report = true;
        } else if (arg == "--watchdog") {
            if (!need("--watchdog") || !parseCount(value, 6553, o.watchdogSeconds))
                return badUsage("--watchdog needs seconds (0 to 6553)");
        } else if (arg == "--watchdog-action") {
            static const char* const actions[] = {"none", "reset", "power-off", "power-cycle"};
            if (!need("--watchdog-action")) return badUsage("--watchdog-action needs none, reset, power-off or power-cycle");
            for (int a = 0; a < 4; ++a)
                if (value == actions[a]) o.watchdogAction = a;
            if (o.watchdogAction < 0)
                return badUsage("--watchdog-action needs none, reset, power-off or power-cycle");
        } else if (arg == "--sel-replay") {
            o.selReplay = true;
        } else if (arg == "--no-sel") {
            o.sel = false;
        } else if (arg == "--test-sel-log") {
            if (!need("--test-sel-log") || value.empty()) return badUsage("--test-sel-log needs a file name");
            o.selLogFile = value;
        } else if (arg == "--stderr") {
            o.teeChoice = 1;
        } else if (arg == "--no-stderr") {
            o.teeChoice = 0;
        } else if (arg == "--test-time-scale") {
            if (!need("--test-time-scale") || !parseCount(value, 1000000, o.timeScale) || o.timeScale == 0)
                return badUsage("--test-time-scale needs a number from 1 to 1000000");
        } else if (arg == "--test-stall-child") {
            if (!need("--test-stall-child") || !parseCount(value, 3600, o.stallChild))
                return badUsage("--test-stall-child needs seconds (0 to 3600)");
        } else if (arg == "--test-stats") {
            if (!need("--test-stats") || value.empty()) return badUsage("--test-stats needs a file name");
            o.statsFile = value;
        } else {
            return badUsage("unknown argument '" + std::string(argv[i]) + "'");
        }
        if (r != -1) return r;
    }
    if (o.mode == Mode::None) return badUsage("no mode: give --daemon, --foreground, --once or --shutdown");
    if (!o.bmcSocketGiven) {
        if (const char* env = std::getenv("QEL_BMCSIM_SOCKET")) o.bmcSocket = env;
    }
    if (o.report && !o.simulate && o.bmcSocket.empty())
        return badUsage("--report needs a simulated controller (--simulate or --bmc-socket)");
    if (o.report && o.mode == Mode::Daemon)
        return badUsage("--report does not go with --daemon (read the state with qel-bmcsim ... ctl dump)");
    if (o.systemShutdown && o.mode != Mode::Shutdown) return badUsage("--system-shutdown goes with --shutdown");
    if (o.selReplay && !o.sel) return badUsage("--sel-replay does not go with --no-sel");
    if (o.watchdogAction >= 0 && o.watchdogSeconds == 0) return badUsage("--watchdog-action goes with --watchdog");
    if (o.watchdogSeconds != 0 && o.strict) return badUsage("--watchdog does not go with --strict");
    if (!o.root.empty() && o.root.back() == '/') o.root.pop_back();
    return -1;
}

// True when <root>/dev/mem opens and holds a 32-bit SMBIOS entry point where
// the reader searches for one (the BIOS area, 0xF0000 to 0xFFFFF).
bool devMemHasSmbios(const std::string& root) {
    std::FILE* mem = std::fopen((root + "/dev/mem").c_str(), "rb");
    if (mem == nullptr) return false;
    bool found = false;
    std::vector<unsigned char> area(0x10000);
    if (std::fseek(mem, 0xF0000, SEEK_SET) == 0 && std::fread(area.data(), 1, area.size(), mem) == area.size())
        for (std::size_t at = 0; at + 4 <= area.size() && !found; at += 16)
            found = std::memcmp(&area[at], "_SM_", 4) == 0;
    std::fclose(mem);
    return found;
}

qeld::QeldPlatform* thePlatform = nullptr;

// Runs first in every exit() of the daemon's processes (qeld's handler is
// registered last).
//
// The library's start-up handlers end the parent with exit() from a signal
// handler: SIGUSR1 (the child reported) exits 0, SIGCHLD and SIGALRM exit 1.
// A second of them arriving while the first exit() still runs (the child
// dying right after its report, or anything that exits the process's own
// children at exit) would call exit() again from inside it and could turn a
// 0 into a 1. So the three are blocked for the rest of the exit.
//
// The daemon child ends through the library's exit(): 0 after a termination
// signal, 1 otherwise. When the loop itself ended with an error its running
// flag is still set (only a termination signal clears it), and the status
// becomes 2, which is what a service manager or a reaper sees.
void atDaemonExit() {
    sigset_t late;
    sigemptyset(&late);
    for (int s : {SIGCHLD, SIGALRM, SIGUSR1}) sigaddset(&late, s);
    sigprocmask(SIG_BLOCK, &late, nullptr);
    const QelServerInfo* agent = QelServerInfo::this_QelServerInfo;
    if (thePlatform != nullptr) thePlatform->writeStats();
    if (agent != nullptr && agent->running) ::_exit(exitLoopError);
}

// The host agent, with the event log's forwarder as one more step of its
// pass when `forwarding` is given. The forwarder's state needs its directory,
// and its sink the journal or syslog: both are made here, before the loop.
std::unique_ptr<QelHostAgent> makeHostAgent(const Options& o, qeld::SelForwarding* forwarding) {
    QelHostAgent::Options options;
    options.watchdogSeconds = o.watchdogSeconds;
    if (o.watchdogAction >= 0) options.watchdogAction = o.watchdogAction;
    if (forwarding != nullptr)
        options.steps.emplace_back("event log forwarding", [forwarding] { forwarding->pass(); });
    return std::unique_ptr<QelHostAgent>(new QelHostAgent(options));
}

std::unique_ptr<qeld::SelForwarding> makeForwarding(const Options& o) {
    if (!o.sel || o.strict) return nullptr;
    qeld::SelForwardingOptions f = qeld::SelForwardingOptions::fromEnvironment();
    f.replay = o.selReplay;
    f.testLogFile = o.selLogFile;
    return std::unique_ptr<qeld::SelForwarding>(new qeld::SelForwarding(f));
}

int runDaemon(const Options& o) {
    const bool strict = o.strict;
    std::atexit(atDaemonExit);
    // Returns only when the pid file exists (the library has printed why);
    // every other way ends inside, in the parent and in the daemon child.
    if (strict) {
        QelServerInfo agent(QelServerInfo::Daemon);
        return exitAlreadyRunning;
    }
    std::unique_ptr<qeld::SelForwarding> forwarding = makeForwarding(o);
    std::unique_ptr<QelHostAgent> agent = makeHostAgent(o, forwarding.get());
    agent->start(QelServerInfo::Daemon);
    return exitAlreadyRunning;
}

int runOnce(bool strict) {
    if (!strict) {
        QelHostAgent agent;
        return agent.start(QelServerInfo::Once) ? exitOk : exitLoopError;
    }
    // The library's mode Once runs its pass inside the constructor and drops
    // the loop's exit code. qeld builds the agent with a mode that starts
    // nothing and runs the same single pass itself, with the mode set to
    // Once, so it sees whether the pass ended with an error. The controller
    // sees the same traffic either way.
    QelServerInfo agent(static_cast<QelServerInfo::RunMode>(0));
    agent.runMode = QelServerInfo::Once;
    int exitCode = 0;
    agent.main_action(exitCode);
    return exitCode == 0 ? exitOk : exitLoopError;
}

// True when systemd runs the system and is taking it down: the stop of the
// service is then part of a shutdown, not an administrator's stop.
bool systemGoingDown() {
    struct stat info;
    if (::stat("/run/systemd/system", &info) != 0) return false;
    std::FILE* state = ::popen("systemctl is-system-running 2>/dev/null", "r");
    if (state == nullptr) return false;
    char line[64] = {};
    const bool read = std::fgets(line, sizeof line, state) != nullptr;
    ::pclose(state);
    return read && std::strncmp(line, "stopping", 8) == 0;
}

int runShutdown(bool systemShutdown, bool strict) {
    QelServerInfo agent(QelServerInfo::Shutdown);
    // The host agent also leaves the shutdown in the controller's event log,
    // so the BMC's log shows the host's shutdowns beside its boots.
    if (!strict && (systemShutdown || systemGoingDown()))
        QelHostAgent::sendOsEvent(QelHostAgent::OsEvent::GracefulShutdown);
    return exitOk;
}

int runForeground(qeld::QeldPlatform& platform, const qeld::ServiceNotifier& notifier, const Options& o) {
    const bool strict = o.strict;
    // Blocked before the worker exists, so it inherits the mask and every one
    // of these reaches the main thread's sigwait: the termination signals,
    // the alarm the loop arms as its watchdog safety net, and SIGUSR2 from
    // the worker's sentinel when its loop ends by itself.
    sigset_t signals;
    sigemptyset(&signals);
    for (int s : {SIGTERM, SIGINT, SIGHUP, SIGALRM, SIGUSR2}) sigaddset(&signals, s);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    // In mode Thread the host program owns syslog.
    QelServerInfo::open_syslog();
    platform.watchWorker(true);
    // Under systemd (Type=notify): ready once the first pass is done, and a
    // keep-alive at the end of every pass, so a loop that stops making
    // passes (a wedged exchange, a deadlock) is killed and restarted by the
    // service manager long before the controller's timer runs out. The hook
    // runs on the loop's own thread, between its passes.
    QelHostAgent* host = nullptr;
    unsigned long passes = 0;
    auto passEnded = [&platform, &notifier, &host, &passes] {
        ++passes;
        const long long sinceReset = platform.secondsSinceWatchdogReset();
        const std::string status = "STATUS=" +
                                   (host != nullptr ? qeld::agentStatusLine(host->status(), sinceReset)
                                                    : qeld::libraryLoopStatusLine(sinceReset, passes)) +
                                   "\n";
        notifier.notify(passes == 1 ? "READY=1\n" + status + "WATCHDOG=1\n" : "WATCHDOG=1\n" + status);
    };
    std::unique_ptr<qeld::SelForwarding> forwarding = makeForwarding(o);
    std::unique_ptr<QelServerInfo> agent;
    if (strict) {
        if (notifier.enabled()) platform.setPassHook(passEnded);
        agent.reset(new QelServerInfo(QelServerInfo::Thread));
    } else {
        host = makeHostAgent(o, forwarding.get()).release();
        agent.reset(host);
        if (notifier.enabled()) platform.setPassHook(passEnded);
        host->start(QelServerInfo::Thread);
    }

    bool loopEnded = false;
    for (;;) {
        int sig = 0;
        if (sigwait(&signals, &sig) != 0) continue;
        if (sig == SIGALRM) {
            // The loop is late: what the daemon's SIGALRM handler does.
            platform.log(LOG_INFO, "Alarm signal received");
            QelServerInfo::reset_watchdog(qelIpmi::QelIpmiWatchdog::TIMER_USE_SMS_OS, false);
            continue;
        }
        if (sig == SIGUSR2) {
            loopEnded = true;
            break;
        }
        platform.log(LOG_INFO, "Termination signal received");
        notifier.notify("STOPPING=1\nSTATUS=stopping: stopping the watchdog, reporting the OS shut down\n");
        break;
    }
    // The worker stops the watchdog and reports the agent as disconnected
    // when its loop ends; then the board learns that the OS shuts down, as
    // the daemon reports it on a termination signal.
    agent->stop_main_action_thread();
    agent->setShutdownInfo();
    agent.reset();
    if (loopEnded) {
        notifier.notify("STATUS=the agent's loop ended with an error; the watchdog is stopped\n");
        platform.log(LOG_ERR, "the agent's loop ended with an error; the watchdog is stopped");
        return exitLoopError;
    }
    return exitOk;
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    const int parsed = parse(argc, argv, o);
    if (parsed != -1) return parsed;
    // Taken (and removed from the environment) before any child is started.
    static const qeld::ServiceNotifier notifier = qeld::ServiceNotifier::fromEnvironment();

    // Installed for the whole process: the library never restores it, and
    // the daemon child and signal handlers use it to the end.
    static qeld::QeldPlatform platform;
    thePlatform = &platform;
    platform.setRoot(o.root);
    platform.setTimeScale(o.timeScale);
    platform.setDaemonMode(o.mode == Mode::Daemon);
    platform.setChildStall(o.stallChild);
    platform.setStatsFile(o.statsFile);
    platform.setTeeToStderr(o.teeChoice == 1 || (o.teeChoice == -1 && !qeld::stderrIsJournal()));
    qelPlatform::setPlatform(&platform);

    // qeld's own complaints: syslog too, except in --shutdown, which must
    // leave syslog alone.
    auto complain = [&](const std::string& text) {
        if (o.mode == Mode::Shutdown || o.teeChoice == 0)
            qeld::QeldPlatform::say(text);
        else
            platform.log(LOG_ERR, text);
    };

    // ---- the controller
    static std::unique_ptr<qeld::Controller> controller;
    try {
        const bool sharedNeeded = o.mode == Mode::Daemon || !o.bmcSocket.empty();
        if (o.simulate && sharedNeeded) {
            std::string socket = o.bmcSocket;
            if (socket.empty()) {
                socket = o.root + "/run/qeld-bmcsim.sock";
                ::mkdir((o.root + "/run").c_str(), 0755);
            }
            bool started = false;
            controller = qeld::Controller::shared(socket, o.simulateFile, started);
            if (started)
                qeld::QeldPlatform::say("started a simulated controller at " + socket +
                                        " (state: qel-bmcsim --socket " + socket +
                                        " ctl dump; end it: ... ctl shutdown)");
            else if (!o.simulateFile.empty())
                qeld::QeldPlatform::say("a controller serves " + socket + " already; " + o.simulateFile +
                                        " was not loaded");
        } else if (o.simulate) {
            controller = qeld::Controller::inProcess(o.simulateFile);
        } else if (!o.bmcSocket.empty()) {
            controller = qeld::Controller::atSocket(o.bmcSocket);
        } else {
            controller.reset(new qeld::Controller);
        }
    } catch (const std::exception& e) {
        complain(std::string("simulated controller: ") + e.what());
        return exitSimulator;
    }
    // A simulated controller is a blade's: show the agent that blade's
    // firmware tables too, unless the --root sandbox has a memory image of
    // its own.
    struct stat memoryImage;
    if (controller->kind() != qeld::Controller::Kind::Kernel &&
        (o.root.empty() || ::stat((o.root + "/dev/mem").c_str(), &memoryImage) != 0)) {
        try {
            platform.setMemoryImage(qeld::simulatedBladeSmbios());
        } catch (const std::exception& e) {
            complain(std::string("simulated blade: ") + e.what());
            return exitSimulator;
        }
    }
    // On the real host: where /dev/mem is refused (kernel lockdown, Secure
    // Boot) or holds no entry point, the host agent reads the firmware's
    // tables as the kernel exports them instead, through the same seam.
    if (controller->kind() == qeld::Controller::Kind::Kernel && !o.strict && !devMemHasSmbios(o.root)) {
        const std::string image = qelHostFacts::firmwareTablesImage();
        if (!image.empty()) {
            try {
                platform.setMemoryImage(qeld::memoryImageFile(image, "qeld-firmware-smbios"));
            } catch (const std::exception& e) {
                complain(std::string("firmware tables: ") + e.what());
            }
        }
    }
    static qeld::WatchingDeviceProvider provider(controller->provider(), platform);
    qelIpmi::setIpmiDeviceProvider(&provider);

    const std::string problem = controller->probe();
    if (!problem.empty()) {
        // The unit's stop (ExecStopPost) follows every end of the agent, also
        // that of an agent that found no controller and said so: on a host
        // without a controller the journal gets that one line, not a second
        // from the stop, which has no timer to stop anyway.
        if (o.mode == Mode::Shutdown && qeld::stderrIsJournal()) return exitNoController;
        complain(problem);
        return exitNoController;
    }

    if (o.mode == Mode::Daemon && !o.root.empty()) {
        // The sandbox needs the directory the pid file goes in.
        ::mkdir((o.root + "/var").c_str(), 0755);
        ::mkdir((o.root + "/var/run").c_str(), 0755);
    }

    int status = exitAgentFailed;
    try {
        switch (o.mode) {
        case Mode::Daemon: status = runDaemon(o); break;
        case Mode::Foreground: status = runForeground(platform, notifier, o); break;
        case Mode::Once: status = runOnce(o.strict); break;
        case Mode::Shutdown: status = runShutdown(o.systemShutdown, o.strict); break;
        case Mode::None: break;
        }
    } catch (const std::exception& e) {
        complain("the agent failed: " + messageOf(e));
        return exitAgentFailed;
    }
    platform.writeStats();

    if (o.report) {
        try {
            std::fflush(stderr);
            std::fputs(controller->dump().c_str(), stdout);
        } catch (const std::exception& e) {
            complain(std::string("--report: ") + e.what());
        }
    }
    return status;
}
