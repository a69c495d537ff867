// The simulated controller's channels and the configuration of its LAN
// channels: Get Channel Info (0x06/0x42) and Get LAN Configuration Parameters
// (0x0C/0x02), including the vendor IPv6 parameters.
//
// - Channels 1 to 7 exist as configured, each with its medium and protocol
//   type. By default only channel 1 is there: 802.3 LAN with IPMB-1.0. Any
//   other channel number answers 0xCC, as a controller does for a channel it
//   does not have.
// - Parameters are kept per (channel, parameter, set selector) as the data
//   behind the revision byte. An answer is completion code 0, revision 0x11
//   (what controllers put there) and the data. A parameter the channel does
//   not have answers 0x80, a set selector it does not have 0xC9, a channel
//   that is no LAN channel 0xCC, a request that is not 4 bytes 0xC7.
// - Channel 1 starts with an IPv4 setting from the documentation range and
//   one IPv6 address (see defaults in the .cpp); a test replaces or removes
//   what it needs in a line:
//     sim->lan().setChannel(1, 7, 1);             // channel 1 is no LAN now
//     sim->lan().setParameter(2, 0xC0, {0x04});   // IPv6 disabled on 2
#ifndef QEL_SIM_LAN_H
#define QEL_SIM_LAN_H

#include <map>
#include <optional>
#include <tuple>
#include <vector>

#include "qelSimBmc.h"

namespace qelSim {

// One IPv6 address as the indexed vendor parameters 0xC8-0xCB carry it.
struct SimIpv6Address {
    Bytes address;              // 16 bytes, network order
    unsigned char source = 0;   // 0xC9
    unsigned char state = 0;    // 0xCA
    unsigned char prefix = 0;   // 0xCB
};

class SimLan {
public:
    explicit SimLan(SimBmc& bmc);

    // ---- channels (1 to 7)
    void setChannel(unsigned char number, unsigned char medium, unsigned char protocol);
    void removeChannel(unsigned char number);
    void clearChannels();
    // A channel with medium 802.3 LAN and IPMB-1.0 that carries channel 1's
    // default parameters.
    void addLanChannel(unsigned char number);

    // ---- parameters of a channel
    void setParameter(unsigned char channel, unsigned char parameter, Bytes data,
                      unsigned char setSelector = 0);
    // Removes the parameter for every set selector.
    void removeParameter(unsigned char channel, unsigned char parameter);
    void clearParameters(unsigned char channel);
    std::optional<Bytes> parameter(unsigned char channel, unsigned char parameter,
                                   unsigned char setSelector = 0) const;
    // Sets the count (0xCF) and the indexed parameters 0xC8-0xCB of every
    // address, after dropping the old indexed ones.
    void setIpv6Addresses(unsigned char channel, const std::vector<SimIpv6Address>& addresses);
    // The parameters channel 1 starts with.
    void loadDefaults(unsigned char channel);

    // ---- the handlers
    Response getChannelInfo(const Request& request) const;
    Response getLanConfigParameters(const Request& request) const;

private:
    struct Channel {
        unsigned char medium = 0;
        unsigned char protocol = 0;
    };
    using Key = std::tuple<unsigned char, unsigned char, unsigned char>;  // channel, parameter, set
    bool isLanChannel(unsigned char number) const;

    SimBmc& bmc_;
    std::map<unsigned char, Channel> channels_;
    std::map<Key, Bytes> parameters_;
};

}  // namespace qelSim

#endif
