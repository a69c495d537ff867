// A simulated management controller.
//
// SimBmc models the controller's behaviour command by command: a handler per
// (network function, command), one file per command group of the controller
// (qelSimApp.cpp for the application commands, and so on). Unknown commands
// answer completion code 0xC1, as a real controller does.
//
// It records every request exactly as the device received it (address type,
// channel, slave address, LUN, message id, network function, command, data) so
// tests can assert the bytes, and it injects faults at the device level: the
// device missing at open, failing ioctls and select, no reply, replies with a
// foreign message id, without data, with a given completion code or raw bytes,
// asynchronous messages before the answer, a wrong receive type.
//
// The controller keeps its own clock: time moves only when a test advances it,
// and timers (the watchdog countdown) run on it.
#ifndef QEL_SIM_BMC_H
#define QEL_SIM_BMC_H

#include <cstdint>
#include <deque>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace qelSim {

class SimFru;  // qelSimFru.h

class SimWatchdog;  // qelSimWatchdog.h
class SimConfSpace;  // qelSimConfSpace.h
class SimLan;  // qelSimLan.h
class SimIdentity;  // qelSimIdentity.h
class SimBoard;  // qelSimBoard.h
class SimSystemInfo;  // qelSimSystemInfo.h
class SimSdr;  // qelSimSdr.h
class SimSel;  // qelSimSel.h
class SimChassis;  // qelSimChassis.h
class SimDcmi;  // qelSimDcmi.h

using Bytes = std::vector<unsigned char>;

// One request as the device received it.
struct Request {
    int addrType = 0;
    short channel = 0;
    unsigned char slaveAddr = 0;  // IPMB only
    unsigned char lun = 0;
    long msgId = 0;
    unsigned char netFn = 0;
    unsigned char cmd = 0;
    Bytes data;
};

// What a handler answers: the response body, completion code first.
using Response = Bytes;
using Handler = std::function<Response(const Request&)>;

// A fault applied to the next exchange (or the next exchange of one command).
struct Fault {
    enum Kind {
        SendFails,         // ioctl(IPMICTL_SEND_COMMAND) fails with `errnoValue`
        NoReply,           // nothing arrives: select times out
        SelectFails,       // select fails with `errnoValue`
        SelectNotReady,    // select reports readiness but leaves the set empty
        ReceiveFails,      // ioctl(IPMICTL_RECEIVE_MSG) fails with `errnoValue`
        ForeignMsgId,      // the answer carries another message id
        EmptyReply,        // the answer carries no data at all
        CompletionCode,    // the answer is `code` alone; the handler is not run
        RawReply,          // the answer is `bytes` exactly; the handler is not run
        MessagesBefore,    // `count` messages of `recvType` (2 or 3) before the answer
        WrongRecvType,     // the answer is delivered with receive type `recvType`
        OversizeReply,     // the answer is `count` bytes long, more than any buffer
    };
    Kind kind = NoReply;
    int errnoValue = 0;
    unsigned char code = 0;
    Bytes bytes;
    int recvType = 0;
    int count = 0;
    // Applies only to this command; unset: to the next exchange of any command.
    std::optional<std::pair<unsigned char, unsigned char>> only;

    static Fault make(Kind k, int e = 0) {
        Fault f;
        f.kind = k;
        f.errnoValue = e;
        return f;
    }
    static Fault sendFails(int e) { return make(SendFails, e); }
    static Fault noReply() { return make(NoReply); }
    static Fault selectFails(int e) { return make(SelectFails, e); }
    static Fault selectNotReady() { return make(SelectNotReady); }
    static Fault receiveFails(int e) { return make(ReceiveFails, e); }
    static Fault foreignMsgId() { return make(ForeignMsgId); }
    static Fault emptyReply() { return make(EmptyReply); }
    static Fault completionCode(unsigned char c) {
        Fault f = make(CompletionCode);
        f.code = c;
        return f;
    }
    static Fault rawReply(Bytes b) {
        Fault f = make(RawReply);
        f.bytes = std::move(b);
        return f;
    }
    static Fault messagesBefore(int recvType, int count) {
        Fault f = make(MessagesBefore);
        f.recvType = recvType;
        f.count = count;
        return f;
    }
    static Fault wrongRecvType(int recvType) {
        Fault f = make(WrongRecvType);
        f.recvType = recvType;
        return f;
    }
    static Fault oversizeReply(int length) {
        Fault f = make(OversizeReply);
        f.count = length;
        return f;
    }
    Fault& forCommand(unsigned char netFn, unsigned char cmd) {
        only = std::make_pair(netFn, cmd);
        return *this;
    }
};

class SimBmc {
public:
    SimBmc();
    SimBmc(const SimBmc&) = delete;
    SimBmc& operator=(const SimBmc&) = delete;

    // ---- command handlers
    void setHandler(unsigned char netFn, unsigned char cmd, Handler handler);
    void removeHandler(unsigned char netFn, unsigned char cmd);
    // Every command of `netFn` answers 0xC1 from now on.
    void removeHandlers(unsigned char netFn);
    // Runs the handler for `request` (0xC1 when there is none). Not recorded.
    Response dispatch(const Request& request);

    // ---- traffic
    std::vector<Request> requests() const;
    std::vector<Request> requests(unsigned char netFn, unsigned char cmd) const;
    std::size_t requestCount() const;
    void clearRequests();
    // Called by the device for every request it accepts.
    void record(const Request& request);

    // ---- faults
    void injectFault(Fault fault);
    void clearFaults();
    // The first pending fault that applies to (netFn, cmd), removed.
    std::optional<Fault> takeFault(unsigned char netFn, unsigned char cmd);
    // Paths at which the device does not exist (open fails with ENOENT).
    void setMissingPaths(std::set<std::string> paths);
    void setAllPathsMissing(bool missing);
    bool pathMissing(const std::string& path) const;
    // Without real time-outs (the default) a select with nothing to receive
    // returns 0 at once, as if the 5 seconds had passed. With them, select
    // really waits out the caller's time-out.
    void setRealTimeouts(bool real);
    bool realTimeouts() const;

    // ---- devices
    // Every open the library tried, in order, whether it succeeded or not.
    void openAttempted(const std::string& path);
    std::vector<std::string> openAttempts() const;
    void deviceOpened(const std::string& path);
    void deviceClosed();
    int openDevices() const;
    std::vector<std::string> openedPaths() const;
    // How often select was called on any device: one exchange makes one call
    // per pass of the library's receive loop.
    void selectCalled(int calls = 1);
    int selectCalls() const;

    // ---- clock, in milliseconds since the controller started
    std::uint64_t nowMs() const;
    // Moves the clock on; timers due on the way fire in order.
    void advanceMs(std::uint64_t ms);
    // A timer callback gets the new time; it runs with the controller locked.
    void addTicker(std::function<void(std::uint64_t)> ticker);

    // ---- Get Device ID (completion code first, as the controller answers)
    void setDeviceId(Bytes response);
    Bytes deviceId() const;
    static Bytes defaultDeviceId();

    // ---- FRU storage and the PNI locate command (qelSimFru.h)
    SimFru& fru();

    // ---- the watchdog timer (qelSimWatchdog.h): its state and events
    SimWatchdog& watchdog();

    // ---- the configuration space (qelSimConfSpace.h): variables, agent state
    SimConfSpace& confSpace();

    // ---- the LAN channels and their configuration parameters (qelSimLan.h)
    SimLan& lan();

    // ---- EEPROM version records and the OEM feature probe (qelSimIdentity.h)
    SimIdentity& identity();

    // ---- the management board and the OS status events (qelSimBoard.h)
    SimBoard& board();

    // ---- the standard System Info Parameters (qelSimSystemInfo.h)
    SimSystemInfo& systemInfo();

    // ---- the Sensor Data Record repository and its sensors (qelSimSdr.h)
    SimSdr& sdr();
    // ---- the System Event Log (qelSimSel.h)
    SimSel& sel();
    // ---- Get Chassis Status (qelSimChassis.h)
    SimChassis& chassis();
    // ---- DCMI power reading (qelSimDcmi.h)
    SimDcmi& dcmi();

    // ---- description lines and the readable state dump (qelSimDescription.h)
    // A model registers, usually from its register function, the keywords it
    // understands in a controller description file ("keyword word...", one
    // line each) and its section of the state dump. `apply` gets the words
    // after the keyword and throws std::invalid_argument with a readable text
    // when they make no sense. The controller's own keywords and sections
    // come first.
    using KeywordFunction = std::function<void(const std::vector<std::string>& words)>;
    using DumpFunction = std::function<void(std::ostream& out)>;
    void addKeyword(const std::string& keyword, const std::string& usage, KeywordFunction apply);
    void addDumpSection(const std::string& name, DumpFunction dump);
    // Applies one line; blank lines and '#' comments do nothing. Throws
    // std::invalid_argument for an unknown keyword or bad words.
    void applyDescriptionLine(const std::string& line);
    // Every keyword with its usage text, in order of the name.
    std::vector<std::pair<std::string, std::string>> keywords() const;
    // "[section]" lines, each followed by what its dump function wrote.
    std::string dump() const;

    // Handlers and tickers run with this mutex held; it is recursive, so they
    // may use the public interface.
    std::recursive_mutex& mutex() const { return mutex_; }

private:
    mutable std::recursive_mutex mutex_;
    std::map<std::pair<unsigned char, unsigned char>, Handler> handlers_;
    std::vector<Request> requests_;
    std::deque<Fault> faults_;
    std::set<std::string> missingPaths_;
    bool allPathsMissing_ = false;
    bool realTimeouts_ = false;
    int openDevices_ = 0;
    std::vector<std::string> openedPaths_;
    std::vector<std::string> openAttempts_;
    int selectCalls_ = 0;
    std::uint64_t nowMs_ = 0;
    std::vector<std::function<void(std::uint64_t)>> tickers_;
    Bytes deviceId_;
    std::map<std::string, std::pair<std::string, KeywordFunction>> keywords_;
    std::vector<std::pair<std::string, DumpFunction>> dumpSections_;
    std::shared_ptr<SimFru> fru_;
    std::shared_ptr<SimWatchdog> watchdog_;
    std::shared_ptr<SimConfSpace> confSpace_;
    std::shared_ptr<SimLan> lan_;
    std::shared_ptr<SimIdentity> identity_;
    std::shared_ptr<SimBoard> board_;
    std::shared_ptr<SimSystemInfo> systemInfo_;
    std::shared_ptr<SimSdr> sdr_;
    std::shared_ptr<SimSel> sel_;
    std::shared_ptr<SimChassis> chassis_;
    std::shared_ptr<SimDcmi> dcmi_;
};

// Command groups; each registers its handlers on a controller.
void registerAppCommands(SimBmc& bmc);
void registerFruCommands(SimBmc& bmc);
void registerWatchdogCommands(SimBmc& bmc);
void registerConfSpaceCommands(SimBmc& bmc);
void registerLanCommands(SimBmc& bmc);
void registerIdentityCommands(SimBmc& bmc);
void registerBoardCommands(SimBmc& bmc);
void registerSystemInfoCommands(SimBmc& bmc);
void registerSdrCommands(SimBmc& bmc);
void registerChassisCommands(SimBmc& bmc);
void registerDcmiCommands(SimBmc& bmc);
// After the board and the watchdog: it takes over the Platform Event
// handler (the board still answers first) and logs the watchdog's expiries.
void registerSelCommands(SimBmc& bmc);
// Description keywords and dump sections of the watchdog, configuration
// space, FRU/PNI and LAN models (qelSimModelDescriptions.h).
void registerModelDescriptions(SimBmc& bmc);

}  // namespace qelSim

#endif
