#include "qelSel.h"

#include <algorithm>
#include <bitset>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>

#include "qelIpmi.h"
#include "qelPlatform.h"

#define QEL_SOURCE_NAME "qelSel"

namespace qelSel {

QEL_DEFINE_ERROR(QelSelError)

namespace {

// An answer as the transport holds it, completion code first.
struct Reply {
    const uint8_t* bytes;
    std::size_t length;
    const uint8_t& operator[](std::size_t i) const { return bytes[i]; }
    const uint8_t* data() const { return bytes; }
    std::size_t size() const { return length; }
    const uint8_t* begin() const { return bytes; }
    const uint8_t* end() const { return bytes + length; }
};

constexpr uint8_t ccOk = 0x00;
// Get SEL Info, Get SEL Allocation Info, Reserve SEL, Get SEL Time: the
// answers' lengths, completion code included.
constexpr std::size_t allocationResponseSize = 10;
constexpr std::size_t reserveResponseSize = 3;
constexpr std::size_t timeResponseSize = 5;
constexpr std::size_t clearResponseSize = 2;
// The first piece size tried once a controller refuses whole records; the
// common refusal is of anything above 8 bytes.
constexpr unsigned int firstPieceSize = 8;

uint16_t le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

std::string hex2(unsigned int v) {
    static const char digits[] = "0123456789abcdef";
    return std::string("0x") + digits[(v >> 4) & 0xF] + digits[v & 0xF];
}

std::string hex4(uint16_t v) {
    static const char digits[] = "0123456789abcdef";
    std::string s = "0x";
    for (int shift = 12; shift >= 0; shift -= 4) s += digits[(v >> shift) & 0xF];
    return s;
}

// The transport's error text without its trailing line feed.
std::string textOf(qelIpmi::QelIpmiError& e) {
    std::string text = e.errorText;
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
    return text;
}

}  // namespace

unsigned int SelInfo::percentUsed() const {
    const uint32_t used = static_cast<uint32_t>(entries) * recordSize;
    const uint32_t total = used + freeBytes;
    if (total == 0) return 0;
    return static_cast<unsigned int>((used * 100u + total / 2) / total);
}

// The requests of one operation, on the object's device.
class QelSel::Session {
public:
    explicit Session(QelSel& owner) : owner_(owner) {
        if (owner_.device_) return;
        try {
            owner_.device_ = std::make_unique<qelIpmi::QelIpmi>(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
        } catch (qelIpmi::QelIpmiError& e) {
            QEL_THROW(QelSelError, "no controller: " + textOf(e));
        }
    }

    // One exchange: the answer, completion code first, valid until the
    // session's next request. Throws when nothing or nothing but an empty
    // answer came; a device that failed is closed, so the next request
    // starts on a fresh one. The request and the answer stay where the
    // transport put them: a backlog's thousand records cost no copies.
    Reply send(unsigned char command, std::initializer_list<uint8_t> data, const char* name) {
        uint8_t bytes[8];  // the longest storage request here has 6
        if (data.size() > sizeof bytes) QEL_THROW(QelSelError, std::string(name) + ": a request too long");
        std::copy(data.begin(), data.end(), bytes);
        msg_.emplace(netfn::storage, command, static_cast<unsigned short>(data.size()),
                     data.size() == 0 ? nullptr : bytes);
        qelIpmi::QelIpmi_request_msg& msg = *msg_;
        ++owner_.requests_;
        bool answered = false;
        try {
            answered = owner_.device_->sendCmd(msg);
        } catch (qelIpmi::QelIpmiError& e) {
            owner_.device_.reset();
            QEL_THROW(QelSelError, std::string(name) + ": " + textOf(e));
        }
        if (!answered) {
            owner_.device_.reset();  // a late answer must not meet the next request
            QEL_THROW(QelSelError, std::string(name) + ": no answer from the controller");
        }
        if (msg.responseLength == 0 || msg.responseData == nullptr)
            QEL_THROW(QelSelError, std::string(name) + ": an empty answer");
        owner_.lastCode_ = msg.responseData[0];
        return Reply{msg.responseData, msg.responseLength};
    }

    // As send, and the answer must be a success of at least `size` bytes.
    Reply expect(unsigned char command, std::initializer_list<uint8_t> data, const char* name, std::size_t size) {
        const Reply r = send(command, data, name);
        if (r[0] != ccOk) refused(name, r[0]);
        if (r.size() < size)
            QEL_THROW(QelSelError, std::string(name) + ": an answer of " + std::to_string(r.size()) +
                                       " bytes, expected " + std::to_string(size));
        return r;
    }

    [[noreturn]] static void refused(const char* name, uint8_t code) {
        QEL_THROW(QelSelError, std::string(name) + ": the controller answered completion code " + hex2(code));
    }

    uint16_t reserve() {
        const Reply r = expect(cmd::reserveSel, {}, "Reserve SEL", reserveResponseSize);
        return le16(&r[1]);
    }

private:
    QelSel& owner_;
    // The last request and its answer (the transport's own buffer).
    std::optional<qelIpmi::QelIpmi_request_msg> msg_;
};

QelSel::QelSel() = default;

QelSel::QelSel(Limits limits) : limits_(limits) {}

QelSel::~QelSel() = default;
QelSel::QelSel(QelSel&&) noexcept = default;
QelSel& QelSel::operator=(QelSel&&) noexcept = default;

SelInfo QelSel::info() {
    Session s(*this);
    const Reply r = s.expect(cmd::getSelInfo, {}, "Get SEL Info", selInfo::responseSize);
    SelInfo out;
    out.version = r[selInfo::version];
    out.entries = le16(&r[selInfo::entries]);
    out.freeBytes = le16(&r[selInfo::freeSpace]);
    out.lastAddition = le32(&r[selInfo::lastAddition]);
    out.lastErase = le32(&r[selInfo::lastErase]);
    out.support = r[selInfo::support];
    out.overflow = (out.support & selInfo::overflow) != 0;
    return out;
}

SelAllocationInfo QelSel::allocationInfo() {
    Session s(*this);
    const Reply r = s.expect(cmd::getSelAllocationInfo, {}, "Get SEL Allocation Info", allocationResponseSize);
    SelAllocationInfo out;
    out.possibleUnits = le16(&r[1]);
    out.unitSize = le16(&r[3]);
    out.freeUnits = le16(&r[5]);
    out.largestFreeBlock = le16(&r[7]);
    out.maxRecordSize = r[9];
    return out;
}

uint16_t QelSel::reserve() {
    Session s(*this);
    return s.reserve();
}

uint32_t QelSel::time() {
    Session s(*this);
    const Reply r = s.expect(cmd::getSelTime, {}, "Get SEL Time", timeResponseSize);
    return le32(&r[1]);
}

SelEntry QelSel::readEntry(Session& s, uint16_t id) {
    static const char name[] = "Get SEL Entry";
    unsigned int reservationsLost = 0;
    for (;;) {
        if (pieceSize_ >= recordSize) {
            // The whole record in one request; no reservation needed for it.
            const Reply r = s.send(cmd::getSelEntry, {0, 0, static_cast<uint8_t>(id & 0xFF),
                                                      static_cast<uint8_t>(id >> 8), 0, selEntry::wholeRecord},
                                   name);
            if (r[0] == cc::cannotReturnRequestedBytes) {
                pieceSize_ = firstPieceSize;
                continue;
            }
            if (r[0] != ccOk) Session::refused(name, r[0]);
            if (r.size() != selEntry::responseData + recordSize)
                QEL_THROW(QelSelError, std::string(name) + ": an answer of " + std::to_string(r.size()) +
                                           " bytes for a whole record, expected 19");
            RawRecord bytes{};
            std::copy(r.begin() + selEntry::responseData, r.end(), bytes.begin());
            SelEntry e{SelRecord::fromBytes(bytes), le16(&r[selEntry::responseNextId])};
            return e;
        }

        // In pieces, under a reservation that guards the record against a
        // change between them.
        if (reservation_ == 0) reservation_ = s.reserve();
        RawRecord bytes{};
        uint16_t next = lastRecordId;
        uint16_t asked = id;
        bool lost = false;
        for (unsigned int offset = 0; offset < recordSize;) {
            const unsigned int count = std::min<unsigned int>(pieceSize_, recordSize - offset);
            const Reply r = s.send(cmd::getSelEntry,
                                   {static_cast<uint8_t>(reservation_ & 0xFF), static_cast<uint8_t>(reservation_ >> 8),
                                    static_cast<uint8_t>(asked & 0xFF), static_cast<uint8_t>(asked >> 8),
                                    static_cast<uint8_t>(offset), static_cast<uint8_t>(count)},
                                   name);
            if (r[0] == cc::cannotReturnRequestedBytes && pieceSize_ > 1) {
                pieceSize_ /= 2;
                continue;
            }
            if (r[0] == cc::reservationCancelled) {
                lost = true;
                break;
            }
            if (r[0] != ccOk) Session::refused(name, r[0]);
            if (r.size() != selEntry::responseData + count)
                QEL_THROW(QelSelError, std::string(name) + ": an answer of " + std::to_string(r.size()) +
                                           " bytes for " + std::to_string(count) + " bytes at offset " +
                                           std::to_string(offset) + ", expected " +
                                           std::to_string(selEntry::responseData + count));
            std::copy(r.begin() + selEntry::responseData, r.end(), bytes.begin() + offset);
            next = le16(&r[selEntry::responseNextId]);
            offset += count;
            // "First" and "last" could name another record once the log
            // moves; the rest of the pieces ask for the record by its ID.
            if (offset >= 2) asked = le16(bytes.data());
        }
        if (!lost) return SelEntry{SelRecord::fromBytes(bytes), next};
        reservation_ = 0;
        if (++reservationsLost > limits_.reservationRetries)
            QEL_THROW(QelSelError, std::string(name) + ": the reservation was cancelled " +
                                       std::to_string(reservationsLost) + " times while reading record " +
                                       hex4(id));
    }
}

namespace {

// The reply must be for the record asked for and lead somewhere else.
void checkEntry(const SelEntry& e, uint16_t asked) {
    const uint16_t got = e.record.recordId;
    if (asked != firstRecordId && asked != lastRecordId && got != asked)
        QEL_THROW(QelSelError, "Get SEL Entry: asked for record " + hex4(asked) + ", got record " + hex4(got));
    if (e.nextId == got)
        QEL_THROW(QelSelError, "Get SEL Entry: record " + hex4(got) + " names itself as the next record");
}

}  // namespace

SelEntry QelSel::read(uint16_t id) {
    Session s(*this);
    SelEntry e = readEntry(s, id);
    checkEntry(e, id);
    return e;
}

SelBatch QelSel::readForward(uint16_t fromId, std::size_t maxRecords) {
    SelBatch batch;
    batch.nextId = fromId;
    if (maxRecords == 0) return batch;
    Session s(*this);
    // Every record ID there can be: a set of them would allocate a node a
    // record.
    std::bitset<0x10000> seen;
    uint16_t id = fromId;
    while (batch.records.size() < maxRecords) {
        SelEntry e;
        try {
            e = readEntry(s, id);
        } catch (QelSelError&) {
            // An empty log has no first record: nothing to read, not a failure.
            if (id == firstRecordId && batch.records.empty() && lastCode_ == cc::requestedDataNotPresent) {
                batch.nextId = lastRecordId;
                return batch;
            }
            throw;
        }
        checkEntry(e, id);
        if (seen.test(e.record.recordId))
            QEL_THROW(QelSelError, "Get SEL Entry: the log leads back to record " + hex4(e.record.recordId));
        seen.set(e.record.recordId);
        batch.records.push_back(e.record);
        id = e.nextId;
        if (id == lastRecordId) break;
    }
    batch.nextId = id;
    return batch;
}

SelBatch QelSel::readAfter(uint16_t lastId, std::size_t maxRecords) {
    SelEntry last = read(lastId);
    if (last.nextId == lastRecordId || maxRecords == 0) {
        SelBatch batch;
        batch.nextId = last.nextId;
        return batch;
    }
    SelBatch batch = readForward(last.nextId, maxRecords);
    for (const SelRecord& r : batch.records)
        if (r.recordId == last.record.recordId)
            QEL_THROW(QelSelError, "Get SEL Entry: the log leads back to record " + hex4(r.recordId));
    return batch;
}

std::optional<SelRecord> QelSel::after(uint16_t id) {
    SelBatch batch = readAfter(id, 1);
    if (batch.records.empty()) return std::nullopt;
    return batch.records.front();
}

void QelSel::clear() {
    static const char name[] = "Clear SEL";
    Session s(*this);
    auto send = [&s](uint16_t reservation, uint8_t what) {
        return s.send(cmd::clearSel,
                      {static_cast<uint8_t>(reservation & 0xFF), static_cast<uint8_t>(reservation >> 8),
                       clearSel::clr[0], clearSel::clr[1], clearSel::clr[2], what},
                      name);
    };
    uint16_t reservation = s.reserve();
    Reply r{};
    for (unsigned int lost = 0;; ++lost) {
        r = send(reservation, clearSel::initiate);
        if (r[0] != cc::reservationCancelled) break;
        if (lost >= limits_.reservationRetries)
            QEL_THROW(QelSelError, "Clear SEL: the reservation was cancelled " + std::to_string(lost + 1) + " times");
        reservation = s.reserve();
    }
    // The reader's own reservation went with the log.
    reservation_ = 0;
    for (unsigned int polls = 0;; ++polls) {
        if (r[0] == cc::reservationCancelled) {
            // Some controllers want a live reservation for the status too.
            reservation = s.reserve();
        } else {
            if (r[0] != ccOk) Session::refused(name, r[0]);
            if (r.size() < clearResponseSize)
                QEL_THROW(QelSelError, "Clear SEL: an answer without the erase progress");
            if ((r[1] & clearSel::progressMask) == clearSel::completed) return;
        }
        if (polls >= limits_.clearPolls)
            QEL_THROW(QelSelError, "Clear SEL: the erase was not completed after " + std::to_string(polls) + " polls");
        qelPlatform::platform().sleep(1);
        r = send(reservation, clearSel::getStatus);
    }
}

}  // namespace qelSel
