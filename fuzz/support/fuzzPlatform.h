// The host a fuzz target presents to the library through the platform seam.
//
// - Fixed paths lie under a directory of the process's own (made once, with
//   an os-release, removed at exit); nothing of the real host is read.
// - uname, the host name, the clock and sysinfo are fixed values; the clock
//   moves on by a fixed step at every reading, so time gates open and the
//   run is the same every time for the same input.
// - Waits, alarms and syslog return at once and do nothing: a pass of the
//   agent's loop never sleeps.
// - The network calls answer from a NetworkScript (fuzzNetwork.h) when one is
//   installed, and fail otherwise.
#ifndef QEL_FUZZ_PLATFORM_H
#define QEL_FUZZ_PLATFORM_H

#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

#include "qelPlatform.h"
#include "scopedPlatform.h"

namespace qelFuzz {

class NetworkScript;  // fuzzNetwork.h

// A directory for the fixed paths, made on first use and removed at exit.
inline const std::string& fuzzRoot() {
    static const std::string root = [] {
        std::string pattern = (std::filesystem::temp_directory_path() / "qelFuzzXXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) std::abort();
        std::filesystem::create_directories(pattern + "/etc");
        std::ofstream(pattern + "/etc/os-release") << "PRETTY_NAME=\"Fuzz Linux 1\"\nNAME=Fuzz\n";
        static struct Remove {
            std::string path;
            ~Remove() {
                std::error_code ignored;
                std::filesystem::remove_all(path, ignored);
            }
        } remove{pattern};
        return pattern;
    }();
    return root;
}

class FuzzPlatform : public qelPlatform::Platform {
public:
    FuzzPlatform() { setRoot(fuzzRoot()); }

    // What uname names; "Linux" unless a target says otherwise.
    std::string sysname = "Linux";
    // The network calls' answers; nullptr: every network call fails.
    NetworkScript* network = nullptr;

    int uname(struct utsname* out) const override {
        std::memset(out, 0, sizeof *out);
        std::strncpy(out->sysname, sysname.c_str(), sizeof out->sysname - 1);
        std::strncpy(out->nodename, "fuzzhost", sizeof out->nodename - 1);
        std::strncpy(out->release, "6.1.0-fuzz", sizeof out->release - 1);
        std::strncpy(out->version, "#1 SMP PREEMPT_DYNAMIC", sizeof out->version - 1);
        std::strncpy(out->machine, "x86_64", sizeof out->machine - 1);
        return 0;
    }
    int gethostname(char* name, size_t length) const override {
        std::strncpy(name, "fuzzhost", length);
        return 0;
    }
    // Every reading is 1000 s later than the one before: every gate of the
    // library (300 s, 120 s, the hour of republication) is open at each look.
    time_t time() const override {
        clock_ += 1000;
        return clock_;
    }
    int clockGettime(clockid_t, struct timespec* out) const override {
        clock_ += 1000;
        out->tv_sec = clock_;
        out->tv_nsec = 0;
        return 0;
    }
    int sysinfo(struct sysinfo* out) const override {
        std::memset(out, 0, sizeof *out);
        out->uptime = 12345;
        return 0;
    }

    int socket(int domain, int type, int protocol) const override;
    int ioctl(int fd, unsigned long request, void* argument) const override;
    int getifaddrs(struct ifaddrs** out) const override;
    void freeifaddrs(struct ifaddrs* list) const override;
    ssize_t send(int fd, const void* data, size_t length, int flags) const override;
    ssize_t recv(int fd, void* data, size_t length, int flags) const override;
    int close(int fd) const override;
    int getsockname(int fd, struct sockaddr* address, socklen_t* length) const override;

    unsigned int sleep(unsigned int) const override { return 0; }
    unsigned int alarm(unsigned int) const override { return 0; }
    int condTimedWait(pthread_cond_t*, pthread_mutex_t*, const struct timespec*) const override {
        return ETIMEDOUT;
    }
    void openlog(const char*, int, int) const override {}
    void syslog(int, const char* text) const override {
        // Read the whole text, as syslog would: a message built from bytes
        // past its end shows up here.
        logged_ += std::strlen(text);
    }
    void closelog() const override {}

    // Back to the first reading of the clock, for the next input.
    void reset() { clock_ = 1700000000; }

private:
    mutable time_t clock_ = 1700000000;
    mutable size_t logged_ = 0;
};

using ScopedPlatform = platformTest::ScopedPlatform;

// What a target does first with each input: the process's one platform (one,
// so its fixed paths are made once) back to its first clock reading, and
// installed until the input is done.
class PlatformScope {
public:
    PlatformScope() : platform(fresh()), installed_(&platform) {}
    FuzzPlatform& platform;

private:
    static FuzzPlatform& fresh() {
        static FuzzPlatform shared;
        shared.reset();
        return shared;
    }
    ScopedPlatform installed_;
};

// The same, for a target whose input's first byte picks what runs
// (`selector`) and whose other bytes drive it (`rest`).
class SelectedInput : public PlatformScope {
public:
    SelectedInput(const unsigned char* data, size_t size)
        : selector(size > 0 ? data[0] : 0), rest(size > 0 ? data + 1 : data, size > 0 ? size - 1 : 0) {}
    const unsigned char selector;
    FuzzedDataProvider rest;
};

}  // namespace qelFuzz

#endif
