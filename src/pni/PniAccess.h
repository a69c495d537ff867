// PNI port records in the controller's FRU storage.
//
// The controller keeps, in a FRU device of its own, a record of the host's
// network adapters, their ports and the functions of each port. PniAccess
// finds that record (PNI locate command), checks it, and builds a descriptor
// table of where every entry lies. Afterwards it reports the NIC functions'
// MAC addresses and writes the host's IPv4/IPv6 addresses into the specific
// area of the NIC function that carries the matching MAC.
//
// What it promises:
// - Construction leaves a usable object (status bits 0 and 1 set), or throws
//   PniAccessError / std::runtime_error, or - when the IPMI layer itself fails
//   (QelIpmiError) - logs to syslog and leaves an object whose operations all
//   give their zero result (0, a zero MAC, false; clearIpAddressData false
//   too, since nothing was cleared).
// - Parsing never reads outside the record it read: every entry must lie
//   inside the record data, entry lengths of zero are rejected, and every
//   walk is bounded by the announced counts ("Format error " otherwise).
// - The FRU operations report result codes (resultOk, resultNoRoom,
//   resultIpmiFailed, resultNoMemory) and never throw of their own accord;
//   exceptions of the transport pass through them. A Read FRU Data answer
//   shorter than the bytes asked for counts as an IPMI failure.
// - A specific area that grows is widened in place: the entries behind it
//   (up to the end offset) move up, and the entry length, the record length,
//   both checksums and the descriptor table are kept right. Everything behind
//   the end offset, up to the FRU capacity, counts as free space, so a record
//   must end with its last entry.
// - There is no roll-back: a FRU write that fails part way leaves the chunks
//   written before it in place, and a specific-area write that fails after its
//   data went out leaves the record checksum unadjusted (a later construction
//   then reports "Checksum error "). The descriptor table changes only once a
//   growth is complete in the FRU.
// - Not thread-safe: one object, one thread at a time.
#ifndef PNI_ACCESS_H
#define PNI_ACCESS_H

#include <list>
#include <string>

#include "qelAddress.h"
#include "qelError.h"
#include "qelExport.h"

namespace qelIpmi {
class QelIpmi;
}

// Composes "Error: msg(file, line)\n", with a blank after the comma where
// QelIpmiError has none. Both forms appear in existing logs; keep them apart.
QEL_DECLARE_ERROR(PniAccessError);

// One port function: where its entry lies and what it is.
struct PniPortFnInfo {
    unsigned short fruOffset;     // FRU offset of the function entry
    unsigned short entryLength;   // bytes (entry byte 1 x 4)
    unsigned short commonLength;  // bytes (entry byte 2)
    unsigned int type;            // 0 NIC, 1 FC, 2 FCoE, 3 iSCSI, 4 IB, 0xFF unknown
};

struct PniPortInfo {
    unsigned short fruOffset;
    unsigned short entryLength;  // the port header only; its functions follow it
    unsigned char numberOfFunctions;  // as announced; at most 16 are stored
    PniPortFnInfo function[16];
};

struct PniAdapterInfo {
    unsigned char index;  // low five bits of entry byte 0
    unsigned short fruOffset;
    unsigned short entryLength;  // the adapter header only; its ports follow it
    unsigned char numberOfPorts;  // as announced; at most 16 are stored
    PniPortInfo port[16];
};

// The buffer for a function's common area. Only the first 39 bytes are ever
// transferred (fewer when the common area is shorter).
struct PniPortfnCommon {
    static constexpr int maxTransfer = 39;
    unsigned char bytes[maxTransfer];
};

class QEL_EXPORT PniAccess {
public:
    // Result codes of the FRU operations.
    static constexpr int resultOk = 0;
    static constexpr int resultNoRoom = 4;  // size not a multiple of 4, no room, or no such function
    static constexpr int resultIpmiFailed = 6;  // no response, completion code not 0, short answer
    static constexpr int resultNoMemory = 7;

    // Status flags.
    static constexpr unsigned char statusTableValid = 0x01;
    static constexpr unsigned char statusConstructed = 0x02;

    // Function types (PniPortFnInfo::type).
    static constexpr unsigned char typeNic = 0;
    static constexpr unsigned char typeUnknown = 0xFF;

    static constexpr int maxAdapters = 8;
    static constexpr int maxPorts = 16;
    static constexpr int maxFunctions = 16;

    // Locates and parses the PNI record through the local controller.
    // Throws PniAccessError (texts "IPMI access has failed. (Return code: <hex>) ",
    // "Read FRU failed ", "Checksum error ", "Invalid unsupported record ",
    // "Memory Error ", "Format error ", wrapped once more with line 640), or
    // std::runtime_error("IPMI access has failed.") when the controller does
    // not know the locate command (0xC1).
    PniAccess();
    virtual ~PniAccess();
    PniAccess(const PniAccess&) = delete;
    PniAccess& operator=(const PniAccess&) = delete;

    // ---- publication (each uses a QelIpmi of its own; IPMI errors are logged)
    // NIC functions (stored type 0) over all adapters and ports.
    [[nodiscard]] int getNumberOfMacAddresses() const;
    // Bytes 6 to 11 of the n-th readable NIC specific area; zeros if none.
    [[nodiscard]] MacAddress getMacAddress(int n) const;
    bool setIpv4Address(const MacAddress& mac, const IPv4Address& address);
    // At most 15 addresses are written: the stored count has four bits and the
    // area holds 15; the rest of a longer list is left out.
    bool setIpv6Address(const MacAddress& mac, const std::list<IPv6Address>& addresses);
    bool clearIpAddressData();

    // ---- FRU primitives (result codes above)
    [[nodiscard]] int readFru(const qelIpmi::QelIpmi& ipmi, unsigned short offset, int length,
                              unsigned char* out) const;
    [[nodiscard]] int writeFru(const qelIpmi::QelIpmi& ipmi, unsigned short offset, int length,
                               unsigned char* data);
    [[nodiscard]] int moveFru(const qelIpmi::QelIpmi& ipmi, unsigned short to, unsigned short from,
                              unsigned short length);

    // ---- one port function's areas
    [[nodiscard]] int readPortFnCommonArea(const qelIpmi::QelIpmi& ipmi, unsigned char adapter,
                                           unsigned char port, unsigned char function,
                                           PniPortfnCommon* out) const;
    [[nodiscard]] int writePortFnCommonArea(const qelIpmi::QelIpmi& ipmi, unsigned char adapter,
                                            unsigned char port, unsigned char function,
                                            PniPortfnCommon* data);
    [[nodiscard]] int readPortFnSpecificArea(const qelIpmi::QelIpmi& ipmi, unsigned char adapter,
                                             unsigned char port, unsigned char function,
                                             int length, unsigned char* out) const;
    // Rewrites the specific area with `length` bytes, growing the entry in
    // place when `length` exceeds it (never shrinking it).
    [[nodiscard]] int writePortFnSpecificArea(const qelIpmi::QelIpmi& ipmi, unsigned char adapter,
                                              unsigned char port, unsigned char function,
                                              int length, unsigned char* data);
    // "NIC", "FC", "FCoE", "iSCSI", "IB" or "Unknown"; for record version 10
    // the text stored in the common area, whatever it is.
    [[nodiscard]] std::string getPortFunctionType(const qelIpmi::QelIpmi& ipmi,
                                                  unsigned char adapter, unsigned char port,
                                                  unsigned char function);

    // ---- helpers
    [[nodiscard]] static unsigned char techTypeStringToEnum(char* text);
    [[nodiscard]] static unsigned char sum(unsigned char* data, unsigned int length);
    [[nodiscard]] static bool validateZeroChecksum(unsigned char* data, int length,
                                                   unsigned char initial);

    // ---- what construction found
    [[nodiscard]] unsigned char fruDeviceId() const { return fruDeviceId_; }
    [[nodiscard]] unsigned short fruCapacity() const { return fruCapacity_; }
    [[nodiscard]] unsigned short endOffset() const { return endOffset_; }
    [[nodiscard]] unsigned short recordHeaderOffset() const { return recordHeaderOffset_; }
    [[nodiscard]] unsigned short recordDataOffset() const { return recordDataOffset_; }
    [[nodiscard]] unsigned char recordVersion() const { return recordVersion_; }
    [[nodiscard]] unsigned char statusFlags() const { return statusFlags_; }
    // As announced by the internal-use-area header; at most 8 are stored.
    [[nodiscard]] unsigned char numberOfAdapters() const { return numberOfAdapters_; }
    [[nodiscard]] const PniAdapterInfo& adapterInfo(int index) const { return adapter_[index]; }

private:
    bool usable() const;
    void locate(const qelIpmi::QelIpmi& ipmi, bool& unknownCommand);
    void parse(const qelIpmi::QelIpmi& ipmi);
    void walkEntries(const unsigned char* data, unsigned int length);
    PniPortFnInfo* functionAt(unsigned char adapter, unsigned char port, unsigned char function);
    const PniPortFnInfo* functionAt(unsigned char adapter, unsigned char port,
                                    unsigned char function) const;
    int growSpecificArea(const qelIpmi::QelIpmi& ipmi, unsigned char adapter,
                         unsigned char port, unsigned char function, int current, int length);

    unsigned char fruDeviceId_ = 0;
    unsigned short fruCapacity_ = 0;
    unsigned short endOffset_ = 0;
    unsigned short recordHeaderOffset_ = 0;
    unsigned short recordDataOffset_ = 0;
    unsigned char firstEntryOffset_ = 0;
    unsigned char recordVersion_ = 0;
    unsigned char statusFlags_ = 0;
    unsigned char numberOfAdapters_ = 0;
    PniAdapterInfo adapter_[maxAdapters] = {};
};

#endif
