// The simulated controller's FRU storage and the PNI locate command, with a
// builder for valid PNI FRU images and a validator for them.
//
// The device (SimFru): one FRU device, id 1 unless set, as large as its image.
// - Read FRU Data (0x0A/0x11): device id, offset (LSB first), count ->
//   completion code 0, count, data. A read that starts at or past the end
//   answers 0xC9 (parameter out of range); one that starts inside and runs
//   past the end answers the bytes that exist, with their count (a short
//   answer, as many controllers give). Not 4 request bytes: 0xC7; another
//   device id: 0xCB.
// - Write FRU Data (0x0A/0x12): device id, offset, data -> 0, count written.
//   Starting at or past the end: 0xC9; running past the end writes what fits
//   and reports that count. Fewer than 3 request bytes: 0xC7.
// - Get FRU Inventory Area Info (0x0A/0x10), which ipmitool asks first:
//   device id -> 0, size (LSB first), 0 (byte access).
// - Other FRU devices (the controller's own FRU 0, say) can sit beside it:
//   the three FRU commands answer them alike, PNI locate never names them,
//   and the PNI device's id wins when both have the same one.
// - PNI locate (0x34/0x40, data FF FF) -> 0, device id, capacity (LSB first).
//   With an image installed it answers 0 and the image size as capacity;
//   without one 0xC1, as a controller without PNI does. Both can be set.
// Faults: the n-th Write FRU Data from now answers a code and writes nothing
// (so a publication can fail part way); reads that touch a range answer a
// code; both stay until cleared (the write fault fires once).
//
// The builder (PniImageBuilder) makes an image as the controller keeps it:
// the IPMI FRU common header, chassis, board and product info areas (so FRU
// tools have something to show), then the internal use area with the PNI
// area header and the PNI record, and free space behind it. The library
// treats everything behind the record as free, so nothing else may follow
// it. build() returns the bytes and where everything lies.
//
// The validator (validatePniImage) checks a whole image - the common header,
// the info areas, the area header, the record header, both record checksums,
// every entry's marks, indices and length, that the entries fill the record
// exactly, and that every NIC area holds what its counts announce - and
// reports the first problem as text ("" when the image is valid).
#ifndef QEL_SIM_FRU_H
#define QEL_SIM_FRU_H

#include <array>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "qelSimBmc.h"

namespace qelSim {

class SimFru {
public:
    static constexpr unsigned char defaultDeviceId = 1;

    explicit SimFru(SimBmc& bmc);

    // ---- the device
    void setImage(Bytes image);
    Bytes image() const;
    void setDeviceId(unsigned char id);
    unsigned char deviceId() const;
    // Another FRU device with its image; an empty image removes it. Faults
    // and counts apply to its requests too.
    void setOtherDevice(unsigned char id, Bytes image);
    Bytes otherDevice(unsigned char id) const;  // empty when there is none

    // ---- PNI locate
    // Unset: 0 with an image, 0xC1 without.
    void setLocateCompletionCode(std::optional<unsigned char> code);
    // Unset: the image size.
    void setLocateCapacity(std::optional<unsigned short> capacity);

    // ---- faults
    // The n-th Write FRU Data from now (1: the next one) answers `code` and
    // writes nothing; the ones before and after it work.
    void failWrite(int n, unsigned char code);
    // Every Read FRU Data touching [offset, offset + length) answers `code`.
    void failReads(unsigned short offset, unsigned short length, unsigned char code);
    void clearFaults();

    // Requests handled since the start (or clearCounts), faulted ones too.
    int readCount() const;
    int writeCount() const;
    void clearCounts();

    // ---- command handlers
    Response readFruData(const Request& request);
    Response writeFruData(const Request& request);
    Response inventoryAreaInfo(const Request& request);
    Response pniLocate(const Request& request);

private:
    struct ReadFault {
        unsigned int offset;
        unsigned int length;
        unsigned char code;
    };

    // The image of device `id` (the PNI one or another), or nullptr.
    Bytes* deviceImage(unsigned char id);

    SimBmc& bmc_;
    Bytes image_;
    std::map<unsigned char, Bytes> others_;
    unsigned char deviceId_ = defaultDeviceId;
    std::optional<unsigned char> locateCode_;
    std::optional<unsigned short> locateCapacity_;
    int writeFaultCountdown_ = 0;
    unsigned char writeFaultCode_ = 0;
    std::vector<ReadFault> readFaults_;
    int reads_ = 0;
    int writes_ = 0;
};

// ---------------------------------------------------------------- images

using Mac = std::array<unsigned char, 6>;
using Ipv4Bytes = std::array<unsigned char, 4>;
using Ipv6Bytes = std::array<unsigned char, 16>;  // network order

// Function types as stored for record versions 11 and 12.
enum PniType : unsigned char { pniNic = 0, pniFc = 1, pniFcoe = 2, pniIscsi = 3, pniIb = 4 };

struct PniFunctionSpec {
    unsigned char type = pniNic;
    // Version 10 stores the type as text; empty: the text of `type`
    // ("NIC", "FC", "FCoE", "iSCSI", "IB"; "Other" for anything else).
    std::string typeText;
    // 0: 16 bytes (24 for version 10, whose type text needs the room).
    unsigned char commonLength = 0;
    // NIC specific area: bytes 0-5 and 6-11 (the reported one), the counts
    // and the addresses.
    Mac otherMac{};
    Mac mac{};
    std::vector<Ipv4Bytes> ipv4;
    std::vector<Ipv6Bytes> ipv6;
    // Other functions: the specific area's bytes (padded like a NIC area).
    Bytes specific;

    static PniFunctionSpec nic(const Mac& mac, const Mac& otherMac = {});
    static PniFunctionSpec ofType(unsigned char type);
};

struct PniPortSpec {
    std::vector<PniFunctionSpec> functions;
    unsigned char headerLength = 4;
};

struct PniAdapterSpec {
    unsigned char index = 0;
    std::vector<PniPortSpec> ports;
    unsigned char headerLength = 8;
};

// Where a PNI image keeps what (FRU offsets).
struct PniLayout {
    struct Function {
        unsigned short offset = 0;
        unsigned short entryLength = 0;
        unsigned short commonLength = 0;
        bool nic = false;  // the type says NIC (text "NIC" or number 0)
        Mac mac{};         // specific bytes 6-11, for NIC functions
        unsigned short specificOffset() const { return offset + commonLength; }
        unsigned short specificLength() const { return entryLength - commonLength; }
    };
    struct Port {
        unsigned short offset = 0;
        std::vector<Function> functions;
    };
    struct Adapter {
        unsigned short offset = 0;
        unsigned char index = 0;
        std::vector<Port> ports;
    };

    unsigned short chassisArea = 0, boardArea = 0, productArea = 0;  // 0: none
    unsigned short internalUseArea = 0;
    unsigned short recordHeader = 0;
    unsigned short recordData = 0;
    unsigned short recordDataLength = 0;
    unsigned short end = 0;  // just past the last entry
    unsigned char version = 0;
    unsigned char announcedAdapters = 0;
    std::vector<Adapter> adapters;

    const Function& function(int adapter, int port, int fn) const {
        return adapters.at(adapter).ports.at(port).functions.at(fn);
    }
};

struct PniImage {
    Bytes bytes;
    PniLayout layout;
};

// The texts of the chassis, board and product info areas (8-bit ASCII, 0 or
// 2 to 63 bytes each: a 1-byte field's type/length byte would be C1, the
// end-of-fields mark).
struct FruInfoTexts {
    std::string chassisPartNumber = "QEL-CH-0001";
    std::string chassisSerial = "CH0000042";
    std::string boardManufacturer = "Example Systems";
    std::string boardProduct = "QEL Test Board";
    std::string boardSerial = "BD0000042";
    std::string boardPartNumber = "QEL-BD-0001";
    std::string productManufacturer = "Example Systems";
    std::string productName = "QEL Test Server";
    std::string productPartNumber = "QEL-SV-0001";
    std::string productVersion = "1.0";
    std::string productSerial = "SV0000042";
    std::string productAssetTag;
};

class PniImageBuilder {
public:
    // Version 12, a FRU of 2048 bytes, info areas, no adapters.
    PniImageBuilder() = default;
    // Three adapters with NIC, FC, FCoE, iSCSI and IB functions over four
    // ports; the NICs have MACs 02:00:00:00:0a:01 to ...:04 (other MAC
    // 02:00:00:00:0b:0n), and the second port's NIC two IPv4 addresses and
    // one IPv6 address.
    static PniImageBuilder typical(unsigned char version = 12);

    PniImageBuilder& version(unsigned char version);
    PniImageBuilder& fruSize(std::size_t size);
    // Chassis, board and product info areas before the internal use area.
    PniImageBuilder& infoAreas(bool present);
    // Their texts; build() throws std::length_error for one of 1 or above 63
    // bytes.
    PniImageBuilder& infoTexts(FruInfoTexts texts);
    const FruInfoTexts& infoTexts() const { return texts_; }
    // The area header's adapter count; unset: the number of adapters.
    PniImageBuilder& announcedAdapters(unsigned char count);
    PniImageBuilder& adapter(PniAdapterSpec adapter);

    // Throws std::length_error when the image does not fit the FRU size.
    PniImage build() const;

private:
    unsigned char version_ = 12;
    std::size_t fruSize_ = 2048;
    bool infoAreas_ = true;
    FruInfoTexts texts_;
    std::optional<unsigned char> announced_;
    std::vector<PniAdapterSpec> adapters_;
};

// The first problem of a PNI image as text; "" when it is valid.
std::string validatePniImage(const Bytes& image);
// Reads the layout of a valid image; nullopt (and the problem) otherwise.
std::optional<PniLayout> readPniLayout(const Bytes& image, std::string* problem = nullptr);
// Recomputes the four checksums (common header, area header, record data,
// record header), for tests that change a byte on purpose and want only the
// change to count. Does nothing where it cannot find its way.
void resealPniImage(Bytes& image);

// Description keywords of the FRU device (qelSimFruDescription.cpp); the FRU
// command group registers them:
//   fru-image FILE|none   the device's image is FILE's bytes (binary, 1 to
//                         65535 bytes), or the device holds none
//   fru-device-id N       the device id (decimal, 0-255) that Read/Write FRU
//                         Data, Get FRU Inventory Area Info and PNI locate use
//   fru-other N FILE|none another FRU device, id N, with FILE's bytes, or
//                         none (the controller's own FRU 0, for example)
void registerFruKeywords(SimBmc& bmc);

}  // namespace qelSim

#endif
