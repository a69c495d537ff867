// qelctl board: blade or not, its slot and port MACs, the management
// board's own network settings, as the library decides and reads them.
#include "qelBladeInfo.h"
#include "qelctlCommands.h"

namespace qelctl {

Json boardDocument() {
    QelBladeInfo blade(QelBladeInfo::unknownSlot, true);
    Json doc;
    doc["blade_system"] = blade.bladeSystem;
    doc["product_line"] = blade.acSystem;
    doc["extended_interface"] = blade.extendedMmbInterface;
    doc["slot"] = blade.bladeSlot == QelBladeInfo::unknownSlot ? Json(nullptr) : Json(blade.bladeSlot);
    doc["ports"] = Json::array();
    for (const auto& p : blade.macAddresses) doc["ports"].push_back(Json{{"port", p.first}, {"mac", macText(p.second.bytes)}});
    if (blade.bladeSystem && (blade.mmbNetworkInfoRead || blade.getMMBNetworkInfo())) {
        const IPv6Address first(blade.mmbIpv6_1), second(blade.mmbIpv6_2);
        doc["board"] = Json{{"ipv4_address", ipv4Text(blade.mmbIpv4_1.octets)},
                            {"subnet_mask", ipv4Text(blade.mmbIpv4_3.octets)},
                            {"ipv4_address_2", ipv4Text(blade.mmbIpv4_2.octets)},
                            {"subnet_mask_2", ipv4Text(blade.mmbIpv4_4.octets)},
                            {"ipv6_addresses",
                             Json::array({Json{{"address", ipv6Text(first.networkBytes)},
                                               {"prefix_length", blade.mmbIpv6Prefix_1}},
                                          Json{{"address", ipv6Text(second.networkBytes)},
                                               {"prefix_length", blade.mmbIpv6Prefix_2}}})},
                            {"mac_address", macText(blade.mmbMacAddress.bytes)}};
    } else {
        doc["board"] = nullptr;
    }
    return doc;
}

void addBoard(CLI::App& app, Action& action) {
    app.add_subcommand("board", "blade or not, slot, port MACs, the management board's addresses")->callback([&action] {
        action = [](const Output& out) {
            const Json doc = boardDocument();
            if (out.json) {
                Output::print(doc);
                return static_cast<int>(exitOk);
            }
            Output::line("Blade System", doc["blade_system"].get<bool>() ? "yes" : "no");
            Output::line("Product Line Machine", doc["product_line"].get<bool>() ? "yes" : "no");
            Output::line("Slot", doc["slot"].is_null() ? "-" : std::to_string(doc["slot"].get<int>()));
            for (const Json& p : doc["ports"])
                Output::line("Port " + std::to_string(p["port"].get<int>()), p["mac"].get<std::string>());
            if (!doc["board"].is_null()) {
                const Json& b = doc["board"];
                Output::line("Board IP Address", b["ipv4_address"].get<std::string>() + " / " + b["subnet_mask"].get<std::string>());
                Output::line("Board MAC Address", b["mac_address"].get<std::string>());
                for (const Json& a : b["ipv6_addresses"])
                    Output::line("Board IPv6 Address", a["address"].get<std::string>() + "/" + std::to_string(a["prefix_length"].get<int>()));
            }
            return static_cast<int>(exitOk);
        };
    });
}

}  // namespace qelctl
