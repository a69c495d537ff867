// Text forms of the simulated controller: the controller description file, the
// fault and request lines of the control tools, and helpers for the models'
// own keywords.
//
// A description is one "keyword word..." line per setting, '#' starts a
// comment line, for example
//   # the controller of the test rack
//   deviceid 00 20 81 01 07 02 bf d9 7e 00 34 12 00 00 00 47
//   real-timeouts off
// The controller itself understands deviceid, real-timeouts, missing-path,
// all-paths-missing, advance, fault and clear-faults; every model adds its
// own with SimBmc::addKeyword (SimBmc::keywords() lists them all).
#ifndef QEL_SIM_DESCRIPTION_H
#define QEL_SIM_DESCRIPTION_H

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "qelSimBmc.h"

namespace qelSim {

// ---- helpers for keyword functions; each throws std::invalid_argument with
// a text that names the bad word.
std::vector<std::string> splitWords(const std::string& line);
// Bytes in hex ("0a", "0x0a", "A"), words[from] to the end.
Bytes parseHexBytes(const std::vector<std::string>& words, std::size_t from = 0);
unsigned char parseHexByte(const std::string& word);
// A decimal number not above `max`.
std::uint64_t parseNumber(const std::string& word, std::uint64_t max);
// "on"/"off" (also "1"/"0", "yes"/"no", "true"/"false").
bool parseOnOff(const std::string& word);
// An errno name ("EIO") or its number.
int parseErrno(const std::string& word);
// Lower-case hex bytes separated by single spaces.
std::string hexText(const Bytes& bytes);
// A text in double quotes for the dump: '"' and '\\' escaped, bytes outside
// printable ASCII as \xNN.
std::string quotedText(const std::string& text);

// Applies every line of `in` to `bmc`. Throws std::invalid_argument
// "<source>:<line>: <what was wrong>" at the first bad line.
void loadDescription(SimBmc& bmc, std::istream& in, const std::string& source);

// ---- faults as text: "KIND [ARGS] [for NETFN CMD]", KIND one of
// send-fails ERRNO, no-reply, select-fails ERRNO, select-not-ready,
// receive-fails ERRNO, foreign-msgid, empty-reply, completion-code CC,
// raw-reply BYTE..., messages-before RECVTYPE COUNT, wrong-recv-type TYPE,
// oversize-reply LENGTH. NETFN, CMD, CC and BYTE are hex.
Fault parseFault(const std::vector<std::string>& words);
extern const char* const faultUsage;

// ---- recorded requests, one line each:
// "addr 0c ch 0f sa 00 lun 0 msgid 1804289383 netfn 06 cmd 01 data d9 7e 00"
std::string formatRequest(const Request& request);
// The inverse of formatRequest; throws std::invalid_argument.
Request parseRequest(const std::string& line);

}  // namespace qelSim

#endif
