// The subcommands of qelctl, one source file each. Each registers itself on
// the application and fills a JSON document; `run` functions print it as
// text or JSON.
#ifndef QELCTL_COMMANDS_H
#define QELCTL_COMMANDS_H

#include <CLI/CLI.hpp>

#include <functional>

#include "qelctlCommon.h"

namespace qelctl {

// The action a parsed command line chose; returns the exit status.
using Action = std::function<int(const Output&)>;

void addIdentity(CLI::App& app, Action& action);
void addWatchdog(CLI::App& app, Action& action);
void addConfig(CLI::App& app, Action& action);
void addInventory(CLI::App& app, Action& action);
void addHost(CLI::App& app, Action& action);
void addMetrics(CLI::App& app, Action& action);
void addStatus(CLI::App& app, Action& action);
void addLan(CLI::App& app, Action& action);
void addPni(CLI::App& app, Action& action);
void addBoard(CLI::App& app, Action& action);
void addSel(CLI::App& app, Action& action);
void addSensors(CLI::App& app, Action& action);

// The documents of the read-only commands, for `status` and `metrics`.
Json identityDocument();
Json watchdogDocument();
Json configDocument();
Json inventoryDocument();
Json hostDocument();
Json lanDocument();
Json boardDocument();
// `recordBytes`, when given, gets the record's header and data.
Json pniDocument(Bytes* recordBytes);

}  // namespace qelctl

#endif
