// The simulated controller's configuration space: a store of numbered
// variables behind the OEM configuration-space command (0x2E/0xE0) and the
// agent connection command (0x2E/0x02).
//
// Both commands check the vendor IANA number (a wrong one answers 0xCC, as an
// OEM handler does) and the request length (0xC7). A variable the store does
// not hold answers 0x80, the "parameter not supported" code of the IPMI
// configuration-parameter commands. The agent connection state is variable
// 0x2300 itself, so the command and a read of 0x2300 always agree.
//
// Tests preset and read back variables in a line, make one variable answer a
// completion code of their choosing, or give its read reply a crafted length
// byte (the value bytes sent stay the stored ones).
#ifndef QEL_SIM_CONF_SPACE_H
#define QEL_SIM_CONF_SPACE_H

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "qelSimBmc.h"

namespace qelSim {

class SimConfSpace {
public:
    // Variable numbers with a realistic default value.
    static constexpr std::uint32_t agentConnectionVariable = 0x2300;

    // A configuration space as a freshly installed server has it: texts for
    // 0x200-0x208 and 0x20F, addresses 0x20A-0x20D, the watchdog variables
    // (software watchdog enabled, 300 s) and the agent connected.
    SimConfSpace();

    // ---- presets and read-back (no size checks: tests may store anything)
    void setVariable(std::uint32_t id, Bytes value);
    void setText(std::uint32_t id, const std::string& text);
    void setAddress(std::uint32_t id, unsigned char a, unsigned char b, unsigned char c,
                    unsigned char d);
    void setByte(std::uint32_t id, unsigned char value);
    void setWord(std::uint32_t id, std::uint16_t value);  // little-endian
    void removeVariable(std::uint32_t id);
    bool hasVariable(std::uint32_t id) const;
    std::optional<Bytes> variable(std::uint32_t id) const;
    // The stored bytes as text ("" when the variable does not exist).
    std::string text(std::uint32_t id) const;
    // How many write requests for `id` the controller accepted.
    int writeCount(std::uint32_t id) const;

    // ---- per-variable misbehaviour
    // Every read and write of `id` answers `completionCode` alone.
    void failVariable(std::uint32_t id, unsigned char completionCode);
    // Reads of `id` carry `lengthByte` in place of the value's real length.
    void claimLength(std::uint32_t id, unsigned char lengthByte);
    // Back to normal answers for `id`.
    void healVariable(std::uint32_t id);

    // ---- agent connection state (variable 0x2300)
    void setAgentState(unsigned char state);
    unsigned char agentState() const;

    // ---- command handlers
    Response handleConfigSpace(const Request& request);
    Response handleAgentConnection(const Request& request);

private:
    // The exact value size a write must carry, for the variables that have
    // one; texts take 0 to 255 bytes.
    static std::optional<std::size_t> fixedSize(std::uint32_t id);

    mutable std::mutex mutex_;
    std::map<std::uint32_t, Bytes> variables_;
    std::map<std::uint32_t, unsigned char> failures_;
    std::map<std::uint32_t, unsigned char> claimedLengths_;
    std::map<std::uint32_t, int> writes_;
};

}  // namespace qelSim

#endif
