// What the simulated controller tells about itself beyond Get Device ID
// (which lives with the application commands, qelSimApp.cpp):
//
// - the two EEPROM version records, OEM command 0x2E/0xF5 with the vendor
//   IANA number, selector 0x12 and index 0 or 1. The answer is the stored
//   record, completion code first (20 bytes by default). A foreign IANA
//   number or another selector answers 0xCC, an index above 1 0xC9, a
//   request that is not 5 bytes 0xC7.
// - the board's slot query 0x30/0x18, which the identity also sends to probe
//   for OEM features. By default the controller does not know it (0xC1, as a
//   controller without a management board answers); a test can make it
//   answer with a slot number.
#ifndef QEL_SIM_IDENTITY_H
#define QEL_SIM_IDENTITY_H

#include "qelSimBmc.h"

namespace qelSim {

class SimIdentity {
public:
    explicit SimIdentity(SimBmc& bmc);

    // The whole answer for index 0 or 1, completion code first; any length,
    // so a test can serve a short record.
    void setEepromRecord(unsigned char index, Bytes response);
    Bytes eepromRecord(unsigned char index) const;
    static Bytes defaultEepromRecord(unsigned char index);

    // Whether 0x30/0x18 answers (completion code 0 and `slot`) or 0xC1.
    void setBoardSlotAnswers(bool answers, unsigned char slot = 1);
    bool boardSlotAnswers() const;

    // ---- the handlers
    Response eepromVersion(const Request& request) const;
    Response boardSlot(const Request& request) const;

private:
    SimBmc& bmc_;
    Bytes records_[2];
    bool slotAnswers_ = false;
    unsigned char slot_ = 1;
};

}  // namespace qelSim

#endif
