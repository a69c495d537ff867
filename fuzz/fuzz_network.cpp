// The network inventories: qelIp::QelIp over SIOCGIFCONF, the per-interface
// ioctls, getifaddrs and an rtnetlink address dump, and
// qelHostInventory::QelHostInventory over rtnetlink link and address dumps,
// all answered from the input through the platform seam (fuzzNetwork.h).
//
// Input: one byte picks the inventory, the rest is the host's answers.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <exception>
#include <string>

#include "fuzzNetwork.h"
#include "fuzzPlatform.h"
#include "qelHostInventory.h"
#include "qelIp.h"

namespace {

void legacyInventory(FuzzedDataProvider& in, qelFuzz::FuzzPlatform& platform) {
    // Both scripts outlive both inventories: a destructor closes its socket
    // through whichever script is installed then.
    qelFuzz::NetworkScript first(in);
    qelFuzz::NetworkScript second(in);
    platform.network = &first;
    try {
        qelIp::QelIp inventory;
        inventory.getIPv6AddrData();
        for (auto entry = inventory.ifParameters.begin(); entry != inventory.ifParameters.end(); ++entry)
            inventory.updateFlags(entry);
        for (unsigned int index = 0; index < 14; ++index) {
            (void)inventory.isLoopback(index);
            (void)inventory.getIpv4Address(index);
            (void)inventory.getMacAddress(index);
            const unsigned int count = inventory.getNumberOfIpv6Addresses(index);
            for (unsigned int n = 0; n <= count; ++n) (void)inventory.getIpv6AddressInfo(index, n);
        }
        platform.network = &second;
        qelIp::QelIp other;
        (void)(inventory == other);
        (void)(other == inventory);
    } catch (const qelIp::QelIpError&) {
        // What a host that cannot be read gives.
    }
    platform.network = nullptr;
}

void completeInventory(FuzzedDataProvider& in, qelFuzz::FuzzPlatform& platform) {
    qelFuzz::NetworkScript script(in);
    platform.network = &script;
    try {
        const qelHostInventory::QelHostInventory inventory;
        const qelHostInventory::QelHostInventory copy(inventory.interfaces());
        (void)(inventory == copy);
        for (const qelHostInventory::Interface& itf : inventory.interfaces()) {
            (void)inventory.find(itf.index);
            (void)inventory.findByName(itf.name);
            if (itf.hasMac) (void)inventory.findByMac(itf.mac);
            (void)itf.up();
            (void)itf.running();
            (void)itf.loopback();
            (void)itf.pointToPoint();
            if (const auto* primary = itf.primaryIpv4()) (void)(primary->address == primary->broadcast);
            for (const auto& v6 : itf.publishableIpv6()) (void)v6.address.getNumberOfLeadingOnes();
        }
    } catch (const qelHostInventory::QelHostInventoryError&) {
        // What a dump that cannot be read gives.
    }
    platform.network = nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    qelFuzz::SelectedInput input(data, size);
    if (input.selector & 1)
        completeInventory(input.rest, input.platform);
    else
        legacyInventory(input.rest, input.platform);
    return 0;
}
