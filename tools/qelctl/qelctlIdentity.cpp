// qelctl identity: Get Device ID decoded.
#include <cstdio>

#include "qelBladeInfo.h"
#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelctlCommands.h"

namespace qelctl {

namespace {

// The answer behind the completion code, decoded.
Json decode(const Bytes& r) {
    if (r.size() < 11) throw Failure("identity: Get Device ID: answer too short (" + std::to_string(r.size()) + " bytes)");
    Json doc;
    doc["device_id"] = r[0];
    doc["device_revision"] = r[1] & 0x0F;
    doc["provides_sdrs"] = (r[1] & 0x80) != 0;
    doc["firmware_revision"] = bcdRevision(r[2] & 0x7F, r[3]);
    doc["device_available"] = (r[2] & 0x80) == 0;
    doc["ipmi_version"] = std::to_string(r[4] & 0x0F) + "." + std::to_string(r[4] >> 4);
    doc["additional_device_support"] = r[5];
    doc["manufacturer_id"] = r[6] | (r[7] << 8) | ((r[8] & 0x0F) << 16);
    doc["product_id"] = r[9] | (r[10] << 8);
    if (r.size() >= 15) {
        char aux[9];
        std::snprintf(aux, sizeof aux, "%02x%02x%02x%02x", r[11], r[12], r[13], r[14]);
        doc["aux_firmware_revision"] = aux;
    } else {
        doc["aux_firmware_revision"] = nullptr;
    }
    return doc;
}

int print(const Output& out, const Json& doc) {
    if (out.json) {
        Output::print(doc);
        return exitOk;
    }
    Output::line("Device ID", std::to_string(doc["device_id"].get<int>()));
    Output::line("Device Revision", std::to_string(doc["device_revision"].get<int>()));
    Output::line("Firmware Revision", doc["firmware_revision"].get<std::string>());
    Output::line("IPMI Version", doc["ipmi_version"].get<std::string>());
    Output::line("Manufacturer ID", std::to_string(doc["manufacturer_id"].get<int>()));
    Output::line("Product ID", std::to_string(doc["product_id"].get<int>()) + " (" +
                                    hex8(doc["product_id"].get<int>() >> 8) + hex8(doc["product_id"].get<int>()).substr(2) + ")");
    Output::line("Aux Firmware Rev",
                 doc["aux_firmware_revision"].is_null() ? "-" : doc["aux_firmware_revision"].get<std::string>());
    if (doc.contains("device_guid")) {
        Output::line("Device GUID", doc["device_guid"].is_null() ? "-" : doc["device_guid"].get<std::string>());
        Output::line("System GUID", doc["system_guid"].is_null() ? "-" : doc["system_guid"].get<std::string>());
        Output::line("Product Line Machine", doc["product_line"].is_null() ? "-" : doc["product_line"].get<bool>() ? "yes" : "no");
        if (doc["eeprom_version_records"].is_array())
            for (const Json& r : doc["eeprom_version_records"]) Output::line("EEPROM Version Record", r.get<std::string>());
    }
    return exitOk;
}

int run(const Output& out) { return print(out, identityDocument()); }

}  // namespace

namespace {

// A GUID as the controller answers it (16 bytes, least significant first),
// in the usual text form; null when the controller does not answer.
Json guid(unsigned char cmd) {
    Bytes r;
    if (exchangeCode("identity: GUID", qelIpmi::netfn::app, cmd, {}, r) != 0 || r.size() < 16) return nullptr;
    char text[40];
    std::snprintf(text, sizeof text, "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", r[15], r[14],
                  r[13], r[12], r[11], r[10], r[9], r[8], r[7], r[6], r[5], r[4], r[3], r[2], r[1], r[0]);
    return text;
}

}  // namespace

Json deviceIdDocument(Bytes* answer) {
    const Bytes r = exchange("identity: Get Device ID", qelIpmi::netfn::app, qelIpmi::cmd::getDeviceId);
    if (answer != nullptr) *answer = r;
    return decode(r);
}

Json identityDocument() {
    Json doc = decode(exchange("identity: Get Device ID", qelIpmi::netfn::app, qelIpmi::cmd::getDeviceId));
    doc["device_guid"] = guid(0x08);   // Get Device GUID
    doc["system_guid"] = guid(0x37);   // Get System GUID
    // The two EEPROM version records (completion code first), raw.
    try {
        qelIpmi::QelIpmiEEPROMVersionInfo records;
        doc["eeprom_version_records"] = Json::array({hexBytes(Bytes(records.versionRecord[0], records.versionRecord[0] + 20)),
                                                     hexBytes(Bytes(records.versionRecord[1], records.versionRecord[1] + 20))});
    } catch (const std::exception&) {
        doc["eeprom_version_records"] = nullptr;
    }
    // The product-line decision the library makes from SMBIOS.
    try {
        QelBladeInfo blade(QelBladeInfo::unknownSlot, true);
        doc["product_line"] = blade.acSystem;
    } catch (const std::exception&) {
        doc["product_line"] = nullptr;
    }
    return doc;
}

void addIdentity(CLI::App& app, Action& action) {
    app.add_subcommand("identity", "the controller's Get Device ID, decoded")->callback([&action] { action = run; });
    // The raw answer first, as scripts have read it.
    app.add_subcommand("device-id", "Get Device ID: the raw answer, then decoded")->callback([&action] {
        action = [](const Output& out) {
            Bytes r;
            const unsigned char code =
                exchangeCode("device-id: Get Device ID", qelIpmi::netfn::app, qelIpmi::cmd::getDeviceId, {}, r);
            r.insert(r.begin(), code);
            if (!out.json) std::printf("raw: %s\n", hexBytes(r).c_str());
            if (code != 0) throw Failure("device-id: Get Device ID: " + completionCodeText(code));
            r.erase(r.begin());
            return print(out, decode(r));
        };
    });
}

}  // namespace qelctl
