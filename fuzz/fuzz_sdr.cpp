// The Sensor Data Record repository and what is read out of it, and the
// event texts the sensor names go into:
//  - QelSdrRepository::load against a controller whose repository the input
//    fills (sensor records of any fields, other records of any type and
//    bytes, an ID stride, a read limit) and whose replies it bends
//    (fuzzController.h: short, oversized, any completion code - 0xCA and 0xC5
//    among them -, a changed byte, reply bytes of the input), then the sensor
//    names of what it loaded;
//  - the same with the disk cache: a load that writes it, the file then cut
//    short, overwritten in places or replaced by the input's bytes, and a
//    load that must take it or read the repository again;
//  - records of arbitrary bytes: SdrRecord::fromBytes, SensorRecord's
//    fromRecord and names(), the ID string, sensorNames() and findSensor();
//  - System Event Log records of arbitrary bytes decoded as the forwarder
//    does it (SelRecord::fromBytes, the sensor's name looked up in names of
//    arbitrary records, decode() and PanicAssembler's feed and flush), and
//    escapeText() on arbitrary bytes.
// Whatever comes, the library answers or throws its error (QelSdrError,
// QelIpmiError); it never reads past a reply or a record.
//
// Input: the first byte picks one of the four, the rest drives it.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "fuzzController.h"
#include "fuzzNetwork.h"  // the platform's network calls (none used here)
#include "fuzzPlatform.h"
#include "qelIpmi.h"
#include "qelSdr.h"
#include "qelSdrRecord.h"
#include "qelSelRecord.h"
#include "qelSelText.h"
#include "qelSimSdr.h"

namespace {

using qelFuzz::FuzzController;

// Reading every byte of a result, so a string built from bytes past the end
// of a buffer shows up under the sanitizer here and not in a later input.
std::size_t touch(const std::string& text) {
    std::size_t sum = 0;
    for (char c : text) sum += static_cast<unsigned char>(c);
    return sum;
}

qelSdr::SensorRecord someSensor(FuzzedDataProvider& in) {
    qelSdr::SensorRecord s;
    s.recordType = static_cast<uint8_t>(in.ConsumeIntegralInRange<unsigned>(1, 3));
    s.ownerId = in.ConsumeIntegral<uint8_t>();
    s.ownerLun = in.ConsumeIntegral<uint8_t>() & 0x03;
    s.channel = in.ConsumeIntegral<uint8_t>() & 0x0F;
    s.sensorNumber = in.ConsumeIntegral<uint8_t>();
    s.entityId = in.ConsumeIntegral<uint8_t>();
    s.entityInstance = in.ConsumeIntegral<uint8_t>() & 0x7F;
    s.logicalEntity = in.ConsumeBool();
    s.sensorType = in.ConsumeIntegral<uint8_t>();
    s.eventReadingType = in.ConsumeIntegral<uint8_t>();
    s.readingMask = in.ConsumeIntegral<uint16_t>();
    s.units1 = in.ConsumeIntegral<uint8_t>();
    s.units2 = in.ConsumeIntegral<uint8_t>();
    s.m = static_cast<int16_t>(in.ConsumeIntegralInRange<int>(-512, 511));
    s.b = static_cast<int16_t>(in.ConsumeIntegralInRange<int>(-512, 511));
    s.k1 = static_cast<int8_t>(in.ConsumeIntegralInRange<int>(-8, 7));
    s.k2 = static_cast<int8_t>(in.ConsumeIntegralInRange<int>(-8, 7));
    s.shareCount = in.ConsumeIntegral<uint8_t>() & 0x0F;
    s.modifierType = in.ConsumeIntegral<uint8_t>() & 0x03;
    s.modifierOffset = in.ConsumeIntegral<uint8_t>() & 0x7F;
    s.entityInstanceIncrements = in.ConsumeBool();
    s.id.typeLength = in.ConsumeIntegral<uint8_t>();
    s.id.raw = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<std::size_t>(0, 20));
    return s;
}

void fillRepository(FuzzedDataProvider& in, qelSim::SimSdr& sdr) {
    sdr.setPresent(!in.ConsumeBool() || in.ConsumeBool());
    sdr.setIdStride(in.ConsumeIntegralInRange<unsigned>(1, 0x7FFF));
    sdr.setMaxRead(in.ConsumeBool() ? 0 : in.ConsumeIntegralInRange<unsigned>(1, 40));
    for (unsigned records = in.ConsumeIntegralInRange<unsigned>(0, 24); records > 0; --records) {
        if (in.ConsumeBool()) {
            qelSdr::SensorRecord sensor = someSensor(in);
            (void)sdr.addSensor(std::move(sensor), in.ConsumeIntegral<uint8_t>());
        } else {
            const auto type = in.ConsumeIntegral<uint8_t>();
            (void)sdr.addRecord(type, in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<std::size_t>(0, 0xFF)));
        }
    }
}

std::size_t useLoaded(const qelSdr::QelSdrRepository& repository) {
    std::vector<std::string> problems;
    std::size_t sum = repository.records().size() + repository.requestsSent();
    for (const qelSdr::SensorName& name : repository.sensorNames(&problems)) sum += touch(name.escaped());
    for (const std::string& text : problems) sum += touch(text);
    for (const std::string& text : repository.notes()) sum += touch(text);
    return sum;
}

bool loads(qelSdr::QelSdrRepository& repository) {
    try {
        repository.load();
        return true;
    } catch (qelSdr::QelSdrError&) {
        // A refused or malformed answer, a repository that does not add up.
    } catch (qelIpmi::QelIpmiError&) {
        // No device, or a device that fails.
    }
    return false;
}

void loadRepository(FuzzedDataProvider& in) {
    FuzzController controller(in, 160);
    fillRepository(in, controller->sdr());
    qelSdr::QelSdrRepository repository;
    if (loads(repository)) (void)useLoaded(repository);
}

// The cache file: written by one load, then damaged by the input, read by
// the next.
void loadThroughCache(FuzzedDataProvider& in, qelFuzz::FuzzPlatform& platform) {
    const std::string directory = "/var/cache/qeld/sdr";
    FuzzController controller(in, 192);
    fillRepository(in, controller->sdr());
    qelSdr::QelSdrRepository first(directory);
    if (in.ConsumeBool()) first.setControllerIdentity(in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<std::size_t>(0, 20)));
    (void)loads(first);

    const std::string path = first.cachePath();
    std::vector<char> file;
    {
        std::ifstream read(path, std::ios::binary);
        file.assign(std::istreambuf_iterator<char>(read), std::istreambuf_iterator<char>());
    }
    switch (in.ConsumeIntegralInRange<unsigned>(0, 3)) {
    case 0: break;  // as it was written
    case 1: file.resize(in.ConsumeIntegralInRange<std::size_t>(0, file.size())); break;
    case 2:
        for (unsigned changes = in.ConsumeIntegralInRange<unsigned>(1, 8); changes > 0 && !file.empty(); --changes)
            file[in.ConsumeIntegralInRange<std::size_t>(0, file.size() - 1)] = in.ConsumeIntegral<char>();
        break;
    default: {
        const std::string bytes = in.ConsumeRandomLengthString(4096);
        file.assign(bytes.begin(), bytes.end());
        break;
    }
    }
    std::filesystem::create_directories(platform.root() + directory);
    std::ofstream(platform.root() + directory + "/" + qelSdr::QelSdrRepository::cacheFileName, std::ios::binary)
        .write(file.data(), static_cast<std::streamsize>(file.size()));

    qelSdr::QelSdrRepository second(directory);
    second.setControllerIdentity(first.controllerIdentity());
    if (loads(second)) (void)useLoaded(second);
    std::error_code ignored;
    std::filesystem::remove_all(platform.root() + "/var", ignored);
}

std::vector<qelSdr::SdrRecord> someRecords(FuzzedDataProvider& in, std::size_t* sum) {
    std::vector<qelSdr::SdrRecord> records;
    for (unsigned count = in.ConsumeIntegralInRange<unsigned>(0, 16); count > 0; --count) {
        qelSdr::Bytes bytes = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<std::size_t>(0, 300));
        // Mostly a header that agrees with the body, so the record parsers
        // behind it run.
        if (bytes.size() > qelSdr::header::size && bytes.size() <= qelSdr::maxRecordSize && in.ConsumeBool())
            bytes[qelSdr::header::length] = static_cast<uint8_t>(bytes.size() - qelSdr::header::size);
        try {
            qelSdr::SdrRecord record = qelSdr::SdrRecord::fromBytes(std::move(bytes));
            *sum += qelSdr::recordTypeName(record.type)[0];
            if (auto id = record.idString()) *sum += touch(id->escaped()) + id->raw.size();
            try {
                const qelSdr::SensorRecord sensor = qelSdr::SensorRecord::fromRecord(record);
                for (const qelSdr::SensorName& name : sensor.names()) *sum += touch(name.escaped());
            } catch (qelSdr::QelSdrError&) {
                // Not a sensor record, or too short for its fields.
            }
            records.push_back(std::move(record));
        } catch (qelSdr::QelSdrError&) {
            // Shorter than a header, or a length that disagrees with it.
        }
    }
    return records;
}

void parseRecords(FuzzedDataProvider& in) {
    std::size_t sum = 0;
    const std::vector<qelSdr::SdrRecord> records = someRecords(in, &sum);
    std::vector<std::string> problems;
    const std::vector<qelSdr::SensorName> names = qelSdr::sensorNames(records, &problems);
    for (const std::string& text : problems) sum += touch(text);
    while (in.remaining_bytes() > 0) {
        const auto owner = in.ConsumeIntegral<uint8_t>();
        const auto lun = in.ConsumeIntegral<uint8_t>();
        if (const qelSdr::SensorName* found = qelSdr::findSensor(names, owner, lun, in.ConsumeIntegral<uint8_t>()))
            sum += touch(found->escaped());
    }
    (void)sum;
}

void decodeEvents(FuzzedDataProvider& in) {
    std::size_t sum = 0;
    const std::vector<qelSdr::SdrRecord> records = someRecords(in, &sum);
    const std::vector<qelSdr::SensorName> names = qelSdr::sensorNames(records);
    sum += touch(qelSdr::escapeText(in.ConsumeRandomLengthString(64)));
    qelSel::PanicAssembler assembler;
    auto take = [&sum](const std::vector<qelSel::DecodedEvent>& events) {
        for (const qelSel::DecodedEvent& event : events) {
            sum += touch(event.text) + event.recordIds.size();
            for (const qelSel::JournalField& field : event.fields) sum += touch(field.value);
        }
    };
    while (in.remaining_bytes() > 0) {
        qelSel::RawRecord raw{};
        // Mostly the kernel's panic records and system events, the records
        // with the most to take apart.
        const unsigned shape = in.ConsumeIntegralInRange<unsigned>(0, 3);
        for (auto& b : raw) b = in.ConsumeIntegral<uint8_t>();
        if (shape == 1) raw[2] = qelSel::systemEventRecord;
        if (shape == 2) raw[2] = 0xF0;
        const qelSel::SelRecord record = qelSel::SelRecord::fromBytes(raw);
        std::string name;
        if (record.isSystemEvent()) {
            if (const qelSdr::SensorName* found = qelSdr::findSensor(
                    names, static_cast<uint8_t>(record.generatorId & 0xFF),
                    static_cast<uint8_t>((record.generatorId >> 8) & 0x03), record.sensorNumber))
                name = found->name;
        }
        if (in.ConsumeBool()) {
            take({qelSel::decode(record, name)});
        } else {
            take(assembler.feed(record, name));
        }
        if (in.ConsumeIntegralInRange<unsigned>(0, 15) == 0) take(assembler.flush());
    }
    take(assembler.flush());
    (void)sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    qelFuzz::SelectedInput input(data, size);
    switch (input.selector % 4) {
    case 0: loadRepository(input.rest); break;
    case 1: loadThroughCache(input.rest, input.platform); break;
    case 2: parseRecords(input.rest); break;
    default: decodeEvents(input.rest); break;
    }
    return 0;
}
