#include "qelSimLan.h"

#include "qelIpmiCommands.h"

namespace qelSim {

using Lock = std::lock_guard<std::recursive_mutex>;
namespace lanConfig = qelIpmi::lanConfig;
namespace channelInfo = qelIpmi::channelInfo;
namespace cc = qelIpmi::cc;

namespace {
// The IPMI Forum's IANA number, which Get Channel Info reports (7154).
const unsigned char ipmiForumIana[3] = {0xF2, 0x1B, 0x00};
}  // namespace

SimLan::SimLan(SimBmc& bmc) : bmc_(bmc) { addLanChannel(1); }

void SimLan::setChannel(unsigned char number, unsigned char medium, unsigned char protocol) {
    Lock lock(bmc_.mutex());
    channels_[number] = Channel{medium, protocol};
}

void SimLan::removeChannel(unsigned char number) {
    Lock lock(bmc_.mutex());
    channels_.erase(number);
}

void SimLan::clearChannels() {
    Lock lock(bmc_.mutex());
    channels_.clear();
}

void SimLan::addLanChannel(unsigned char number) {
    Lock lock(bmc_.mutex());
    setChannel(number, channelInfo::mediumLan8023, channelInfo::protocolIpmb);
    loadDefaults(number);
}

void SimLan::setParameter(unsigned char channel, unsigned char parameter, Bytes data,
                          unsigned char setSelector) {
    Lock lock(bmc_.mutex());
    parameters_[Key{channel, parameter, setSelector}] = std::move(data);
}

void SimLan::removeParameter(unsigned char channel, unsigned char parameter) {
    Lock lock(bmc_.mutex());
    for (auto it = parameters_.begin(); it != parameters_.end();) {
        if (std::get<0>(it->first) == channel && std::get<1>(it->first) == parameter)
            it = parameters_.erase(it);
        else
            ++it;
    }
}

void SimLan::clearParameters(unsigned char channel) {
    Lock lock(bmc_.mutex());
    for (auto it = parameters_.begin(); it != parameters_.end();) {
        if (std::get<0>(it->first) == channel)
            it = parameters_.erase(it);
        else
            ++it;
    }
}

std::optional<Bytes> SimLan::parameter(unsigned char channel, unsigned char parameter,
                                       unsigned char setSelector) const {
    Lock lock(bmc_.mutex());
    auto it = parameters_.find(Key{channel, parameter, setSelector});
    if (it == parameters_.end()) return std::nullopt;
    return it->second;
}

void SimLan::setIpv6Addresses(unsigned char channel,
                              const std::vector<SimIpv6Address>& addresses) {
    Lock lock(bmc_.mutex());
    for (unsigned char p : {lanConfig::ipv6Address, lanConfig::ipv6AddressSource,
                            lanConfig::ipv6AddressState, lanConfig::ipv6PrefixLength})
        removeParameter(channel, p);
    setParameter(channel, lanConfig::ipv6AddressCount,
                 {static_cast<unsigned char>(addresses.size())});
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        const auto set = static_cast<unsigned char>(i);
        setParameter(channel, lanConfig::ipv6Address, addresses[i].address, set);
        setParameter(channel, lanConfig::ipv6AddressSource, {addresses[i].source}, set);
        setParameter(channel, lanConfig::ipv6AddressState, {addresses[i].state}, set);
        setParameter(channel, lanConfig::ipv6PrefixLength, {addresses[i].prefix}, set);
    }
}

void SimLan::loadDefaults(unsigned char channel) {
    Lock lock(bmc_.mutex());
    clearParameters(channel);
    // IPv4 from the documentation range 192.0.2.0/24, static.
    setParameter(channel, lanConfig::ipAddress, {192, 0, 2, 10});
    setParameter(channel, lanConfig::ipAddressSource, {0x01});
    setParameter(channel, lanConfig::macAddress, {0x02, 0x00, 0x00, 0x12, 0x34, 0x56});
    setParameter(channel, lanConfig::subnetMask, {255, 255, 255, 0});
    setParameter(channel, lanConfig::defaultGateway, {192, 0, 2, 1});
    // IPv6 enabled, one address 2001:db8::10/64, from DHCPv6, active.
    const Bytes address = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10};
    setParameter(channel, lanConfig::ipv6Status, {0x00});
    setIpv6Addresses(channel, {SimIpv6Address{address, 6, 1, 64}});
    setParameter(channel, lanConfig::ipv6PrimaryAddress, address);
    setParameter(channel, lanConfig::ipv6PrimaryState, {0x01});
}

bool SimLan::isLanChannel(unsigned char number) const {
    auto it = channels_.find(number);
    return it != channels_.end() && (it->second.medium & 0x7F) == channelInfo::mediumLan8023;
}

Response SimLan::getChannelInfo(const Request& request) const {
    Lock lock(bmc_.mutex());
    if (request.data.size() != 1) return {cc::requestDataLengthInvalid};
    const unsigned char number = request.data[0] & 0x0F;
    auto it = channels_.find(number);
    if (number < channelInfo::firstChannel || number > channelInfo::lastChannel ||
        it == channels_.end())
        return {cc::invalidDataField};
    const bool lan = (it->second.medium & 0x7F) == channelInfo::mediumLan8023;
    return {cc::ok,
            number,
            static_cast<unsigned char>(it->second.medium & 0x7F),
            static_cast<unsigned char>(it->second.protocol & 0x1F),
            static_cast<unsigned char>(lan ? 0x80 : 0x00),  // multi-session on LAN, none active
            ipmiForumIana[0], ipmiForumIana[1], ipmiForumIana[2],
            0x00, 0x00};
}

Response SimLan::getLanConfigParameters(const Request& request) const {
    Lock lock(bmc_.mutex());
    if (request.data.size() != lanConfig::requestSize) return {cc::requestDataLengthInvalid};
    const unsigned char channel = request.data[0] & 0x0F;
    if (!isLanChannel(channel)) return {cc::invalidDataField};
    if (request.data[0] & lanConfig::revisionOnly) return {cc::ok, lanConfig::revision};
    const unsigned char parameter = request.data[1];
    const unsigned char setSelector = request.data[2];
    auto it = parameters_.find(Key{channel, parameter, setSelector});
    if (it == parameters_.end()) {
        for (const auto& entry : parameters_)
            if (std::get<0>(entry.first) == channel && std::get<1>(entry.first) == parameter)
                return {cc::parameterOutOfRange};
        return {cc::parameterNotSupported};
    }
    Response response = {cc::ok, lanConfig::revision};
    response.insert(response.end(), it->second.begin(), it->second.end());
    return response;
}

SimLan& SimBmc::lan() {
    Lock lock(mutex_);
    if (!lan_) lan_ = std::make_shared<SimLan>(*this);
    return *lan_;
}

void registerLanCommands(SimBmc& bmc) {
    SimLan* lan = &bmc.lan();
    bmc.setHandler(qelIpmi::netfn::app, qelIpmi::cmd::getChannelInfo,
                   [lan](const Request& r) { return lan->getChannelInfo(r); });
    bmc.setHandler(qelIpmi::netfn::transport, qelIpmi::cmd::getLanConfigParameters,
                   [lan](const Request& r) { return lan->getLanConfigParameters(r); });
}

}  // namespace qelSim
