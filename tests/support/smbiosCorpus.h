// Test helpers for checking the SMBIOS reader against real firmware tables:
// locating the corpus of dumps, taking a dump apart into entry point and
// table, and running dmidecode as the independent oracle and parsing what it
// prints. Free of GoogleTest; failures throw std::runtime_error.
#ifndef QEL_TEST_SMBIOS_CORPUS_H
#define QEL_TEST_SMBIOS_CORPUS_H

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "qelSmbios.h"
#include "smbiosImage.h"

namespace smbiosTest {

// Set to a directory to read the corpus from there instead of the
// repository's own copy.
constexpr const char* kCorpusEnv = "QEL_SMBIOS_TESTDATA";
// Set to 1 to let the corpus tests skip (loudly) when the corpus or dmidecode
// is missing, instead of failing.
constexpr const char* kCorpusOptionalEnv = "QEL_SMBIOS_CORPUS_OPTIONAL";

// The corpus directory: $QEL_SMBIOS_TESTDATA, or tests/data/smbios in the
// repository (the one the build names, else the one that holds `testSource`,
// a file in tests/unit/). The tables live in the repository so that a clone
// alone passes; nothing outside the checkout is looked at.
inline std::string corpusDirectory(const char* testSource) {
    if (const char* fromEnv = std::getenv(kCorpusEnv); fromEnv != nullptr && *fromEnv != 0)
        return fromEnv;
    namespace fs = std::filesystem;
#ifdef QEL_REPOSITORY_DIR
    // The build names the checkout: __FILE__ is relative when a compiler
    // cache rewrites paths, and then says nothing about where the checkout is.
    (void)testSource;
    const fs::path repository = QEL_REPOSITORY_DIR;
#else
    const fs::path repository = fs::path(testSource).parent_path().parent_path().parent_path();
#endif
    return (repository / "tests" / "data" / "smbios").lexically_normal().string();
}

inline bool corpusOptional() {
    const char* value = std::getenv(kCorpusOptionalEnv);
    return value != nullptr && std::string(value) == "1";
}

// The *.bin dumps of the corpus, sorted; empty when the directory is absent.
inline std::vector<std::string> corpusDumps(const std::string& directory) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
        if (entry.path().extension() == ".bin") names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

// The file names listed in the corpus manifest (first column, header skipped).
inline std::vector<std::string> manifestFiles(const std::string& directory) {
    std::ifstream in(directory + "/MANIFEST.tsv");
    std::vector<std::string> names;
    std::string line;
    bool header = true;
    while (std::getline(in, line)) {
        if (header) {
            header = false;
            continue;
        }
        if (!line.empty()) names.push_back(line.substr(0, line.find('\t')));
    }
    return names;
}

inline Bytes readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Counts structures the way a walker of an SMBIOS 3 table does: headers that
// fit, formatted length at least 4, the whole string set inside the table, up
// to and including the end-of-table structure.
inline uint16_t countStructures(const Bytes& table) {
    size_t position = 0;
    unsigned int count = 0;
    while (position + 4 <= table.size()) {
        const uint8_t length = table[position + 1];
        if (length < 4) break;
        size_t next = position + length;
        while (next + 1 < table.size() && (table[next] != 0 || table[next + 1] != 0)) ++next;
        next += 2;
        if (next > table.size()) break;
        ++count;
        if (table[position] == 127) break;
        position = next;
    }
    return static_cast<uint16_t>(count);
}

// A dump in `dmidecode --dump-bin` layout taken apart: the entry point the
// reader is to find (a 32-bit one, always) and the table it announces.
struct Dump {
    Bytes entryPoint;  // 0x1F bytes, or more when its length byte says so
    Bytes table;
    // The dump had only an SMBIOS 3 (64-bit) entry point, which the reader
    // does not recognise; `entryPoint` was made here from the table.
    bool madeEntryPoint = false;
};

inline Dump loadDump(const std::string& path) {
    const Bytes file = readFile(path);
    Dump dump;
    if (file.size() >= 0x20 && std::equal(file.begin(), file.begin() + 4, "_SM_")) {
        const size_t length = std::max<size_t>(kEntryPointLength, file[5]);
        const uint32_t address = getLe32(&file[0x18]);
        const uint16_t tableLength = getLe16(&file[0x16]);
        if (file.size() < length || address > file.size())
            throw std::runtime_error("truncated dump " + path);
        dump.entryPoint.assign(file.begin(), file.begin() + static_cast<long>(length));
        const size_t end = std::min<size_t>(file.size(), size_t{address} + tableLength);
        dump.table.assign(file.begin() + address, file.begin() + static_cast<long>(end));
        // A dump shorter than its table gets the missing bytes as zeros, as a
        // device would read them.
        dump.table.resize(tableLength, 0);
    } else if (file.size() >= 0x18 && std::equal(file.begin(), file.begin() + 5, "_SM3_")) {
        // SMBIOS 3 entry point: maximum table size at 0x0C (32 bits), table
        // address at 0x10 (64 bits; 0x20 in this layout).
        const uint32_t maximum = getLe32(&file[0x0C]);
        const uint32_t address = getLe32(&file[0x10]);
        if (maximum > 0xFFFF || address > file.size())
            throw std::runtime_error("SMBIOS 3 table does not fit a 2.x entry point: " + path);
        const size_t end = std::min<size_t>(file.size(), size_t{address} + maximum);
        dump.table.assign(file.begin() + address, file.begin() + static_cast<long>(end));
        dump.entryPoint = entryPoint(static_cast<uint16_t>(dump.table.size()), 0,
                                     countStructures(dump.table));
        dump.madeEntryPoint = true;
    } else {
        throw std::runtime_error("no entry point at the start of " + path);
    }
    return dump;
}

// The entry point of `dump` moved to announce its table at `tableAddress`.
inline Bytes relocatedEntryPoint(const Dump& dump, uint32_t tableAddress) {
    Bytes ep = dump.entryPoint;
    putLe32(&ep[0x18], tableAddress);
    fixEntryPointChecksums(ep.data());
    return ep;
}

// One structure as dmidecode printed it.
struct OracleStructure {
    unsigned int handle = 0;
    int type = -1;
    int length = 0;
    bool truncated = false;
    // "Key: Value" lines at the first indentation level; the value exactly as
    // printed, trailing blanks included.
    std::map<std::string, std::string> fields;
};

struct Oracle {
    bool ran = false;  // dmidecode could be run at all
    std::vector<OracleStructure> structures;
    std::string output;

    // Structures of `type` that dmidecode decoded whole.
    std::vector<const OracleStructure*> ofType(int type) const {
        std::vector<const OracleStructure*> out;
        for (const OracleStructure& s : structures)
            if (s.type == type && !s.truncated) out.push_back(&s);
        return out;
    }
};

inline bool dmidecodeAvailable() {
    return std::system("command -v dmidecode >/dev/null 2>&1") == 0;
}

// Runs dmidecode with `arguments` (a file argument is quoted by the caller)
// and parses its output.
inline Oracle runDmidecode(const std::string& arguments) {
    Oracle oracle;
    if (!dmidecodeAvailable()) return oracle;
    const std::string command = "dmidecode " + arguments + " 2>/dev/null";
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) return oracle;
    char buffer[4096];
    while (std::fgets(buffer, sizeof buffer, pipe) != nullptr) oracle.output += buffer;
    ::pclose(pipe);
    oracle.ran = true;

    size_t start = 0;
    while (start < oracle.output.size()) {
        size_t end = oracle.output.find('\n', start);
        if (end == std::string::npos) end = oracle.output.size();
        const std::string line = oracle.output.substr(start, end - start);
        start = end + 1;
        unsigned int handle = 0;
        int type = 0;
        int length = 0;
        if (std::sscanf(line.c_str(), "Handle 0x%x, DMI type %d, %d bytes", &handle, &type,
                        &length) == 3) {
            OracleStructure s;
            s.handle = handle;
            s.type = type;
            s.length = length;
            oracle.structures.push_back(s);
            continue;
        }
        if (oracle.structures.empty()) continue;
        OracleStructure& current = oracle.structures.back();
        if (line == "\t<TRUNCATED>") {
            current.truncated = true;
        } else if (line.size() > 1 && line[0] == '\t' && line[1] != '\t') {
            const size_t colon = line.find(": ");
            if (colon != std::string::npos)
                current.fields.emplace(line.substr(1, colon - 1), line.substr(colon + 2));
        }
    }
    return oracle;
}

// A string of a structure as dmidecode prints it: "Not Specified" for string
// number 0, "<BAD INDEX>" for a string the set does not have, control bytes
// and bytes above 126 as ".".
inline std::string asDmidecodePrints(qelSmbios::SmbiosStructHeader* entry, unsigned char number) {
    if (number == 0) return "Not Specified";
    const char* text = qelSmbios::QelSmbios::getSmbiosString(entry, number);
    if (text == qelSmbios::QelSmbios::empty_string || *text == 0) return "<BAD INDEX>";
    std::string out(text);
    for (char& c : out) {
        const auto u = static_cast<unsigned char>(c);
        if (u < 32 || u >= 127) c = '.';
    }
    return out;
}

}  // namespace smbiosTest

#endif
