// PNI records: PniAccess built over a FRU image from the input, then every
// publishing operation and every area access, against a controller whose FRU
// reads and writes the input can make fail part way (the n-th write, reads of
// a range, any exchange bent by fuzzController.h).
//
// Input: two bytes (least significant first) give the image length L, then
// L image bytes; the rest drives the controller and the operations. The
// seeds are images of every record version from the simulator's builder.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstring>
#include <exception>
#include <list>
#include <vector>

#include "PniAccess.h"
#include "fuzzController.h"
#include "fuzzNetwork.h"
#include "fuzzPlatform.h"
#include "qelIpmi.h"
#include "qelSimFru.h"

namespace {

IPv4Address someIpv4(FuzzedDataProvider& in) {
    unsigned char bytes[4];
    const std::uint32_t value = in.ConsumeIntegral<std::uint32_t>();
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<unsigned char>(value >> (8 * i));
    IPv4Address address;
    address = bytes;
    return address;
}

IPv6Address someIpv6(FuzzedDataProvider& in) {
    unsigned char bytes[16] = {0x20, 0x01, 0x0d, 0xb8};
    bytes[15] = in.ConsumeIntegral<unsigned char>();
    bytes[14] = in.ConsumeIntegral<unsigned char>();
    return IPv6Address(bytes);
}

// A MAC of the record now and then, so the writes find their function.
MacAddress someMac(FuzzedDataProvider& in, const PniAccess& pni) {
    const int count = pni.getNumberOfMacAddresses();
    if (count > 0 && !in.ConsumeBool()) return pni.getMacAddress(in.ConsumeIntegralInRange<int>(0, count));
    MacAddress mac;
    for (unsigned char& b : mac.bytes) b = in.ConsumeIntegral<unsigned char>();
    return mac;
}

void areas(FuzzedDataProvider& in, PniAccess& pni) {
    const qelIpmi::QelIpmi ipmi(0, 0, qelIpmi::QelIpmi::SYSTEM_INTERFACE);
    const auto adapter = in.ConsumeIntegralInRange<unsigned char>(0, 9);
    const auto port = in.ConsumeIntegralInRange<unsigned char>(0, 17);
    const auto function = in.ConsumeIntegralInRange<unsigned char>(0, 17);
    PniPortfnCommon common;
    std::memset(common.bytes, 0, sizeof common.bytes);
    if (pni.readPortFnCommonArea(ipmi, adapter, port, function, &common) == PniAccess::resultOk)
        (void)pni.writePortFnCommonArea(ipmi, adapter, port, function, &common);
    (void)pni.getPortFunctionType(ipmi, adapter, port, function);
    std::vector<unsigned char> specific(512, 0);
    const int readLength = in.ConsumeIntegralInRange<int>(-4, 512);
    (void)pni.readPortFnSpecificArea(ipmi, adapter, port, function, readLength, specific.data());
    const int writeLength = in.ConsumeIntegralInRange<int>(-4, 512);
    for (unsigned char& b : specific) b = in.ConsumeIntegral<unsigned char>();
    (void)pni.writePortFnSpecificArea(ipmi, adapter, port, function, writeLength, specific.data());
    std::vector<unsigned char> bytes(300, 0);
    const auto offset = in.ConsumeIntegral<unsigned short>();
    const int length = in.ConsumeIntegralInRange<int>(-2, 300);
    if (pni.readFru(ipmi, offset, length, bytes.data()) == PniAccess::resultOk)
        (void)pni.writeFru(ipmi, offset, length, bytes.data());
    (void)pni.moveFru(ipmi, in.ConsumeIntegral<unsigned short>(), in.ConsumeIntegral<unsigned short>(),
                      in.ConsumeIntegralInRange<unsigned short>(0, 600));
}

void publish(FuzzedDataProvider& in, PniAccess& pni) {
    const int count = pni.getNumberOfMacAddresses();
    for (int n = -1; n <= count; ++n) (void)pni.getMacAddress(n);
    pni.clearIpAddressData();
    const unsigned rounds = in.ConsumeIntegralInRange<unsigned>(1, 4);
    for (unsigned round = 0; round < rounds; ++round) {
        const MacAddress mac = someMac(in, pni);
        pni.setIpv4Address(mac, someIpv4(in));
        std::list<IPv6Address> addresses;
        const unsigned v6 = in.ConsumeIntegralInRange<unsigned>(0, 18);
        for (unsigned i = 0; i < v6; ++i) addresses.push_back(someIpv6(in));
        pni.setIpv6Address(mac, addresses);
    }
    if (in.ConsumeBool()) pni.clearIpAddressData();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    qelFuzz::PlatformScope platformScope;

    size_t imageLength = size >= 2 ? static_cast<size_t>(data[0] | (data[1] << 8)) : 0;
    const size_t header = size >= 2 ? 2 : size;
    if (imageLength > size - header) imageLength = size - header;
    const qelSim::Bytes image(data + header, data + header + imageLength);
    FuzzedDataProvider in(data + header + imageLength, size - header - imageLength);

    qelFuzz::FuzzController controller(in, 200);
    qelSim::SimFru& fru = controller->fru();
    fru.setImage(image);
    if (in.ConsumeBool()) {
        // What the controller says about its FRU may disagree with the image.
        if (in.ConsumeBool()) fru.setLocateCapacity(in.ConsumeIntegral<unsigned short>());
        if (in.ConsumeBool()) fru.setLocateCompletionCode(in.ConsumeIntegral<unsigned char>());
        if (in.ConsumeBool()) fru.setDeviceId(in.ConsumeIntegral<unsigned char>());
        if (in.ConsumeBool())
            fru.failWrite(in.ConsumeIntegralInRange<int>(1, 40), in.ConsumeIntegralInRange<unsigned char>(1, 255));
        if (in.ConsumeBool())
            fru.failReads(in.ConsumeIntegral<unsigned short>(), in.ConsumeIntegralInRange<unsigned short>(1, 512),
                          in.ConsumeIntegralInRange<unsigned char>(1, 255));
    }

    try {
        PniAccess pni;
        (void)pni.numberOfAdapters();
        publish(in, pni);
        areas(in, pni);
        // What the writes left must still parse, or be refused cleanly.
        PniAccess again;
        publish(in, again);
    } catch (const std::exception&) {
        // PniAccessError, std::runtime_error and the transport's errors are
        // the documented ways of refusing a record.
    }
    return 0;
}
