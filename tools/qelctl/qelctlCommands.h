// The subcommands of qelctl, one source file each. Each registers itself on
// the application and fills a JSON document; `run` functions print it as
// text or JSON.
#ifndef QELCTL_COMMANDS_H
#define QELCTL_COMMANDS_H

#include <CLI/CLI.hpp>

#include <functional>
#include <string>
#include <vector>

#include "qelSdrRecord.h"
#include "qelSensors.h"

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
void addPower(CLI::App& app, Action& action);

// The documents of the read-only commands, for `status` and `metrics`.
Json identityDocument();
// Get Device ID alone, decoded (identityDocument asks more); `answer`, when
// given, gets the response data behind the completion code.
Json deviceIdDocument(Bytes* answer = nullptr);
Json watchdogDocument();
Json configDocument();
// The named variables (names as `config get` takes them), name to value;
// empty when the controller has no configuration space at all (it refuses
// the first read as an invalid command: the others are not asked).
Json configValues(const std::vector<std::string>& names);
Json inventoryDocument();
Json hostDocument();
Json lanDocument();
Json boardDocument();
// The SDR repository's records, through qeld's cache ($CACHE_DIRECTORY/sdr)
// where this user may keep it current. Throws Failure naming `command`.
// `deviceId`: a Get Device ID answer (behind the completion code) this run
// already has, which tells the cache which controller this is without
// asking again. `reader`, when given, keeps the sensors' answers beside the
// cache (QelSensorReader::setAnswerCache) when there is one.
std::vector<qelSdr::SdrRecord> sdrRecords(const std::string& command, const Bytes& deviceId = Bytes(),
                                          qelSensors::QelSensorReader* reader = nullptr);
// `recordBytes`, when given, gets the record's header and data.
Json pniDocument(Bytes* recordBytes);

}  // namespace qelctl

#endif
