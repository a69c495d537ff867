// qelctl inventory: this host's interfaces as the agent sees them, and what
// it publishes of each. qelctl host: the SMBIOS and OS facts it publishes.
#include <sys/stat.h>

#include <cstdio>
#include <fstream>

#include "qelHostFacts.h"
#include "qelHostInventory.h"
#include "qelSmbios.h"
#include "qelSystemInfo.h"
#include "qelctlCommands.h"

namespace qelctl {

namespace {

using qelHostInventory::Interface;

// What the host agent does with an interface, and why.
std::string publication(const Interface& itf, int& slot) {
    if (itf.loopback()) return "skipped: loopback";
    std::string what;
    if (itf.primaryIpv4() != nullptr && slot <= 4) what = "slot " + std::to_string(slot++);
    if (!itf.hasMac) return what.empty() ? "skipped: no MAC address to match a NIC" : what + "; no MAC for a NIC";
    if (itf.primaryIpv4() == nullptr && itf.publishableIpv6().empty())
        return what.empty() ? "skipped: no address" : what;
    return (what.empty() ? "" : what + "; ") + "NIC record of its MAC";
}

}  // namespace

Json inventoryDocument() {
    Json doc;
    doc["interfaces"] = Json::array();
    try {
        const qelHostInventory::QelHostInventory inventory;
        int slot = 1;
        for (const Interface& itf : inventory.interfaces()) {
            Json i;
            i["index"] = itf.index;
            i["name"] = itf.name;
            i["mac"] = itf.hasMac ? Json(macText(itf.mac.bytes)) : Json(nullptr);
            i["mtu"] = itf.mtu;
            i["up"] = itf.up();
            i["running"] = itf.running();
            i["ipv4"] = Json::array();
            for (const auto& a : itf.ipv4)
                i["ipv4"].push_back(Json{{"address", ipv4Text(a.address.octets)},
                                         {"prefix_length", a.prefixLength},
                                         {"secondary", a.secondary},
                                         {"label", a.label}});
            i["ipv6"] = Json::array();
            for (const auto& a : itf.ipv6) {
                const IPv6Address copy(a.address);  // the network-order copy is current in a copy
                i["ipv6"].push_back(Json{{"address", ipv6Text(copy.networkBytes)},
                                         {"prefix_length", a.prefixLength},
                                         {"scope", a.scope},
                                         {"publishable", a.publishable()}});
            }
            i["published"] = publication(itf, slot);
            doc["interfaces"].push_back(i);
        }
    } catch (const qelHostInventory::QelHostInventoryError& e) {
        throw Failure("inventory: " + e.errorText);
    }
    return doc;
}

namespace {

// Fills the system fields from the table the reader finds; false when it
// finds no System Information structure.
bool systemFacts(Json& doc) {
    try {
        qelSmbios::QelSmbios table;
        auto* sys = table.getFirstEntry(qelSmbios::SystemInformation);
        if (sys == nullptr) return false;
        const auto* b = reinterpret_cast<const unsigned char*>(sys);
        auto str = [&](unsigned offset) -> Json {
            if (sys->length <= offset || b[offset] == 0) return nullptr;
            return qelSmbios::QelSmbios::getSmbiosStringS(sys, b[offset]);
        };
        doc["system_manufacturer"] = str(0x04);
        doc["system_product_name"] = str(0x05);
        doc["system_serial_number"] = str(0x07);
        doc["system_family"] = str(0x1A);
        return true;
    } catch (const std::logic_error&) {
        return false;
    }
}

}  // namespace

Json hostDocument() {
    Json doc;
    const qelHostFacts::OsRelease release = qelHostFacts::readOsRelease();
    doc["os_name"] = release.displayName();
    doc["os_release"] = qelHostFacts::kernelRelease();
    try {
        qelSystemInfo::QelSystemInfo system;
        doc["kernel"] = std::string(system.unameData.sysname) + " " + system.unameData.version;
        doc["boot_time"] = system.lastBootUpTime;  // CIM date-time
    } catch (const std::exception&) {
        doc["kernel"] = nullptr;
        doc["boot_time"] = nullptr;
    }
    std::string source = "/dev/mem";
    {
        struct stat info;
        std::ifstream mem("/dev/mem", std::ios::binary);
        if (::stat("/vmfs/devices/char/mem/smbios", &info) == 0) source = "ESXi";
        else if (!mem.is_open()) source = "sysfs";
    }
    doc["system_manufacturer"] = nullptr;
    doc["system_product_name"] = nullptr;
    doc["system_serial_number"] = nullptr;
    doc["system_family"] = nullptr;
    std::string bios;
    if (systemFacts(doc)) {
        bios = qelHostFacts::biosVersion();
    } else if (source != "ESXi") {
        source = "sysfs";
        qelHostFacts::withFirmwareTables([&] {
            systemFacts(doc);
            bios = qelHostFacts::biosVersion();
        });
    }
    doc["bios_version"] = bios.empty() ? Json(nullptr) : Json(bios);
    doc["smbios_source"] = source;
    const std::string keeper = qelHostFacts::kernelIpmiWatchdog();
    doc["watchdog_keeper"] = keeper.empty() ? "qeld" : "the kernel's IPMI watchdog driver (" + keeper + ")";
    return doc;
}

namespace {

std::string orDash(const Json& v) { return v.is_null() ? "-" : v.get<std::string>(); }

}  // namespace

void addInventory(CLI::App& app, Action& action) {
    app.add_subcommand("inventory", "this host's interfaces and what the agent publishes of each")->callback([&action] {
        action = [](const Output& out) {
            const Json doc = inventoryDocument();
            if (out.json) {
                Output::print(doc);
                return static_cast<int>(exitOk);
            }
            for (const Json& i : doc["interfaces"]) {
                std::printf("%d: %s  %s  mtu %d  %s\n", i["index"].get<int>(), i["name"].get<std::string>().c_str(),
                            orDash(i["mac"]).c_str(), i["mtu"].get<int>(),
                            i["up"].get<bool>() ? (i["running"].get<bool>() ? "up" : "up, no carrier") : "down");
                for (const Json& a : i["ipv4"])
                    std::printf("    inet  %s/%d%s\n", a["address"].get<std::string>().c_str(),
                                a["prefix_length"].get<int>(), a["secondary"].get<bool>() ? " secondary" : "");
                for (const Json& a : i["ipv6"])
                    std::printf("    inet6 %s/%d%s\n", a["address"].get<std::string>().c_str(),
                                a["prefix_length"].get<int>(), a["publishable"].get<bool>() ? "" : " (not published)");
                std::printf("    agent: %s\n", i["published"].get<std::string>().c_str());
            }
            return static_cast<int>(exitOk);
        };
    });
}

void addHost(CLI::App& app, Action& action) {
    app.add_subcommand("host", "the SMBIOS and OS facts the agent publishes")->callback([&action] {
        action = [](const Output& out) {
            const Json doc = hostDocument();
            if (out.json) {
                Output::print(doc);
                return static_cast<int>(exitOk);
            }
            Output::line("OS Name", orDash(doc["os_name"]));
            Output::line("OS Release", orDash(doc["os_release"]));
            Output::line("Kernel", orDash(doc["kernel"]));
            Output::line("Boot Time (CIM)", orDash(doc["boot_time"]));
            Output::line("System Manufacturer", orDash(doc["system_manufacturer"]));
            Output::line("System Product Name", orDash(doc["system_product_name"]));
            Output::line("System Serial Number", orDash(doc["system_serial_number"]));
            Output::line("System Family", orDash(doc["system_family"]));
            Output::line("BIOS Version", orDash(doc["bios_version"]));
            Output::line("SMBIOS Source", orDash(doc["smbios_source"]));
            Output::line("Watchdog Keeper", orDash(doc["watchdog_keeper"]));
            return static_cast<int>(exitOk);
        };
    });
}

}  // namespace qelctl
