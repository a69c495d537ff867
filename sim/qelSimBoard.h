// The simulated management board (MMB) of a blade chassis, as the blade's
// controller relays it (network function 0x30, one handler per command), and
// the OS status event that reaches it over IPMB.
//
// By default there is no board: every board command answers 0xC1 and an
// event sent over IPMB finds nobody (0xC3). Choosing a kind, or presetting
// anything of the board while the kind is none, installs an extended board.
//
// - Slot (0x18): completion code 0 and the slot once one is set; until then
//   the controller's own answer (SimIdentity, 0xC1 by default).
// - Port MACs, one at a time (0x75): request the port number; answer 0, the
//   number of ports, flags (bit 7: the MAC is valid), the MAC. A port number
//   without a record, or one listed as out of range, answers 0xC9. The number
//   of ports is the number of ports that answer, unless it is set.
// - Port MACs, legacy (0x55): 0, the record count, one 6-byte record per port
//   in port order with the MAC's bytes reversed. The list is positional (record
//   k is port k), so ports with gaps come out renumbered, as on old boards.
// - Network settings. Extended boards: 0xE8 answers the capability byte (bit
//   0 = the extended interface, on unless cleared); 0xE1 (address) and 0xE3
//   (mask) take family and index: IPv4 indexes 0 and 1, IPv6 indexes 2 and 3,
//   answer 0, family, index, the value (the IPv6 mask is built from the prefix
//   length); 0xF0 takes selector 0 or 1 and answers that MAC. Old boards know
//   none of 0xE1, 0xE3, 0xE7, 0xE8, 0xF0 (0xC1). Both kinds answer 0x80 (IPv4
//   address 0) and 0x81 (its mask).
// - Port addresses: 0xA3 (slot - 1, port - 1, IPv4) on both kinds, 0xE7
//   (slot - 1, port - 1, kind, family, address) on extended boards, stored per
//   (slot, port), both 1-based, for a test to read back.
// - OS status: a Platform Event Message over IPMB to 0x24 is recorded; one with
//   the OS status layout (04 C0 09 6F, data 1 with bit 6 set, 8F FF) also as a
//   status (data 1 without bit 6). Events to the controller itself are taken
//   (0) and recorded as events only.
// - Texts: 0xA8 chunks (chunk number in bits 7-6 of byte 0, slot - 1 below)
//   are put together until the NUL; 0xB0 (OS text) and 0xB1 (platform text)
//   carry a whole NUL-terminated text. The last complete texts are kept with
//   their command and byte 0. A chunk out of order, a non-final chunk shorter
//   than 32 bytes, or a text without its NUL answers 0xCC.
// Every command can be made unknown (0xC1), e.g. 0x75 for a board that only
// has the legacy list, 0xA8 for one that only takes 0xB0. Wrong request
// lengths answer 0xC7.
//
// Tests preset a board in a line or two:
//   auto& board = sim->board();
//   board.setSlot(3);
//   board.setPorts({{1, mac1}, {2, mac2}});
#ifndef QEL_SIM_BOARD_H
#define QEL_SIM_BOARD_H

#include <array>
#include <iosfwd>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "qelSimBmc.h"

namespace qelSim {

class SimBoard {
public:
    using Mac = std::array<unsigned char, 6>;
    using Ipv4 = std::array<unsigned char, 4>;
    using Ipv6 = std::array<unsigned char, 16>;  // network order

    enum class Kind { none, old, extended };

    // What the board received for one port.
    struct Ipv6Report {
        unsigned char kind = 0;  // 0x02 link-local, 0x03 other
        Ipv6 address{};
    };
    struct PortReport {
        std::optional<Ipv4> ipv4;      // the last IPv4 address
        unsigned char ipv4Command = 0;  // the command that brought it (0xA3 or 0xE7)
        std::vector<Ipv6Report> ipv6;  // in the order received, each once
    };
    // A complete OS or platform text.
    struct ReceivedText {
        std::string text;
        unsigned char command = 0;  // 0xA8, 0xB0 or 0xB1
        unsigned char byte0 = 0;    // byte 0 of the (first) request
    };
    struct PlatformEvent {
        int addrType = 0;
        unsigned char slaveAddr = 0;
        Bytes data;
    };

    explicit SimBoard(SimBmc& bmc);
    SimBoard(const SimBoard&) = delete;
    SimBoard& operator=(const SimBoard&) = delete;

    // ---- the board
    void setKind(Kind kind);
    Kind kind() const;
    // Bit 0 of the 0xE8 answer of an extended board.
    void setExtendedCapability(bool on);
    // The slot the 0x18 query answers; nullopt: the controller's own answer.
    void setSlot(std::optional<unsigned char> slot);
    // Whether the board knows `command` (all do, unless made unknown here or
    // by the kind).
    void setCommandKnown(unsigned char command, bool known);

    // ---- ports
    // Replaces the ports: each with a valid MAC.
    void setPorts(const std::vector<std::pair<unsigned int, Mac>>& ports);
    // Adds or replaces one port with a valid MAC.
    void setPort(unsigned int port, const Mac& mac);
    // A port whose record carries no valid MAC (flag bit 7 clear).
    void setPortWithoutMac(unsigned int port);
    // Ports that answer 0xC9 although they have a record.
    void setOutOfRangePorts(std::set<unsigned int> ports);
    // The number of ports 0x75 announces; nullopt: the ports that answer.
    void setPortCount(std::optional<unsigned char> count);

    // ---- the board's network settings
    void setIpv4(unsigned char index, const Ipv4& address, const Ipv4& mask);
    void setIpv6(unsigned char index, const Ipv6& address, unsigned int prefixLength);
    void setMac(unsigned char selector, const Mac& mac);

    // ---- what the board received
    std::map<std::pair<unsigned int, unsigned int>, PortReport> portReports() const;
    std::optional<PortReport> portReport(unsigned int slot, unsigned int port) const;
    std::vector<unsigned char> osStatuses() const;
    std::vector<PlatformEvent> platformEvents() const;
    std::optional<ReceivedText> osText() const;
    std::optional<ReceivedText> platformText() const;
    void clearReceived();

    // "board" section of the controller's state dump.
    void dump(std::ostream& out) const;

    // ---- the handlers, as registered on the controller
    Response slot(const Request& request);
    Response portMac(const Request& request);
    Response legacyPortMacs(const Request& request);
    Response capabilities(const Request& request);
    Response boardAddress(const Request& request);
    Response boardMask(const Request& request);
    Response legacyAddress(const Request& request);
    Response legacyMask(const Request& request);
    Response boardMac(const Request& request);
    Response portIpv4(const Request& request);
    Response portAddress(const Request& request);
    Response osTextChunk(const Request& request);
    Response osTextLegacy(const Request& request);
    Response platformTextRequest(const Request& request);
    Response platformEvent(const Request& request);

private:
    struct Port {
        Mac mac{};
        bool macValid = true;
    };

    // A preset makes a missing board an extended one.
    void installBoard();
    // 0xC1 when there is no board or it does not know `command`.
    bool knows(unsigned char command) const;
    bool answers(unsigned int port) const;
    unsigned int answeringPorts() const;
    Response text(const Request& request, std::optional<ReceivedText>& into);

    SimBmc& bmc_;
    Kind kind_ = Kind::none;
    bool extendedCapability_ = true;
    std::optional<unsigned char> slot_;
    std::set<unsigned char> unknownCommands_;
    std::map<unsigned int, Port> ports_;
    std::set<unsigned int> outOfRange_;
    std::optional<unsigned char> portCount_;
    Ipv4 ipv4_[2]{};
    Ipv4 ipv4Mask_[2]{};
    Ipv6 ipv6_[2]{};
    unsigned int ipv6Prefix_[2] = {0, 0};
    Mac mac_[2]{};

    std::map<std::pair<unsigned int, unsigned int>, PortReport> reports_;
    std::vector<unsigned char> osStatuses_;
    std::vector<PlatformEvent> events_;
    std::optional<ReceivedText> osText_;
    std::optional<ReceivedText> platformText_;
    // The OS text being put together from 0xA8 chunks.
    std::string assembly_;
    unsigned char assemblyByte0_ = 0;
    std::optional<unsigned int> nextChunk_;
};

}  // namespace qelSim

#endif
