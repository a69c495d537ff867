// The sensors read out of the controller: QelSensorReader::readAll over the
// records of a repository the input fills (full, compact and event-only
// sensor records of any fields, non-linear sensors with factor ranges, any
// raw readings), while the input bends the controller's replies
// (fuzzController.h: short, oversized, any completion code, a changed byte,
// reply bytes of the input) to Get Sensor Reading, Get Sensor Thresholds and
// Get Sensor Reading Factors; then readChassisStatus and readDcmiPower over
// bent replies too. Every sample's texts and values are touched.
// Whatever comes, the reader gives samples (with a problem where a sensor
// could not be read) or throws QelSensorError for a missing controller; it
// never reads past a reply or a record.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "fuzzController.h"
#include "fuzzNetwork.h"  // the platform's network calls (none used here)
#include "fuzzPlatform.h"
#include "qelSdrRecord.h"
#include "qelSensors.h"
#include "qelSimDcmi.h"
#include "qelSimSdr.h"

namespace {

using qelFuzz::FuzzController;

std::size_t touch(const std::string& text) {
    std::size_t sum = 0;
    for (char c : text) sum += static_cast<unsigned char>(c);
    return sum;
}

qelSdr::SensorRecord someSensor(FuzzedDataProvider& in) {
    qelSdr::SensorRecord s;
    s.recordType = static_cast<uint8_t>(in.ConsumeIntegralInRange<unsigned>(1, 3));
    // Mostly the controller's own sensors, so the requests go where it answers.
    s.ownerId = in.ConsumeIntegralInRange<unsigned>(0, 7) == 0 ? in.ConsumeIntegral<uint8_t>() : 0x20;
    s.ownerLun = in.ConsumeIntegral<uint8_t>() & 0x03;
    s.sensorNumber = in.ConsumeIntegral<uint8_t>();
    s.sensorType = in.ConsumeIntegral<uint8_t>();
    // Mostly threshold sensors, the ones with the most to convert.
    s.eventReadingType = in.ConsumeBool() ? 0x01 : in.ConsumeIntegral<uint8_t>();
    s.readingMask = in.ConsumeIntegral<uint16_t>();
    s.units1 = in.ConsumeIntegral<uint8_t>();
    s.units2 = in.ConsumeIntegral<uint8_t>();
    s.units3 = in.ConsumeIntegral<uint8_t>();
    s.linearization = in.ConsumeIntegral<uint8_t>() & 0x7F;
    s.m = static_cast<int16_t>(in.ConsumeIntegralInRange<int>(-512, 511));
    s.b = static_cast<int16_t>(in.ConsumeIntegralInRange<int>(-512, 511));
    s.k1 = static_cast<int8_t>(in.ConsumeIntegralInRange<int>(-8, 7));
    s.k2 = static_cast<int8_t>(in.ConsumeIntegralInRange<int>(-8, 7));
    s.upperNonRecoverable = in.ConsumeIntegral<uint8_t>();
    s.upperCritical = in.ConsumeIntegral<uint8_t>();
    s.upperNonCritical = in.ConsumeIntegral<uint8_t>();
    s.lowerNonRecoverable = in.ConsumeIntegral<uint8_t>();
    s.lowerCritical = in.ConsumeIntegral<uint8_t>();
    s.lowerNonCritical = in.ConsumeIntegral<uint8_t>();
    s.shareCount = in.ConsumeIntegral<uint8_t>() & 0x0F;
    s.modifierType = in.ConsumeIntegral<uint8_t>() & 0x01;
    s.modifierOffset = in.ConsumeIntegral<uint8_t>() & 0x7F;
    s.id = qelSdr::IdString::latin1Text(in.ConsumeRandomLengthString(16));
    return s;
}

void fillRepository(FuzzedDataProvider& in, qelSim::SimSdr& sdr) {
    for (unsigned records = in.ConsumeIntegralInRange<unsigned>(0, 12); records > 0; --records) {
        qelSdr::SensorRecord sensor = someSensor(in);
        std::vector<qelSim::FactorRange> ranges;
        for (unsigned n = in.ConsumeIntegralInRange<unsigned>(0, 3); n > 0; --n) {
            qelSim::FactorRange f;
            f.from = in.ConsumeIntegral<uint8_t>();
            f.m = in.ConsumeIntegralInRange<int>(-512, 511);
            f.b = in.ConsumeIntegralInRange<int>(-512, 511);
            f.k1 = in.ConsumeIntegralInRange<int>(-8, 7);
            f.k2 = in.ConsumeIntegralInRange<int>(-8, 7);
            ranges.push_back(f);
        }
        (void)sdr.addSensor(std::move(sensor), in.ConsumeIntegral<uint8_t>(), std::move(ranges));
    }
}

std::size_t useSample(const qelSensors::SensorSample& s) {
    std::size_t sum = touch(s.name) + touch(s.typeName) + touch(s.units) + touch(s.problem) + s.rawStates;
    for (const std::string& text : s.states) sum += touch(text);
    // A value is a finite number, never a NaN or an infinity.
    if (s.reading && !std::isfinite(*s.reading)) __builtin_trap();
    for (const auto& t : s.thresholds)
        if (t && !std::isfinite(*t)) __builtin_trap();
    if (s.state) sum += static_cast<std::size_t>(*s.state);
    return sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    qelFuzz::SelectedInput input(data, size);
    FuzzedDataProvider& in = input.rest;
    FuzzController controller(in, 160);
    fillRepository(in, controller->sdr());
    if (in.ConsumeBool()) controller->applyDescriptionLine("dcmi-power 236 180 410 240 3600000");
    const std::vector<qelSdr::Bytes> bytes = controller->sdr().records();
    std::vector<qelSdr::SdrRecord> records;
    for (const qelSdr::Bytes& b : bytes) records.push_back(qelSdr::SdrRecord::fromBytes(b));

    std::size_t sum = 0;
    qelSensors::QelSensorReader reader;
    try {
        for (const qelSensors::SensorSample& s : reader.readAll(records)) sum += useSample(s);
    } catch (qelSensors::QelSensorError&) {
        // No controller.
    }
    if (const auto c = reader.readChassisStatus()) sum += c->powerOn + c->restorePolicy;
    sum += touch(reader.lastProblem());
    if (const auto p = reader.readDcmiPower()) sum += p->currentWatts + p->timestamp;
    sum += touch(reader.lastProblem()) + reader.requestsSent();
    (void)sum;
    return 0;
}
