// Writes the seed corpus of every fuzz target (fuzz/make-seeds.sh runs it):
//   qel-fuzz-seeds OUTDIR [SMBIOS_TABLE_DIR]
// OUTDIR/<target>/ gets the seeds: PNI images of every record version from
// the simulator's builder (for fuzz_pni and fuzz_qelctl), the real SMBIOS
// tables of SMBIOS_TABLE_DIR (files in dmidecode's --dump-bin layout) placed
// in the F-segment with the table in low memory, above 1 MiB and on an ESXi
// device, repositories and records that parse for fuzz_sdr, and one seed per
// component, mode or command for the others.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "qelSdrRecord.h"
#include "qelSimFru.h"

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;

// Every seed's name starts with "seed-": fuzz/merge-corpus.sh always keeps them.
void write(const fs::path& dir, const std::string& stem, const Bytes& bytes) {
    fs::create_directories(dir);
    const std::string name = "seed-" + stem;
    std::ofstream out(dir / name, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("cannot write " + (dir / name).string());
}

// fuzz_pni: the image length (two bytes, least significant first), the image,
// then what drives the controller and the operations.
Bytes pniSeed(const Bytes& image, const Bytes& tail = {}) {
    Bytes out{static_cast<unsigned char>(image.size()), static_cast<unsigned char>(image.size() >> 8)};
    out.insert(out.end(), image.begin(), image.end());
    out.insert(out.end(), tail.begin(), tail.end());
    return out;
}

// A record of one NIC whose area is full: fifteen addresses of each kind.
Bytes fullNicAreaImage() {
    qelSim::PniFunctionSpec nic = qelSim::PniFunctionSpec::nic({0x02, 0, 0, 0, 0x0a, 0x01});
    for (unsigned char i = 1; i <= 15; ++i) {
        nic.ipv4.push_back({10, 0, 0, i});
        qelSim::Ipv6Bytes v6{0x20, 0x01, 0x0d, 0xb8};
        v6[15] = i;
        nic.ipv6.push_back(v6);
    }
    qelSim::PniAdapterSpec adapter;
    adapter.ports.push_back(qelSim::PniPortSpec{{nic}, 4});
    return qelSim::PniImageBuilder().version(12).adapter(adapter).build().bytes;
}

void pniSeeds(const fs::path& dir) {
    using qelSim::PniImageBuilder;
    for (unsigned char version : {10, 11, 12}) {
        const Bytes image = PniImageBuilder::typical(version).build().bytes;
        write(dir, "typical-v" + std::to_string(version), pniSeed(image));
        // The same with bytes behind it: writes that fail part way, bent
        // exchanges, other MACs and address counts.
        write(dir, "typical-v" + std::to_string(version) + "-driven",
              pniSeed(image, {0x01, 0x05, 0xC0, 0x03, 0x10, 0xFF, 0x07, 0x02, 0x01, 0x01, 0x11, 0x02}));
    }
    write(dir, "no-adapters", pniSeed(PniImageBuilder().build().bytes));
    write(dir, "no-info-areas", pniSeed(PniImageBuilder::typical(12).infoAreas(false).build().bytes));
    write(dir, "announces-more-adapters", pniSeed(PniImageBuilder::typical(11).announcedAdapters(5).build().bytes));

    write(dir, "full-nic-area", pniSeed(fullNicAreaImage()));
    // A FRU with little room behind the record, so growing runs out of it.
    try {
        write(dir, "small-fru", pniSeed(PniImageBuilder::typical(12).fruSize(700).build().bytes));
    } catch (const std::length_error&) {
        // The typical record does not fit that size; the others cover it.
    }
    write(dir, "empty", pniSeed({}));
}

// fuzz_qelctl: the command (bit 7 --json), the image length (two bytes),
// the image, then what drives the controller (fuzz_qelctl.cpp). Every
// command in text and JSON with the blade's own image; the PNI commands also
// over the typical images of every record version and a full NIC area.
void qelctlSeeds(const fs::path& dir) {
    using qelSim::PniImageBuilder;
    constexpr unsigned char commands = 7;  // fuzz_qelctl.cpp's command lines
    constexpr unsigned char json = 0x80;
    for (unsigned char command = 0; command < commands; ++command) {
        const std::string stem = "command-" + std::to_string(command);
        write(dir, stem, {command, 0x00, 0x00});
        write(dir, stem + "-json", {static_cast<unsigned char>(command | json), 0x00, 0x00});
        // Some exchanges bent: a completion code, a reply cut short, bytes.
        write(dir, stem + "-bent", {command, 0x00, 0x00, 0x00, 0xA0, 0xC1, 0xA3, 0x02, 0xA1, 0x05, 0x00, 0x01,
                                    0x02, 0x03, 0x04, 0x05});
    }
    std::vector<std::pair<std::string, Bytes>> images;
    for (unsigned char version : {10, 11, 12})
        images.emplace_back("v" + std::to_string(version), PniImageBuilder::typical(version).build().bytes);
    images.emplace_back("full-nic-area", fullNicAreaImage());
    for (const auto& [name, image] : images)
        for (unsigned char command : {0, 1})
            for (unsigned char output : {0, static_cast<int>(json)}) {
                Bytes seed{static_cast<unsigned char>(command | output)};
                const Bytes rest = pniSeed(image);
                seed.insert(seed.end(), rest.begin(), rest.end());
                write(dir, "pni-" + name + (command ? "-raw" : "") + (output ? "-json" : ""), seed);
            }
}

// A 32-bit entry point for `length` bytes of `table`, announcing the
// structures a walk up to the end-of-table structure counts. The harness
// makes its checksums right.
Bytes entryPoint32(size_t length, const Bytes& table) {
    unsigned count = 0;
    for (size_t at = 0; at + 4 <= length;) {
        ++count;
        if (table[at] == 127) break;
        size_t p = at + (table[at + 1] != 0 ? table[at + 1] : 4);
        while (p + 1 < length && (table[p] != 0 || table[p + 1] != 0)) ++p;
        at = p + 2;
    }
    Bytes ep(31, 0);
    std::memcpy(ep.data(), "_SM_", 4);
    ep[0x05] = 0x1F;
    ep[0x06] = 3;
    ep[0x07] = 0;
    std::memcpy(&ep[0x10], "_DMI_", 5);
    ep[0x16] = static_cast<unsigned char>(length);
    ep[0x17] = static_cast<unsigned char>(length >> 8);
    ep[0x1C] = static_cast<unsigned char>(count);
    ep[0x1D] = static_cast<unsigned char>(count >> 8);
    ep[0x1E] = 0x30;
    return ep;
}

// fuzz_smbios: placement byte, F-segment slot, the 31-byte entry point, the
// table (fuzz_smbios.cpp).
void smbiosSeeds(const fs::path& dir, const fs::path& tables) {
    int written = 0;
    for (const auto& file : fs::directory_iterator(tables)) {
        if (file.path().extension() != ".bin") continue;
        std::ifstream in(file.path(), std::ios::binary);
        const Bytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (bytes.size() < 0x20) continue;
        Bytes ep(bytes.begin(), bytes.begin() + 31);
        if (std::memcmp(bytes.data(), "_SM3_", 5) == 0) {
            // A table behind a 64-bit entry point only: this reader knows
            // only the 32-bit one, so one is made for the table (which is
            // the firmware's own all the same).
            const size_t maximum = bytes[0x0C] | (bytes[0x0D] << 8) | (bytes[0x0E] << 16);
            ep = entryPoint32(std::min(maximum, bytes.size() - 0x20), Bytes(bytes.begin() + 0x20, bytes.end()));
        } else if (std::memcmp(bytes.data(), "_SM_", 4) != 0) {
            continue;
        }
        const size_t length = ep[0x16] | (ep[0x17] << 8);
        if (bytes.size() < 0x20 + length) continue;
        const std::string stem = file.path().stem().string();
        struct Placement {
            const char* suffix;
            unsigned char flags;  // checksums right, address as placed, + where
        } placements[] = {{"-high", 0x02 | 0x08 | 0x04}, {"-low", 0x02 | 0x08}, {"-esxi", 0x01 | 0x02 | 0x08}};
        for (const Placement& placement : placements) {
            Bytes seed{placement.flags, static_cast<unsigned char>(written % 256)};
            seed.insert(seed.end(), ep.begin(), ep.end());
            seed.insert(seed.end(), bytes.begin() + 0x20, bytes.begin() + 0x20 + static_cast<long>(length));
            // Only the first few tables in low memory and on ESXi: the
            // placements differ little, the tables much.
            if (placement.flags != (0x02 | 0x08 | 0x04) && written >= 8) continue;
            write(dir, stem + placement.suffix, seed);
        }
        ++written;
    }
    std::cout << "smbios: " << written << " tables\n";
}

// An input as FuzzedDataProvider takes it apart: bytes from the front,
// integers from the back (the last byte first, most significant first).
class ProviderInput {
public:
    // A value of ConsumeIntegralInRange(min, max).
    ProviderInput& integer(long long min, long long max, long long value) {
        unsigned long long range = static_cast<unsigned long long>(max - min);
        unsigned long long offset = static_cast<unsigned long long>(value - min);
        std::vector<unsigned char> bytes;
        for (; range > 0; range >>= 8, offset >>= 8) bytes.push_back(static_cast<unsigned char>(offset));
        back_.insert(back_.end(), bytes.rbegin(), bytes.rend());
        return *this;
    }
    ProviderInput& byte(unsigned char value) { return integer(0, 255, value); }
    ProviderInput& flag(bool value) { return byte(value ? 1 : 0); }
    ProviderInput& bytes(const Bytes& value) {
        front_.insert(front_.end(), value.begin(), value.end());
        return *this;
    }
    // The selector byte, then the rest.
    Bytes build(unsigned char selector) const {
        Bytes out{selector};
        out.insert(out.end(), front_.begin(), front_.end());
        out.insert(out.end(), back_.rbegin(), back_.rend());
        return out;
    }

private:
    Bytes front_, back_;
};

// fuzz_sdr's sensor record from the fields someSensor() consumes.
void sensorInput(ProviderInput& in, unsigned char type, unsigned char number, unsigned char sensorType,
                 unsigned char eventType, const std::string& name, unsigned char share) {
    in.integer(1, 3, type).byte(0x20).byte(0).byte(0).byte(number).byte(0x03).byte(1).flag(false);
    in.byte(sensorType).byte(eventType).integer(0, 0xFFFF, 0x3F3F).byte(0x00).byte(0x01);
    in.integer(-512, 511, 1).integer(-512, 511, 0).integer(-8, 7, 0).integer(-8, 7, 0);
    in.byte(share).byte(0).byte(1).flag(false).byte(0xC0 | name.size());
    in.integer(0, 20, static_cast<long long>(name.size())).bytes(Bytes(name.begin(), name.end()));
}

Bytes sensorRecordBytes(unsigned char type, unsigned char number, const std::string& name) {
    qelSdr::SensorRecord s;
    s.recordId = number;
    s.recordType = type;
    s.ownerId = 0x20;
    s.sensorNumber = number;
    s.entityId = 0x03;
    s.sensorType = 0x01;
    s.eventReadingType = type == qelSdr::recordType::eventOnly ? 0x6F : 0x01;
    s.readingMask = 0x3F3F;
    s.units2 = 0x01;
    s.m = 1;
    s.shareCount = type == qelSdr::recordType::fullSensor ? 0 : 2;
    s.id = qelSdr::IdString::latin1Text(name);
    return s.toBytes();
}

// fuzz_sdr: one seed per mode, each a repository or records that read and
// parse cleanly, so the fuzzer starts from the paths that succeed.
void sdrSeeds(const fs::path& dir) {
    for (unsigned char cache = 0; cache < 2; ++cache) {
        ProviderInput in;
        in.flag(false).integer(1, 0x7FFF, 3).flag(false).integer(1, 40, 16).integer(0, 24, 3);
        in.flag(true);
        sensorInput(in, 1, 0x30, 0x01, 0x01, "CPU0 Temp", 0);
        in.byte(0x40).flag(true);
        sensorInput(in, 2, 0x40, 0x04, 0x01, "Fan", 4);
        in.byte(0x20).flag(false).byte(0x11).integer(0, 0xFF, 12).bytes({0x20, 0x00, 0x00, 0x07, 0x10, 0x01, 0,
                                                                           0, 0xC3, 'F', 'R', 'U'});
        if (cache) in.flag(false).integer(0, 3, 0);
        write(dir, cache ? "cache" : "load", in.build(cache));
    }
    ProviderInput records;
    records.integer(0, 16, 3);
    for (unsigned char type = 1; type <= 3; ++type) {
        const Bytes bytes = sensorRecordBytes(type, static_cast<unsigned char>(0x10 * type), "Sensor " + std::to_string(type));
        records.integer(0, 300, static_cast<long long>(bytes.size())).bytes(bytes).flag(false);
    }
    records.byte(0x20).byte(0x00).byte(0x10);
    write(dir, "records", records.build(2));

    ProviderInput events;
    events.integer(0, 16, 1);
    const Bytes sensor = sensorRecordBytes(1, 0x30, "CPU0 Temp");
    events.integer(0, 300, static_cast<long long>(sensor.size())).bytes(sensor).flag(false);
    // ConsumeRandomLengthString: up to a backslash and the byte after it.
    events.bytes({'a', 0x01, 0xC3, 0xA9, 0xFF, '\\', 'x'});
    const Bytes sel[] = {
        {0x01, 0x00, 0x02, 0x00, 0x00, 0x00, 0x6A, 0x20, 0x00, 0x04, 0x01, 0x30, 0x01, 0x59, 0x5A, 0x50},
        {0x02, 0x00, 0x02, 0x00, 0x00, 0x00, 0x6A, 0x41, 0x00, 0x04, 0x20, 0x4F, 0x6F, 0xA1, 0x6F, 0x70},
        {0x03, 0x00, 0xF0, 0x20, 0x00, 's', ':', ' ', 'k', 'e', 'r', 'n', 'e', 'l', ' ', 'N'},
        {0x04, 0x00, 0xF0, 0x20, 0x01, 'U', 'L', 'L', 0, 0, 0, 0, 0, 0, 0, 0},
        {0x05, 0x00, 0xC1, 0x00, 0x00, 0x00, 0x6A, 0x57, 0x01, 0x00, 1, 2, 3, 4, 5, 6},
    };
    for (const Bytes& record : sel) {
        events.integer(0, 3, 0);
        for (unsigned char b : record) events.byte(b);
        events.flag(false).integer(0, 15, 1);
    }
    write(dir, "events", events.build(3));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::cerr << "usage: qel-fuzz-seeds OUTDIR [SMBIOS_TABLE_DIR]\n";
        return 64;
    }
    const fs::path out = argv[1];
    pniSeeds(out / "fuzz_pni");
    for (unsigned char component = 0; component < 6; ++component) {
        write(out / "fuzz_ipmi_replies", "component-" + std::to_string(component), {component});
        write(out / "fuzz_ipmi_replies", "component-" + std::to_string(component) + "-bent",
              {component, 0x01, 0x00, 0x41, 0x12, 0x00, 0x00, 0x20, 0xFF, 0x60, 0x63, 0x64, 0x65});
    }
    for (unsigned char agent = 0; agent < 2; ++agent) {
        write(out / "fuzz_agents", "agent-" + std::to_string(agent), {agent});
        write(out / "fuzz_agents", "agent-" + std::to_string(agent) + "-host",
              {agent, 'e', 't', 'h', '0', 0x00, 0x0a, 0x01, 0x02, 0x03, 0x01, 0x05, 0x02, 0x03, 0x01});
    }
    qelctlSeeds(out / "fuzz_qelctl");
    write(out / "fuzz_network", "legacy", {0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07});
    write(out / "fuzz_network", "netlink", {0x01, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07});
    sdrSeeds(out / "fuzz_sdr");
    if (argc > 2) smbiosSeeds(out / "fuzz_smbios", argv[2]);
    return 0;
}
