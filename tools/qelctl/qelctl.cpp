// qelctl: the administrator's view of the controller as the agent sees it.
//
//   qelctl [--simulate | --bmc-socket PATH] device-id    Get Device ID, raw and decoded
//
// --simulate answers from the built-in simulated controller instead of the
// kernel's IPMI device, for machines without a BMC. --bmc-socket (or the
// environment variable QEL_BMCSIM_SOCKET) talks to a simulated controller
// process (qel-bmcsim) that other processes share.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSimDevice.h"
#include "qelSimSocket.h"

namespace {

int usage(FILE* out) {
    std::fputs(
        "usage: qelctl [--simulate | --bmc-socket PATH] device-id\n"
        "  --simulate          use the built-in simulated controller, not /dev/ipmi0\n"
        "  --bmc-socket PATH   use the simulated controller process serving PATH\n"
        "                      (default: $QEL_BMCSIM_SOCKET when set)\n",
        out);
    return out == stdout ? 0 : 2;
}

int deviceId() {
    qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
    qelIpmi::QelIpmi_request_msg msg(qelIpmi::netfn::app, qelIpmi::cmd::getDeviceId, 0, nullptr);
    if (!ipmi.sendCmd(msg) || msg.responseLength == 0) {
        std::fprintf(stderr, "qelctl: no answer to Get Device ID\n");
        return 1;
    }
    const unsigned char* r = msg.responseData;
    std::printf("raw:");
    for (std::size_t i = 0; i < msg.responseLength; ++i) std::printf(" %02x", r[i]);
    std::printf("\n");
    if (r[0] != qelIpmi::cc::ok) {
        std::fprintf(stderr, "qelctl: Get Device ID failed with completion code 0x%02x\n", r[0]);
        return 1;
    }
    if (msg.responseLength < 12) {
        std::fprintf(stderr, "qelctl: Get Device ID answer too short (%zu bytes)\n",
                     msg.responseLength);
        return 1;
    }
    std::printf("device id:          0x%02x\n", r[1]);
    std::printf("device revision:    %u\n", r[2] & 0x0F);
    std::printf("firmware revision:  %u.%02x\n", r[3] & 0x7F, r[4]);
    std::printf("IPMI version:       %u.%u\n", r[5] & 0x0F, r[5] >> 4);
    std::printf("manufacturer id:    %u\n", r[7] | (r[8] << 8) | (r[9] << 16));
    std::printf("product id:         0x%04x\n", r[10] | (r[11] << 8));
    if (msg.responseLength >= 16)
        std::printf("aux firmware rev:   %02x %02x %02x %02x\n", r[12], r[13], r[14], r[15]);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    bool simulate = false;
    std::string bmcSocket;
    if (const char* env = std::getenv("QEL_BMCSIM_SOCKET")) bmcSocket = env;
    bool socketGiven = false;
    std::string command;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--simulate") == 0) simulate = true;
        else if (std::strcmp(argv[i], "--bmc-socket") == 0 && i + 1 < argc) {
            bmcSocket = argv[++i];
            socketGiven = true;
        }
        else if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) return usage(stdout);
        else if (command.empty()) command = argv[i];
        else return usage(stderr);
    }
    if (command.empty()) return usage(stderr);

    if (simulate && socketGiven) {
        std::fprintf(stderr, "qelctl: --simulate and --bmc-socket exclude each other\n");
        return 2;
    }

    std::unique_ptr<qelSim::ScopedSimulator> sim;
    std::unique_ptr<qelSim::ScopedSocketDevice> shared;
    if (simulate) sim = std::make_unique<qelSim::ScopedSimulator>();
    else if (!bmcSocket.empty()) shared = std::make_unique<qelSim::ScopedSocketDevice>(bmcSocket);
    try {
        if (command == "device-id") return deviceId();
    } catch (qelIpmi::QelIpmiError& e) {
        std::fprintf(stderr, "qelctl: %s", e.what());
        return 1;
    }
    return usage(stderr);
}
