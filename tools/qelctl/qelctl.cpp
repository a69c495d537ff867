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

int main(int argc, char** argv) {
    using namespace qelctl;
    CLI::App app{"qelctl: the controller as the agent sees it, and what the agent does"};
    app.require_subcommand(1);
    bool simulate = false;
    std::string bmcSocket;
    Output output;
    auto* sim = app.add_flag("--simulate", simulate, "use the built-in simulated controller, not /dev/ipmi0");
    auto* sock = app.add_option("--bmc-socket", bmcSocket,
                                "use the simulated controller process serving PATH (default: $QEL_BMCSIM_SOCKET)");
    sim->excludes(sock);
    app.add_flag("--json", output.json, "one JSON document on standard output");

    Action action;
    addStatus(app, action);
    addIdentity(app, action);
    addWatchdog(app, action);
    addConfig(app, action);
    addLan(app, action);
    addPni(app, action);
    addBoard(app, action);
    addSel(app, action);
    addSensors(app, action);
    addPower(app, action);
    addInventory(app, action);
    addHost(app, action);
    addMetrics(app, action);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::cerr << "qelctl: " << e.what() << "\n(qelctl --help lists the commands)\n";
        return exitUsage;
    }
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
