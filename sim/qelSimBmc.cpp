#include "qelSimBmc.h"

#include "qelIpmiCommands.h"
#include "qelSimSdr.h"
#include "qelSimSystemInfo.h"

namespace qelSim {

using Lock = std::lock_guard<std::recursive_mutex>;

SimBmc::SimBmc() : deviceId_(defaultDeviceId()) {
    registerAppCommands(*this);
    registerFruCommands(*this);
    registerWatchdogCommands(*this);
    registerConfSpaceCommands(*this);
    registerLanCommands(*this);
    registerIdentityCommands(*this);
    // After the identity: the board answers the slot query once it has a slot.
    registerBoardCommands(*this);
    registerSystemInfoCommands(*this);
    registerSdrCommands(*this);
    registerSelCommands(*this);
    registerChassisCommands(*this);
    registerDcmiCommands(*this);
    // Keywords and dump sections for the models above that have none of
    // their own; after them, so their sections come last in the dump.
    registerModelDescriptions(*this);
}

void SimBmc::setHandler(unsigned char netFn, unsigned char cmd, Handler handler) {
    Lock lock(mutex_);
    handlers_[{netFn, cmd}] = std::move(handler);
}

void SimBmc::removeHandler(unsigned char netFn, unsigned char cmd) {
    Lock lock(mutex_);
    handlers_.erase({netFn, cmd});
}

void SimBmc::removeHandlers(unsigned char netFn) {
    Lock lock(mutex_);
    handlers_.erase(handlers_.lower_bound({netFn, 0}), handlers_.upper_bound({netFn, 0xFF}));
}

Response SimBmc::dispatch(const Request& request) {
    Lock lock(mutex_);
    auto it = handlers_.find({request.netFn, request.cmd});
    if (it == handlers_.end()) return {qelIpmi::cc::invalidCommand};
    Response response = it->second(request);
    // A handler that forgets the completion code would make every caller read
    // past the end; answer "unspecified" instead.
    if (response.empty()) return {qelIpmi::cc::unspecified};
    return response;
}

std::vector<Request> SimBmc::requests() const {
    Lock lock(mutex_);
    return requests_;
}

std::vector<Request> SimBmc::requests(unsigned char netFn, unsigned char cmd) const {
    Lock lock(mutex_);
    std::vector<Request> out;
    for (const Request& r : requests_)
        if (r.netFn == netFn && r.cmd == cmd) out.push_back(r);
    return out;
}

std::size_t SimBmc::requestCount() const {
    Lock lock(mutex_);
    return requests_.size();
}

void SimBmc::clearRequests() {
    Lock lock(mutex_);
    requests_.clear();
}

void SimBmc::record(const Request& request) {
    Lock lock(mutex_);
    requests_.push_back(request);
}

void SimBmc::injectFault(Fault fault) {
    Lock lock(mutex_);
    faults_.push_back(std::move(fault));
}

void SimBmc::clearFaults() {
    Lock lock(mutex_);
    faults_.clear();
}

std::optional<Fault> SimBmc::takeFault(unsigned char netFn, unsigned char cmd) {
    Lock lock(mutex_);
    for (auto it = faults_.begin(); it != faults_.end(); ++it) {
        if (!it->only || *it->only == std::make_pair(netFn, cmd)) {
            Fault f = *it;
            faults_.erase(it);
            return f;
        }
    }
    return std::nullopt;
}

void SimBmc::setMissingPaths(std::set<std::string> paths) {
    Lock lock(mutex_);
    missingPaths_ = std::move(paths);
}

void SimBmc::setAllPathsMissing(bool missing) {
    Lock lock(mutex_);
    allPathsMissing_ = missing;
}

bool SimBmc::pathMissing(const std::string& path) const {
    Lock lock(mutex_);
    return allPathsMissing_ || missingPaths_.count(path) != 0;
}

void SimBmc::setRealTimeouts(bool real) {
    Lock lock(mutex_);
    realTimeouts_ = real;
}

bool SimBmc::realTimeouts() const {
    Lock lock(mutex_);
    return realTimeouts_;
}

void SimBmc::openAttempted(const std::string& path) {
    Lock lock(mutex_);
    openAttempts_.push_back(path);
}

std::vector<std::string> SimBmc::openAttempts() const {
    Lock lock(mutex_);
    return openAttempts_;
}

void SimBmc::selectCalled(int calls) {
    Lock lock(mutex_);
    selectCalls_ += calls;
}

int SimBmc::selectCalls() const {
    Lock lock(mutex_);
    return selectCalls_;
}

void SimBmc::deviceOpened(const std::string& path) {
    Lock lock(mutex_);
    ++openDevices_;
    openedPaths_.push_back(path);
}

void SimBmc::deviceClosed() {
    Lock lock(mutex_);
    --openDevices_;
}

int SimBmc::openDevices() const {
    Lock lock(mutex_);
    return openDevices_;
}

std::vector<std::string> SimBmc::openedPaths() const {
    Lock lock(mutex_);
    return openedPaths_;
}

std::uint64_t SimBmc::nowMs() const {
    Lock lock(mutex_);
    return nowMs_;
}

void SimBmc::advanceMs(std::uint64_t ms) {
    Lock lock(mutex_);
    // Step in 100 ms ticks, the resolution of the controller's timers, so a
    // timer that expires on the way fires at its own time, not at the end.
    std::uint64_t end = nowMs_ + ms;
    while (nowMs_ < end) {
        std::uint64_t step = end - nowMs_ < 100 ? end - nowMs_ : 100;
        nowMs_ += step;
        for (auto& ticker : tickers_) ticker(nowMs_);
    }
}

void SimBmc::addTicker(std::function<void(std::uint64_t)> ticker) {
    Lock lock(mutex_);
    tickers_.push_back(std::move(ticker));
}

void SimBmc::setDeviceId(Bytes response) {
    Lock lock(mutex_);
    deviceId_ = std::move(response);
}

Bytes SimBmc::deviceId() const {
    Lock lock(mutex_);
    return deviceId_;
}

}  // namespace qelSim
