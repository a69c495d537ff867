// FRU storage and PNI locate command of the simulated controller, and the
// PNI image builder and validator used by the tests.
#include "qelSimFru.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "qelIpmiCommands.h"

namespace qelSim {

using Lock = std::lock_guard<std::recursive_mutex>;
namespace cc = qelIpmi::cc;
namespace fruData = qelIpmi::fruData;

// ---------------------------------------------------------------- the device

SimFru::SimFru(SimBmc& bmc) : bmc_(bmc) {}

void SimFru::setImage(Bytes image) {
    Lock lock(bmc_.mutex());
    image_ = std::move(image);
}

Bytes SimFru::image() const {
    Lock lock(bmc_.mutex());
    return image_;
}

void SimFru::setDeviceId(unsigned char id) {
    Lock lock(bmc_.mutex());
    deviceId_ = id;
}

unsigned char SimFru::deviceId() const {
    Lock lock(bmc_.mutex());
    return deviceId_;
}

void SimFru::setLocateCompletionCode(std::optional<unsigned char> code) {
    Lock lock(bmc_.mutex());
    locateCode_ = code;
}

void SimFru::setLocateCapacity(std::optional<unsigned short> capacity) {
    Lock lock(bmc_.mutex());
    locateCapacity_ = capacity;
}

void SimFru::failWrite(int n, unsigned char code) {
    Lock lock(bmc_.mutex());
    writeFaultCountdown_ = n;
    writeFaultCode_ = code;
}

void SimFru::failReads(unsigned short offset, unsigned short length, unsigned char code) {
    Lock lock(bmc_.mutex());
    readFaults_.push_back({offset, length, code});
}

void SimFru::clearFaults() {
    Lock lock(bmc_.mutex());
    writeFaultCountdown_ = 0;
    readFaults_.clear();
}

int SimFru::readCount() const {
    Lock lock(bmc_.mutex());
    return reads_;
}

int SimFru::writeCount() const {
    Lock lock(bmc_.mutex());
    return writes_;
}

void SimFru::clearCounts() {
    Lock lock(bmc_.mutex());
    reads_ = 0;
    writes_ = 0;
}

void SimFru::setOtherDevice(unsigned char id, Bytes image) {
    Lock lock(bmc_.mutex());
    if (image.empty())
        others_.erase(id);
    else
        others_[id] = std::move(image);
}

Bytes SimFru::otherDevice(unsigned char id) const {
    Lock lock(bmc_.mutex());
    auto it = others_.find(id);
    return it == others_.end() ? Bytes{} : it->second;
}

Bytes* SimFru::deviceImage(unsigned char id) {
    if (id == deviceId_) return &image_;
    auto it = others_.find(id);
    return it == others_.end() ? nullptr : &it->second;
}

Response SimFru::readFruData(const Request& r) {
    Lock lock(bmc_.mutex());
    ++reads_;
    if (r.data.size() != fruData::readRequestSize) return {cc::requestDataLengthInvalid};
    const Bytes* image = deviceImage(r.data[fruData::requestDeviceId]);
    if (image == nullptr) return {cc::notPresent};
    const unsigned int offset = r.data[fruData::requestOffset] | r.data[fruData::requestOffset + 1] << 8;
    unsigned int count = r.data[fruData::readRequestCount];
    for (const ReadFault& f : readFaults_)
        if (offset < f.offset + f.length && f.offset < offset + std::max(count, 1u)) return {f.code};
    if (offset >= image->size()) return {cc::parameterOutOfRange};
    count = std::min<unsigned int>(count, static_cast<unsigned int>(image->size() - offset));
    Response response{cc::ok, static_cast<unsigned char>(count)};
    response.insert(response.end(), image->begin() + offset, image->begin() + offset + count);
    return response;
}

Response SimFru::writeFruData(const Request& r) {
    Lock lock(bmc_.mutex());
    ++writes_;
    if (writeFaultCountdown_ > 0 && --writeFaultCountdown_ == 0) return {writeFaultCode_};
    if (r.data.size() < fruData::writeRequestData) return {cc::requestDataLengthInvalid};
    Bytes* image = deviceImage(r.data[fruData::requestDeviceId]);
    if (image == nullptr) return {cc::notPresent};
    const unsigned int offset = r.data[fruData::requestOffset] | r.data[fruData::requestOffset + 1] << 8;
    if (offset >= image->size()) return {cc::parameterOutOfRange};
    const std::size_t count =
        std::min(r.data.size() - fruData::writeRequestData, image->size() - offset);
    std::copy_n(r.data.begin() + fruData::writeRequestData, count, image->begin() + offset);
    return {cc::ok, static_cast<unsigned char>(count)};
}

Response SimFru::inventoryAreaInfo(const Request& r) {
    Lock lock(bmc_.mutex());
    if (r.data.size() != 1) return {cc::requestDataLengthInvalid};
    const Bytes* image = deviceImage(r.data[0]);
    if (image == nullptr) return {cc::notPresent};
    const std::size_t size = image->size();
    return {cc::ok, static_cast<unsigned char>(size & 0xFF), static_cast<unsigned char>(size >> 8 & 0xFF),
            0x00};
}

Response SimFru::pniLocate(const Request& r) {
    Lock lock(bmc_.mutex());
    const unsigned char code =
        locateCode_ ? *locateCode_ : (image_.empty() ? cc::invalidCommand : cc::ok);
    if (code != cc::ok) return {code};
    namespace layout = qelIpmi::pniLocate;
    if (r.data.size() != sizeof(layout::request)) return {cc::requestDataLengthInvalid};
    if (!std::equal(r.data.begin(), r.data.end(), layout::request)) return {cc::invalidDataField};
    const unsigned int capacity =
        locateCapacity_ ? *locateCapacity_ : static_cast<unsigned int>(std::min<std::size_t>(image_.size(), 0xFFFF));
    return {cc::ok, deviceId_, static_cast<unsigned char>(capacity & 0xFF),
            static_cast<unsigned char>(capacity >> 8)};
}

SimFru& SimBmc::fru() {
    Lock lock(mutex_);
    if (!fru_) fru_ = std::make_shared<SimFru>(*this);
    return *fru_;
}

void registerFruCommands(SimBmc& bmc) {
    SimFru* fru = &bmc.fru();
    namespace netfn = qelIpmi::netfn;
    namespace cmd = qelIpmi::cmd;
    bmc.setHandler(netfn::storage, cmd::readFruData, [fru](const Request& r) { return fru->readFruData(r); });
    bmc.setHandler(netfn::storage, cmd::writeFruData, [fru](const Request& r) { return fru->writeFruData(r); });
    bmc.setHandler(netfn::storage, cmd::getFruInventoryAreaInfo,
                   [fru](const Request& r) { return fru->inventoryAreaInfo(r); });
    bmc.setHandler(netfn::oemPni, cmd::pniLocate, [fru](const Request& r) { return fru->pniLocate(r); });
    registerFruKeywords(bmc);
}

// ---------------------------------------------------------------- image format

namespace {

constexpr unsigned char recordTypePni = 0xF0;
constexpr unsigned int commonHeaderSize = 8;
constexpr unsigned int areaHeaderSize = 8;
constexpr unsigned int recordHeaderSize = 6;
constexpr unsigned int firstEntry = 4;
constexpr unsigned int typeByte = 14;
constexpr unsigned int maxCommonTransfer = 39;
constexpr unsigned int nicCounts = 44;
constexpr unsigned int nicAddresses = 45;
constexpr unsigned char lastMark = 0x80;

const char* const typeTexts[] = {"NIC", "FC", "FCoE", "iSCSI", "IB"};

unsigned char zeroSum(const unsigned char* data, std::size_t length) {
    unsigned char total = 0;
    for (std::size_t i = 0; i < length; ++i) total = static_cast<unsigned char>(total + data[i]);
    return static_cast<unsigned char>(-total);
}

void append(Bytes& out, const std::string& text) { out.insert(out.end(), text.begin(), text.end()); }

// An IPMI FRU type/length field: 8-bit ASCII, up to 63 bytes. One byte of
// text is no such field: its type/length byte C1 is the end-of-fields mark,
// and FRU tools stop reading the area there.
void appendField(Bytes& out, const std::string& text) {
    if (text.size() > 0x3F) throw std::length_error("PniImageBuilder: info area text above 63 bytes");
    if (text.size() == 1)
        throw std::length_error("PniImageBuilder: a 1-byte info area text reads as the end-of-fields mark");
    out.push_back(static_cast<unsigned char>(0xC0 | text.size()));
    append(out, text);
}

// Closes an info area: end-of-fields mark, padding to a multiple of 8 with
// room for the checksum, the length byte, and the checksum.
void closeInfoArea(Bytes& area) {
    area.push_back(0xC1);
    while ((area.size() + 1) % 8 != 0) area.push_back(0x00);
    area[1] = static_cast<unsigned char>((area.size() + 1) / 8);
    area.push_back(zeroSum(area.data(), area.size()));
}

Bytes chassisArea(const FruInfoTexts& t) {
    Bytes a{0x01, 0x00, 0x17};  // version, length, rack mount chassis
    appendField(a, t.chassisPartNumber);
    appendField(a, t.chassisSerial);
    closeInfoArea(a);
    return a;
}

Bytes boardArea(const FruInfoTexts& t) {
    Bytes a{0x01, 0x00, 0x00, 0x60, 0x8F, 0xC4};  // version, length, English, manufactured 2020
    appendField(a, t.boardManufacturer);
    appendField(a, t.boardProduct);
    appendField(a, t.boardSerial);
    appendField(a, t.boardPartNumber);
    appendField(a, "");  // FRU file id
    closeInfoArea(a);
    return a;
}

Bytes productArea(const FruInfoTexts& t) {
    Bytes a{0x01, 0x00, 0x00};  // version, length, English
    appendField(a, t.productManufacturer);
    appendField(a, t.productName);
    appendField(a, t.productPartNumber);
    appendField(a, t.productVersion);
    appendField(a, t.productSerial);
    appendField(a, t.productAssetTag);
    appendField(a, "");  // FRU file id
    closeInfoArea(a);
    return a;
}

std::string typeTextOf(const PniFunctionSpec& fn) {
    if (!fn.typeText.empty()) return fn.typeText;
    return fn.type < 5 ? typeTexts[fn.type] : "Other";
}

Bytes functionEntry(const PniFunctionSpec& fn, unsigned char version, unsigned char index, bool last) {
    const unsigned int common = fn.commonLength != 0 ? fn.commonLength : (version == 10 ? 24 : 16);
    if (common <= typeByte) throw std::length_error("PniImageBuilder: common area shorter than 15 bytes");
    Bytes entry(common, 0x00);
    entry[0] = static_cast<unsigned char>(index | (last ? lastMark : 0));
    entry[2] = static_cast<unsigned char>(common);
    for (unsigned int i = 3; i < typeByte; ++i) entry[i] = static_cast<unsigned char>(0x30 + i);
    const bool nic = version == 10 ? typeTextOf(fn) == "NIC" : fn.type == pniNic;
    if (version == 10) {
        const std::string text = typeTextOf(fn);
        if (typeByte + text.size() + 1 > std::min(common, maxCommonTransfer))
            throw std::length_error("PniImageBuilder: type text does not fit the common area");
        std::copy(text.begin(), text.end(), entry.begin() + typeByte);
    } else {
        entry[typeByte] = fn.type;
    }

    Bytes specific;
    if (nic) {
        if (fn.ipv4.size() > 15 || fn.ipv6.size() > 15)
            throw std::length_error("PniImageBuilder: at most 15 addresses of each kind");
        specific.insert(specific.end(), fn.otherMac.begin(), fn.otherMac.end());
        specific.insert(specific.end(), fn.mac.begin(), fn.mac.end());
        for (unsigned int i = 12; i < nicCounts; ++i) specific.push_back(static_cast<unsigned char>(0x40 + i));
        specific.push_back(static_cast<unsigned char>(fn.ipv6.size() << 4 | fn.ipv4.size()));
        for (const Ipv4Bytes& a : fn.ipv4) specific.insert(specific.end(), a.begin(), a.end());
        for (const Ipv6Bytes& a : fn.ipv6) specific.insert(specific.end(), a.begin(), a.end());
        // 1 to 4 bytes of padding, as the agent writes them.
        const std::size_t pad = 4 - (common + specific.size()) % 4;
        specific.insert(specific.end(), pad, 0x00);
    } else {
        specific = fn.specific;
        specific.insert(specific.end(), (4 - (common + specific.size()) % 4) % 4, 0x00);
    }
    entry.insert(entry.end(), specific.begin(), specific.end());
    if (entry.size() / 4 > 0xFF) throw std::length_error("PniImageBuilder: function entry too long");
    entry[1] = static_cast<unsigned char>(entry.size() / 4);
    return entry;
}

}  // namespace

PniFunctionSpec PniFunctionSpec::nic(const Mac& mac, const Mac& otherMac) {
    PniFunctionSpec fn;
    fn.type = pniNic;
    fn.mac = mac;
    fn.otherMac = otherMac;
    return fn;
}

PniFunctionSpec PniFunctionSpec::ofType(unsigned char type) {
    PniFunctionSpec fn;
    fn.type = type;
    // A world-wide name, a port name and an address: what FC-like functions
    // keep; the library never interprets it.
    for (unsigned char i = 0; i < 20; ++i) fn.specific.push_back(static_cast<unsigned char>(0xA0 + i));
    return fn;
}

PniImageBuilder PniImageBuilder::typical(unsigned char version) {
    auto mac = [](unsigned char group, unsigned char n) { return Mac{0x02, 0x00, 0x00, 0x00, group, n}; };
    PniFunctionSpec nic1 = PniFunctionSpec::nic(mac(0x0a, 1), mac(0x0b, 1));
    PniFunctionSpec nic2 = PniFunctionSpec::nic(mac(0x0a, 2), mac(0x0b, 2));
    nic2.ipv4 = {Ipv4Bytes{192, 0, 2, 10}, Ipv4Bytes{192, 0, 2, 11}};
    nic2.ipv6 = {Ipv6Bytes{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10}};
    PniFunctionSpec nic3 = PniFunctionSpec::nic(mac(0x0a, 3), mac(0x0b, 3));
    PniFunctionSpec nic4 = PniFunctionSpec::nic(mac(0x0a, 4), mac(0x0b, 4));

    PniImageBuilder b;
    b.version(version);
    b.adapter({0,
               {{{nic1, PniFunctionSpec::ofType(pniFcoe)}},
                {{nic2, PniFunctionSpec::ofType(pniIscsi)}}}});
    b.adapter({1, {{{PniFunctionSpec::ofType(pniFc), nic3}}}});
    b.adapter({2, {{{PniFunctionSpec::ofType(pniIb), nic4}}}});
    return b;
}

PniImageBuilder& PniImageBuilder::version(unsigned char version) {
    version_ = version;
    return *this;
}

PniImageBuilder& PniImageBuilder::fruSize(std::size_t size) {
    fruSize_ = size;
    return *this;
}

PniImageBuilder& PniImageBuilder::infoAreas(bool present) {
    infoAreas_ = present;
    return *this;
}

PniImageBuilder& PniImageBuilder::infoTexts(FruInfoTexts texts) {
    texts_ = std::move(texts);
    return *this;
}

PniImageBuilder& PniImageBuilder::announcedAdapters(unsigned char count) {
    announced_ = count;
    return *this;
}

PniImageBuilder& PniImageBuilder::adapter(PniAdapterSpec adapter) {
    adapters_.push_back(std::move(adapter));
    return *this;
}

PniImage PniImageBuilder::build() const {
    PniImage out;
    Bytes& image = out.bytes;
    PniLayout& layout = out.layout;
    image.assign(commonHeaderSize, 0x00);
    if (infoAreas_) {
        const Bytes areas[] = {chassisArea(texts_), boardArea(texts_), productArea(texts_)};
        unsigned short* offsets[] = {&layout.chassisArea, &layout.boardArea, &layout.productArea};
        for (int i = 0; i < 3; ++i) {
            *offsets[i] = static_cast<unsigned short>(image.size());
            image.insert(image.end(), areas[i].begin(), areas[i].end());
        }
    }
    layout.internalUseArea = static_cast<unsigned short>(image.size());
    layout.version = version_;
    layout.announcedAdapters =
        announced_ ? *announced_ : static_cast<unsigned char>(adapters_.size());
    Bytes area{0x01, 0x01, 0x01, layout.announcedAdapters, 0x00, 0x00, 0x00};
    area.push_back(zeroSum(area.data(), area.size()));
    image.insert(image.end(), area.begin(), area.end());

    layout.recordHeader = static_cast<unsigned short>(image.size());
    layout.recordData = static_cast<unsigned short>(layout.recordHeader + recordHeaderSize);
    // Bytes 0-2 are the controller's own; byte 3 the format.
    Bytes data{0x5A, 0x01, 0x00, 0x01};
    for (std::size_t a = 0; a < adapters_.size(); ++a) {
        const PniAdapterSpec& as = adapters_[a];
        PniLayout::Adapter la;
        la.offset = static_cast<unsigned short>(layout.recordData + data.size());
        la.index = as.index;
        const bool lastAdapter = a + 1 == layout.announcedAdapters;
        Bytes header(std::max<unsigned char>(as.headerLength, 3), 0x00);
        header[0] = static_cast<unsigned char>((as.index & 0x1F) | (lastAdapter ? lastMark : 0));
        header[1] = static_cast<unsigned char>(header.size());
        header[2] = static_cast<unsigned char>(as.ports.size());
        for (std::size_t i = 3; i < header.size(); ++i) header[i] = static_cast<unsigned char>(0x50 + i);
        data.insert(data.end(), header.begin(), header.end());
        for (std::size_t p = 0; p < as.ports.size(); ++p) {
            const PniPortSpec& ps = as.ports[p];
            PniLayout::Port lp;
            lp.offset = static_cast<unsigned short>(layout.recordData + data.size());
            Bytes ph(std::max<unsigned char>(ps.headerLength, 3), 0x00);
            ph[0] = static_cast<unsigned char>(p | (p + 1 == as.ports.size() ? lastMark : 0));
            ph[1] = static_cast<unsigned char>(ph.size());
            ph[2] = static_cast<unsigned char>(ps.functions.size());
            data.insert(data.end(), ph.begin(), ph.end());
            for (std::size_t f = 0; f < ps.functions.size(); ++f) {
                const PniFunctionSpec& fs = ps.functions[f];
                PniLayout::Function lf;
                lf.offset = static_cast<unsigned short>(layout.recordData + data.size());
                Bytes entry = functionEntry(fs, version_, static_cast<unsigned char>(f),
                                            f + 1 == ps.functions.size());
                lf.entryLength = static_cast<unsigned short>(entry.size());
                lf.commonLength = entry[2];
                lf.nic = version_ == 10 ? typeTextOf(fs) == "NIC" : fs.type == pniNic;
                if (lf.nic) lf.mac = fs.mac;
                data.insert(data.end(), entry.begin(), entry.end());
                lp.functions.push_back(lf);
            }
            la.ports.push_back(lp);
        }
        layout.adapters.push_back(la);
    }
    layout.recordDataLength = static_cast<unsigned short>(data.size());
    layout.end = static_cast<unsigned short>(layout.recordData + data.size());

    Bytes header{recordTypePni, version_, static_cast<unsigned char>(data.size() & 0xFF),
                 static_cast<unsigned char>(data.size() >> 8), zeroSum(data.data(), data.size())};
    header.push_back(zeroSum(header.data(), header.size()));
    image.insert(image.end(), header.begin(), header.end());
    image.insert(image.end(), data.begin(), data.end());
    if (image.size() > fruSize_ || fruSize_ > 0xFFFF)
        throw std::length_error("PniImageBuilder: the image does not fit the FRU size");
    image.resize(fruSize_, 0x00);

    image[0] = 0x01;  // common header format version
    image[1] = static_cast<unsigned char>(layout.internalUseArea / 8);
    image[2] = static_cast<unsigned char>(layout.chassisArea / 8);
    image[3] = static_cast<unsigned char>(layout.boardArea / 8);
    image[4] = static_cast<unsigned char>(layout.productArea / 8);
    image[7] = zeroSum(image.data(), 7);
    return out;
}

// ---------------------------------------------------------------- validation

namespace {

struct Problem {
    std::string text;
};

[[noreturn]] void fail(const std::string& text) { throw Problem{text}; }

std::string where(std::size_t a, std::size_t p = SIZE_MAX, std::size_t f = SIZE_MAX) {
    std::ostringstream out;
    out << "adapter " << a;
    if (p != SIZE_MAX) out << " port " << p;
    if (f != SIZE_MAX) out << " function " << f;
    return out.str();
}

// An info area: version 1, inside the image and before the internal use
// area, zero checksum, fields up to the end mark inside the area.
void checkInfoArea(const Bytes& image, unsigned int offset, unsigned int fieldsStart,
                   unsigned int internalUse, const char* name) {
    const std::string n(name);
    if (offset + 2 > image.size()) fail(n + " area outside the FRU");
    if (image[offset] != 0x01) fail(n + " area format version is not 1");
    const unsigned int length = image[offset + 1] * 8u;
    if (length == 0 || offset + length > image.size()) fail(n + " area length outside the FRU");
    if (offset < internalUse && offset + length > internalUse)
        fail(n + " area overlaps the internal use area");
    if (offset > internalUse) fail(n + " area lies behind the PNI record");
    if (zeroSum(image.data() + offset, length) != 0) fail(n + " area checksum");
    unsigned int pos = offset + fieldsStart;
    while (true) {
        if (pos >= offset + length - 1) fail(n + " area has no end-of-fields mark");
        const unsigned char tl = image[pos];
        if (tl == 0xC1) break;
        pos += 1 + (tl & 0x3F);
    }
}

PniLayout readLayout(const Bytes& image) {
    PniLayout layout;
    if (image.size() < commonHeaderSize) fail("FRU smaller than the common header");
    if (image[0] != 0x01) fail("common header format version is not 1");
    if (zeroSum(image.data(), commonHeaderSize) != 0) fail("common header checksum");
    layout.internalUseArea = static_cast<unsigned short>(image[1] * 8);
    layout.chassisArea = static_cast<unsigned short>(image[2] * 8);
    layout.boardArea = static_cast<unsigned short>(image[3] * 8);
    layout.productArea = static_cast<unsigned short>(image[4] * 8);
    if (layout.internalUseArea == 0) fail("no internal use area");
    if (layout.chassisArea) checkInfoArea(image, layout.chassisArea, 3, layout.internalUseArea, "chassis");
    if (layout.boardArea) checkInfoArea(image, layout.boardArea, 6, layout.internalUseArea, "board");
    if (layout.productArea) checkInfoArea(image, layout.productArea, 3, layout.internalUseArea, "product");

    const unsigned int areaAt = layout.internalUseArea;
    if (areaAt + areaHeaderSize > image.size()) fail("internal use area header outside the FRU");
    const unsigned char* area = image.data() + areaAt;
    if (zeroSum(area, areaHeaderSize) != 0) fail("internal use area header checksum");
    if (area[0] != 1 || area[1] != 1) fail("internal use area header is not PNI format 1");
    layout.announcedAdapters = area[3];

    const unsigned int headerAt = areaAt + area[2] * 8u;
    if (headerAt + recordHeaderSize > image.size()) fail("record header outside the FRU");
    const unsigned char* header = image.data() + headerAt;
    if (zeroSum(header, recordHeaderSize) != 0) fail("record header checksum");
    if (header[0] != recordTypePni) fail("record type is not 0xF0");
    layout.version = header[1] & 0x0F;
    if (layout.version < 10 || layout.version > 12) fail("record version outside 10 to 12");
    layout.recordHeader = static_cast<unsigned short>(headerAt);
    layout.recordData = static_cast<unsigned short>(headerAt + recordHeaderSize);
    const unsigned int length = header[2] | header[3] << 8;
    layout.recordDataLength = static_cast<unsigned short>(length);
    if (layout.recordData + length > image.size()) fail("record data run past the FRU end");
    const unsigned char* data = image.data() + layout.recordData;
    if (static_cast<unsigned char>(zeroSum(data, length) - header[4]) != 0) fail("record checksum");
    if (length < firstEntry || data[3] != 1) fail("record data format is not 1");

    unsigned int pos = firstEntry;
    auto need = [&](unsigned int size, const std::string& who) {
        if (pos + size > length) fail(who + ": entry runs past the record end");
    };
    for (unsigned int a = 0; a < layout.announcedAdapters; ++a) {
        need(3, where(a));
        const unsigned char* e = data + pos;
        if (((e[0] & lastMark) != 0) != (a + 1 == layout.announcedAdapters))
            fail(where(a) + ": last-entry mark wrong");
        if (e[1] < 3) fail(where(a) + ": entry length below 3");
        need(e[1], where(a));
        PniLayout::Adapter la;
        la.offset = static_cast<unsigned short>(layout.recordData + pos);
        la.index = e[0] & 0x1F;
        const unsigned int ports = e[2];
        pos += e[1];
        for (unsigned int p = 0; p < ports; ++p) {
            need(3, where(a, p));
            const unsigned char* pe = data + pos;
            if (((pe[0] & lastMark) != 0) != (p + 1 == ports)) fail(where(a, p) + ": last-entry mark wrong");
            if ((pe[0] & 0x1F) != p) fail(where(a, p) + ": index is not the position");
            if (pe[1] < 3) fail(where(a, p) + ": entry length below 3");
            need(pe[1], where(a, p));
            PniLayout::Port lp;
            lp.offset = static_cast<unsigned short>(layout.recordData + pos);
            const unsigned int functions = pe[2];
            pos += pe[1];
            for (unsigned int f = 0; f < functions; ++f) {
                need(3, where(a, p, f));
                const unsigned char* fe = data + pos;
                if (((fe[0] & lastMark) != 0) != (f + 1 == functions))
                    fail(where(a, p, f) + ": last-entry mark wrong");
                if ((fe[0] & 0x1F) != f) fail(where(a, p, f) + ": index is not the position");
                const unsigned int entryLength = fe[1] * 4u;
                const unsigned int common = fe[2];
                if (common <= typeByte) fail(where(a, p, f) + ": common area shorter than 15 bytes");
                if (common > entryLength) fail(where(a, p, f) + ": common area longer than the entry");
                need(entryLength, where(a, p, f));
                PniLayout::Function lf;
                lf.offset = static_cast<unsigned short>(layout.recordData + pos);
                lf.entryLength = static_cast<unsigned short>(entryLength);
                lf.commonLength = static_cast<unsigned short>(common);
                if (layout.version == 10) {
                    const unsigned int room = std::min(common, maxCommonTransfer) - typeByte;
                    const char* text = reinterpret_cast<const char*>(fe + typeByte);
                    lf.nic = std::string(text, strnlen(text, room)) == "NIC";
                } else {
                    lf.nic = fe[typeByte] == pniNic;
                }
                if (lf.nic) {
                    const unsigned int specific = entryLength - common;
                    if (specific < nicAddresses + 1) fail(where(a, p, f) + ": NIC area shorter than 46 bytes");
                    const unsigned char* s = fe + common;
                    std::copy(s + 6, s + 12, lf.mac.begin());
                    const unsigned int used = nicAddresses + 4u * (s[nicCounts] & 0x0F) + 16u * (s[nicCounts] >> 4);
                    if (used >= specific) fail(where(a, p, f) + ": NIC addresses run past the area");
                }
                lp.functions.push_back(lf);
                pos += entryLength;
            }
            la.ports.push_back(lp);
        }
        layout.adapters.push_back(la);
    }
    if (pos != length) fail("entries end before the record data does");
    layout.end = static_cast<unsigned short>(layout.recordData + pos);
    return layout;
}

}  // namespace

std::optional<PniLayout> readPniLayout(const Bytes& image, std::string* problem) {
    try {
        PniLayout layout = readLayout(image);
        if (problem != nullptr) problem->clear();
        return layout;
    } catch (const Problem& p) {
        if (problem != nullptr) *problem = p.text;
        return std::nullopt;
    }
}

std::string validatePniImage(const Bytes& image) {
    std::string problem;
    readPniLayout(image, &problem);
    return problem;
}

void resealPniImage(Bytes& image) {
    if (image.size() < commonHeaderSize) return;
    image[7] = 0;
    image[7] = zeroSum(image.data(), commonHeaderSize);
    const std::size_t areaAt = image[1] * 8u;
    if (areaAt + areaHeaderSize > image.size()) return;
    image[areaAt + 7] = 0;
    image[areaAt + 7] = zeroSum(image.data() + areaAt, areaHeaderSize);
    const std::size_t headerAt = areaAt + image[areaAt + 2] * 8u;
    if (headerAt + recordHeaderSize > image.size()) return;
    unsigned char* header = image.data() + headerAt;
    const std::size_t length = header[2] | header[3] << 8;
    if (headerAt + recordHeaderSize + length <= image.size())
        header[4] = zeroSum(header + recordHeaderSize, length);
    header[5] = 0;
    header[5] = zeroSum(header, recordHeaderSize);
}

}  // namespace qelSim
