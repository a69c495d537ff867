// The sensor reader against the simulated controller: values, units,
// thresholds and states of full, compact and non-linear sensors, discrete
// states as text, what each sensor costs in requests, and replies bent into
// refusals, short answers and unavailable readings; the chassis status and
// the DCMI power reading beside them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "agentPlatform.h"
#include "qelSdr.h"
#include "qelSensors.h"
#include "scopedPlatform.h"
#include "qelSimChassis.h"
#include "qelSimDcmi.h"
#include "qelSimDevice.h"
#include "qelSimSdr.h"

using namespace qelSensors;
using qelSim::Fault;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr unsigned char sensorNetfn = 0x04;

class Sensors : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;

    void describe(const std::string& line) { sim->applyDescriptionLine(line); }

    // The repository as the library loads it, then every sensor read.
    std::vector<SensorSample> readAll() {
        qelSdr::QelSdrRepository repo;
        repo.load();
        sim->clearRequests();
        return reader.readAll(repo.records());
    }

    const SensorSample& byName(const std::vector<SensorSample>& samples, const std::string& name) {
        for (const SensorSample& s : samples)
            if (s.name == name) return s;
        ADD_FAILURE() << "no sample named " << name;
        static const SensorSample none;
        return none;
    }

    std::size_t requests(unsigned char cmd) { return sim->requests(sensorNetfn, cmd).size(); }

    QelSensorReader reader;
};

TEST_F(Sensors, EveryReadableSensorGivesItsValueUnitsAndState) {
    describe("sensor 0x01 temperature \"CPU1 Temp\" entity=3.1 unit=celsius unc=85 uc=90 reading=45");
    describe("sensor 0x10 fan FAN1 unit=rpm m=60 lc=10 reading=150");
    describe("sensor 0x20 voltage 12V unit=volts m=63 k2=-3 lc=171 uc=209 reading=190");
    describe("sensor 0x21 voltage VDDQ unit=volts m=1 b=100 k2=-2 reading=20");
    describe("sensor 0x22 temperature Margin unit=celsius format=twos reading=0xd3");
    describe("sensor 0x40 power-supply \"PSU1 Status\" entity=0x0a.1 reading=0x01");
    describe("sensor 0x80 os-boot \"OS Boot\" record=event-only");
    const std::vector<SensorSample> samples = readAll();
    // The event-only record has no reading and no sample.
    ASSERT_EQ(samples.size(), 6u);

    const SensorSample& cpu = samples[0];
    EXPECT_EQ(cpu.name, "CPU1 Temp");
    EXPECT_EQ(cpu.sensorNumber, 0x01);
    EXPECT_EQ(cpu.ownerId, 0x20);
    EXPECT_EQ(cpu.recordId, 1);
    EXPECT_EQ(cpu.typeName, "Temperature");
    EXPECT_TRUE(cpu.thresholdBased);
    ASSERT_TRUE(cpu.reading);
    EXPECT_DOUBLE_EQ(*cpu.reading, 45.0);
    EXPECT_EQ(cpu.units, "degrees C");
    EXPECT_EQ(cpu.state, SensorState::Nominal);
    EXPECT_TRUE(cpu.problem.empty()) << cpu.problem;

    EXPECT_DOUBLE_EQ(*byName(samples, "FAN1").reading, 9000.0);
    EXPECT_EQ(byName(samples, "FAN1").units, "RPM");
    EXPECT_NEAR(*byName(samples, "12V").reading, 11.97, 1e-9);
    EXPECT_EQ(byName(samples, "12V").units, "Volts");
    EXPECT_NEAR(*byName(samples, "VDDQ").reading, 1.2, 1e-9);
    EXPECT_DOUBLE_EQ(*byName(samples, "Margin").reading, -45.0);

    const SensorSample& psu = byName(samples, "PSU1 Status");
    EXPECT_FALSE(psu.thresholdBased);
    EXPECT_FALSE(psu.reading);
    EXPECT_EQ(psu.units, "");
    EXPECT_EQ(psu.typeName, "Power Supply");
    EXPECT_THAT(psu.states, ElementsAre("Presence detected"));
    EXPECT_EQ(psu.state, SensorState::Nominal);
}

TEST_F(Sensors, AFullRecordsThresholdsCostNoRequestOfTheirOwn) {
    describe("sensor 0x01 temperature \"CPU1 Temp\" unit=celsius unc=85 uc=90 unr=95 reading=45");
    describe("sensor 0x20 voltage 12V unit=volts m=63 k2=-3 lc=171 lnc=180 unc=200 uc=209 reading=190");
    describe("sensor 0x40 power-supply PSU entity=0x0a.1 reading=0x01");
    const std::vector<SensorSample> samples = readAll();
    EXPECT_EQ(reader.requestsSent(), 3u);  // one Get Sensor Reading each
    EXPECT_EQ(requests(cmd::getSensorThresholds), 0u);
    EXPECT_EQ(requests(cmd::getSensorReading), 3u);

    const SensorSample& cpu = samples[0];
    EXPECT_EQ(cpu.threshold(Threshold::UpperNonCritical), 85.0);
    EXPECT_EQ(cpu.threshold(Threshold::UpperCritical), 90.0);
    EXPECT_EQ(cpu.threshold(Threshold::UpperNonRecoverable), 95.0);
    EXPECT_FALSE(cpu.threshold(Threshold::LowerNonCritical));
    EXPECT_FALSE(cpu.threshold(Threshold::LowerCritical));
    EXPECT_FALSE(cpu.threshold(Threshold::LowerNonRecoverable));
    const SensorSample& volts = samples[1];
    EXPECT_NEAR(*volts.threshold(Threshold::LowerCritical), 10.773, 1e-9);
    EXPECT_NEAR(*volts.threshold(Threshold::UpperCritical), 13.167, 1e-9);
    // Discrete sensors have none.
    for (const auto& t : samples[2].thresholds) EXPECT_FALSE(t);
}

TEST_F(Sensors, EachThresholdCrossedChangesTheState) {
    describe("sensor 0x05 temperature T unit=celsius lnr=5 lc=10 lnc=15 unc=80 uc=85 unr=90 reading=40");
    const struct {
        unsigned char raw;
        SensorState state;
    } steps[] = {
        {40, SensorState::Nominal},  {15, SensorState::Warning},        {10, SensorState::Critical},
        {5, SensorState::NonRecoverable}, {16, SensorState::Nominal},   {80, SensorState::Warning},
        {85, SensorState::Critical}, {90, SensorState::NonRecoverable}, {79, SensorState::Nominal},
    };
    for (const auto& step : steps) {
        ASSERT_TRUE(sim->sdr().setReading(0x05, step.raw));
        const std::vector<SensorSample> samples = readAll();
        ASSERT_EQ(samples.size(), 1u);
        EXPECT_EQ(samples[0].state, step.state) << "raw " << int(step.raw);
        EXPECT_DOUBLE_EQ(*samples[0].reading, step.raw);
    }
}

TEST_F(Sensors, CompactThresholdSensorsAskForTheirThresholdsAndShareTheirName) {
    describe("sensor 0x0b temperature P1-DIMM unit=celsius record=compact share=2 modifier=numeric offset=1 "
             "unc=80 uc=85 reading=41");
    describe("sensor-reading 0x0c 82");
    const std::vector<SensorSample> samples = readAll();
    ASSERT_EQ(samples.size(), 2u);
    EXPECT_EQ(samples[0].name, "P1-DIMM1");
    EXPECT_EQ(samples[1].name, "P1-DIMM2");
    EXPECT_EQ(samples[1].sensorNumber, 0x0c);
    // No factors in a compact record: the raw reading in the record's units.
    EXPECT_DOUBLE_EQ(*samples[0].reading, 41.0);
    EXPECT_EQ(samples[0].units, "degrees C");
    EXPECT_EQ(samples[0].state, SensorState::Nominal);
    EXPECT_EQ(samples[1].state, SensorState::Warning);
    EXPECT_EQ(samples[1].threshold(Threshold::UpperNonCritical), 80.0);
    EXPECT_EQ(samples[1].threshold(Threshold::UpperCritical), 85.0);
    EXPECT_FALSE(samples[1].threshold(Threshold::UpperNonRecoverable));
    EXPECT_EQ(requests(cmd::getSensorThresholds), 2u);
    EXPECT_EQ(reader.requestsSent(), 4u);
}

TEST_F(Sensors, NonLinearSensorsConvertWithTheReadingFactorsOfEachRange) {
    describe("sensor 0x2c fan Fan7 unit=rpm linear=0x71 factors=0:50:0:0:0 factors=100:80:-300:1:0 lc=10 lnc=20 "
             "reading=120");
    std::vector<SensorSample> samples = readAll();
    ASSERT_EQ(samples.size(), 1u);
    // 80 x 120 - 300 x 10 = 6600; the thresholds fall in the first range.
    EXPECT_DOUBLE_EQ(*samples[0].reading, 6600.0);
    EXPECT_EQ(samples[0].threshold(Threshold::LowerNonCritical), 1000.0);
    EXPECT_EQ(samples[0].threshold(Threshold::LowerCritical), 500.0);
    EXPECT_TRUE(samples[0].problem.empty()) << samples[0].problem;
    // One factors request for the reading, one for the lowest threshold,
    // whose range holds the other.
    EXPECT_EQ(requests(cmd::getSensorReadingFactors), 2u);
    const auto asked = sim->requests(sensorNetfn, cmd::getSensorReadingFactors);
    EXPECT_EQ(asked[0].data, (qelSim::Bytes{0x2c, 120}));

    ASSERT_TRUE(sim->sdr().setReading(0x2c, 40));
    samples = readAll();
    EXPECT_DOUBLE_EQ(*samples[0].reading, 2000.0);
    // The range learnt at 40 reaches up to 100; the thresholds lie below it.
    EXPECT_EQ(requests(cmd::getSensorReadingFactors), 2u);
    const auto second = sim->requests(sensorNetfn, cmd::getSensorReadingFactors);
    EXPECT_EQ(second[1].data, (qelSim::Bytes{0x2c, 10}));

    // A refused factors request: no value, a problem, and the sensor still has its state.
    sim->injectFault(Fault::completionCode(0xCB).forCommand(sensorNetfn, cmd::getSensorReadingFactors));
    samples = readAll();
    EXPECT_FALSE(samples[0].reading);
    EXPECT_THAT(samples[0].problem, HasSubstr("Get Sensor Reading Factors"));
    EXPECT_THAT(samples[0].problem, HasSubstr("0xCB"));
    EXPECT_EQ(samples[0].state, SensorState::Nominal);
}

// ---------------------------------------------------------------- answers kept beside the SDR cache

class SensorAnswers : public Sensors {
protected:
    static constexpr time_t start = 1790000000;
    std::string root = makeRoot();
    agentTest::AgentPlatform platform{root};
    platformTest::ScopedPlatform scoped{&platform};
    const std::string directory = "/var/cache/qeld/sdr";

    static std::string makeRoot() {
        char pattern[] = "/tmp/qelanswersXXXXXX";
        const char* made = mkdtemp(pattern);
        if (made == nullptr) ADD_FAILURE() << "mkdtemp failed";
        return made ? made : "/nonexistent";
    }
    ~SensorAnswers() override { (void)std::system(("rm -rf '" + root + "'").c_str()); }

    void SetUp() override {
        platform.setTime(start);
        // A compact pair without thresholds in its record, and a non-linear fan.
        describe("sensor 0x0b temperature P1-DIMM unit=celsius record=compact share=2 modifier=numeric offset=1 "
                 "unc=80 uc=85 reading=41");
        describe("sensor 0x2c fan Fan7 unit=rpm linear=0x71 factors=0:50:0:0:0 factors=100:80:-300:1:0 lc=10 "
                 "lnc=20 reading=120");
    }

    std::string file() const { return root + directory + "/" + qelSdr::QelSdrRepository::answersFileName; }

    // One process's run: the repository through its cache, every sensor
    // read by a reader of its own with the answers kept beside it.
    std::vector<SensorSample> run() {
        qelSdr::QelSdrRepository repo(directory);
        repo.load();
        sim->clearRequests();
        fresh = QelSensorReader();
        fresh.setAnswerCache(repo.answersPath(), repo.info());
        return fresh.readAll(repo.records());
    }

    std::string readText() const {
        std::ifstream in(file(), std::ios::binary);
        std::ostringstream out;
        out << in.rdbuf();
        return out.str();
    }
    void writeText(const std::string& text) const { std::ofstream(file(), std::ios::binary | std::ios::trunc) << text; }

    bool noted(const std::string& text) const {
        for (const std::string& n : fresh.notes())
            if (n.find(text) != std::string::npos) return true;
        return false;
    }

    QelSensorReader fresh;
};

void expectSameSamples(const std::vector<SensorSample>& a, const std::vector<SensorSample>& b) {
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        EXPECT_EQ(a[i].name, b[i].name);
        EXPECT_EQ(a[i].reading, b[i].reading) << a[i].name;
        EXPECT_EQ(a[i].thresholds, b[i].thresholds) << a[i].name;
        EXPECT_EQ(a[i].state, b[i].state) << a[i].name;
        EXPECT_EQ(a[i].problem, b[i].problem) << a[i].name;
    }
}

TEST_F(SensorAnswers, AWarmRunAsksOnlyTheReadingsAndGivesTheSameSamples) {
    const std::vector<SensorSample> cold = run();
    // The pair's thresholds, and factors for the fan's reading and its lowest threshold.
    EXPECT_EQ(requests(cmd::getSensorThresholds), 2u);
    EXPECT_EQ(requests(cmd::getSensorReadingFactors), 2u);
    ASSERT_EQ(cold.size(), 3u);
    EXPECT_DOUBLE_EQ(*cold[2].reading, 6600.0);
    EXPECT_EQ(cold[1].threshold(Threshold::UpperCritical), 85.0);

    const std::vector<SensorSample> warm = run();
    EXPECT_EQ(sim->requestCount(), 3u);
    EXPECT_EQ(requests(cmd::getSensorReading), 3u);
    EXPECT_EQ(fresh.requestsSent(), 3u);
    EXPECT_TRUE(fresh.notes().empty());
    expectSameSamples(warm, cold);
}

TEST_F(SensorAnswers, AReadingOutsideTheRangesOfTheKeptFactorsIsAskedAndAdded) {
    (void)run();
    // 120 was asked (holding up to 255) and 10 (holding up to 100): 5 lies in neither.
    ASSERT_TRUE(sim->sdr().setReading(0x2c, 5));
    std::vector<SensorSample> samples = run();
    EXPECT_DOUBLE_EQ(*samples[2].reading, 250.0);
    const auto asked = sim->requests(sensorNetfn, cmd::getSensorReadingFactors);
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].data, (qelSim::Bytes{0x2c, 5}));
    // Inside a kept range: nothing asked.
    ASSERT_TRUE(sim->sdr().setReading(0x2c, 60));
    samples = run();
    EXPECT_DOUBLE_EQ(*samples[2].reading, 3000.0);
    EXPECT_EQ(requests(cmd::getSensorReadingFactors), 0u);
    // ... and the answer for 5 was kept as well.
    ASSERT_TRUE(sim->sdr().setReading(0x2c, 5));
    samples = run();
    EXPECT_EQ(requests(cmd::getSensorReadingFactors), 0u);
    EXPECT_DOUBLE_EQ(*samples[2].reading, 250.0);
}

TEST_F(SensorAnswers, ThresholdsAreAskedAgainOnceTheirAnswerIsTenMinutesOld) {
    (void)run();
    platform.setTime(start + QelSensorReader::thresholdsMaxAge - 1);
    (void)run();
    EXPECT_EQ(requests(cmd::getSensorThresholds), 0u);
    // Set at run time: the repository does not change.
    sim->setHandler(sensorNetfn, cmd::getSensorThresholds, [](const qelSim::Request&) {
        return qelSim::Response{0x00, 0x18, 0, 0, 0, 70, 75, 0};
    });
    platform.setTime(start + QelSensorReader::thresholdsMaxAge);
    std::vector<SensorSample> samples = run();
    EXPECT_EQ(requests(cmd::getSensorThresholds), 2u);
    EXPECT_EQ(samples[1].threshold(Threshold::UpperCritical), 75.0);
    // Fresh again from then on; a clock set back makes the answers from the future asked again.
    (void)run();
    EXPECT_EQ(requests(cmd::getSensorThresholds), 0u);
    platform.setTime(start);
    (void)run();
    EXPECT_EQ(requests(cmd::getSensorThresholds), 2u);
}

TEST_F(SensorAnswers, ARepositoryChangeDropsEveryKeptAnswer) {
    (void)run();
    ASSERT_FALSE(readText().empty());
    describe("sensor 0x90 temperature \"DIMM Temp\" unit=celsius reading=30");
    const std::vector<SensorSample> samples = run();
    EXPECT_EQ(samples.size(), 4u);
    EXPECT_EQ(requests(cmd::getSensorThresholds), 2u);
    EXPECT_EQ(requests(cmd::getSensorReadingFactors), 2u);
    // Answers kept for other repository info are not used either.
    std::string text = readText();
    const std::size_t at = text.find("\nrepository ") + 12;
    text.replace(at, 2, "01");  // another SDR version, the checksum made to match below
    const std::size_t endAt = text.rfind("\nend ") + 1;
    uint32_t h = 2166136261u;
    for (std::size_t i = 0; i < endAt; ++i) {
        h ^= static_cast<unsigned char>(text[i]);
        h *= 16777619u;
    }
    char hash[16];
    std::snprintf(hash, sizeof hash, "%08x", h);
    text = text.substr(0, text.rfind(' ') + 1) + hash + "\n";
    writeText(text);
    (void)run();
    EXPECT_EQ(requests(cmd::getSensorThresholds), 2u);
    EXPECT_EQ(requests(cmd::getSensorReadingFactors), 2u);
    EXPECT_TRUE(fresh.notes().empty());
}

TEST_F(SensorAnswers, ACorruptOrShortAnswersFileIsIgnoredWithANote) {
    const std::vector<SensorSample> cold = run();
    const std::string good = readText();
    const std::vector<std::pair<std::string, std::string>> bad = {
        {good.substr(0, good.size() / 2), "truncated"},
        {good.substr(0, good.find("thresholds")) + "thresholds 20 00 0b zz\n" +
             good.substr(good.rfind("\nend ") + 1),
         "corrupt"},
        {std::string(good).replace(good.find("factors") + 8, 2, "21"), "corrupt (its checksum"},
        {"\x7f" "ELF\x01", "not an answers file"},
        {"", "not an answers file"},
    };
    for (const auto& [text, why] : bad) {
        writeText(text);
        const std::vector<SensorSample> samples = run();
        EXPECT_TRUE(noted(why)) << why;
        EXPECT_EQ(requests(cmd::getSensorThresholds), 2u) << why;
        EXPECT_EQ(requests(cmd::getSensorReadingFactors), 2u) << why;
        expectSameSamples(samples, cold);
        // Replaced by a good one.
        (void)run();
        EXPECT_EQ(sim->requestCount(), 3u) << why;
    }
}

TEST_F(Sensors, UnavailableOrUnscannedReadingsHaveNoValueAndNoProblem) {
    describe("sensor 0x01 temperature T unit=celsius unc=85 reading=45");
    // Reading unavailable (flags bit 5).
    sim->injectFault(Fault::rawReply({0x00, 45, 0xE0, 0x00, 0x80}).forCommand(sensorNetfn, cmd::getSensorReading));
    std::vector<SensorSample> samples = readAll();
    EXPECT_TRUE(samples[0].unavailable);
    EXPECT_FALSE(samples[0].reading);
    EXPECT_FALSE(samples[0].state);
    EXPECT_TRUE(samples[0].problem.empty()) << samples[0].problem;
    EXPECT_EQ(samples[0].threshold(Threshold::UpperNonCritical), 85.0);
    // Scanning disabled (flags bit 6 clear).
    sim->injectFault(Fault::rawReply({0x00, 45, 0x80, 0x00}).forCommand(sensorNetfn, cmd::getSensorReading));
    samples = readAll();
    EXPECT_TRUE(samples[0].scanningDisabled);
    EXPECT_FALSE(samples[0].unavailable);
    EXPECT_FALSE(samples[0].reading);
    EXPECT_TRUE(samples[0].problem.empty()) << samples[0].problem;
    // A reply without the comparison status has a value and no state.
    sim->injectFault(Fault::rawReply({0x00, 45, 0xC0}).forCommand(sensorNetfn, cmd::getSensorReading));
    samples = readAll();
    EXPECT_DOUBLE_EQ(*samples[0].reading, 45.0);
    EXPECT_FALSE(samples[0].state);
}

TEST_F(Sensors, DiscreteStatesComeAsTextAndRateTheSensor) {
    describe("sensor 0x40 power-supply \"PSU1 Status\" reading=0x01");
    describe("sensor 0x50 memory Memory reading=0x40");
    describe("sensor 0x60 drive-slot Drive record=compact share=2 modifier=numeric offset=0 reading=0x01");
    describe("sensor 0x71 fan \"Fan Redundancy\" event=0x0b reading=0x01");
    ASSERT_TRUE(sim->sdr().setReading(0x40, 0x03));  // present, and failed
    ASSERT_TRUE(sim->sdr().setReading(0x50, 0x41));  // present, a correctable ECC error
    ASSERT_TRUE(sim->sdr().setReading(0x61, 0x02));  // Drive1: a drive fault
    ASSERT_TRUE(sim->sdr().setReading(0x71, 0x04));  // redundancy degraded
    const std::vector<SensorSample> samples = readAll();
    const SensorSample& psu = byName(samples, "PSU1 Status");
    EXPECT_THAT(psu.states, ElementsAre("Presence detected", "Power Supply Failure detected"));
    EXPECT_EQ(psu.rawStates, 0x0003);
    EXPECT_EQ(psu.state, SensorState::Critical);
    const SensorSample& memory = byName(samples, "Memory");
    EXPECT_THAT(memory.states,
                ElementsAre("Correctable ECC / other correctable memory error", "Presence detected"));
    EXPECT_EQ(memory.state, SensorState::Warning);
    EXPECT_THAT(byName(samples, "Drive0").states, ElementsAre("Drive Presence"));
    EXPECT_EQ(byName(samples, "Drive0").state, SensorState::Nominal);
    EXPECT_THAT(byName(samples, "Drive1").states, ElementsAre("Drive Fault"));
    EXPECT_EQ(byName(samples, "Drive1").state, SensorState::Critical);
    EXPECT_EQ(byName(samples, "Fan Redundancy").state, SensorState::Warning);
    EXPECT_EQ(byName(samples, "Fan Redundancy").states.size(), 1u);
}

TEST_F(Sensors, ADiscreteReadingWithoutItsStateBytesHasNoState) {
    describe("sensor 0x40 power-supply \"PSU1 Status\" reading=0x03");
    sim->injectFault(Fault::rawReply({0x00, 0x00, 0xC0}).forCommand(sensorNetfn, cmd::getSensorReading));
    std::vector<SensorSample> samples = readAll();
    EXPECT_FALSE(samples[0].state);
    EXPECT_TRUE(samples[0].states.empty());
    EXPECT_TRUE(samples[0].problem.empty()) << samples[0].problem;
    // With them, the failure shows.
    samples = readAll();
    EXPECT_EQ(samples[0].state, SensorState::Critical);
}

TEST_F(Sensors, DiscreteStateRatingsFollowTheEventTables) {
    EXPECT_EQ(discreteState(0x08, 0x6F, 0x0000), SensorState::Nominal);
    EXPECT_EQ(discreteState(0x08, 0x6F, 0x0001), SensorState::Nominal);   // presence
    EXPECT_EQ(discreteState(0x08, 0x6F, 0x0004), SensorState::Warning);   // predictive failure
    EXPECT_EQ(discreteState(0x08, 0x6F, 0x0006), SensorState::Critical);  // failure beats prediction
    EXPECT_EQ(discreteState(0x0C, 0x6F, 0x0002), SensorState::Critical);  // uncorrectable ECC
    EXPECT_EQ(discreteState(0x0C, 0x6F, 0x0400), SensorState::Critical);  // critical overtemperature (bit 10)
    EXPECT_EQ(discreteState(0xC0, 0x70, 0x7FFF), SensorState::Nominal);   // OEM: no table rates it
}

TEST_F(Sensors, AFailedSensorBecomesASampleWithAProblemAndTheOthersAreRead) {
    describe("sensor 0x01 temperature A unit=celsius reading=41");
    describe("sensor 0x02 temperature B unit=celsius reading=42");
    describe("sensor 0x03 temperature C unit=celsius reading=43");
    describe("sensor 0x04 temperature D unit=celsius reading=44");
    qelSdr::QelSdrRepository repo;
    repo.load();
    sim->injectFault(Fault::completionCode(0xCB).forCommand(sensorNetfn, cmd::getSensorReading));
    sim->injectFault(Fault::rawReply({0x00, 0x10}).forCommand(sensorNetfn, cmd::getSensorReading));
    sim->injectFault(Fault::noReply().forCommand(sensorNetfn, cmd::getSensorReading));
    const std::vector<SensorSample> samples = reader.readAll(repo.records());
    ASSERT_EQ(samples.size(), 4u);
    EXPECT_FALSE(samples[0].reading);
    EXPECT_THAT(samples[0].problem, HasSubstr("Get Sensor Reading"));
    EXPECT_THAT(samples[0].problem, HasSubstr("0xCB"));
    EXPECT_FALSE(samples[1].reading);
    EXPECT_THAT(samples[1].problem, HasSubstr("Get Sensor Reading"));
    EXPECT_FALSE(samples[1].state);
    EXPECT_FALSE(samples[2].reading);
    EXPECT_THAT(samples[2].problem, HasSubstr("no answer"));
    EXPECT_DOUBLE_EQ(*samples[3].reading, 44.0);
    EXPECT_TRUE(samples[3].problem.empty());
}

TEST_F(Sensors, ABentThresholdsReplyLeavesTheReadingAndNamesTheProblem) {
    describe("sensor 0x0b temperature DIMM unit=celsius record=compact unc=80 uc=85 reading=41");
    sim->injectFault(Fault::rawReply({0x00, 0x18, 0x00}).forCommand(sensorNetfn, cmd::getSensorThresholds));
    std::vector<SensorSample> samples = readAll();
    EXPECT_DOUBLE_EQ(*samples[0].reading, 41.0);
    EXPECT_THAT(samples[0].problem, HasSubstr("Get Sensor Thresholds"));
    for (const auto& t : samples[0].thresholds) EXPECT_FALSE(t);
    sim->injectFault(Fault::completionCode(0xC1).forCommand(sensorNetfn, cmd::getSensorThresholds));
    samples = readAll();
    EXPECT_THAT(samples[0].problem, HasSubstr("0xC1"));
}

TEST_F(Sensors, RecordsThatDoNotParseAreNamedAndSkipped) {
    describe("sensor 0x01 temperature A unit=celsius reading=41");
    qelSdr::QelSdrRepository repo;
    repo.load();
    std::vector<qelSdr::SdrRecord> records = repo.records();
    qelSdr::SdrRecord cut = records[0];
    cut.bytes.resize(12);  // a full record cut before its sensor type
    cut.bytes[qelSdr::header::length] = 7;
    records.insert(records.begin(), qelSdr::SdrRecord::fromBytes(cut.bytes));
    const std::vector<SensorSample> samples = reader.readAll(records);
    ASSERT_EQ(samples.size(), 2u);
    EXPECT_FALSE(samples[0].problem.empty());
    EXPECT_FALSE(samples[0].reading);
    EXPECT_DOUBLE_EQ(*samples[1].reading, 41.0);
}

TEST_F(Sensors, AnotherOwnersSensorIsAskedOverIpmbAndASoftwareOwnersNotAtAll) {
    describe("sensor 0x01 temperature Local unit=celsius reading=41");
    describe("sensor 0x02 temperature Satellite unit=celsius owner=0x2c lun=1 reading=42");
    describe("sensor 0x03 temperature Software unit=celsius owner=0x41 reading=43");
    const std::vector<SensorSample> samples = readAll();
    ASSERT_EQ(samples.size(), 3u);
    EXPECT_DOUBLE_EQ(*samples[0].reading, 41.0);
    EXPECT_DOUBLE_EQ(*samples[1].reading, 42.0);
    EXPECT_FALSE(samples[2].reading);
    EXPECT_THAT(samples[2].problem, HasSubstr("system software"));
    const auto asked = sim->requests(sensorNetfn, cmd::getSensorReading);
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_EQ(asked[0].addrType, 0x0C);  // the system interface
    EXPECT_EQ(asked[1].addrType, 0x01);  // IPMB
    EXPECT_EQ(asked[1].slaveAddr, 0x2c);
    EXPECT_EQ(asked[1].lun, 1);
}

TEST_F(Sensors, NoControllerIsAnError) {
    describe("sensor 0x01 temperature A unit=celsius reading=41");
    qelSdr::QelSdrRepository repo;
    repo.load();
    sim->setAllPathsMissing(true);
    EXPECT_THROW(reader.readAll(repo.records()), QelSensorError);
}

TEST_F(Sensors, ChassisStatusGivesPowerAndFaults) {
    std::optional<ChassisStatus> c = reader.readChassisStatus();
    ASSERT_TRUE(c);
    EXPECT_TRUE(c->powerOn);
    EXPECT_FALSE(c->coolingFault);
    EXPECT_FALSE(c->driveFault);
    EXPECT_EQ(c->restorePolicy, 2);
    describe("chassis-power off");
    describe("chassis-faults cooling-fault drive-fault power-fault");
    c = reader.readChassisStatus();
    ASSERT_TRUE(c);
    EXPECT_FALSE(c->powerOn);
    EXPECT_TRUE(c->coolingFault);
    EXPECT_TRUE(c->driveFault);
    EXPECT_TRUE(c->powerFault);
    EXPECT_FALSE(c->intrusion);
    EXPECT_EQ(reader.requestsSent(), 2u);
}

TEST_F(Sensors, ChassisStatusRefusedOrShortIsAbsentWithAReason) {
    describe("chassis unknown");
    EXPECT_FALSE(reader.readChassisStatus());
    EXPECT_THAT(reader.lastProblem(), HasSubstr("0xC1"));
    describe("chassis known");
    sim->injectFault(Fault::rawReply({0x00, 0x01, 0x00}).forCommand(chassis::netfn, chassis::getChassisStatus));
    EXPECT_FALSE(reader.readChassisStatus());
    EXPECT_THAT(reader.lastProblem(), HasSubstr("3 bytes"));
    EXPECT_TRUE(reader.readChassisStatus());
    EXPECT_TRUE(reader.lastProblem().empty());
}

TEST_F(Sensors, DcmiPowerReadingGivesTheWatts) {
    describe("dcmi-power 236 180 410 240 3600000");
    sim->advanceMs(2000);
    const std::optional<DcmiPower> p = reader.readDcmiPower();
    ASSERT_TRUE(p);
    EXPECT_EQ(p->currentWatts, 236);
    EXPECT_EQ(p->minimumWatts, 180);
    EXPECT_EQ(p->maximumWatts, 410);
    EXPECT_EQ(p->averageWatts, 240);
    EXPECT_EQ(p->periodMs, 3600000u);
    EXPECT_EQ(p->timestamp, qelSim::SimDcmi::epochBase + 2);
    EXPECT_TRUE(p->active);
    const auto asked = sim->requests(dcmi::netfn, dcmi::getPowerReading);
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].data, (qelSim::Bytes{0xDC, 0x01, 0x00, 0x00}));
}

TEST_F(Sensors, DcmiPowerIsAbsentWhenTheControllerHasNoneOrAnswersNonsense) {
    EXPECT_FALSE(reader.readDcmiPower());
    EXPECT_THAT(reader.lastProblem(), HasSubstr("0xC1"));
    describe("dcmi-power 236 180 410 240 3600000");
    sim->injectFault(Fault::rawReply({0x00, 0xDC, 0x10}).forCommand(dcmi::netfn, dcmi::getPowerReading));
    EXPECT_FALSE(reader.readDcmiPower());
    EXPECT_THAT(reader.lastProblem(), HasSubstr("3 bytes"));
    qelSim::Bytes wrongGroup(dcmi::replySize, 0x00);
    wrongGroup[1] = 0xDD;
    sim->injectFault(Fault::rawReply(wrongGroup).forCommand(dcmi::netfn, dcmi::getPowerReading));
    EXPECT_FALSE(reader.readDcmiPower());
    EXPECT_THAT(reader.lastProblem(), HasSubstr("0xDD"));
}

}  // namespace
