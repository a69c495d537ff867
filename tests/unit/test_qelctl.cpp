// qelctl against the simulated controller: the PNI decoder, for the records
// that the fuzz target over qelctl's decoders (fuzz/fuzz_qelctl.cpp) found
// it mishandling (a record that breaks off in a function entry, shown as
// text, and a version 10 type text that is not UTF-8, shown as JSON); and
// `status` and `metrics` on a host without a controller; `sensors` in text
// and JSON.
#include <gtest/gtest.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "qelSimDevice.h"
#include "qelSimFru.h"
#include "qelSimSdr.h"
#include "qelctlCommands.h"

namespace {

using qelctl::Json;
using qelSim::Bytes;
using qelSim::PniImageBuilder;

// A standard stream (std::cout by default) captured for one scope.
class CapturedOutput {
public:
    explicit CapturedOutput(std::ostream& stream = std::cout) : stream_(stream), previous_(stream.rdbuf(text_.rdbuf())) {}
    ~CapturedOutput() { stream_.rdbuf(previous_); }
    std::string text() const { return text_.str(); }

private:
    std::ostream& stream_;
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

// What one qelctl command printed, and its exit status.
struct CommandRun {
    int status = -1;
    std::string out;
    std::string err;
};

// `qelctl [--json] COMMAND` for a command that `add` registers, as qelctl's
// main parses and runs it.
CommandRun runCommand(void (*add)(CLI::App&, qelctl::Action&), const char* command, bool json) {
    CLI::App app{"qelctl"};
    qelctl::Output output;
    app.add_flag("--json", output.json, "JSON");
    qelctl::Action action;
    add(app, action);
    std::vector<const char*> argv = {"qelctl"};
    if (json) argv.push_back("--json");
    argv.push_back(command);
    app.parse(static_cast<int>(argv.size()), argv.data());
    CommandRun run;
    CapturedOutput out;
    CapturedOutput err(std::cerr);
    run.status = action(output);
    run.out = out.text();
    run.err = err.text();
    return run;
}

// `qelctl [--json] ARGS...` for a command that `add` registers.
CommandRun runArgs(void (*add)(CLI::App&, qelctl::Action&), const std::vector<const char*>& args, bool json) {
    CLI::App app{"qelctl"};
    qelctl::Output output;
    app.add_flag("--json", output.json, "JSON");
    qelctl::Action action;
    add(app, action);
    std::vector<const char*> argv = {"qelctl"};
    if (json) argv.push_back("--json");
    argv.insert(argv.end(), args.begin(), args.end());
    app.parse(static_cast<int>(argv.size()), argv.data());
    CommandRun run;
    CapturedOutput out;
    CapturedOutput err(std::cerr);
    run.status = action(output);
    run.out = out.text();
    run.err = err.text();
    return run;
}

// The line qeld prints too when no device path opens.
const std::string kNoController =
    "no IPMI controller: /dev/ipmi0: No such file or directory, /dev/ipmi/0: No such file or directory, "
    "/dev/ipmidev/0: No such file or directory; load the IPMI drivers (ipmi_si, ipmi_devintf) or use --simulate";

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

// ---------------------------------------------------------------- no controller

TEST(QelctlStatus, WithoutAControllerSaysSoInOneLineAndExitsThree) {
    qelSim::ScopedSimulator sim;
    sim->setAllPathsMissing(true);

    const CommandRun run = runCommand(qelctl::addStatus, "status", false);
    EXPECT_EQ(run.status, qelctl::exitNoController);
    EXPECT_EQ(run.err, "qelctl: " + kNoController + "\n");
    // The host's own sections are still shown, the controller's are not.
    EXPECT_EQ(run.out.rfind("qeld:  ", 0), 0u) << run.out;
    EXPECT_NE(run.out.find("\nos:  "), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("controller:"), std::string::npos) << run.out;
    EXPECT_EQ(run.out.find("watchdog:"), std::string::npos) << run.out;
    EXPECT_EQ(sim->requestCount(), 0u) << "nothing is sent to a controller that is not there";
}

TEST(QelctlStatus, JsonWithoutAControllerHasTheLineAsItsOnlyErrorAndExitsThree) {
    qelSim::ScopedSimulator sim;
    sim->setAllPathsMissing(true);

    const CommandRun run = runCommand(qelctl::addStatus, "status", true);
    EXPECT_EQ(run.status, qelctl::exitNoController);
    const Json doc = Json::parse(run.out);
    EXPECT_EQ(doc["errors"], (Json{{"controller", kNoController}}));
    for (const char* section : {"identity", "watchdog", "config", "lan", "board"})
        EXPECT_TRUE(doc[section].is_null()) << section;
    EXPECT_TRUE(doc["host"].is_object());
    EXPECT_TRUE(doc["inventory"].is_object());
    EXPECT_EQ(run.err, "") << "the document says it, as it does every error of status";
}

TEST(QelctlStatus, WithAControllerReadsItsSectionsAndReportsNoMissingController) {
    qelSim::ScopedSimulator sim;

    const CommandRun run = runCommand(qelctl::addStatus, "status", true);
    EXPECT_NE(run.status, qelctl::exitNoController);
    const Json doc = Json::parse(run.out);
    EXPECT_FALSE(doc["errors"].contains("controller")) << doc["errors"];
    EXPECT_EQ(doc["identity"]["device_id"], sim->deviceId()[1]);
    EXPECT_FALSE(doc["watchdog"].is_null());
    EXPECT_EQ(run.err.find("no IPMI controller"), std::string::npos) << run.err;
}

TEST(QelctlMetrics, WithoutAControllerReportsItDownInOneLineAndExitsThree) {
    qelSim::ScopedSimulator sim;
    sim->setAllPathsMissing(true);

    const CommandRun run = runCommand(qelctl::addMetrics, "metrics", false);
    EXPECT_EQ(run.status, qelctl::exitNoController);
    EXPECT_NE(run.out.find("\nqel_up 0\n"), std::string::npos) << run.out;
    EXPECT_EQ(run.err, "qelctl: " + kNoController + "\n");
}

// A controller with a threshold sensor, a discrete one and a compact pair;
// qeld's SDR cache is kept out of it.
class QelctlSensors : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;

    void SetUp() override {
        ::setenv("CACHE_DIRECTORY", "/nonexistent/qelctl-test", 1);
        sim->applyDescriptionLine("sensor 0x01 temperature \"CPU1 Temp\" unit=celsius unc=85 uc=90 reading=45");
        sim->applyDescriptionLine("sensor 0x40 power-supply \"PSU1 Status\" reading=0x01");
        sim->applyDescriptionLine("sensor 0x20 voltage 12V unit=volts m=63 k2=-3 lc=171 uc=209 reading=190");
    }
    void TearDown() override { ::unsetenv("CACHE_DIRECTORY"); }
};

TEST_F(QelctlSensors, JsonGivesEverySensorWithTheDocumentedKeysAndNullsWhereAbsent) {
    const CommandRun run = runArgs(qelctl::addSensors, {"sensors"}, true);
    ASSERT_EQ(run.status, qelctl::exitOk) << run.err;
    const Json doc = Json::parse(run.out);
    ASSERT_EQ(doc["sensors"].size(), 3u);
    const Json& cpu = doc["sensors"][0];
    EXPECT_EQ(cpu["record_id"], 1);
    EXPECT_EQ(cpu["sensor_number"], 1);
    EXPECT_EQ(cpu["name"], "CPU1 Temp");
    EXPECT_EQ(cpu["type"], "Temperature");
    EXPECT_EQ(cpu["reading"], 45.0);
    EXPECT_EQ(cpu["units"], "degrees C");
    EXPECT_EQ(cpu["state"], "nominal");
    EXPECT_EQ(cpu["thresholds"]["upper_non_critical"], 85.0);
    EXPECT_EQ(cpu["thresholds"]["upper_critical"], 90.0);
    EXPECT_TRUE(cpu["thresholds"]["upper_non_recoverable"].is_null());
    EXPECT_TRUE(cpu["thresholds"]["lower_non_critical"].is_null());
    EXPECT_TRUE(cpu["states"].empty());
    const Json& psu = doc["sensors"][1];
    EXPECT_TRUE(psu["reading"].is_null());
    EXPECT_TRUE(psu["units"].is_null());
    EXPECT_EQ(psu["states"], Json::array({"Presence detected"}));
    EXPECT_EQ(doc["sensors"][2]["reading"], 11.97);
}

TEST_F(QelctlSensors, TextShowsStateAndReadingAndACriticalSensorStillExitsZero) {
    ASSERT_TRUE(sim->sdr().setReading(0x01, 91));
    const CommandRun run = runArgs(qelctl::addSensors, {"sensors"}, false);
    EXPECT_EQ(run.status, qelctl::exitOk);
    EXPECT_NE(run.out.find("CPU1 Temp    critical         91 degrees C\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("PSU1 Status  nominal          Presence detected\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("12V          nominal          11.97 Volts\n"), std::string::npos) << run.out;
}

TEST_F(QelctlSensors, TypeAndStateChooseTheSensors) {
    ASSERT_TRUE(sim->sdr().setReading(0x20, 170));
    Json doc = Json::parse(runArgs(qelctl::addSensors, {"sensors", "--type", "power-supply"}, true).out);
    ASSERT_EQ(doc["sensors"].size(), 1u);
    EXPECT_EQ(doc["sensors"][0]["name"], "PSU1 Status");
    doc = Json::parse(runArgs(qelctl::addSensors, {"sensors", "--state", "critical"}, true).out);
    ASSERT_EQ(doc["sensors"].size(), 1u);
    EXPECT_EQ(doc["sensors"][0]["name"], "12V");
    EXPECT_THROW(runArgs(qelctl::addSensors, {"sensors", "--state", "hot"}, true), qelctl::Failure);
}

TEST_F(QelctlSensors, WithoutAControllerTheCommandFailsBeforeReadingAnySensor) {
    sim->setAllPathsMissing(true);
    EXPECT_ANY_THROW(runArgs(qelctl::addSensors, {"sensors"}, false));
    EXPECT_EQ(sim->requestCount(), 0u);
}

}  // namespace
