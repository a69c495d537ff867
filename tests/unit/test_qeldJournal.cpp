// qeld's sinks for the controller's event log: the journal's native
// protocol datagram (plain and binary-framed fields), what a listening
// socket receives, a journal that is not there, the record the journal took
// last as journalctl exports it (with a stand-in journalctl), and the test
// aid's file.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "qeldJournal.h"

namespace {

using qeld::FileSelSink;
using qeld::JournalSelSink;
using qelSel::LogEntry;
using qelSel::RawRecord;

class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/qeldjournalXXXXXX";
        path_ = ::mkdtemp(name);
    }
    ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

RawRecord sampleRaw(uint8_t first) {
    RawRecord raw{};
    for (std::size_t i = 0; i < raw.size(); ++i) raw[i] = static_cast<uint8_t>(first + i);
    return raw;
}

LogEntry sampleEntry() {
    LogEntry e;
    e.messageId = qelSel::messageId::selEvent;
    e.priority = 4;
    e.message = "SEL record 0x0010: Memory DIMM A1 (0x0B): Correctable ECC - Asserted";
    e.fields = {{"QEL_SEL_RECORD_ID", "16"}, {"QEL_SEL_RAW", "0A0B0C0D0E0F101112131415161718 19"}};
    e.record = sampleRaw(0x0A);
    return e;
}

TEST(JournalDatagram, FieldsInOrderAsKeyValueLines) {
    EXPECT_EQ(JournalSelSink::serialize(sampleEntry()),
              "MESSAGE=SEL record 0x0010: Memory DIMM A1 (0x0B): Correctable ECC - Asserted\n"
              "PRIORITY=4\n"
              "SYSLOG_IDENTIFIER=qeld\n"
              "MESSAGE_ID=b94984b79cc44ea099a87728d5a050b2\n"
              "QEL_SEL_RECORD_ID=16\n"
              "QEL_SEL_RAW=0A0B0C0D0E0F101112131415161718 19\n");
}

TEST(JournalDatagram, ValueWithLineBreakIsLengthFramed) {
    LogEntry e = sampleEntry();
    e.fields = {{"QEL_SEL_PANIC", "line one\nline two"}};
    const std::string datagram = JournalSelSink::serialize(e);
    const std::string expected = std::string("QEL_SEL_PANIC\n") + std::string("\x11\0\0\0\0\0\0\0", 8) +
                                 "line one\nline two\n";
    ASSERT_GE(datagram.size(), expected.size());
    EXPECT_EQ(datagram.substr(datagram.size() - expected.size()), expected);
}

// A datagram socket bound at `path`, as the journal's.
class FakeJournal {
public:
    explicit FakeJournal(const std::string& path) {
        fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un address;
        std::memset(&address, 0, sizeof address);
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.data(), path.size());
        bound_ = ::bind(fd_, reinterpret_cast<struct sockaddr*>(&address), sizeof address) == 0;
        struct timeval limit = {10, 0};
        ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    ~FakeJournal() { ::close(fd_); }
    bool bound() const { return bound_; }
    std::string receive() {
        char buffer[65536];
        const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
        return n < 0 ? std::string("(nothing)") : std::string(buffer, static_cast<std::size_t>(n));
    }

private:
    int fd_ = -1;
    bool bound_ = false;
};

TEST(JournalSink, DeliversOneDatagramPerEntry) {
    TempDir dir;
    const std::string socket = dir.path() + "/socket";
    FakeJournal journal(socket);
    ASSERT_TRUE(journal.bound());
    EXPECT_TRUE(JournalSelSink::available(socket));
    JournalSelSink sink(socket, "");
    const LogEntry first = sampleEntry();
    LogEntry second = sampleEntry();
    second.message = "the controller's event log was cleared";
    second.messageId = qelSel::messageId::selCleared;
    second.record.reset();
    ASSERT_TRUE(sink.deliver(first));
    ASSERT_TRUE(sink.deliver(second));
    EXPECT_EQ(journal.receive(), JournalSelSink::serialize(first));
    EXPECT_EQ(journal.receive(), JournalSelSink::serialize(second));
}

TEST(JournalSink, NoJournalListeningIsNotTaken) {
    TempDir dir;
    const std::string socket = dir.path() + "/socket";
    EXPECT_FALSE(JournalSelSink::available(socket));
    JournalSelSink sink(socket, "");
    EXPECT_FALSE(sink.deliver(sampleEntry()));
    // A plain file is no journal either.
    std::ofstream(dir.path() + "/file") << "x";
    EXPECT_FALSE(JournalSelSink::available(dir.path() + "/file"));
}

std::string exportEntry(const std::string& raw) {
    return "__CURSOR=s=abc;i=1\n__REALTIME_TIMESTAMP=1700000000000000\n"
           "MESSAGE=SEL record 0x0001: something\n"
           "QEL_SEL_RAW=" +
           raw + "\nSYSLOG_IDENTIFIER=qeld\n\n";
}

TEST(JournalExport, LastEntrysRawRecord) {
    const std::string a(32, 'a');
    const std::string b = "000102030405060708090A0B0C0D0E0F";
    const auto raw = JournalSelSink::rawFromExport(exportEntry(a) + exportEntry(b));
    ASSERT_TRUE(raw.has_value());
    EXPECT_EQ(*raw, sampleRaw(0));
}

TEST(JournalExport, BinaryFieldsAreSkippedNotParsed) {
    // A binary MESSAGE whose bytes hold a QEL_SEL_RAW= line of their own.
    const std::string fake = "\nQEL_SEL_RAW=" + std::string(32, 'f') + "\n";
    std::string binary = "MESSAGE\n";
    for (int i = 0; i < 8; ++i) binary += static_cast<char>(i == 0 ? fake.size() : 0);
    binary += fake + "\n";
    const std::string text = "__CURSOR=x\n" + binary + "QEL_SEL_RAW=000102030405060708090a0b0c0d0e0f\n\n";
    const auto raw = JournalSelSink::rawFromExport(text);
    ASSERT_TRUE(raw.has_value());
    EXPECT_EQ(*raw, sampleRaw(0));
}

TEST(JournalExport, NothingUsable) {
    EXPECT_FALSE(JournalSelSink::rawFromExport("").has_value());
    EXPECT_FALSE(JournalSelSink::rawFromExport(exportEntry("0011")).has_value());
    EXPECT_FALSE(JournalSelSink::rawFromExport(exportEntry(std::string(32, 'g'))).has_value());
    // A binary field whose length runs past the end.
    EXPECT_FALSE(JournalSelSink::rawFromExport(std::string("MESSAGE\n\xff\xff\xff\xff\0\0\0\0", 16)).has_value());
}

// A stand-in journalctl: records its arguments, answers the query with the
// export text in `answer`, exits with `status`.
std::string fakeJournalctl(const TempDir& dir, const std::string& answer, int status) {
    const std::string script = dir.path() + "/journalctl";
    std::ofstream(dir.path() + "/answer") << answer;
    std::ofstream(script) << "#!/bin/sh\necho \"$*\" >> '" << dir.path() << "/calls'\n"
                          << "[ \"$1\" = --sync ] && exit 0\ncat '" << dir.path() << "/answer'\nexit " << status
                          << "\n";
    ::chmod(script.c_str(), 0755);
    return script;
}

TEST(JournalSink, LastDeliveredSyncsThenAsksForQeldsNewestSelEntry) {
    TempDir dir;
    JournalSelSink sink(dir.path() + "/socket", fakeJournalctl(dir, exportEntry(std::string(32, '0')), 0));
    const auto raw = sink.lastDelivered();
    ASSERT_TRUE(raw.has_value());
    EXPECT_EQ(*raw, RawRecord{});
    std::ifstream calls(dir.path() + "/calls");
    std::string sync, query;
    std::getline(calls, sync);
    std::getline(calls, query);
    EXPECT_EQ(sync, "--sync");
    EXPECT_EQ(query,
              "--no-pager --quiet --output=export --lines=1 SYSLOG_IDENTIFIER=qeld "
              "MESSAGE_ID=b94984b79cc44ea099a87728d5a050b2 MESSAGE_ID=7e680caac35a413ca077b8eab6034cf3");
}

TEST(JournalSink, JournalctlFailingOrMissingTellsNothing) {
    TempDir dir;
    JournalSelSink failing(dir.path() + "/socket", fakeJournalctl(dir, exportEntry(std::string(32, '0')), 1));
    EXPECT_FALSE(failing.lastDelivered().has_value());
    JournalSelSink missing(dir.path() + "/socket", dir.path() + "/no-such-program");
    EXPECT_FALSE(missing.lastDelivered().has_value());
    JournalSelSink none(dir.path() + "/socket", "");
    EXPECT_FALSE(none.lastDelivered().has_value());
}

TEST(FileSink, LinesAndTheLastRecordTaken) {
    TempDir dir;
    const std::string path = dir.path() + "/sel.log";
    FileSelSink sink(path);
    EXPECT_FALSE(sink.lastDelivered().has_value());
    LogEntry event = sampleEntry();
    event.message = "two\nlines";
    ASSERT_TRUE(sink.deliver(event));
    LogEntry note = sampleEntry();
    note.messageId = qelSel::messageId::selFilling;
    note.record.reset();
    note.message = "the controller's event log is 75 % full";
    ASSERT_TRUE(sink.deliver(note));
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(text.str(),
              "b94984b79cc44ea099a87728d5a050b2 4 0A0B0C0D0E0F10111213141516171819 two lines\n"
              "80ae02ab00074fdcb90d9ebca3c8149b 4 - the controller's event log is 75 % full\n");
    // The note carries no record: the event before it is what was taken.
    const auto raw = sink.lastDelivered();
    ASSERT_TRUE(raw.has_value());
    EXPECT_EQ(*raw, sampleRaw(0x0A));
}

TEST(FileSink, UnwritableFileIsNotTaken) {
    FileSelSink sink("/nonexistent-directory/sel.log");
    EXPECT_FALSE(sink.deliver(sampleEntry()));
    EXPECT_FALSE(sink.lastDelivered().has_value());
}

}  // namespace
