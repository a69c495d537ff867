// The controller's System Event Log, read and managed over IPMI.
//
// QelSel sends the storage commands through the IPMI transport (system
// interface, LUN 0): Get SEL Info, Get SEL Allocation Info, Reserve SEL, Get
// SEL Time, Get SEL Entry and Clear SEL. Every operation opens the device
// once for all the requests it needs.
//
// Reading walks the log by the "next record ID" each entry names, never by
// adding 1: controllers number records as they please. A controller that
// refuses a whole record at once (0xCA) is read in pieces under a
// reservation, and the object remembers it; a reservation that an addition
// or deletion cancelled (0xC5) is taken again and the record read anew, a
// bounded number of times. Replies that are short, of the wrong length, for
// another record, or that lead back to a record already read end the
// operation with QelSelError: never a hang, never a read past a reply.
//
// Waits (the polls of Clear SEL) go through the platform seam's sleep, so a
// test drives them without waiting. requestsSent() counts every request, so
// a caller can hold itself to a budget. An object is used by one thread at a
// time (it keeps what it learned of the controller between calls).
#ifndef QEL_SEL_H
#define QEL_SEL_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "qelError.h"
#include "qelExport.h"
#include "qelSelRecord.h"

namespace qelIpmi {
class QelIpmi;
}

namespace qelSel {

// Every failure of the reader: no controller, no answer, a completion code
// other than 0x00 (QelSel::lastCompletionCode() keeps it), a malformed reply.
QEL_DECLARE_ERROR(QelSelError);

// Get SEL Info.
struct QEL_EXPORT SelInfo {
    uint8_t version = 0;        // 0x51 for IPMI 1.5 and 2.0
    uint16_t entries = 0;
    uint16_t freeBytes = 0;     // 0xFFFF: 65535 or more
    uint32_t lastAddition = 0;  // 0xFFFFFFFF: never
    uint32_t lastErase = 0;
    bool overflow = false;      // a record was dropped or overwritten
    uint8_t support = 0;        // the operation support byte as it came
    bool supportsDelete() const { return (support & selInfo::supportsDelete) != 0; }
    bool supportsPartialAdd() const { return (support & selInfo::supportsPartialAdd) != 0; }
    bool supportsReserve() const { return (support & selInfo::supportsReserve) != 0; }
    bool supportsAllocationInfo() const { return (support & selInfo::supportsAllocationInfo) != 0; }
    // The share of the log in use, 0 to 100, taking every record as 16
    // bytes: entries / (entries + free records). An empty log without free
    // space (a controller that reports none) counts as 0.
    unsigned int percentUsed() const;
};

// Get SEL Allocation Info.
struct QEL_EXPORT SelAllocationInfo {
    uint16_t possibleUnits = 0;  // 0: unspecified
    uint16_t unitSize = 0;       // bytes; 0: unspecified
    uint16_t freeUnits = 0;
    uint16_t largestFreeBlock = 0;  // units
    uint8_t maxRecordSize = 0;      // units
};

// One record and where the log goes on from it.
struct QEL_EXPORT SelEntry {
    SelRecord record;
    uint16_t nextId = lastRecordId;  // 0xFFFF: the record was the last
};

// Records read forward, and the ID to read next (0xFFFF: the end was
// reached; read after the last record to find records added since).
struct QEL_EXPORT SelBatch {
    std::vector<SelRecord> records;
    uint16_t nextId = lastRecordId;
    bool atEnd() const { return nextId == lastRecordId; }
};

// The device is opened at the object's first request and kept for its
// life (a failed exchange closes it, the next request opens it again): a
// caller that reads a batch after the log's info pays for one open, not two.
class QEL_EXPORT QelSel {
public:
    struct Limits {
        // Reservations taken again for one record before giving up.
        unsigned int reservationRetries = 3;
        // Status polls of a clear, one second apart.
        unsigned int clearPolls = 30;
    };

    QelSel();
    explicit QelSel(Limits limits);
    ~QelSel();
    QelSel(QelSel&&) noexcept;
    QelSel& operator=(QelSel&&) noexcept;

    [[nodiscard]] SelInfo info();
    [[nodiscard]] SelAllocationInfo allocationInfo();
    // A new reservation ID (cancels any other).
    [[nodiscard]] uint16_t reserve();
    // The SEL clock, seconds.
    [[nodiscard]] uint32_t time();

    // The record `id` (0x0000: the first, 0xFFFF: the last). Throws
    // QelSelError with completion code 0xCB when there is none.
    [[nodiscard]] SelEntry read(uint16_t id);
    // Up to `maxRecords` records from `fromId` on (0x0000: from the first).
    [[nodiscard]] SelBatch readForward(uint16_t fromId, std::size_t maxRecords);
    // Up to `maxRecords` records behind the record `lastId` (read again to
    // learn where the log goes on; it is not returned). An empty batch at
    // the end says nothing new came. Throws (0xCB) when `lastId` is gone:
    // cleared, deleted, or overwritten by a circular log.
    [[nodiscard]] SelBatch readAfter(uint16_t lastId, std::size_t maxRecords);
    // The record behind `id`, if there is one.
    [[nodiscard]] std::optional<SelRecord> after(uint16_t id);

    // Reserve, start the erase, and poll until the controller reports it
    // completed (at most Limits::clearPolls polls, a second apart).
    void clear();

    // Requests sent by this object, every retry included.
    std::size_t requestsSent() const { return requests_; }
    // The completion code of the last answer that had one (0x00 after a
    // success).
    uint8_t lastCompletionCode() const { return lastCode_; }
    // Whether the controller refused whole records and is read in pieces.
    bool readsInPieces() const { return pieceSize_ < recordSize; }

private:
    class Session;
    SelEntry readEntry(Session& session, uint16_t id);

    Limits limits_;
    std::size_t requests_ = 0;
    uint8_t lastCode_ = 0;
    // Bytes per Get SEL Entry; drops below 16 when the controller answers 0xCA.
    unsigned int pieceSize_ = recordSize;
    uint16_t reservation_ = 0;  // the one the pieces are read under; 0: none
    std::unique_ptr<qelIpmi::QelIpmi> device_;
};

}  // namespace qelSel

#endif
