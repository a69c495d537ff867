#include "qelctlCommon.h"

#include <arpa/inet.h>
#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <string_view>

#include "qelError.h"
#include "qelIpmi.h"
#include "qelIpmiDevice.h"
#include "qelNoController.h"
#include "qelSimDescription.h"
#include "qelctlCommands.h"

namespace qelctl {

namespace {
std::string controllerSocket;
}  // namespace

void setControllerSocket(const std::string& path) { controllerSocket = path; }

std::string noController() {
    const std::string problems = qelTool::probeDevices(qelIpmi::ipmiDeviceProvider());
    return problems.empty() ? std::string() : qelTool::noControllerText(problems, controllerSocket);
}

std::string completionCodeText(unsigned char code) {
    const char* text = nullptr;
    switch (code) {
    case 0x00: text = "success"; break;
    case 0x80: text = "parameter not supported"; break;
    case 0xC0: text = "node busy"; break;
    case 0xC1: text = "invalid command"; break;
    case 0xC2: text = "invalid command for LUN"; break;
    case 0xC3: text = "timeout"; break;
    case 0xC4: text = "out of space"; break;
    case 0xC5: text = "reservation cancelled or invalid"; break;
    case 0xC6: text = "request data truncated"; break;
    case 0xC7: text = "request data length invalid"; break;
    case 0xC8: text = "request data field length limit exceeded"; break;
    case 0xC9: text = "parameter out of range"; break;
    case 0xCA: text = "cannot return number of requested data bytes"; break;
    case 0xCB: text = "requested sensor, data, or record not present"; break;
    case 0xCC: text = "invalid data field in request"; break;
    case 0xCD: text = "command illegal for specified sensor or record type"; break;
    case 0xCE: text = "command response could not be provided"; break;
    case 0xCF: text = "cannot execute duplicated request"; break;
    case 0xD0: text = "SDR repository in update mode"; break;
    case 0xD1: text = "device in firmware update mode"; break;
    case 0xD2: text = "BMC initialization in progress"; break;
    case 0xD3: text = "destination unavailable"; break;
    case 0xD4: text = "insufficient privilege level"; break;
    case 0xD5: text = "command not supported in present state"; break;
    case 0xD6: text = "command sub-function disabled or unavailable"; break;
    case 0xFF: text = "unspecified error"; break;
    default: text = code >= 0x01 && code <= 0x7E ? "OEM completion code" : "command-specific completion code";
    }
    return hex8(code) + " " + text;
}

unsigned char exchangeCode(const std::string& what, unsigned char netFn, unsigned char cmd, const Bytes& data,
                           Bytes& response) {
    qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
    qelIpmi::QelIpmi_request_msg msg(netFn, cmd, static_cast<unsigned short>(data.size()),
                                     data.empty() ? nullptr : data.data());
    if (!ipmi.sendCmd(msg) || msg.responseLength == 0) throw Failure(what + ": no answer from the controller");
    response.assign(msg.responseData + 1, msg.responseData + msg.responseLength);
    return msg.responseData[0];
}

Bytes exchange(const std::string& what, unsigned char netFn, unsigned char cmd, const Bytes& data) {
    Bytes response;
    const unsigned char code = exchangeCode(what, netFn, cmd, data, response);
    if (code != 0) throw Failure(what + ": " + completionCodeText(code));
    return response;
}

void Output::line(const std::string& label, const std::string& value, int width) {
    std::string padded = label + ":";
    if (static_cast<int>(padded.size()) < width) padded.resize(static_cast<size_t>(width), ' ');
    else padded += ' ';
    std::cout << padded << value << '\n';
}

void Output::heading(const std::string& text) { std::cout << text << '\n'; }

void Output::print(const Json& document) {
    // Texts come from the controller as bytes (a version 10 PNI function's
    // type, configuration-space strings); one that is not UTF-8 is shown
    // with U+FFFD in its place rather than failing the whole document.
    std::cout << document.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

std::string hex8(unsigned value) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", value & 0xFF);
    return text;
}

std::string hexBytes(const Bytes& bytes) { return qelSim::hexText(bytes); }

std::string bcdRevision(unsigned major, unsigned minorBcd) {
    char text[16];
    std::snprintf(text, sizeof text, "%u.%x%x", major, (minorBcd >> 4) & 0xF, minorBcd & 0xF);
    return text;
}

std::string ipv4Text(const unsigned char* bytes) {
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, bytes, text, sizeof text);
    return text;
}

std::string ipv6Text(const unsigned char* bytes) {
    char text[INET6_ADDRSTRLEN];
    inet_ntop(AF_INET6, bytes, text, sizeof text);
    return text;
}

std::string macText(const unsigned char* bytes) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2], bytes[3],
                  bytes[4], bytes[5]);
    return text;
}

const std::vector<Subcommand>& subcommands() {
    static const std::vector<Subcommand> all = {
        {"status", addStatus},   {"identity", addIdentity}, {"device-id", addIdentity}, {"watchdog", addWatchdog},
        {"config", addConfig},   {"lan", addLan},           {"pni", addPni},             {"board", addBoard},
        {"sel", addSel},         {"sensors", addSensors},   {"power", addPower},         {"inventory", addInventory},
        {"host", addHost},       {"metrics", addMetrics},
    };
    return all;
}

namespace {
const Subcommand* subcommandNamed(std::string_view name) {
    for (const Subcommand& s : subcommands())
        if (name == s.name) return &s;
    return nullptr;
}
}  // namespace

const Subcommand* subcommandAlone(int argc, const char* const* argv) {
    const Subcommand* named = nullptr;
    for (int i = 1; i < argc; ++i) {
        const std::string_view word = argv[i];
        if (named != nullptr) {
            if (word == "-h" || word == "--help" || word == "--help-all" || subcommandNamed(word) != nullptr)
                return nullptr;
        } else if (word == "--simulate" || word == "--json" || word.rfind("--bmc-socket=", 0) == 0) {
            continue;
        } else if (word == "--bmc-socket") {
            // Its path, which must not be a subcommand's name either.
            if (++i == argc || subcommandNamed(argv[i]) != nullptr) return nullptr;
        } else if (word.empty() || word[0] == '-' || (named = subcommandNamed(word)) == nullptr) {
            return nullptr;
        }
    }
    return named;
}

std::pair<bool, std::string> qeldRunning() {
    std::ifstream pidFile("/var/run/qeld.pid");
    long pid = 0;
    if (pidFile >> pid && pid > 0 && (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM))
        return {true, "qeld --daemon, pid " + std::to_string(pid)};
    struct stat info;
    if (::stat("/run/systemd/system", &info) == 0) {
        if (std::FILE* state = ::popen("systemctl is-active qeld.service 2>/dev/null", "r")) {
            char line[32] = {};
            const bool read = std::fgets(line, sizeof line, state) != nullptr;
            ::pclose(state);
            if (read && std::string(line).rfind("active", 0) == 0) return {true, "qeld.service (systemd)"};
        }
    }
    return {false, "not running"};
}

}  // namespace qelctl
