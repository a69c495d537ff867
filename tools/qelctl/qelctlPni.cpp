// qelctl pni [--raw]: the PNI record in the controller's FRU, decoded here
// from the bytes with every checksum verified and reported (a record the
// library would refuse is still shown as far as it goes).
#include <cstdio>

#include "qelIpmiCommands.h"
#include "qelctlCommands.h"

namespace qelctl {

namespace {

bool zeroSum(const unsigned char* p, std::size_t n, unsigned initial = 0) {
    unsigned sum = initial;
    for (std::size_t i = 0; i < n; ++i) sum += p[i];
    return (sum & 0xFF) == 0;
}

// The FRU device's bytes: the PNI locate command names it and its size.
Bytes readPniFru(unsigned char& deviceId) {
    const Bytes located = exchange("pni: PNI locate", qelIpmi::netfn::oemPni, qelIpmi::cmd::pniLocate, {0xFF, 0xFF});
    if (located.size() < 3) throw Failure("pni: PNI locate: answer too short");
    deviceId = located[0];
    const unsigned capacity = located[1] | (located[2] << 8);
    Bytes fru;
    for (unsigned offset = 0; offset < capacity;) {
        const unsigned chunk = std::min(64u, capacity - offset);
        const Bytes r = exchange("pni: Read FRU Data at " + std::to_string(offset), qelIpmi::netfn::storage,
                                 qelIpmi::cmd::readFruData,
                                 {deviceId, static_cast<unsigned char>(offset & 0xFF),
                                  static_cast<unsigned char>(offset >> 8), static_cast<unsigned char>(chunk)});
        if (r.size() < 1 + chunk) throw Failure("pni: Read FRU Data at " + std::to_string(offset) + ": answer too short");
        fru.insert(fru.end(), r.begin() + 1, r.begin() + 1 + chunk);
        offset += chunk;
    }
    return fru;
}

}  // namespace

Json pniDocument(Bytes* recordBytes) {
    unsigned char deviceId = 0;
    const Bytes fru = readPniFru(deviceId);
    Json doc;
    doc["fru_device_id"] = deviceId;
    doc["fru_size"] = fru.size();
    Json problems = Json::array();
    doc["adapters"] = Json::array();
    auto done = [&]() {
        doc["checks"] = problems.empty() ? Json("ok") : problems;
        return doc;
    };
    if (fru.size() < 8 || !zeroSum(fru.data(), 8)) problems.push_back("common header checksum");
    if (fru.size() < 8) return done();
    const std::size_t area = fru[1] * 8u;
    if (area == 0 || area + 8 > fru.size()) {
        problems.push_back("no internal use area");
        return done();
    }
    if (fru[area] != 1 || fru[area + 1] != 1) problems.push_back("internal use area header");
    if (!zeroSum(&fru[area], 8)) problems.push_back("internal use area header checksum");
    const unsigned adapters = fru[area + 3];
    const std::size_t record = area + fru[area + 2] * 8u;
    if (record + 6 > fru.size()) {
        problems.push_back("record header beyond the FRU");
        return done();
    }
    const unsigned char* rh = &fru[record];
    if (rh[0] != 0xF0) problems.push_back("record type");
    if (!zeroSum(rh, 6)) problems.push_back("record header checksum");
    const unsigned version = rh[1] & 0x0F;
    doc["record_version"] = version;
    const std::size_t length = rh[2] | (rh[3] << 8);
    if (record + 6 + length > fru.size()) {
        problems.push_back("record data beyond the FRU");
        return done();
    }
    const unsigned char* data = &fru[record + 6];
    if (!zeroSum(data, length, rh[4])) problems.push_back("record data checksum");
    if (recordBytes) recordBytes->assign(rh, data + length);
    std::size_t pos = 4;
    auto fits = [&](std::size_t at, std::size_t n) { return at + n <= length; };
    for (unsigned a = 0; a < adapters && a < 8; ++a) {
        if (!fits(pos, 3) || data[pos + 1] == 0) {
            problems.push_back("adapter entry " + std::to_string(a));
            return done();
        }
        Json adapter{{"index", data[pos] & 0x1F}, {"ports", Json::array()}};
        const unsigned ports = data[pos + 2];
        pos += data[pos + 1];
        for (unsigned p = 0; p < ports; ++p) {
            if (!fits(pos, 3) || data[pos + 1] == 0 || (data[pos] & 0x1F) != p) {
                problems.push_back("port entry " + std::to_string(p) + " of adapter " + std::to_string(a));
                doc["adapters"].push_back(adapter);
                return done();
            }
            Json port{{"index", p}, {"functions", Json::array()}};
            const unsigned functions = data[pos + 2];
            pos += data[pos + 1];
            for (unsigned f = 0; f < functions; ++f) {
                const std::size_t entry = fits(pos, 3) ? data[pos + 1] * 4u : 0;
                const unsigned common = fits(pos, 3) ? data[pos + 2] : 0;
                if (entry == 0 || !fits(pos, entry) || (data[pos] & 0x1F) != f || common < 15 || common > entry) {
                    problems.push_back("function entry " + std::to_string(f));
                    port["functions"].push_back(Json{{"index", f}, {"type", nullptr}});
                    adapter["ports"].push_back(port);
                    doc["adapters"].push_back(adapter);
                    return done();
                }
                static const char* const types[] = {"NIC", "FC", "FCoE", "iSCSI", "IB"};
                std::string type;
                if (version == 10) {
                    const char* text = reinterpret_cast<const char*>(&data[pos + 14]);
                    type.assign(text, strnlen(text, common - 14));
                } else {
                    type = data[pos + 14] < 5 ? types[data[pos + 14]] : "Unknown";
                }
                Json function{{"index", f}, {"type", type}, {"mac", nullptr}, {"mac_other", nullptr},
                              {"ipv4", Json::array()}, {"ipv6", Json::array()}};
                const unsigned char* s = &data[pos + common];
                const std::size_t size = entry - common;
                if (type == "NIC" && size >= 45) {
                    function["mac"] = macText(s + 6);
                    function["mac_other"] = macText(s);
                    const unsigned n4 = s[44] & 0x0F, n6 = s[44] >> 4;
                    if (45 + 4 * n4 + 16 * n6 > size) {
                        problems.push_back("address counts beyond the area of function " + std::to_string(f));
                    } else {
                        for (unsigned i = 0; i < n4; ++i) function["ipv4"].push_back(ipv4Text(s + 45 + 4 * i));
                        for (unsigned i = 0; i < n6; ++i) function["ipv6"].push_back(ipv6Text(s + 45 + 4 * n4 + 16 * i));
                    }
                }
                port["functions"].push_back(function);
                pos += entry;
            }
            adapter["ports"].push_back(port);
        }
        doc["adapters"].push_back(adapter);
    }
    return done();
}

void addPni(CLI::App& app, Action& action) {
    auto raw = std::make_shared<bool>(false);
    auto* pni = app.add_subcommand("pni", "the PNI record: adapters, ports, functions, MACs and addresses");
    pni->add_flag("--raw", *raw, "also the record's bytes (header and data)");
    pni->callback([&action, raw] {
        action = [raw](const Output& out) {
            Bytes bytes;
            Json doc = pniDocument(&bytes);
            if (*raw) doc["raw"] = hexBytes(bytes);
            if (out.json) {
                Output::print(doc);
            } else {
                Output::line("FRU Device", std::to_string(doc["fru_device_id"].get<int>()) + " (" +
                                               std::to_string(doc["fru_size"].get<int>()) + " bytes)");
                if (doc.contains("record_version")) Output::line("Record Version", std::to_string(doc["record_version"].get<int>()));
                Output::line("Checks", doc["checks"].is_string() ? "ok" : doc["checks"].dump());
                for (const Json& a : doc["adapters"])
                    for (const Json& p : a["ports"])
                        for (const Json& f : p["functions"]) {
                            // The entry a broken record ends with has only its
                            // index and a null type: a missing key reads as
                            // null here (operator[] of a const document must
                            // not be asked for one it lacks).
                            auto field = [&f](const char* key) {
                                const auto it = f.find(key);
                                return it != f.end() ? *it : Json(nullptr);
                            };
                            std::string line = field("type").is_null() ? "?" : field("type").get<std::string>();
                            if (!field("mac").is_null()) line += "  " + field("mac").get<std::string>();
                            for (const Json& v4 : field("ipv4")) line += "  " + v4.get<std::string>();
                            for (const Json& v6 : field("ipv6")) line += "  " + v6.get<std::string>();
                            char label[64];
                            std::snprintf(label, sizeof label, "Adapter %d Port %d Fn %d", a["index"].get<int>(),
                                          p["index"].get<int>(), f["index"].get<int>());
                            Output::line(label, line);
                        }
                if (*raw) Output::line("Raw", doc["raw"].get<std::string>());
            }
            return doc["checks"].is_string() ? static_cast<int>(exitOk) : static_cast<int>(exitFailed);
        };
    });
}

}  // namespace qelctl
