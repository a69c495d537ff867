// qelctl: the administrator's view and control of the controller as the
// agent uses it.
//
//   qelctl [--simulate | --bmc-socket PATH] [--json] COMMAND ...
//
// Commands: status, identity, device-id, watchdog get|set|reset|stop,
// config list|get|set, lan, pni, board, inventory, host, sel, sensors, power,
// metrics. `qelctl --help` and `qelctl COMMAND --help` say more; packaging/qelctl.8 at length.
//
// Exit status: 0 done, 1 the controller refused or failed (the completion
// code named), 2 bad usage, 3 no controller.
//
// --simulate answers from the built-in simulated controller instead of the
// kernel's IPMI device, for machines without a BMC. --bmc-socket (or the
// environment variable QEL_BMCSIM_SOCKET) talks to a simulated controller
// process (qel-bmcsim) that other processes share.
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

#include "qelErrorText.h"
#include "qelIpmi.h"
#include "qelSimDevice.h"
#include "qelSimSocket.h"
#include "qelctlCommands.h"

namespace {

// What the command line sets.
struct CommandLine {
    bool simulate = false;
    std::string bmcSocket;
    qelctl::Output output;
    qelctl::Action action;
};

// The command line's options and the subcommands: `only`, or all of them.
std::unique_ptr<CLI::App> commandLine(CommandLine& line, const qelctl::Subcommand* only) {
    auto app = std::make_unique<CLI::App>("qelctl: the controller as the agent sees it, and what the agent does");
    app->require_subcommand(1);
    auto* sim = app->add_flag("--simulate", line.simulate, "use the built-in simulated controller, not /dev/ipmi0");
    auto* sock = app->add_option("--bmc-socket", line.bmcSocket,
                                 "use the simulated controller process serving PATH (default: $QEL_BMCSIM_SOCKET)");
    sim->excludes(sock);
    app->add_flag("--json", line.output.json, "one JSON document on standard output");
    if (only != nullptr) {
        only->add(*app, line.action);
        return app;
    }
    std::vector<decltype(only->add)> added;
    for (const qelctl::Subcommand& s : qelctl::subcommands()) {
        if (std::find(added.begin(), added.end(), s.add) != added.end()) continue;
        s.add(*app, line.action);
        added.push_back(s.add);
    }
    return app;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace qelctl;
    CommandLine line;
    // The subcommand named alone is parsed with only itself set up; should
    // that parse fail, the whole command line parses again as always, so
    // errors and help are the same either way.
    std::unique_ptr<CLI::App> app;
    if (const Subcommand* only = subcommandAlone(argc, argv)) {
        app = commandLine(line, only);
        try {
            app->parse(argc, argv);
        } catch (const CLI::Error&) {
            app.reset();
            line = CommandLine();
        }
    }
    if (!app) {
        app = commandLine(line, nullptr);
        try {
            app->parse(argc, argv);
        } catch (const CLI::CallForHelp& e) {
            return app->exit(e);
        } catch (const CLI::CallForAllHelp& e) {
            return app->exit(e);
        } catch (const CLI::ParseError& e) {
            std::cerr << "qelctl: " << e.what() << "\n(qelctl --help lists the commands)\n";
            return exitUsage;
        }
    }
    bool& simulate = line.simulate;
    std::string& bmcSocket = line.bmcSocket;
    const Output& output = line.output;
    Action& action = line.action;
    if (bmcSocket.empty() && !simulate)
        if (const char* env = std::getenv("QEL_BMCSIM_SOCKET")) bmcSocket = env;

    setControllerSocket(bmcSocket);

    std::unique_ptr<qelSim::ScopedSimulator> inProcess;
    std::unique_ptr<qelSim::ScopedSocketDevice> shared;
    try {
        if (simulate) inProcess = std::make_unique<qelSim::ScopedSimulator>();
        else if (!bmcSocket.empty()) shared = std::make_unique<qelSim::ScopedSocketDevice>(bmcSocket);
        return action ? action(output) : static_cast<int>(exitUsage);
    } catch (const Failure& e) {
        std::cerr << "qelctl: " << e.what() << '\n';
        return exitFailed;
    } catch (const qelIpmi::QelIpmiError& e) {
        std::string text = qelError::textOf(e);
        while (!text.empty() && text.back() == '\n') text.pop_back();
        if (text.find("Open failed") == std::string::npos) {
            std::cerr << "qelctl: " << text << '\n';
            return exitFailed;
        }
        // The device did not open: say so as status and qeld do, with every
        // path tried and what to load (the library's text names one path).
        const std::string missing = noController();
        std::cerr << "qelctl: " << (missing.empty() ? text : missing) << '\n';
        return exitNoController;
    } catch (const std::exception& e) {
        std::string text = qelError::textOf(e);
        while (!text.empty() && text.back() == '\n') text.pop_back();
        std::cerr << "qelctl: " << text << '\n';
        return exitFailed;
    }
}
