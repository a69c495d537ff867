// Shared helpers for the PNI tests: a fixture that installs a PNI image in
// the simulated controller, the FRU traffic it saw, and the syslog lines the
// library wrote.
//
// The syslog capture works by defining syslog (and the fortified
// __syslog_chk) in the test program: the library's calls bind to the
// program's definitions first. Include this header in exactly one source of
// a test program, and do not include <syslog.h> there.
#ifndef QEL_TEST_PNI_SUPPORT_H
#define QEL_TEST_PNI_SUPPORT_H

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "PniAccess.h"
#include "qelIpmi.h"
#include "qelIpmiCommands.h"
#include "qelSimDevice.h"
#include "qelSimFru.h"

namespace pniTest {

constexpr int logErr = 3;  // LOG_ERR

struct LogLine {
    int priority;
    std::string text;
};

inline std::vector<LogLine>& syslogLines() {
    static std::vector<LogLine> lines;
    return lines;
}

inline void recordSyslog(int priority, const char* format, va_list args) {
    char buffer[2048];
    std::vsnprintf(buffer, sizeof(buffer), format, args);
    syslogLines().push_back({priority & 0x07, buffer});
}

}  // namespace pniTest

extern "C" void syslog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    pniTest::recordSyslog(priority, format, args);
    va_end(args);
}

extern "C" void __syslog_chk(int priority, int, const char* format, ...) {
    va_list args;
    va_start(args, format);
    pniTest::recordSyslog(priority, format, args);
    va_end(args);
}

namespace pniTest {

using qelSim::Bytes;
using qelSim::PniImage;
using qelSim::PniImageBuilder;
using qelSim::PniLayout;
using qelSim::Request;

inline MacAddress macOf(const qelSim::Mac& bytes) {
    MacAddress mac;
    for (int i = 0; i < 6; ++i) mac.bytes[i] = bytes[i];
    return mac;
}

// The MACs of PniImageBuilder::typical(): reported (group 0x0a) and other (0x0b).
inline MacAddress typicalMac(unsigned char n, unsigned char group = 0x0a) {
    return macOf({0x02, 0x00, 0x00, 0x00, group, n});
}

inline Bytes macBytes(const MacAddress& mac) { return Bytes(mac.bytes, mac.bytes + 6); }

inline unsigned short offsetOf(const Request& r) {
    return static_cast<unsigned short>(r.data[1] | r.data[2] << 8);
}

class PniFixture : public testing::Test {
protected:
    qelSim::ScopedSimulator sim;
    PniImage image;

    void SetUp() override { syslogLines().clear(); }

    void install(const PniImageBuilder& builder) { install(builder.build()); }
    void install(PniImage built) {
        image = std::move(built);
        sim->fru().setImage(image.bytes);
    }
    void installBytes(Bytes bytes) {
        image.bytes = bytes;
        sim->fru().setImage(std::move(bytes));
    }

    Bytes fru() { return sim->fru().image(); }
    std::string problem() { return qelSim::validatePniImage(fru()); }
    std::vector<Request> fruWrites() {
        return sim->requests(qelIpmi::netfn::storage, qelIpmi::cmd::writeFruData);
    }
    std::vector<Request> fruReads() {
        return sim->requests(qelIpmi::netfn::storage, qelIpmi::cmd::readFruData);
    }
    // The data bytes that Write FRU Data requests put into [from, to).
    std::size_t bytesWrittenWithin(unsigned int from, unsigned int to) {
        std::size_t total = 0;
        for (const Request& r : fruWrites()) {
            const unsigned int at = offsetOf(r);
            if (at >= from && at < to) total += r.data.size() - 3;
        }
        return total;
    }
    const PniLayout::Function& fn(int a, int p, int f) const { return image.layout.function(a, p, f); }
    Bytes specificArea(const Bytes& bytes, const PniLayout::Function& f) const {
        return Bytes(bytes.begin() + f.specificOffset(),
                     bytes.begin() + f.specificOffset() + f.specificLength());
    }
    static std::unique_ptr<qelIpmi::QelIpmi> ipmi() {
        return std::make_unique<qelIpmi::QelIpmi>(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
    }
};

// The message inside a construction error: construction wraps its own
// error once more, so the text is
// "Error: Error: <message>(PniAccess, <line>)\n(PniAccess, 640)\n".
// Returns the message, or a description of what was wrong with the text.
inline std::string wrappedMessage(const PniAccessError& e) {
    const std::string head = "Error: Error: ";
    const std::string tail = ")\n(PniAccess, 640)\n";
    const std::string& t = e.errorText;
    if (e.fileName != "PniAccess" || e.lineNumber != 640) return "<not rethrown at line 640>";
    if (t.compare(0, head.size(), head) != 0 || t.size() < head.size() + tail.size() ||
        t.compare(t.size() - tail.size(), tail.size(), tail) != 0)
        return "<not wrapped twice: " + t + ">";
    const std::string inner = t.substr(head.size(), t.size() - head.size() - tail.size());
    const std::string::size_type at = inner.rfind("(PniAccess, ");
    if (at == std::string::npos) return "<no inner file: " + t + ">";
    const std::string line = inner.substr(at + 12);
    if (line.empty() || line.find_first_not_of("0123456789") != std::string::npos)
        return "<no inner line: " + t + ">";
    return inner.substr(0, at);
}

// Constructs a PniAccess and returns the message of the PniAccessError it
// throws ("" when construction succeeds).
inline std::string constructionError() {
    try {
        PniAccess pni;
    } catch (const PniAccessError& e) {
        return wrappedMessage(e);
    }
    return "";
}

}  // namespace pniTest

#endif
