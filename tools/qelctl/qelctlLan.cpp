// qelctl lan: the controller's own LAN channel as the library reads it.
#include "qelAddress.h"
#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelctlCommands.h"

namespace qelctl {

namespace {

const char* sourceText(int source) {
    switch (source) {
    case 0: return "unspecified";
    case 1: return "static";
    case 2: return "DHCP";
    case 3: return "BIOS or system software";
    case 4: return "other";
    default: return "unknown";
    }
}

const char* ipv6SourceText(int source) { return source == 5 ? "static" : source == 6 ? "dynamic" : "unknown"; }

const char* ipv6StateText(int state) {
    switch (state) {
    case 0: return "active";
    case 1: return "disabled";
    case 2: return "pending";
    case 3: return "failed";
    default: return "unknown";
    }
}

}  // namespace

Json lanDocument() {
    const unsigned char channel = qelIpmi::QelIpmiLan::getLanChannelNumber(0);
    if (channel > 7) throw Failure("lan: the controller reports no LAN channel");
    // The standard parameters are read here one by one, so that a refusal
    // is reported with its completion code (the library's reader takes a
    // missing parameter for an empty one); the IPv6 list is the library's.
    auto parameter = [&](unsigned char number, std::size_t size, const char* name) {
        const Bytes r = exchange(std::string("lan: Get LAN Configuration Parameters (") + name + ")",
                                 qelIpmi::netfn::transport, qelIpmi::cmd::getLanConfigParameters,
                                 {channel, number, 0x00, 0x00});
        if (r.size() < 1 + size) throw Failure(std::string("lan: ") + name + ": answer too short");
        return Bytes(r.begin() + 1, r.begin() + 1 + static_cast<long>(size));  // behind the revision byte
    };
    Json doc;
    doc["channel"] = channel;
    doc["ipv4_address"] = ipv4Text(parameter(3, 4, "IP address").data());
    doc["ipv4_source"] = sourceText(parameter(4, 1, "IP address source")[0] & 0x0F);
    doc["subnet_mask"] = ipv4Text(parameter(6, 4, "subnet mask").data());
    doc["default_gateway"] = ipv4Text(parameter(12, 4, "default gateway").data());
    doc["mac_address"] = macText(parameter(5, 6, "MAC address").data());
    qelIpmi::QelIpmiLan lan(channel);
    lan.update();
    doc["ipv6_enabled"] = lan.ipv6Enabled;
    doc["ipv6_addresses"] = Json::array();
    for (const auto& a : lan.ipv6Addresses) {
        const IPv6Address copy(a.address);  // the network-order copy is current in a copy
        doc["ipv6_addresses"].push_back(Json{{"address", ipv6Text(copy.networkBytes)},
                                             {"prefix_length", a.prefixLength},
                                             {"source", ipv6SourceText(a.source)},
                                             {"state", ipv6StateText(a.state)}});
    }
    return doc;
}

void addLan(CLI::App& app, Action& action) {
    app.add_subcommand("lan", "the controller's LAN channel: addresses, mask, gateway, MAC")->callback([&action] {
        action = [](const Output& out) {
            const Json doc = lanDocument();
            if (out.json) {
                Output::print(doc);
                return static_cast<int>(exitOk);
            }
            Output::line("Channel", std::to_string(doc["channel"].get<int>()));
            Output::line("IP Address", doc["ipv4_address"].get<std::string>());
            Output::line("IP Address Source", doc["ipv4_source"].get<std::string>());
            Output::line("Subnet Mask", doc["subnet_mask"].get<std::string>());
            Output::line("Default Gateway IP", doc["default_gateway"].get<std::string>());
            Output::line("MAC Address", doc["mac_address"].get<std::string>());
            Output::line("IPv6", doc["ipv6_enabled"].get<bool>() ? "enabled" : "disabled");
            for (const Json& a : doc["ipv6_addresses"])
                Output::line("IPv6 Address", a["address"].get<std::string>() + "/" +
                                                 std::to_string(a["prefix_length"].get<int>()) + " (" +
                                                 a["source"].get<std::string>() + ", " + a["state"].get<std::string>() + ")");
            return static_cast<int>(exitOk);
        };
    });
}

}  // namespace qelctl
