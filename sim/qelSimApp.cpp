// Application commands (network function 0x06) of the simulated controller.
#include <memory>

#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSimBmc.h"

namespace qelSim {

Bytes SimBmc::defaultDeviceId() {
    using qelIpmi::vendorIana;
    return {
        qelIpmi::cc::ok,
        0x20,        // device id
        0x81,        // device revision 1, provides SDRs
        0x01,        // firmware revision 1: device available, major 1
        0x07,        // firmware revision 2: minor 07 (BCD)
        0x02,        // IPMI version 2.0
        0xBF,        // additional device support
        vendorIana[0], vendorIana[1], vendorIana[2],  // manufacturer id
        0x34, 0x12,  // product id 0x1234
        0x00, 0x00, 0x00, 0x47,  // auxiliary firmware revision; 'G': OEM features present
    };
}

void registerAppCommands(SimBmc& bmc) {
    // Get Device ID: the configured bytes (setDeviceId may give any length,
    // so a test can serve a short answer). The request carries no data.
    bmc.setHandler(qelIpmi::netfn::app, qelIpmi::cmd::getDeviceId, [&bmc](const Request& r) {
        if (!r.data.empty()) return Response{qelIpmi::cc::requestDataLengthInvalid};
        return bmc.deviceId();
    });

    // Get/Set BMC Global Enables: what the kernel's system-interface driver
    // asks at load time to decide between interrupts and polling. Bits 0-3
    // (receive queue interrupt, event buffer full interrupt, event buffer,
    // system event logging) are kept; the OEM bits 5-7 and reserved bit 4
    // are refused, as on controllers without OEM enables.
    auto enables = std::make_shared<unsigned char>(0x0C);  // event buffer and logging on
    bmc.setHandler(qelIpmi::netfn::app, qelIpmi::cmd::getBmcGlobalEnables,
                   [enables](const Request& r) {
                       if (!r.data.empty()) return Response{qelIpmi::cc::requestDataLengthInvalid};
                       return Response{qelIpmi::cc::ok, *enables};
                   });
    bmc.setHandler(qelIpmi::netfn::app, qelIpmi::cmd::setBmcGlobalEnables,
                   [enables](const Request& r) {
                       if (r.data.size() != 1) return Response{qelIpmi::cc::requestDataLengthInvalid};
                       if (r.data[0] & 0xF0) return Response{qelIpmi::cc::invalidDataField};
                       *enables = r.data[0];
                       return Response{qelIpmi::cc::ok};
                   });
}

}  // namespace qelSim
