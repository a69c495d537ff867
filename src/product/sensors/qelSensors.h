// The controller's sensors read: every sensor of a loaded SDR repository with
// its value, units, thresholds and state, and the chassis status and the
// power reading beside them.
//
// QelSensorReader sends its requests through the library's transport (the
// IPMI device seam): the controller's own sensors on the system interface
// (with the record's LUN), another owner's over IPMB to its address (channel
// 0; the record's channel is not used), one open device per address and call.
// Sensors owned by system software (an owner ID with bit 0 set) cannot be
// asked and come back with a problem. For each sensor of a full or
// compact record it asks Get Sensor Reading; a full record whose thresholds
// are readable gives them itself, so that sensor costs one request. A
// threshold sensor without them in its record (a compact record) costs a Get
// Sensor Thresholds more, a non-linear one (linearization 0x70-0x7F) a Get
// Sensor Reading Factors for its reading and for each threshold outside the
// range of raw readings an earlier answer covered (the answer names the next
// reading whose factors differ). Event-only records have no reading: they are
// not sampled.
//
// With an answer cache (setAnswerCache) the answers of Get Sensor Reading
// Factors and Get Sensor Thresholds are kept in a small file beside the SDR
// cache, keyed on the repository info the records were read under: a factors
// answer serves the raw readings it holds for (up to the next reading it
// names), outside them the sensor is asked and the answer added; a thresholds
// answer serves for thresholdsMaxAge. Get Sensor Reading is always sent, so
// the state of every reading is fresh. The file is written atomically; a
// corrupt or short one is ignored with a note.
//
// A sensor whose request fails (a completion code, a reply too short, no
// answer) becomes a sample without a reading and with a one-line problem; the
// others are read all the same. Only a controller that cannot be reached at
// all (no device) throws.
//
// The wire layouts of Get Chassis Status and the DCMI power reading are
// declared here once, for the reader and the simulated controller alike.
#ifndef QEL_SENSORS_H
#define QEL_SENSORS_H

#include <array>
#include <ctime>
#include <memory>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qelExport.h"
#include "qelSdr.h"
#include "qelSdrRecord.h"
#include "qelSensorConversion.h"

namespace qelSensors {

// Thrown when the controller cannot be reached at all.
QEL_DECLARE_ERROR(QelSensorError);

// Get Chassis Status (chassis netfn 0x00, command 0x01). Reply: completion
// code, current power state, last power event, misc chassis state, and
// optionally the front panel button capabilities.
namespace chassis {
constexpr unsigned char netfn = 0x00;
constexpr unsigned char getChassisStatus = 0x01;
constexpr std::size_t powerState = 1;
constexpr std::size_t lastPowerEvent = 2;
constexpr std::size_t miscState = 3;
constexpr std::size_t frontPanel = 4;
constexpr std::size_t minimumSize = 4;
// powerState bits; bits 6:5 the restore policy.
constexpr unsigned char powerOn = 0x01;
constexpr unsigned char powerOverload = 0x02;
constexpr unsigned char interlock = 0x04;
constexpr unsigned char powerFault = 0x08;
constexpr unsigned char powerControlFault = 0x10;
constexpr unsigned char restorePolicyShift = 5;
constexpr unsigned char restorePolicyMask = 0x03;
// miscState bits.
constexpr unsigned char intrusion = 0x01;
constexpr unsigned char frontPanelLockout = 0x02;
constexpr unsigned char driveFault = 0x04;
constexpr unsigned char coolingFault = 0x08;
}  // namespace chassis

// DCMI Get Power Reading (group extension netfn 0x2C, command 0x02). Request:
// group extension 0xDC, mode (1: system power statistics), two reserved
// bytes. Reply: completion code, 0xDC, current, minimum, maximum and average
// watts (2 bytes each), timestamp (4), statistics period in ms (4), state
// (bit 6: power measurement active). Multi-byte fields least significant byte
// first. A controller without DCMI power management answers 0xC1 (or 0xD4,
// 0xD6).
namespace dcmi {
constexpr unsigned char netfn = 0x2C;
constexpr unsigned char groupExtension = 0xDC;
constexpr unsigned char getPowerReading = 0x02;
constexpr unsigned char modeSystemPower = 0x01;
constexpr std::size_t requestSize = 4;
constexpr std::size_t replyGroup = 1;
constexpr std::size_t currentWatts = 2;
constexpr std::size_t minimumWatts = 4;
constexpr std::size_t maximumWatts = 6;
constexpr std::size_t averageWatts = 8;
constexpr std::size_t timestamp = 10;
constexpr std::size_t period = 14;
constexpr std::size_t state = 18;
constexpr std::size_t replySize = 19;
constexpr unsigned char measurementActive = 0x40;
}  // namespace dcmi

// One sensor as read now.
struct QEL_EXPORT SensorSample {
    uint16_t recordId = 0;
    uint8_t recordType = 0;     // full or compact
    uint8_t sensorNumber = 0;
    uint8_t ownerId = 0;
    uint8_t ownerLun = 0;
    std::string name;           // raw bytes from the controller; escape before printing
    uint8_t sensorType = 0;
    std::string typeName;       // "Temperature", "Power Supply", ...
    uint8_t eventReadingType = 0;
    bool thresholdBased = false;
    std::optional<double> reading;   // threshold sensors with a value only
    std::string units;               // threshold sensors; empty for discrete ones
    // Threshold sensors: from the comparison status; discrete sensors: from
    // what their asserted states mean (see discreteState). None when nothing
    // was read.
    std::optional<SensorState> state;
    // Each threshold's value, in the order of Threshold (lnc, lc, lnr, unc,
    // uc, unr); none when not readable.
    std::array<std::optional<double>, thresholdCount> thresholds{};
    std::vector<std::string> states;  // discrete sensors: the asserted states as text
    uint16_t rawStates = 0;           // discrete sensors: the state bits 14:0
    bool unavailable = false;         // the controller says the reading is unavailable
    bool scanningDisabled = false;
    std::string problem;              // why a request failed; empty when none did
    // Where its value goes in the Prometheus text format: by the record's
    // units for a threshold sensor, ipmi_sensor_value for the others.
    PrometheusMetric metric{"ipmi_sensor_value", "ipmi_sensor_state", 1.0};

    std::optional<double> threshold(Threshold t) const { return thresholds[static_cast<std::size_t>(t)]; }
};

// What Get Chassis Status says.
struct QEL_EXPORT ChassisStatus {
    bool powerOn = false;
    bool powerOverload = false;
    bool interlock = false;
    bool powerFault = false;
    bool powerControlFault = false;
    uint8_t restorePolicy = 0;  // 0 stay off, 1 restore, 2 power on, 3 unknown
    bool intrusion = false;
    bool frontPanelLockout = false;
    bool driveFault = false;
    bool coolingFault = false;
};

// What DCMI Get Power Reading (system power statistics) says.
struct QEL_EXPORT DcmiPower {
    uint16_t currentWatts = 0;
    uint16_t minimumWatts = 0;
    uint16_t maximumWatts = 0;
    uint16_t averageWatts = 0;
    uint32_t timestamp = 0;
    uint32_t periodMs = 0;
    bool active = false;
};

// A discrete sensor's state from its asserted states, the way an operator
// reads them: see the table in qelSensors.cpp.
QEL_EXPORT SensorState discreteState(uint8_t sensorType, uint8_t eventReadingType, uint16_t states);

// The answers QelSensorReader keeps on disk (qelSensors.cpp).
struct AnswerStore;

class QEL_EXPORT QelSensorReader {
public:
    QelSensorReader();
    ~QelSensorReader();
    QelSensorReader(QelSensorReader&&) noexcept;
    QelSensorReader& operator=(QelSensorReader&&) noexcept;

    // Every sensor of `records` (full and compact records, one sample per
    // sensor a shared record stands for), in record order. Throws
    // QelSensorError only when the controller cannot be reached at all.
    std::vector<SensorSample> readAll(const std::vector<qelSdr::SdrRecord>& records);

    // Get Chassis Status; none when the controller refuses, cannot be
    // reached or the reply is too short (lastProblem() says why).
    std::optional<ChassisStatus> readChassisStatus();
    // DCMI power reading; none when the controller refuses it (no DCMI
    // power management), cannot be reached or the reply is malformed.
    std::optional<DcmiPower> readDcmiPower();

    // Whether readAll gives the thresholds (the default). Without them a
    // compact record's sensor costs its reading alone: the state comes from
    // the reading either way.
    void setReadThresholds(bool read) { thresholds_ = read; }

    // Thresholds set at run time (Set Sensor Thresholds) do not change the
    // repository, so nothing tells a cached Get Sensor Thresholds answer is
    // out of date: it is asked again once it is this old (seconds, by the
    // platform's clock), which keeps `qelctl sensors` truthful within ten
    // minutes. The state of a reading never comes from it.
    static constexpr time_t thresholdsMaxAge = 10 * 60;

    // Keep the answers of Get Sensor Reading Factors and Get Sensor
    // Thresholds in `path` (QelSdrRepository::answersPath(), root prefix
    // applied) for records read under `info`; answers kept for other
    // repository info are dropped. An empty path: no cache.
    void setAnswerCache(std::string path, const qelSdr::RepositoryInfo& info);
    // What the answer cache ignored or could not write, one sentence each.
    const std::vector<std::string>& notes() const;

    // Requests sent since the reader was made.
    unsigned int requestsSent() const { return requests_; }
    const std::string& lastProblem() const { return lastProblem_; }
    // The completion code of the last readChassisStatus() or readDcmiPower()
    // answer; -1 when there was no answer.
    int lastCompletionCode() const { return lastCompletionCode_; }

private:
    unsigned int requests_ = 0;
    std::string lastProblem_;
    int lastCompletionCode_ = -1;
    bool thresholds_ = true;
    std::unique_ptr<AnswerStore> answers_;
};

}  // namespace qelSensors

#endif
