// The System Event Log reader: every operation of QelSel against a
// controller whose log the input shapes (capacity, mode, ID step, the
// largest read it allows, the erase's length, records of any bytes) and
// whose replies it bends (fuzzController.h). Whatever comes back, the reader
// answers or throws QelSelError; it never reads past a reply and never loops
// without end. Every record read is then decoded as the forwarder does it:
// through a PanicAssembler, in log order, flushed at the end, so the kernel's
// panic pieces and whatever the bent replies made of records reach the text
// decoder.
//
// Input: one byte picks the first operation, the rest shapes the log, drives
// the controller and picks the operations that follow. Decoding takes no
// input, so the corpus of the reader alone still means what it meant.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>
#include <vector>

#include "fuzzController.h"
#include "fuzzNetwork.h"  // the platform's network calls (none used here)
#include "fuzzPlatform.h"
#include "qelSel.h"
#include "qelSelText.h"
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

// The forwarder's side of what was read: every record through the panic
// assembler, every byte of every event text and field looked at.
class Decoder {
public:
    void take(const qelSel::SelRecord& record) { use(assembler_.feed(record)); }
    void take(const std::vector<qelSel::SelRecord>& records) {
        for (const qelSel::SelRecord& record : records) take(record);
    }
    void finish() { use(assembler_.flush()); }

private:
    void use(const std::vector<qelSel::DecodedEvent>& events) {
        for (const qelSel::DecodedEvent& event : events) {
            for (char c : event.text) sum_ += static_cast<unsigned char>(c);
            for (const qelSel::JournalField& field : event.fields)
                for (char c : field.value) sum_ += static_cast<unsigned char>(c);
        }
    }
    qelSel::PanicAssembler assembler_;
    std::size_t sum_ = 0;
};

void operate(FuzzedDataProvider& in, qelSel::QelSel& sel, unsigned char which, Decoder& decoder) {
    const auto id = in.ConsumeIntegral<std::uint16_t>();
    const std::size_t count = in.ConsumeIntegralInRange<std::size_t>(0, 100);
    try {
        switch (which % 9) {
        case 0: (void)sel.info().percentUsed(); break;
        case 1: (void)sel.allocationInfo(); break;
        case 2: (void)sel.reserve(); break;
        case 3: (void)sel.time(); break;
        case 4: decoder.take(sel.read(id).record); break;
        case 5: decoder.take(sel.readForward(in.ConsumeBool() ? qelSel::firstRecordId : id, count).records); break;
        case 6: decoder.take(sel.readAfter(id, count).records); break;
        case 7:
            if (auto record = sel.after(id)) decoder.take(*record);
            break;
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
    Decoder decoder;
    operate(in, sel, input.selector, decoder);
    for (int more = in.ConsumeIntegralInRange<int>(0, 4); more > 0; --more)
        operate(in, sel, in.ConsumeIntegral<unsigned char>(), decoder);
    decoder.finish();
    return 0;
}
