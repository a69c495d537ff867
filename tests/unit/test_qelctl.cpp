// qelctl's PNI decoder against the simulated controller, for the records
// that the fuzz target over qelctl's decoders (fuzz/fuzz_qelctl.cpp) found
// it mishandling: a record that breaks off in a function entry, shown as
// text, and a version 10 type text that is not UTF-8, shown as JSON.
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "qelSimDevice.h"
#include "qelSimFru.h"
#include "qelctlCommands.h"

namespace {

using qelctl::Json;
using qelSim::Bytes;
using qelSim::PniImageBuilder;

// Standard output captured for one scope.
class CapturedOutput {
public:
    CapturedOutput() : previous_(std::cout.rdbuf(text_.rdbuf())) {}
    ~CapturedOutput() { std::cout.rdbuf(previous_); }
    std::string text() const { return text_.str(); }

private:
    std::ostringstream text_;
    std::streambuf* previous_;
};

// `qelctl [--json] pni` as qelctl's main parses and runs it; the exit status.
int runPni(bool json, std::string& printed) {
    CLI::App app{"qelctl"};
    qelctl::Output output;
    app.add_flag("--json", output.json, "JSON");
    qelctl::Action action;
    qelctl::addPni(app, action);
    std::vector<const char*> argv = {"qelctl"};
    if (json) argv.push_back("--json");
    argv.push_back("pni");
    app.parse(static_cast<int>(argv.size()), argv.data());
    CapturedOutput captured;
    const int status = action(output);
    printed = captured.text();
    return status;
}

// One adapter, one port, one function of `function`.
Bytes imageOf(unsigned char version, const qelSim::PniFunctionSpec& function) {
    qelSim::PniAdapterSpec adapter;
    adapter.ports.push_back(qelSim::PniPortSpec{{function}, 4});
    return PniImageBuilder().version(version).adapter(adapter).build().bytes;
}

TEST(QelctlPni, TextShowsAFunctionEntryThatBreaksTheRecordAsUnknown) {
    Bytes image = imageOf(12, qelSim::PniFunctionSpec::nic({0x02, 0, 0, 0, 0x0a, 0x01}));
    // The builder fills a common area's bytes 3-14 with 0x33...0x3E; the
    // entry's third byte is its common length, 14 here: too short.
    const Bytes filler = {0x33, 0x34, 0x35, 0x36, 0x37, 0x38};
    const auto at = std::search(image.begin(), image.end(), filler.begin(), filler.end());
    ASSERT_NE(at, image.end());
    *(at - 1) = 14;
    qelSim::resealPniImage(image);
    qelSim::ScopedSimulator sim;
    sim->fru().setImage(image);

    std::string text;
    EXPECT_EQ(runPni(false, text), qelctl::exitFailed);
    EXPECT_NE(text.find("Checks:                   [\"function entry 0\"]\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Adapter 0 Port 0 Fn 0:    ?\n"), std::string::npos) << text;

    std::string json;
    EXPECT_EQ(runPni(true, json), qelctl::exitFailed);
    const Json doc = Json::parse(json);
    EXPECT_EQ(doc["adapters"][0]["ports"][0]["functions"][0], (Json{{"index", 0}, {"type", nullptr}}));
}

TEST(QelctlPni, JsonCarriesAVersion10TypeTextThatIsNotUtf8) {
    qelSim::PniFunctionSpec function = qelSim::PniFunctionSpec::ofType(qelSim::pniFc);
    function.typeText = "F\xDC";
    qelSim::ScopedSimulator sim;
    sim->fru().setImage(imageOf(10, function));

    std::string json;
    EXPECT_EQ(runPni(true, json), qelctl::exitOk);
    const Json doc = Json::parse(json);  // valid UTF-8 throughout
    EXPECT_EQ(doc["adapters"][0]["ports"][0]["functions"][0]["type"], "F\xEF\xBF\xBD");

    // Text shows the bytes as they are.
    std::string text;
    EXPECT_EQ(runPni(false, text), qelctl::exitOk);
    EXPECT_NE(text.find("Adapter 0 Port 0 Fn 0:    F\xDC\n"), std::string::npos) << text;
}

}  // namespace
