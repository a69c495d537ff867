// The System Event Log reader: every operation of QelSel against a
// controller whose log the input shapes (capacity, mode, ID step, the
// largest read it allows, the erase's length, records of any bytes) and
// whose replies it bends (fuzzController.h). Whatever comes back, the reader
// answers or throws QelSelError; it never reads past a reply and never loops
// without end.
//
// Input: one byte picks the first operation, the rest shapes the log, drives
// the controller and picks the operations that follow.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>

#include "fuzzController.h"
#include "fuzzNetwork.h"  // the platform's network calls (none used here)
#include "fuzzPlatform.h"
#include "qelSel.h"
#include "qelSimSel.h"

namespace {

using qelFuzz::FuzzController;

void shapeLog(FuzzedDataProvider& in, qelSim::SimSel& log) {
    log.setCapacity(in.ConsumeIntegralInRange<unsigned int>(1, 64));
    log.setMode(in.ConsumeBool() ? qelSim::SimSel::Mode::circular : qelSim::SimSel::Mode::stopWhenFull);
    log.setIdStep(in.ConsumeIntegralInRange<unsigned int>(1, 0x7FFF));
    log.setMaxRead(in.ConsumeIntegralInRange<unsigned int>(1, 16));
    log.setEraseDuration(in.ConsumeIntegralInRange<unsigned int>(0, 40), in.ConsumeIntegralInRange<unsigned int>(0, 50000));
    const unsigned int records = in.ConsumeIntegralInRange<unsigned int>(0, 80);
    for (unsigned int i = 0; i < records; ++i) {
        qelSel::RawRecord r{};
        for (auto& b : r) b = in.ConsumeIntegral<std::uint8_t>();
        (void)log.add(r);
    }
}

void operate(FuzzedDataProvider& in, qelSel::QelSel& sel, unsigned char which) {
    const auto id = in.ConsumeIntegral<std::uint16_t>();
    const std::size_t count = in.ConsumeIntegralInRange<std::size_t>(0, 100);
    try {
        switch (which % 9) {
        case 0: (void)sel.info().percentUsed(); break;
        case 1: (void)sel.allocationInfo(); break;
        case 2: (void)sel.reserve(); break;
        case 3: (void)sel.time(); break;
        case 4: (void)sel.read(id); break;
        case 5: (void)sel.readForward(in.ConsumeBool() ? qelSel::firstRecordId : id, count); break;
        case 6: (void)sel.readAfter(id, count); break;
        case 7: (void)sel.after(id); break;
        default: sel.clear(); break;
        }
    } catch (qelSel::QelSelError&) {
        // A refused, missing or malformed answer: the reader's one error.
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, size_t size) {
    qelFuzz::SelectedInput input(data, size);
    FuzzedDataProvider& in = input.rest;
    FuzzController controller(in, 128);
    shapeLog(in, controller->sel());
    qelSel::QelSel sel(qelSel::QelSel::Limits{in.ConsumeIntegralInRange<unsigned int>(0, 4),
                                              in.ConsumeIntegralInRange<unsigned int>(0, 40)});
    operate(in, sel, input.selector);
    for (int more = in.ConsumeIntegralInRange<int>(0, 4); more > 0; --more)
        operate(in, sel, in.ConsumeIntegral<unsigned char>());
    return 0;
}
