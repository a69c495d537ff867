// qelctl against the simulated controller: the PNI decoder, for the records
// that the fuzz target over qelctl's decoders (fuzz/fuzz_qelctl.cpp) found
// it mishandling (a record that breaks off in a function entry, shown as
// text, and a version 10 type text that is not UTF-8, shown as JSON); and
// `status` and `metrics` on a host without a controller; `sensors` in text
// and JSON; `metrics --textfile`: the file always whole, one writer at a time,
// the time-out, label values from the controller escaped.
#include <dirent.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "qelIpmiCommands.h"
#include "qelSimChassis.h"
#include "qelSimDcmi.h"
#include "qelSimDescription.h"
#include "qelSimDevice.h"
#include "qelSimFru.h"
#include "qelSimSdr.h"
#include "qelSimSystemInfo.h"
#include "qelSimWatchdog.h"
#include "qelctlCommands.h"
#include "qelctlTextfile.h"

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

// A table as admins know it from the tools: ID, name, type, reading with
// units (or the asserted states), state, and the thresholds there are.
TEST_F(QelctlSensors, TextIsATableAndACriticalSensorStillExitsZero) {
    ASSERT_TRUE(sim->sdr().setReading(0x01, 91));
    const CommandRun run = runArgs(qelctl::addSensors, {"sensors"}, false);
    EXPECT_EQ(run.status, qelctl::exitOk);
    EXPECT_EQ(run.out,
              "ID  Name         Type          Reading            State     Thresholds\n"
              "1   CPU1 Temp    Temperature   91 degrees C       critical  unc 85, uc 90\n"
              "2   PSU1 Status  Power Supply  Presence detected  nominal   -\n"
              "3   12V          Voltage       11.97 Volts        nominal   lc 10.773, uc 13.167\n");
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

// ---------------------------------------------------------------- textfile

namespace textfile = qelctl::textfile;

// An empty directory of its own, removed with what is in it.
class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/qelctl-textfile.XXXXXX";
        if (::mkdtemp(name) == nullptr) throw std::runtime_error("mkdtemp failed");
        path_ = name;
    }
    ~TempDir() { (void)std::system(("rm -rf '" + path_ + "'").c_str()); }
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string contentsOf(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> namesIn(const std::string& dir) {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR*)> d(::opendir(dir.c_str()), ::closedir);
    if (!d) return names;
    while (const dirent* e = ::readdir(d.get()))
        if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") names.push_back(e->d_name);
    std::sort(names.begin(), names.end());
    return names;
}

// `qelctl metrics ARGS...` as qelctl's main parses and runs it. A Failure
// thrown by the action (main prints it, status 1) comes back as the error.
CommandRun runMetrics(const std::vector<std::string>& args) {
    CLI::App app{"qelctl"};
    qelctl::Output output;
    app.add_flag("--json", output.json, "JSON");
    qelctl::Action action;
    qelctl::addMetrics(app, action);
    std::vector<const char*> argv = {"qelctl", "metrics"};
    for (const auto& a : args) argv.push_back(a.c_str());
    app.parse(static_cast<int>(argv.size()), argv.data());
    CommandRun run;
    CapturedOutput out;
    CapturedOutput err(std::cerr);
    try {
        run.status = action(output);
    } catch (const qelctl::Failure& e) {
        run.status = qelctl::exitFailed;
        std::cerr << "qelctl: " << e.what() << '\n';
    }
    run.out = out.text();
    run.err = err.text();
    return run;
}

// The samples of a text in the exposition format, name and unescaped label
// values, as a scraper reads them; a line that does not parse fails the test.
struct Sample {
    std::string name;
    std::map<std::string, std::string> labels;
    std::string value;
};
std::vector<Sample> parseExposition(const std::string& text) {
    std::vector<Sample> samples;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        Sample s;
        std::size_t i = 0;
        while (i < line.size() && (std::isalnum(static_cast<unsigned char>(line[i])) || line[i] == '_' || line[i] == ':'))
            s.name += line[i++];
        bool ok = !s.name.empty();
        if (ok && i < line.size() && line[i] == '{') {
            ++i;
            while (ok && i < line.size() && line[i] != '}') {
                std::string key;
                while (i < line.size() && line[i] != '=') key += line[i++];
                ok = i + 1 < line.size() && line[i + 1] == '"';
                i += 2;
                std::string value;
                while (ok && i < line.size() && line[i] != '"') {
                    if (line[i] == '\\') {
                        ok = i + 1 < line.size() && std::string("\\\"n").find(line[i + 1]) != std::string::npos;
                        if (!ok) break;
                        value += line[i + 1] == 'n' ? '\n' : line[i + 1];
                        i += 2;
                    } else {
                        value += line[i++];
                    }
                }
                ok = ok && i < line.size();
                ++i;
                s.labels[key] = value;
                if (ok && i < line.size() && line[i] == ',') ++i;
            }
            ok = ok && i < line.size();
            ++i;
        }
        ok = ok && i < line.size() && line[i] == ' ';
        if (ok) s.value = line.substr(i + 1);
        char* end = nullptr;
        ok = ok && !s.value.empty() && (std::strtod(s.value.c_str(), &end), *end == '\0');
        if (!ok) {
            ADD_FAILURE() << "a line the exposition format does not allow: " << line;
            continue;
        }
        samples.push_back(s);
    }
    return samples;
}

const Sample* find(const std::vector<Sample>& samples, const std::string& name,
                   const std::map<std::string, std::string>& labels = {}) {
    for (const auto& s : samples) {
        if (s.name != name) continue;
        bool all = true;
        for (const auto& l : labels) all = all && s.labels.count(l.first) && s.labels.at(l.first) == l.second;
        if (all) return &s;
    }
    return nullptr;
}

TEST(QelctlTextfile, LabelValueEscapesBackslashQuoteAndNewline) {
    EXPECT_EQ(textfile::escapeLabelValue("a\\b\"c\nd"), "a\\\\b\\\"c\\nd");
    EXPECT_EQ(textfile::escapeLabelValue("plain 1.2"), "plain 1.2");
}

// A label value goes to a terminal too (`qelctl metrics`): control bytes
// from the controller (ESC, CR, DEL...) never pass raw.
TEST(QelctlTextfile, LabelValueReplacesControlBytes) {
    EXPECT_EQ(textfile::escapeLabelValue("a\x1b[2Jb\rc\x7f\x01"),
              "a\xEF\xBF\xBD[2Jb\xEF\xBF\xBD" "c\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(textfile::escapeLabelValue("tab\there"), "tab\xEF\xBF\xBD" "here");
}

TEST(QelctlTextfile, LabelValueReplacesBytesThatAreNotUtf8) {
    EXPECT_EQ(textfile::escapeLabelValue("F\xDC!"), "F\xEF\xBF\xBD!");
    EXPECT_EQ(textfile::escapeLabelValue("\xC3\xBC \xE2\x82\xAC"), "\xC3\xBC \xE2\x82\xAC") << "valid UTF-8 stays";
    EXPECT_EQ(textfile::escapeLabelValue("\xC0\xAF"), "\xEF\xBF\xBD\xEF\xBF\xBD") << "an overlong slash";
    EXPECT_EQ(textfile::escapeLabelValue("\xE2\x82"), "\xEF\xBF\xBD\xEF\xBF\xBD") << "a sequence cut off";
}

TEST(QelctlTextfile, WritesTheMetricsWithCollectorsUpAndTheControllersIdentity) {
    qelSim::ScopedSimulator sim;
    sim->systemInfo().setText(1, "R1.2.3");
    TempDir dir;

    const CommandRun run = runMetrics({"--textfile", dir.path()});
    EXPECT_EQ(run.status, qelctl::exitOk) << run.err;
    EXPECT_EQ(run.out, "") << "the text goes to the file only";
    const std::string text = contentsOf(dir.file("qeld.prom"));
    const auto samples = parseExposition(text);
    for (const char* c : {"bmc", "bmc-watchdog", "sel"}) {
        const Sample* up = find(samples, "ipmi_up", {{"collector", c}});
        ASSERT_NE(up, nullptr) << c << '\n' << text;
        EXPECT_EQ(up->value, "1") << c;
        ASSERT_NE(find(samples, "ipmi_scrape_duration_seconds", {{"collector", c}}), nullptr) << c;
        const Sample* timeouts = find(samples, "qel_metrics_timeouts_total", {{"collector", c}});
        ASSERT_NE(timeouts, nullptr) << c;
        EXPECT_EQ(timeouts->value, "0");
    }
    const Sample* info = find(samples, "ipmi_bmc_info");
    ASSERT_NE(info, nullptr) << text;
    EXPECT_EQ(info->labels.at("system_firmware_version"), "R1.2.3");
    const auto& id = sim->deviceId();  // completion code first
    EXPECT_EQ(info->labels.at("manufacturer_id"), std::to_string(id[7] | (id[8] << 8) | ((id[9] & 0x0F) << 16)));
    EXPECT_EQ(namesIn(dir.path()), (std::vector<std::string>{"qeld.prom", "qeld.prom.lock"}))
        << "no temporary file left behind";
    struct stat info2;
    ASSERT_EQ(::stat(dir.file("qeld.prom").c_str(), &info2), 0);
    EXPECT_EQ(info2.st_mode & 07777, 0644u) << "node_exporter runs as its own user";
}

TEST(QelctlTextfile, HostileControllerStringIsEscapedAndReadsBackUnchanged) {
    qelSim::ScopedSimulator sim;
    const std::string hostile = "1.0\"} ipmi_up{collector=\"bmc\"} 0\n# TYPE x counter\\";
    sim->systemInfo().setText(1, hostile);
    TempDir dir;

    EXPECT_EQ(runMetrics({"--textfile", dir.path()}).status, qelctl::exitOk);
    const std::string text = contentsOf(dir.file("qeld.prom"));
    const auto samples = parseExposition(text);
    const Sample* info = find(samples, "ipmi_bmc_info");
    ASSERT_NE(info, nullptr) << text;
    EXPECT_EQ(info->labels.at("system_firmware_version"), hostile);
    // One line a sample or comment: the string opened no line of its own.
    std::istringstream lines(text);
    std::size_t count = 0, comments = 0;
    for (std::string line; std::getline(lines, line); ++count) comments += line.rfind('#', 0) == 0;
    EXPECT_EQ(count, samples.size() + comments) << text;
    EXPECT_EQ(find(samples, "ipmi_up", {{"collector", "bmc"}})->value, "1");
}

TEST(QelctlTextfile, ControllerThatDoesNotKnowSystemInfoLeavesTheFirmwareVersionEmpty) {
    qelSim::ScopedSimulator sim;
    sim->systemInfo().setKnown(false);
    TempDir dir;

    EXPECT_EQ(runMetrics({"--textfile", dir.path()}).status, qelctl::exitOk);
    const auto samples = parseExposition(contentsOf(dir.file("qeld.prom")));
    const Sample* info = find(samples, "ipmi_bmc_info");
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->labels.at("system_firmware_version"), "");
}

TEST(QelctlTextfile, WithoutAControllerWritesTheCollectorsDownAndExitsThree) {
    qelSim::ScopedSimulator sim;
    sim->setAllPathsMissing(true);
    TempDir dir;

    const CommandRun run = runMetrics({"--textfile", dir.path()});
    EXPECT_EQ(run.status, qelctl::exitNoController);
    EXPECT_EQ(run.err, "qelctl: " + kNoController + "\n");
    const auto samples = parseExposition(contentsOf(dir.file("qeld.prom")));
    for (const char* c : {"bmc", "bmc-watchdog", "sel"}) {
        const Sample* up = find(samples, "ipmi_up", {{"collector", c}});
        ASSERT_NE(up, nullptr) << c;
        EXPECT_EQ(up->value, "0") << c;
    }
    EXPECT_EQ(find(samples, "ipmi_bmc_info"), nullptr);
}

TEST(QelctlTextfile, AMissingDirectoryIsOneLineAndStatusOne) {
    qelSim::ScopedSimulator sim;
    TempDir dir;
    const CommandRun run = runMetrics({"--textfile", dir.file("absent")});
    EXPECT_EQ(run.status, qelctl::exitFailed);
    EXPECT_EQ(run.err, "qelctl: metrics: " + dir.file("absent") + ": No such file or directory\n");
    EXPECT_EQ(sim->requestCount(), 0u) << "nothing is asked when there is nowhere to write";
}

TEST(QelctlTextfile, AFileInPlaceOfTheDirectoryIsRefused) {
    qelSim::ScopedSimulator sim;
    TempDir dir;
    std::ofstream(dir.file("plain")) << "x";
    const CommandRun run = runMetrics({"--textfile", dir.file("plain")});
    EXPECT_EQ(run.status, qelctl::exitFailed);
    EXPECT_EQ(run.err, "qelctl: metrics: " + dir.file("plain") + ": not a directory\n");
}

TEST(QelctlTextfile, WithoutTextfileTheTextGoesToStandardOutputAndNoFileIsWritten) {
    qelSim::ScopedSimulator sim;
    const CommandRun run = runMetrics({});
    EXPECT_EQ(run.status, qelctl::exitOk) << run.err;
    const auto samples = parseExposition(run.out);
    ASSERT_NE(find(samples, "ipmi_up", {{"collector", "bmc"}}), nullptr) << run.out;
    EXPECT_EQ(find(samples, "qel_metrics_timeouts_total"), nullptr) << "a figure of --textfile runs only";
}

TEST(QelctlTextfile, TimeoutNeedsTextfile) {
    CLI::App app{"qelctl"};
    qelctl::Action action;
    qelctl::addMetrics(app, action);
    const char* argv[] = {"qelctl", "metrics", "--timeout", "5"};
    EXPECT_THROW(app.parse(4, argv), CLI::RequiresError);
}

TEST(QelctlTextfile, JsonDoesNotApplyToTheTextfile) {
    qelSim::ScopedSimulator sim;
    TempDir dir;
    CLI::App app{"qelctl"};
    qelctl::Output output;
    app.add_flag("--json", output.json, "JSON");
    qelctl::Action action;
    qelctl::addMetrics(app, action);
    const std::string path = dir.path();
    const char* argv[] = {"qelctl", "--json", "metrics", "--textfile", path.c_str()};
    app.parse(5, argv);
    CapturedOutput err(std::cerr);
    EXPECT_EQ(action(output), qelctl::exitUsage);
    EXPECT_NE(err.text().find("--json does not apply"), std::string::npos) << err.text();
    EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{});
}

TEST(QelctlTextfile, ASecondRunWhileTheLockIsHeldEndsWithOneLineAndLeavesTheFile) {
    qelSim::ScopedSimulator sim;
    TempDir dir;
    std::ofstream(dir.file("qeld.prom")) << "old 1\n";
    {
        textfile::DirectoryLock first(dir.path());
        const CommandRun second = runMetrics({"--textfile", dir.path()});
        EXPECT_EQ(second.status, qelctl::exitFailed);
        EXPECT_EQ(second.err, "qelctl: metrics: " + dir.file("qeld.prom.lock") +
                                  ": another qelctl metrics run is writing " + dir.file("qeld.prom") + "\n");
        EXPECT_EQ(contentsOf(dir.file("qeld.prom")), "old 1\n");
        EXPECT_EQ(sim->requestCount(), 0u);
    }
    EXPECT_EQ(runMetrics({"--textfile", dir.path()}).status, qelctl::exitOk) << "the lock goes with its holder";
    EXPECT_NE(contentsOf(dir.file("qeld.prom")), "old 1\n");
}

TEST(QelctlTextfile, TheLockIsHeldAgainstAnotherProcess) {
    TempDir dir;
    textfile::DirectoryLock held(dir.path());
    // flock belongs to the open file: a child process's own open conflicts.
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        try {
            textfile::DirectoryLock second(dir.path());
            ::_exit(0);
        } catch (const qelctl::Failure&) {
            ::_exit(42);
        }
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 42) << status;
}

TEST(QelctlTextfile, AReaderNeverSeesAPartialFileWhileRunsRepeat) {
    TempDir dir;
    // Two texts of different lengths, each larger than one write and one
    // read (a partial file would be a prefix, or a mix, of them).
    const std::string a(300000, 'a'), b(200000, 'b');
    textfile::writeAtomically(dir.path(), "qeld.prom", a);
    std::atomic<bool> done{false};
    std::atomic<long> reads{0}, bad{0};
    // A whole run's text begins with the first family and ends with the
    // last one's last sample.
    const std::string runStart = "# HELP ipmi_bmc_info ";
    const std::string runEnd = "qel_metrics_timeouts_total{collector=\"sel\"} 0\n";
    const auto wholeRun = [&](const std::string& t) {
        return t.rfind(runStart, 0) == 0 && t.size() > runEnd.size() &&
               t.compare(t.size() - runEnd.size(), runEnd.size(), runEnd) == 0;
    };
    std::thread reader([&] {
        do {
            const std::string seen = contentsOf(dir.file("qeld.prom"));
            if (seen != a && seen != b && !wholeRun(seen)) ++bad;
            ++reads;
        } while (!done || reads < 1);
    });
    for (int i = 0; i < 300; ++i) textfile::writeAtomically(dir.path(), "qeld.prom", i % 2 ? a : b);
    // And whole runs of the command, between which the reader goes on.
    qelSim::ScopedSimulator sim;
    for (int i = 0; i < 20; ++i) ASSERT_EQ(runMetrics({"--textfile", dir.path()}).status, qelctl::exitOk);
    done = true;
    reader.join();
    EXPECT_EQ(bad, 0) << "of " << reads << " reads";
    EXPECT_GT(reads, 0);
    const std::string last = contentsOf(dir.file("qeld.prom"));
    EXPECT_TRUE(wholeRun(last)) << last;
    EXPECT_FALSE(parseExposition(last).empty());
    EXPECT_EQ(namesIn(dir.path()), (std::vector<std::string>{"qeld.prom", "qeld.prom.lock"}));
}

TEST(QelctlTextfile, AWriteThatFailsLeavesTheOldFileAndNoTemporary) {
    TempDir dir;
    textfile::writeAtomically(dir.path(), "qeld.prom", "old 1\n");
    // A directory in the way of the rename.
    ASSERT_EQ(::mkdir(dir.file("blocked.prom").c_str(), 0755), 0);
    std::ofstream(dir.file("blocked.prom/x")) << "x";
    EXPECT_THROW(textfile::writeAtomically(dir.path(), "blocked.prom", "new 1\n"), qelctl::Failure);
    EXPECT_EQ(contentsOf(dir.file("qeld.prom")), "old 1\n");
    EXPECT_EQ(namesIn(dir.path()), (std::vector<std::string>{"blocked.prom", "qeld.prom"}));
}

TEST(QelctlTextfile, ADisarmedDeadlineNeverFires) {
    std::atomic<int> fired{0};
    {
        textfile::Deadline deadline(0.001, [&fired] { ++fired; });
        deadline.disarm();
    }
    // The watcher was joined: had it fired, the process would have ended.
    EXPECT_EQ(fired, 0);
}

// A run stuck on a controller that does not answer: the time-out ends it,
// the old file stays, and the time-out is counted for the collector it was
// in; the next run, with the controller answering again, reports it up and
// shows the count.
TEST(QelctlTextfileDeathTest, ARunThatTimesOutLeavesTheFileAndTheNextRunCountsIt) {
    // "fast": the child is a fork of this test, with its directory.
    GTEST_FLAG_SET(death_test_style, "fast");
    TempDir dir;
    std::ofstream(dir.file("qeld.prom")) << "old 1\n";
    EXPECT_EXIT(
        {
            qelSim::ScopedSimulator sim;
            sim->setRealTimeouts(true);  // select really waits its 5 s
            sim->injectFault(qelSim::Fault::noReply().forCommand(qelIpmi::netfn::app, qelIpmi::cmd::getWatchdogTimer));
            (void)runMetrics({"--textfile", dir.path(), "--timeout", "0.3"});
            std::_Exit(0);
        },
        ::testing::ExitedWithCode(qelctl::exitFailed),
        "qelctl: metrics: timed out after 0.3 s reading collector bmc-watchdog; .*qeld.prom left as it was");
    EXPECT_EQ(contentsOf(dir.file("qeld.prom")), "old 1\n");
    EXPECT_EQ(contentsOf(dir.file("qeld.prom.timeouts")), "bmc-watchdog 1\n");

    qelSim::ScopedSimulator sim;
    ASSERT_EQ(runMetrics({"--textfile", dir.path()}).status, qelctl::exitOk);
    const auto samples = parseExposition(contentsOf(dir.file("qeld.prom")));
    const Sample* counted = find(samples, "qel_metrics_timeouts_total", {{"collector", "bmc-watchdog"}});
    ASSERT_NE(counted, nullptr);
    EXPECT_EQ(counted->value, "1");
    EXPECT_EQ(find(samples, "qel_metrics_timeouts_total", {{"collector", "sel"}})->value, "0");
    EXPECT_EQ(find(samples, "ipmi_up", {{"collector", "bmc-watchdog"}})->value, "1");
    EXPECT_EQ(namesIn(dir.path()),
              (std::vector<std::string>{"qeld.prom", "qeld.prom.lock", "qeld.prom.timeouts"}));
}

// ---------------------------------------------------------------- the command line

// The names of the top-level subcommands of an app.
std::vector<std::string> subcommandNames(CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; })) names.push_back(sub->get_name());
    return names;
}

TEST(QelctlCommandLine, SubcommandListNamesEverySubcommandItsFunctionsAddInHelpOrder) {
    // main sets up the command line from the list alone: a subcommand missing
    // from it would be missing from qelctl, and a command line naming it
    // could be taken as naming another alone.
    CLI::App all{"qelctl"};
    qelctl::Action action;
    std::vector<std::string> listed;
    std::vector<decltype(qelctl::Subcommand::add)> added;
    for (const qelctl::Subcommand& s : qelctl::subcommands()) {
        listed.push_back(s.name);
        if (std::find(added.begin(), added.end(), s.add) == added.end()) {
            s.add(all, action);
            added.push_back(s.add);
        }
        CLI::App alone{"qelctl"};
        s.add(alone, action);
        const std::vector<std::string> names = subcommandNames(alone);
        EXPECT_NE(std::find(names.begin(), names.end(), s.name), names.end()) << s.name << " is not added by its function";
    }
    EXPECT_EQ(subcommandNames(all), listed);
}

const qelctl::Subcommand* alone(std::vector<const char*> args) {
    args.insert(args.begin(), "qelctl");
    return qelctl::subcommandAlone(static_cast<int>(args.size()), args.data());
}

TEST(QelctlCommandLine, SubcommandNamedAloneAfterTheCommonOptions) {
    ASSERT_NE(alone({"sensors"}), nullptr);
    EXPECT_STREQ(alone({"sensors"})->name, "sensors");
    EXPECT_STREQ(alone({"--json", "sensors", "--type", "fan"})->name, "sensors");
    EXPECT_STREQ(alone({"--bmc-socket", "/tmp/bmc.sock", "--json", "metrics"})->name, "metrics");
    EXPECT_STREQ(alone({"--bmc-socket=/tmp/x", "--simulate", "config", "get", "cabinet-location"})->name, "config");
    EXPECT_STREQ(alone({"device-id"})->name, "device-id");
}

TEST(QelctlCommandLine, AnythingThatCouldMeanAnotherSubcommandOrHelpNeedsThemAll) {
    EXPECT_EQ(alone({}), nullptr);
    EXPECT_EQ(alone({"--json"}), nullptr);
    EXPECT_EQ(alone({"nonsense"}), nullptr);
    EXPECT_EQ(alone({"--help", "sensors"}), nullptr);
    EXPECT_EQ(alone({"sensors", "--help"}), nullptr);
    EXPECT_EQ(alone({"sensors", "-h"}), nullptr);
    EXPECT_EQ(alone({"sel", "--help-all"}), nullptr);
    EXPECT_EQ(alone({"--verbose", "sensors"}), nullptr);
    EXPECT_EQ(alone({"sensors", "status"}), nullptr);
    EXPECT_EQ(alone({"sensors", "sensors"}), nullptr);
    EXPECT_EQ(alone({"config", "get", "status"}), nullptr);
    EXPECT_EQ(alone({"--bmc-socket"}), nullptr);
    EXPECT_EQ(alone({"--bmc-socket", "sensors"}), nullptr);
    EXPECT_EQ(alone({"--bmc-socket", "status", "sensors"}), nullptr);
    EXPECT_EQ(alone({"-", "sensors"}), nullptr);
    EXPECT_EQ(alone({"", "sensors"}), nullptr);
}

}  // namespace

namespace {

// The sensors, the power reading and the chassis in `qelctl metrics`, under
// ipmi_exporter's families and labels; qeld's SDR cache is kept out of it.
class QelctlSensorMetrics : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;

    void SetUp() override {
        ::setenv("CACHE_DIRECTORY", "/nonexistent/qelctl-test", 1);
        describe("sensor 0x01 temperature \"CPU1 Temp\" unit=celsius lnc=5 unc=85 uc=90 unr=95 reading=45");
        describe("sensor 0x10 fan FAN1 unit=rpm m=60 lc=10 lnc=15 reading=150");
        describe("sensor 0x20 voltage 12V unit=volts m=63 k2=-3 lc=171 uc=209 reading=190");
        describe("sensor 0x30 current \"PSU1 Current\" unit=amps m=1 k2=-1 uc=200 reading=52");
        describe("sensor 0x31 current \"Total Power\" unit=watts m=4 uc=225 reading=80");
        describe("sensor 0x32 other Airflow event=threshold unit=cfm reading=40");
        describe("sensor 0x40 power-supply \"PSU1 Status\" reading=0x01");
        describe("sensor 0x70 processor CPU record=compact share=2 modifier=numeric offset=1 reading=0x80");
        describe("sensor 0x80 os-boot \"OS Boot\" record=event-only");
    }
    void TearDown() override { ::unsetenv("CACHE_DIRECTORY"); }

    void describe(const std::string& line) { sim->applyDescriptionLine(line); }

    std::vector<Sample> metrics(const std::vector<std::string>& args = {}) {
        const CommandRun run = runMetrics(args);
        EXPECT_EQ(run.status, qelctl::exitOk) << run.err;
        return parseExposition(run.out);
    }

    static std::string value(const std::vector<Sample>& samples, const std::string& name,
                             const std::map<std::string, std::string>& labels = {}) {
        const Sample* s = find(samples, name, labels);
        return s == nullptr ? "(none)" : s->value;
    }
};

TEST_F(QelctlSensorMetrics, EachSensorIsInTheFamilyOfItsUnitsWithIdAndNameLabels) {
    sim->dcmi().setPower({312, 120, 480, 300, 60000, true});
    const auto samples = metrics();
    // Values worked out from the records: y = (M x + B 10^K1) 10^K2.
    EXPECT_EQ(value(samples, "ipmi_temperature_celsius", {{"id", "1"}, {"name", "CPU1 Temp"}}), "45");
    EXPECT_EQ(value(samples, "ipmi_temperature_state", {{"name", "CPU1 Temp"}}), "0");
    EXPECT_EQ(value(samples, "ipmi_fan_speed_rpm", {{"name", "FAN1"}}), "9000");
    EXPECT_EQ(value(samples, "ipmi_fan_speed_state", {{"name", "FAN1"}}), "0");
    EXPECT_EQ(value(samples, "ipmi_voltage_volts", {{"name", "12V"}}), "11.97");
    EXPECT_EQ(value(samples, "ipmi_voltage_state", {{"name", "12V"}}), "0");
    EXPECT_EQ(value(samples, "ipmi_current_amperes", {{"name", "PSU1 Current"}}), "5.2");
    EXPECT_EQ(value(samples, "ipmi_current_state", {{"name", "PSU1 Current"}}), "0");
    EXPECT_EQ(value(samples, "ipmi_power_watts", {{"name", "Total Power"}}), "320");
    EXPECT_EQ(value(samples, "ipmi_power_state", {{"name", "Total Power"}}), "0");
    // The rest: the generic family, with the type.
    EXPECT_EQ(value(samples, "ipmi_sensor_value", {{"name", "Airflow"}, {"type", "Other Units Based Sensor"}}), "40");
    EXPECT_EQ(value(samples, "ipmi_sensor_value", {{"name", "PSU1 Status"}, {"type", "Power Supply"}}), "NaN")
        << "a discrete sensor has no value, and is there all the same";
    EXPECT_EQ(value(samples, "ipmi_sensor_state", {{"name", "PSU1 Status"}}), "0") << "presence detected";
    EXPECT_EQ(value(samples, "ipmi_sensor_state", {{"name", "CPU1"}, {"type", "Processor"}}), "0");
    EXPECT_NE(find(samples, "ipmi_sensor_state", {{"name", "CPU2"}}), nullptr) << "a shared record's second sensor";
    EXPECT_EQ(find(samples, "ipmi_sensor_state", {{"name", "OS Boot"}}), nullptr) << "event-only: no reading";
    EXPECT_EQ(value(samples, "ipmi_dcmi_power_consumption_watts"), "312");
    EXPECT_EQ(value(samples, "ipmi_chassis_power_state"), "1");
    // Typed families carry id and name only; the generic ones the type too.
    for (const Sample& s : samples) {
        if (s.name == "ipmi_temperature_celsius" || s.name == "ipmi_voltage_state") {
            EXPECT_EQ(s.labels.size(), 2u) << s.name;
        }
        if (s.name == "ipmi_sensor_value") {
            EXPECT_EQ(s.labels.size(), 3u) << s.name;
        }
    }
    for (const char* c : {"bmc", "bmc-watchdog", "sel", "ipmi", "dcmi", "chassis"})
        EXPECT_EQ(value(samples, "ipmi_up", {{"collector", c}}), "1") << c;
}

// The metric names are ipmi_exporter's, and ours under qel_: nothing else.
TEST_F(QelctlSensorMetrics, TheFamiliesAreExactlyTheDocumentedOnes) {
    sim->dcmi().setPower({312, 120, 480, 300, 60000, true});
    const std::set<std::string> documented = {
        "ipmi_up", "ipmi_scrape_duration_seconds", "ipmi_bmc_info",
        "ipmi_temperature_celsius", "ipmi_temperature_state", "ipmi_fan_speed_rpm", "ipmi_fan_speed_ratio",
        "ipmi_fan_speed_state", "ipmi_voltage_volts", "ipmi_voltage_state", "ipmi_current_amperes",
        "ipmi_current_state", "ipmi_power_watts", "ipmi_power_state", "ipmi_sensor_value", "ipmi_sensor_state",
        "ipmi_dcmi_power_consumption_watts", "ipmi_chassis_power_state", "ipmi_sel_logs_count",
        "ipmi_sel_free_space_bytes", "ipmi_bmc_watchdog_timer_state", "ipmi_bmc_watchdog_timer_use_state",
        "ipmi_bmc_watchdog_timeout_action_state", "ipmi_bmc_watchdog_pretimeout_interval_seconds",
        "ipmi_bmc_watchdog_initial_countdown_seconds", "ipmi_bmc_watchdog_current_countdown_seconds",
        "ipmi_bmc_watchdog_logging_state", "ipmi_bmc_watchdog_pretimeout_interrupt_state",
        "ipmi_chassis_drive_fault_state", "ipmi_chassis_cooling_fault_state"};
    std::set<std::string> seen;
    for (const Sample& s : metrics()) {
        seen.insert(s.name);
        if (s.name.rfind("qel_", 0) != 0) {
            EXPECT_TRUE(documented.count(s.name)) << s.name;
        }
    }
    for (const char* needed : {"ipmi_temperature_celsius", "ipmi_fan_speed_rpm", "ipmi_voltage_volts",
                               "ipmi_current_amperes", "ipmi_power_watts", "ipmi_sensor_value",
                               "ipmi_dcmi_power_consumption_watts", "ipmi_chassis_power_state", "ipmi_bmc_info"})
        EXPECT_TRUE(seen.count(needed)) << needed;
}

// A reading moved across each threshold: the state metric follows it in
// the same run, as `qelctl sensors` does.
TEST_F(QelctlSensorMetrics, AReadingMovedAcrossEachThresholdChangesItsStateMetric) {
    describe("sensor 0x05 temperature T unit=celsius lnr=5 lc=10 lnc=15 unc=80 uc=85 unr=90 reading=40");
    const struct {
        unsigned char raw;
        const char* metric;
        const char* state;
    } steps[] = {{40, "0", "nominal"}, {81, "1", "warning"}, {86, "2", "critical"}, {91, "2", "non-recoverable"},
                 {14, "1", "warning"}, {9, "2", "critical"},  {4, "2", "non-recoverable"}, {40, "0", "nominal"}};
    for (const auto& step : steps) {
        ASSERT_TRUE(sim->sdr().setReading(0x05, step.raw));
        EXPECT_EQ(value(metrics({"--collectors", "ipmi"}), "ipmi_temperature_state", {{"name", "T"}}), step.metric)
            << int(step.raw);
        const CommandRun json = runArgs(qelctl::addSensors, {"sensors", "--type", "temperature"}, true);
        ASSERT_EQ(json.status, qelctl::exitOk) << json.err;
        const Json doc = Json::parse(json.out);
        bool found = false;
        for (const Json& s : doc["sensors"])
            if (s["name"] == "T") {
                found = true;
                EXPECT_EQ(s["state"], step.state) << int(step.raw);
                EXPECT_EQ(s["reading"], step.raw) << "M 1: the raw reading is the value";
            }
        EXPECT_TRUE(found);
    }
}

TEST_F(QelctlSensorMetrics, UnavailableAndFailedReadingsAreNaNAndTheCollectorStaysUp) {
    sim->injectFault(qelSim::Fault::completionCode(0xCB).forCommand(0x04, 0x2D));  // the first reading refused
    const auto samples = metrics({"--collectors", "ipmi"});
    EXPECT_EQ(value(samples, "ipmi_temperature_celsius", {{"name", "CPU1 Temp"}}), "NaN");
    EXPECT_EQ(value(samples, "ipmi_temperature_state", {{"name", "CPU1 Temp"}}), "NaN");
    EXPECT_EQ(value(samples, "ipmi_fan_speed_rpm", {{"name", "FAN1"}}), "9000") << "the others are read";
    EXPECT_EQ(value(samples, "ipmi_up", {{"collector", "ipmi"}}), "1");
}

TEST_F(QelctlSensorMetrics, PowerConsumptionOnlyWhileMeasurementIsActive) {
    sim->dcmi().setPower({312, 120, 480, 300, 60000, false});
    auto samples = metrics({"--collectors", "dcmi"});
    EXPECT_EQ(find(samples, "ipmi_dcmi_power_consumption_watts"), nullptr);
    EXPECT_EQ(value(samples, "ipmi_up", {{"collector", "dcmi"}}), "1");

    sim->dcmi().removePower();  // no DCMI power management: refused, nothing to show, not a failure
    samples = metrics({"--collectors", "dcmi"});
    EXPECT_EQ(find(samples, "ipmi_dcmi_power_consumption_watts"), nullptr);
    EXPECT_EQ(value(samples, "ipmi_up", {{"collector", "dcmi"}}), "1");
}

TEST_F(QelctlSensorMetrics, AFailingCollectorIsDownWithOneLineAndTheOthersStayUp) {
    sim->dcmi().setPower({312, 120, 480, 300, 60000, true});
    sim->injectFault(qelSim::Fault::completionCode(0xFF).forCommand(0x2C, 0x02));
    const CommandRun run = runMetrics({"--collectors", "dcmi,chassis"});
    EXPECT_EQ(run.status, qelctl::exitFailed);
    EXPECT_EQ(run.err, "qelctl: metrics: DCMI Get Power Reading: the controller answered completion code 0xFF\n");
    const auto samples = parseExposition(run.out);
    EXPECT_EQ(value(samples, "ipmi_up", {{"collector", "dcmi"}}), "0");
    EXPECT_EQ(value(samples, "ipmi_up", {{"collector", "chassis"}}), "1");
}

TEST_F(QelctlSensorMetrics, ChassisPowerStateFollowsTheController) {
    sim->chassis().setPowerOn(false);
    EXPECT_EQ(value(metrics({"--collectors", "chassis"}), "ipmi_chassis_power_state"), "0");
    sim->chassis().setPowerOn(true);
    EXPECT_EQ(value(metrics({"--collectors", "chassis"}), "ipmi_chassis_power_state"), "1");
}

// The drive and cooling faults of Get Chassis Status, 1 while there is none
// (the exporter's sense), each from its own bit.
TEST_F(QelctlSensorMetrics, ChassisFaultStatesAreOneWithoutAFault) {
    const struct {
        unsigned char misc;
        const char* drive;
        const char* cooling;
    } cases[] = {{0x00, "1", "1"}, {0x04, "0", "1"}, {0x08, "1", "0"}, {0x0C, "0", "0"}};
    for (const auto& c : cases) {
        sim->chassis().setMiscState(c.misc);
        const auto samples = metrics({"--collectors", "chassis"});
        EXPECT_EQ(value(samples, "ipmi_chassis_drive_fault_state"), c.drive) << int(c.misc);
        EXPECT_EQ(value(samples, "ipmi_chassis_cooling_fault_state"), c.cooling) << int(c.misc);
    }
}

// With --collectors only the chosen collectors ask the controller. With
// the records in the cache, the sensors cost one Get Sensor Reading each,
// plus the repository's info (the cache is taken on it; the bmc collector's
// Get Device ID answer, when it runs, checks the controller besides); the
// power reading and the chassis one request each.
TEST_F(QelctlSensorMetrics, CollectorsChooseWhatIsAskedAndSensorsCostOneRequestEach) {
    TempDir cache;
    ::setenv("CACHE_DIRECTORY", cache.path().c_str(), 1);
    sim->dcmi().setPower({312, 120, 480, 300, 60000, true});
    (void)metrics({"--collectors", "ipmi"});  // fills the cache
    sim->clearRequests();
    const auto samples = metrics({"--collectors", "ipmi,dcmi,chassis"});
    std::size_t sensors = 0;
    for (const Sample& s : samples)
        if (s.name.size() > 6 && s.name.compare(s.name.size() - 6, 6, "_state") == 0 &&
            s.name.rfind("ipmi_chassis_", 0) != 0)
            ++sensors;
    EXPECT_EQ(sensors, 9u);
    EXPECT_EQ(sim->requests(0x04, 0x2D).size(), sensors) << "one Get Sensor Reading a sensor";
    EXPECT_EQ(sim->requests(qelIpmi::netfn::app, qelIpmi::cmd::getDeviceId).size(), 0u);
    EXPECT_EQ(sim->requestCount(), sensors + 3);
    EXPECT_EQ(sim->requests(qelIpmi::netfn::app, qelIpmi::cmd::getWatchdogTimer).size(), 0u);
    EXPECT_EQ(find(samples, "ipmi_up", {{"collector", "bmc"}}), nullptr);
    EXPECT_EQ(find(samples, "ipmi_bmc_info"), nullptr);

    sim->clearRequests();
    (void)metrics({"--collectors", "bmc,ipmi"});
    EXPECT_LE(sim->requests(qelIpmi::netfn::app, qelIpmi::cmd::getDeviceId).size(), 1u)
        << "the bmc collector's answer tells the cache which controller this is";
}

// The rack server of the benchmark (65 sensors, compact records without
// thresholds, non-linear fans): once the SDR cache and the sensors' answers
// beside it are warm, a run costs the repository's info and one Get Sensor
// Reading a sensor, and says what the cold run said.
TEST(QelctlSensorsRack, AWarmRunAsksTheRepositoryInfoAndOneReadingASensorAndSaysTheSame) {
    qelSim::ScopedSimulator sim;
    std::ifstream description(std::string(QEL_REPOSITORY_DIR) + "/sim/descriptions/rack.conf");
    ASSERT_TRUE(description.good());
    qelSim::loadDescription(sim.bmc(), description, "rack.conf");
    TempDir cache;
    ::setenv("CACHE_DIRECTORY", cache.path().c_str(), 1);
    struct Unset {
        ~Unset() { ::unsetenv("CACHE_DIRECTORY"); }
    } unset;
    const CommandRun cold = runArgs(qelctl::addSensors, {"sensors"}, true);
    ASSERT_EQ(cold.status, qelctl::exitOk) << cold.err;
    EXPECT_GT(sim->requests(0x04, 0x27).size(), 0u) << "compact records' thresholds asked cold";
    sim->clearRequests();
    const CommandRun warm = runArgs(qelctl::addSensors, {"sensors"}, true);
    ASSERT_EQ(warm.status, qelctl::exitOk) << warm.err;
    Json coldDoc = Json::parse(cold.out), warmDoc = Json::parse(warm.out);
    ASSERT_EQ(warmDoc["sensors"].size(), 65u);
    EXPECT_EQ(warmDoc["sensors"], coldDoc["sensors"]);
    EXPECT_EQ(sim->requests(0x04, 0x2D).size(), 65u);
    EXPECT_EQ(sim->requestCount(), 65u + 1u);
    EXPECT_EQ(warmDoc["requests"], 65);
}

TEST(QelctlMetricsOptions, AnUnknownCollectorIsAUsageError) {
    CLI::App app{"qelctl"};
    qelctl::Action action;
    qelctl::addMetrics(app, action);
    const char* argv[] = {"qelctl", "metrics", "--collectors", "ipmi,sensors"};
    EXPECT_THROW(app.parse(4, argv), CLI::ValidationError);
}

// Names from the controller are data: quotes, backslashes, newlines, control
// bytes and bytes that are not UTF-8 in an SDR name leave every line whole,
// and the label reads back as the name with its invalid bytes replaced.
TEST_F(QelctlSensorMetrics, HostileSensorNamesAreEscapedAndTheWholeTextStillParses) {
    describe(R"(sensor 0x06 temperature "a\x22b\x5cc\x0ad\x1b\xff" unit=celsius reading=30)");
    const CommandRun run = runMetrics({"--collectors", "ipmi"});
    ASSERT_EQ(run.status, qelctl::exitOk) << run.err;
    const auto samples = parseExposition(run.out);
    bool found = false;
    for (const Sample& s : samples)
        if (s.name == "ipmi_temperature_celsius" && s.value == "30") {
            found = true;
            EXPECT_EQ(s.labels.at("name"), "a\"b\\c\nd\xEF\xBF\xBD\xEF\xBF\xBD");
        }
    EXPECT_TRUE(found) << run.out;
    std::istringstream lines(run.out);
    std::size_t count = 0, comments = 0;
    for (std::string line; std::getline(lines, line); ++count) comments += line.rfind('#', 0) == 0;
    EXPECT_EQ(count, samples.size() + comments) << "the name opened no line of its own";
}

// On a controller without a configuration space (another make's), the
// agent's variables are simply absent: not an error.
TEST_F(QelctlSensorMetrics, AControllerWithoutAConfigurationSpaceIsNoError) {
    sim->injectFault(qelSim::Fault::completionCode(0xC1).forCommand(qelIpmi::netfn::oemGroup, qelIpmi::cmd::configSpace));
    const CommandRun run = runMetrics({"--collectors", "bmc-watchdog"});
    EXPECT_EQ(run.status, qelctl::exitOk) << run.err;
    EXPECT_EQ(run.err, "");
    const auto samples = parseExposition(run.out);
    EXPECT_EQ(find(samples, "qel_agent_connection_state"), nullptr);
    EXPECT_EQ(value(samples, "ipmi_up", {{"collector", "bmc-watchdog"}}), "1");
    EXPECT_EQ(sim->requests(qelIpmi::netfn::oemGroup, qelIpmi::cmd::configSpace).size(), 1u)
        << "the first refusal says there is no configuration space";
}

// The watchdog under the exporter's label texts, every value listed with
// 0 but the current one: BIOS POST, power cycle, NMI, logging off.
TEST_F(QelctlSensorMetrics, TheWatchdogUsesTheExportersLabelTexts) {
    qelSim::WatchdogState state;
    state.initialized = true;
    state.timerUse = 2;
    state.timeoutAction = 3;
    state.preTimeoutInterrupt = 2;
    state.preTimeoutInterval = 10;
    state.dontLog = true;
    state.initialCountdown = 1200;
    state.presentCountdown = 1200;
    sim->watchdog().preset(state);
    const CommandRun run = runMetrics({"--collectors", "bmc-watchdog"});
    ASSERT_EQ(run.status, qelctl::exitOk) << run.err;
    const auto samples = parseExposition(run.out);
    const std::map<std::string, std::vector<std::string>> families = {
        {"ipmi_bmc_watchdog_timer_use_state", {"BIOS FRB2", "BIOS POST", "OS LOAD", "SMS/OS", "OEM"}},
        {"ipmi_bmc_watchdog_timeout_action_state", {"None", "Hard Reset", "Power Down", "Power Cycle"}},
        {"ipmi_bmc_watchdog_pretimeout_interrupt_state",
         {"None", "SMI", "NMI / Diagnostic Interrupt", "Messaging Interrupt"}}};
    const std::map<std::string, std::string> labelName = {{"ipmi_bmc_watchdog_timer_use_state", "name"},
                                                          {"ipmi_bmc_watchdog_timeout_action_state", "action"},
                                                          {"ipmi_bmc_watchdog_pretimeout_interrupt_state", "interrupt"}};
    const std::map<std::string, std::string> current = {{"ipmi_bmc_watchdog_timer_use_state", "BIOS POST"},
                                                        {"ipmi_bmc_watchdog_timeout_action_state", "Power Cycle"},
                                                        {"ipmi_bmc_watchdog_pretimeout_interrupt_state",
                                                         "NMI / Diagnostic Interrupt"}};
    for (const auto& [family, values] : families) {
        std::size_t listed = 0;
        for (const Sample& s : samples) listed += s.name == family;
        EXPECT_EQ(listed, values.size()) << family;
        for (const std::string& v : values)
            EXPECT_EQ(value(samples, family, {{labelName.at(family), v}}), v == current.at(family) ? "1" : "0")
                << family << " " << v;
    }
    EXPECT_EQ(value(samples, "ipmi_bmc_watchdog_logging_state", {}), "0");
    EXPECT_EQ(value(samples, "ipmi_bmc_watchdog_pretimeout_interval_seconds", {}), "10");
    EXPECT_EQ(value(samples, "ipmi_bmc_watchdog_initial_countdown_seconds", {}), "120");
}

}  // namespace

namespace {

// A controller that stopped answering: the run that times out leaves the
// file as it was, but the next run marks that collector down in it before
// it reads anything, so a file that stays stale never goes on saying the
// collector is up; a run that completes writes the truth again.
TEST(QelctlTextfileDeathTest, AfterARunThatTimedOutTheFileShowsTheCollectorDown) {
    GTEST_FLAG_SET(death_test_style, "fast");
    TempDir dir;
    {
        qelSim::ScopedSimulator sim;
        ASSERT_EQ(runMetrics({"--textfile", dir.path(), "--collectors", "bmc,bmc-watchdog"}).status, qelctl::exitOk);
    }
    const std::string before = contentsOf(dir.file("qeld.prom"));
    ASSERT_NE(before.find("ipmi_up{collector=\"bmc-watchdog\"} 1\n"), std::string::npos) << before;
    const auto stuckRun = [&dir] {
        qelSim::ScopedSimulator sim;
        sim->setRealTimeouts(true);
        sim->injectFault(qelSim::Fault::noReply().forCommand(qelIpmi::netfn::app, qelIpmi::cmd::getWatchdogTimer));
        (void)runMetrics({"--textfile", dir.path(), "--timeout", "0.3", "--collectors", "bmc,bmc-watchdog"});
        std::_Exit(0);
    };
    EXPECT_EXIT(stuckRun(), ::testing::ExitedWithCode(qelctl::exitFailed), "reading collector bmc-watchdog");
    EXPECT_EQ(contentsOf(dir.file("qeld.prom")), before) << "the run that timed out leaves the file untouched";
    EXPECT_EQ(contentsOf(dir.file("qeld.prom.stale")), "bmc-watchdog\n");

    EXPECT_EXIT(stuckRun(), ::testing::ExitedWithCode(qelctl::exitFailed), "reading collector bmc-watchdog");
    std::string down = before;
    const std::string up = "ipmi_up{collector=\"bmc-watchdog\"} 1\n";
    down.replace(down.find(up), up.size(), "ipmi_up{collector=\"bmc-watchdog\"} 0\n");
    EXPECT_EQ(contentsOf(dir.file("qeld.prom")), down) << "the next run marked it down, the rest as it was";

    qelSim::ScopedSimulator sim;
    ASSERT_EQ(runMetrics({"--textfile", dir.path(), "--collectors", "bmc,bmc-watchdog"}).status, qelctl::exitOk);
    const auto samples = parseExposition(contentsOf(dir.file("qeld.prom")));
    EXPECT_EQ(find(samples, "ipmi_up", {{"collector", "bmc-watchdog"}})->value, "1");
    EXPECT_EQ(find(samples, "qel_metrics_timeouts_total", {{"collector", "bmc-watchdog"}})->value, "2");
    EXPECT_EQ(namesIn(dir.path()),
              (std::vector<std::string>{"qeld.prom", "qeld.prom.lock", "qeld.prom.timeouts"}));
}

}  // namespace

namespace {

TEST(QelctlPower, JsonGivesTheDcmiReadingAndTheChassis) {
    qelSim::ScopedSimulator sim;
    sim->dcmi().setPower({312, 120, 480, 300, 60000, true});
    sim->chassis().setPowerOn(true);
    const CommandRun run = runArgs(qelctl::addPower, {"power"}, true);
    ASSERT_EQ(run.status, qelctl::exitOk) << run.err;
    const Json doc = Json::parse(run.out);
    EXPECT_EQ(doc["dcmi"]["current_watts"], 312);
    EXPECT_EQ(doc["dcmi"]["minimum_watts"], 120);
    EXPECT_EQ(doc["dcmi"]["maximum_watts"], 480);
    EXPECT_EQ(doc["dcmi"]["average_watts"], 300);
    EXPECT_EQ(doc["dcmi"]["period_ms"], 60000);
    EXPECT_EQ(doc["dcmi"]["measurement_active"], true);
    EXPECT_EQ(doc["chassis"]["power_on"], true);
    EXPECT_EQ(doc["chassis"]["drive_fault"], false);
}

TEST(QelctlPower, AControllerWithoutDcmiSaysSoInOneLineAndExitsZero) {
    qelSim::ScopedSimulator sim;
    sim->dcmi().removePower();
    sim->chassis().setPowerOn(false);
    const CommandRun run = runArgs(qelctl::addPower, {"power"}, false);
    ASSERT_EQ(run.status, qelctl::exitOk) << run.err;
    EXPECT_NE(run.out.find("chassis power:"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("off"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("0xC1"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("(no DCMI power management)"), std::string::npos) << run.out;
    const CommandRun json = runArgs(qelctl::addPower, {"power"}, true);
    EXPECT_TRUE(Json::parse(json.out)["dcmi"].is_null());
}

TEST(QelctlPower, AChassisStatusThatFailsIsAnErrorNamingIt) {
    qelSim::ScopedSimulator sim;
    sim->injectFault(qelSim::Fault::completionCode(0xFF).forCommand(0x00, 0x01));
    try {
        (void)runArgs(qelctl::addPower, {"power"}, false);
        ADD_FAILURE() << "no failure";
    } catch (const qelctl::Failure& e) {
        EXPECT_EQ(std::string(e.what()), "power: Get Chassis Status: the controller answered completion code 0xFF");
    }
}

}  // namespace
