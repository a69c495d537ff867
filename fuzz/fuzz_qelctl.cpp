// qelctl's own decoders: `pni [--raw]`, `watchdog get|reset|stop|set` and
// `lan`, run the way qelctl runs them (the command line parsed by the same
// subcommand registrations, the chosen action called with text or --json
// output) against a controller whose replies the input bends
// (fuzzController.h) and whose FRU holds an image from the input.
//
// Input:
//   byte 0   the command (below), bit 7 --json
//   2 bytes  image length L, least significant first (0: the blade's own
//            PNI image of two NIC ports)
//   L bytes  the FRU image
//   the rest drives the controller: what its FRU locate answers, FRU reads
//            that fail, and every exchange
// The seeds are the PNI images of the fuzz_pni seeds under each command.
//
// qelctl ends a command with a message and exit status 1 or 3 for its own
// Failure and the transport's QelIpmiError; those are the documented ways out
// here too. Anything else escaping (a JSON type error from a document the
// decoder built, a range error) is a bug, and libFuzzer reports it.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <iostream>
#include <streambuf>
#include <vector>

#include "fuzzController.h"
#include "fuzzNetwork.h"  // the platform's network calls (they fail: no script)
#include "fuzzPlatform.h"
#include "qelIpmi.h"
#include "qelSimFru.h"
#include "qelctlCommands.h"

namespace {

// The command lines, each parsed once; --json is given per input.
const char* const commandLines[][6] = {
    {"qelctl", "pni", nullptr},
    {"qelctl", "pni", "--raw", nullptr},
    {"qelctl", "watchdog", "get", nullptr},
    {"qelctl", "watchdog", "reset", nullptr},
    {"qelctl", "watchdog", "stop", nullptr},
    // Only action none: another action asks whether qeld runs on this host.
    {"qelctl", "watchdog", "set", "--timeout", "300", nullptr},
    {"qelctl", "lan", nullptr},
};
constexpr unsigned commandCount = sizeof commandLines / sizeof commandLines[0];

// Parses one command line as qelctl's main does and gives back its action.
qelctl::Action parsed(const char* const* line) {
    int argc = 0;
    while (line[argc] != nullptr) ++argc;
    CLI::App app{"qelctl"};
    app.require_subcommand(1);
    qelctl::Output output;
    app.add_flag("--json", output.json, "JSON");
    qelctl::Action action;
    qelctl::addStatus(app, action);
    qelctl::addIdentity(app, action);
    qelctl::addWatchdog(app, action);
    qelctl::addConfig(app, action);
    qelctl::addLan(app, action);
    qelctl::addPni(app, action);
    qelctl::addBoard(app, action);
    qelctl::addInventory(app, action);
    qelctl::addHost(app, action);
    qelctl::addMetrics(app, action);
    app.parse(argc, line);
    if (!action) std::abort();
    return action;
}

// Takes what the commands print and drops it (after it was formatted).
class Discard : public std::streambuf {
protected:
    int overflow(int c) override { return c == traits_type::eof() ? 0 : c; }
    std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

struct Commands {
    Commands() {
        for (const auto& line : commandLines) actions.push_back(parsed(line));
        std::cout.rdbuf(&discard);
        std::cerr.rdbuf(&discard);
    }
    std::vector<qelctl::Action> actions;
    Discard discard;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    static Commands commands;
    qelFuzz::PlatformScope platformScope;

    const unsigned char selector = size > 0 ? data[0] : 0;
    size_t at = size > 0 ? 1 : 0;
    size_t imageLength = size >= at + 2 ? static_cast<size_t>(data[at] | (data[at + 1] << 8)) : 0;
    at = size >= at + 2 ? at + 2 : size;
    if (imageLength > size - at) imageLength = size - at;
    const qelSim::Bytes image(data + at, data + at + imageLength);
    FuzzedDataProvider in(data + at + imageLength, size - at - imageLength);

    qelFuzz::FuzzController controller(in, 160);
    controller.describeBlade();
    qelSim::SimFru& fru = controller->fru();
    if (imageLength > 0) fru.setImage(image);
    if (in.ConsumeBool()) {
        // What the controller says about its FRU may disagree with the image.
        if (in.ConsumeBool()) fru.setLocateCapacity(in.ConsumeIntegralInRange<unsigned short>(0, 4096));
        if (in.ConsumeBool()) fru.setLocateCompletionCode(in.ConsumeIntegral<unsigned char>());
        if (in.ConsumeBool()) fru.setDeviceId(in.ConsumeIntegral<unsigned char>());
        if (in.ConsumeBool())
            fru.failReads(in.ConsumeIntegral<unsigned short>(), in.ConsumeIntegralInRange<unsigned short>(1, 512),
                          in.ConsumeIntegralInRange<unsigned char>(1, 255));
    }

    qelctl::Output output;
    output.json = (selector & 0x80) != 0;
    try {
        (void)commands.actions[(selector & 0x7F) % commandCount](output);
    } catch (const qelctl::Failure&) {
        // "qelctl: pni: PNI locate: 0xC1 invalid command", exit status 1.
    } catch (const qelIpmi::QelIpmiError&) {
        // No device, a failing send, select or receive: exit status 3 or 1.
    }
    return 0;
}
