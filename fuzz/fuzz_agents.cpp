// The agents: one pass (mode Once) of QelServerInfo and of QelHostAgent
// against a controller whose replies the input bends (fuzzController.h): a
// blade with its board, two NIC ports in a PNI record, the software watchdog
// and a LAN channel, as the simulated controller's default describes. The
// host's interfaces come from the input too: through the platform seam for
// QelServerInfo's inventory, through Options.inventory for the host agent.
// Both then keep the watchdog once by hand (update, reset, stop).
//
// Input: one byte picks the agent, the rest drives controller and host.
#include <net/if.h>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include "fuzzController.h"
#include "fuzzNetwork.h"
#include "fuzzPlatform.h"
#include "qelConfSpaceData.h"
#include "qelHostAgent.h"
#include "qelHostInventory.h"
#include "qelServerInfo.h"

namespace {

using qelHostInventory::Interface;
using qelHostInventory::QelHostInventory;

constexpr auto timerUse = qelIpmi::QelIpmiWatchdog::TIMER_USE_SMS_OS;

// The controller's NIC ports carry these MACs; the host's interfaces mostly
// too, so the publications find their functions.
const unsigned char portMacs[2][6] = {{0x02, 0, 0, 0, 0x0a, 0x01}, {0x02, 0, 0, 0, 0x0a, 0x02}};

QelHostInventory inventoryFrom(FuzzedDataProvider& in) {
    if (in.remaining_bytes() > 0 && in.ConsumeIntegralInRange<int>(0, 15) == 0)
        throw qelHostInventory::QelHostInventoryError("netlink socket failed: ", "fuzz", 1);
    std::vector<Interface> interfaces;
    const unsigned count = in.ConsumeIntegralInRange<unsigned>(0, 6);
    for (unsigned i = 0; i < count; ++i) {
        Interface itf;
        itf.index = in.ConsumeIntegralInRange<int>(1, 8);
        itf.name = in.ConsumeBool() ? "eth" + std::to_string(i) : in.ConsumeRandomLengthString(20);
        itf.hasMac = in.ConsumeIntegralInRange<int>(0, 7) != 0;
        const unsigned char macKind = in.ConsumeIntegralInRange<unsigned char>(0, 3);
        for (int b = 0; b < 6; ++b)
            itf.mac.bytes[b] = macKind < 2 ? portMacs[macKind][b] : in.ConsumeIntegral<unsigned char>();
        itf.mtu = 1500;
        itf.flags = in.ConsumeIntegral<unsigned short>() | (in.ConsumeBool() ? IFF_LOOPBACK : 0);
        const unsigned v4 = in.ConsumeIntegralInRange<unsigned>(0, 3);
        for (unsigned n = 0; n < v4; ++n) {
            qelHostInventory::Ipv4AddressEntry entry;
            unsigned char bytes[4] = {10, 0, 0, 0};
            bytes[2] = in.ConsumeIntegral<unsigned char>();
            bytes[3] = in.ConsumeIntegral<unsigned char>();
            entry.address = bytes;
            entry.prefixLength = in.ConsumeIntegralInRange<unsigned>(0, 40);
            entry.secondary = in.ConsumeBool();
            entry.label = in.ConsumeRandomLengthString(20);
            itf.ipv4.push_back(entry);
        }
        const unsigned v6 = in.ConsumeIntegralInRange<unsigned>(0, 18);
        for (unsigned n = 0; n < v6; ++n) {
            unsigned char bytes[16] = {0x20, 0x01, 0x0d, 0xb8};
            bytes[15] = in.ConsumeIntegral<unsigned char>();
            itf.ipv6.push_back({IPv6Address(bytes), 64, in.ConsumeIntegralInRange<unsigned>(0, 255),
                                in.ConsumeIntegral<std::uint32_t>()});
        }
        interfaces.push_back(std::move(itf));
    }
    return QelHostInventory(std::move(interfaces));
}

void keepWatchdog(QelServerInfo& agent) {
    agent.updateWatchdog();
    (void)QelServerInfo::reset_watchdog(timerUse, true);
    (void)QelServerInfo::stop_watchdog(timerUse);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    qelFuzz::SelectedInput input(data, size);
    qelFuzz::FuzzPlatform& platform = input.platform;
    const unsigned char which = input.selector;
    FuzzedDataProvider& in = input.rest;

    qelFuzz::FuzzController controller(in, 192);
    controller.describeBlade();
    qelFuzz::NetworkScript network(in);
    platform.network = &network;

    // The library keeps every agent's configuration-space object for the
    // process's lifetime (signal handlers may still reach it). A fuzzer runs
    // millions of agents in one process, so the objects are freed here once
    // their agent is gone; the library only ever holds them in its keep-list.
    QelConfSpaceData* space = nullptr;
    try {
        if (which & 1) {
            QelHostAgent::Options options;
            options.inventory = [&in] { return inventoryFrom(in); };
            options.republishSeconds = in.ConsumeIntegralInRange<unsigned>(0, 7200);
            QelHostAgent agent(options);
            space = agent.confSpace;
            agent.start(QelServerInfo::Once);
            agent.publish();
            (void)agent.status();
            keepWatchdog(agent);
        } else {
            QelServerInfo agent(QelServerInfo::Once);
            space = agent.confSpace;
            keepWatchdog(agent);
            agent.setShutdownInfo();
        }
    } catch (const std::logic_error&) {
        // The constructors' documented failures.
    }
    delete space;
    platform.network = nullptr;
    return 0;
}
