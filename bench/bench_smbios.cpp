// SMBIOS reader: construction (search of a 1 MiB physical-memory image and
// copy of the table) and a full walk of the table (every type counted, every
// structure visited, its first strings read).
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "../tests/support/smbiosImage.h"
#include "qelSmbios.h"

using qelSmbios::QelSmbios;
using qelSmbios::SmbiosEntryTypes;
using qelSmbios::SmbiosStructHeader;
using namespace smbiosTest;

namespace {

// A server-sized table of about 20 KiB: firmware, system, enclosure, 64
// processors, 256 memory devices, OEM strings, end of table.
Bytes serverTable(uint16_t& structures) {
    std::vector<Bytes> parts;
    parts.push_back(structure(0, 0, {1, 2, 0, 0xE8, 3, 0x0F, 0, 0, 0, 0, 0, 0, 0, 0},
                              {"Firmware Corp.", "1.02", "01/05/2026"}));
    parts.push_back(systemInformation(0x100, {"Maker Inc.", "Server X1   ", "Rev 2", "SN-0001",
                                              "SKU-9", "Rack Family"}));
    parts.push_back(structure(3, 0x300, {1, 0x17, 2, 3, 4, 3, 3, 3, 3},
                              {"Maker Inc.", "Chassis A", "CSN-1", "TAG-1"}));
    for (int i = 0; i < 64; ++i) {
        Bytes body(0x2A - 4, 0);
        body[0] = 1;
        body[3] = 2;
        parts.push_back(structure(4, static_cast<uint16_t>(0x400 + i), body,
                                  {"CPU" + std::to_string(i), "Chip Maker"}));
    }
    for (int i = 0; i < 256; ++i) {
        Bytes body(0x28 - 4, 0);
        body[0x10 - 4] = 1;
        body[0x11 - 4] = 2;
        parts.push_back(structure(17, static_cast<uint16_t>(0x1100 + i), body,
                                  {"DIMM " + std::to_string(i), "BANK " + std::to_string(i / 8)}));
    }
    parts.push_back(structure(11, 0xB00, {8}, {"a", "b", "c", "d", "e", "f", "g", "h"}));
    parts.push_back(endOfTable(0x7F00));
    structures = static_cast<uint16_t>(parts.size());
    return concat(parts);
}

// A Linux host whose physical memory is a 1 MiB image with the entry point at
// `entryOffset` and the table at 0xE0000.
struct Host {
    explicit Host(uint64_t entryOffset) : host(dir.path()), installed(&host) {
        uint16_t structures = 0;
        const Bytes table = serverTable(structures);
        tableSize = table.size();
        writeLinuxMemory(dir.path(), entryOffset, 0xE0000, table, structures, kOneMiB);
    }
    TempDir dir;
    FakeHost host;
    ScopedPlatform installed;
    size_t tableSize = 0;
};

size_t walk(QelSmbios& s) {
    size_t visited = 0;
    for (int type = 0; type < 256; ++type) {
        const auto t = static_cast<SmbiosEntryTypes>(type);
        const unsigned int count = s.getEntryNumber(t);
        SmbiosStructHeader* e = s.getFirstEntry(t);
        for (unsigned int i = 0; i < count && e != nullptr; ++i, e = s.getNextEntry(e)) {
            for (unsigned char n = 1; n <= 2; ++n) visited += QelSmbios::getSmbiosStringS(e, n).size();
            ++visited;
        }
    }
    return visited;
}

void constructAndWalk(benchmark::State& state, uint64_t entryOffset) {
    Host host(entryOffset);
    for (auto _ : state) {
        QelSmbios s;
        benchmark::DoNotOptimize(walk(s));
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(entryOffset + host.tableSize));
    state.counters["tableBytes"] = static_cast<double>(host.tableSize);
}

// The typical place: the first slot of the F segment (960 KiB searched).
void BM_ConstructAndWalk_EntryAtF0000(benchmark::State& state) { constructAndWalk(state, 0xF0000); }
// The worst place: the last usable slot (the whole 1 MiB searched).
void BM_ConstructAndWalk_EntryAtFFFE0(benchmark::State& state) { constructAndWalk(state, 0xFFFE0); }

void BM_WalkOnly(benchmark::State& state) {
    Host host(0xF0000);
    QelSmbios s;
    for (auto _ : state) benchmark::DoNotOptimize(walk(s));
}

void BM_ConstructOnly(benchmark::State& state) {
    Host host(0xF0000);
    for (auto _ : state) {
        QelSmbios s;
        benchmark::DoNotOptimize(&s);
    }
}

}  // namespace

BENCHMARK(BM_ConstructAndWalk_EntryAtF0000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ConstructAndWalk_EntryAtFFFE0)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ConstructOnly)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_WalkOnly)->Unit(benchmark::kMicrosecond);
