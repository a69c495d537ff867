// What every qelctl subcommand shares: the controller exchange with its
// errors, the output (aligned text or one JSON document), exit statuses.
#ifndef QELCTL_COMMON_H
#define QELCTL_COMMON_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace CLI {
class App;
}

namespace qelctl {

using Bytes = std::vector<unsigned char>;
using Json = nlohmann::ordered_json;

enum ExitStatus : int {
    exitOk = 0,
    exitFailed = 1,        // the controller refused or failed
    exitUsage = 2,         // bad command line
    exitNoController = 3,  // no IPMI device opens
};

// A failure that ends the command with exitFailed; the text names what
// failed ("watchdog get: Get Watchdog Timer: 0xC1 invalid command").
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// "0xC1 invalid command" and so on: the completion codes IPMI defines.
std::string completionCodeText(unsigned char code);

// One request to the controller through the library's transport; returns
// the response data behind the completion code. Throws Failure naming
// `what` for no answer or a completion code other than 0.
Bytes exchange(const std::string& what, unsigned char netFn, unsigned char cmd, const Bytes& data = {});
// The same, but gives the completion code back instead of throwing for it.
unsigned char exchangeCode(const std::string& what, unsigned char netFn, unsigned char cmd, const Bytes& data,
                           Bytes& response);

// The output of one command: label/value lines for people, or the JSON
// document.
struct Output {
    bool json = false;
    // Prints "label:" padded to `width`, then the value.
    static void line(const std::string& label, const std::string& value, int width = 26);
    static void heading(const std::string& text);
    // The JSON document, pretty-printed, on standard output.
    static void print(const Json& document);
};

std::string hex8(unsigned value);
std::string hexBytes(const Bytes& bytes);
// "1.07" style: major, and the minor as two BCD digits.
std::string bcdRevision(unsigned major, unsigned minorBcd);
std::string ipv4Text(const unsigned char* bytes);
std::string ipv6Text(const unsigned char* bytes);
std::string macText(const unsigned char* bytes);

// Where the controller is, for the no-controller line: the socket of a
// simulated controller process, or empty for the kernel's device (and the
// simulator in this process). main sets it.
void setControllerSocket(const std::string& path);
// "" when a controller device opens (nothing is sent); else the one line that
// says there is none and what to do, as qeld says it ("no IPMI controller:
// /dev/ipmi0: No such file or directory, ...; load the IPMI drivers ...").
std::string noController();

// The top-level subcommands in the order of qelctl --help, each with the
// function that adds it to the command line (one function may add two).
// Every subcommand must be here: main sets up the command line from this
// list alone.
struct Subcommand {
    const char* name;
    void (*add)(CLI::App& app, std::function<int(const Output&)>& action);
};
const std::vector<Subcommand>& subcommands();
// The subcommand a command line names when it can be parsed with that one
// alone: before it only --simulate, --json and --bmc-socket PATH, after it
// no word that is another subcommand's name (or its own again) and no help
// option. Null for any other command line, which then needs them all so its
// errors and help read as always. Setting up only one is most of what a
// short run saves: CLI11 builds every option of every subcommand it is given.
const Subcommand* subcommandAlone(int argc, const char* const* argv);

// Whether qeld runs on this host: its pid file names a live process, or
// systemd reports the unit active. The text says which.
std::pair<bool, std::string> qeldRunning();

}  // namespace qelctl

#endif
