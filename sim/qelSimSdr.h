// The Sensor Data Record repository (storage 0x20-0x23) and the sensors it
// describes (Get Sensor Reading, sensor/event 0x2D).
//
// The repository holds the description's sensors as full, compact or
// event-only records (built by qelSdr::SensorRecord::toBytes, the same layout
// the library reads) and any other record as its bytes. It behaves as common
// controller firmware does:
// - Get SDR Repository Info gives the record count, free space and the time
//   of the last addition and erase; every change moves the addition time on
//   by at least a second, so a reader can tell two changes apart;
// - Reserve SDR Repository hands out a new reservation ID and cancels the
//   previous one; any change to the repository cancels it too;
// - Get SDR reads from any offset: a read with a non-zero offset needs the
//   current reservation, and a read carrying a stale one answers 0xC5; record
//   0x0000 is the first, 0xFFFF the last, an unknown ID answers 0xCB;
// - with a read limit set (sdr-max-read 16), a read of more bytes answers
//   0xCA, as many controllers do.
// Record IDs start at 1 and grow by the stride (sdr-id-stride), so a reader
// that counts instead of following the next-record IDs goes wrong.
//
// The sensors answer as their records say:
// - Get Sensor Reading: a threshold sensor's comparison status is worked out
//   from its raw reading and thresholds (read as the record's analog format
//   reads them) at every request, so a changed reading changes the state; a
//   discrete sensor's raw reading is its states 7:0;
// - Get Sensor Thresholds (0x04/0x27): the readable mask and the six raw
//   thresholds of the description, also for compact records, which cannot
//   hold them;
// - Get Sensor Reading Factors (0x04/0x23): for a full record, the factors
//   that hold for the raw reading asked about; a non-linear sensor
//   (linearization 0x70-0x7F) has ranges of raw readings with factors of
//   their own (factors=FROM:M:B:K1:K2), any other the record's.
#ifndef QEL_SIM_SDR_H
#define QEL_SIM_SDR_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qelSdrRecord.h"
#include "qelSimBmc.h"

namespace qelSim {

// The factors a non-linear sensor's raw readings from `from` up (to the next
// range) convert with.
struct FactorRange {
    unsigned char from = 0;
    int m = 1;
    int b = 0;
    int k1 = 0;
    int k2 = 0;
};

class SimSdr {
public:
    explicit SimSdr(SimBmc& bmc);

    // A sensor record; its record ID is assigned here. Returns the record ID.
    std::uint16_t addSensor(qelSdr::SensorRecord record, unsigned char reading = 0,
                            std::vector<FactorRange> ranges = {});
    // Any other record, as its type and body. Returns the record ID.
    std::uint16_t addRecord(unsigned char type, const Bytes& body);
    // The record of the sensor numbered `number` (owner 0x20 or any owner
    // when there is one such record) gets a new ID string. False when no
    // record has that sensor number.
    bool renameSensor(unsigned char number, const std::string& name);
    bool removeSensor(unsigned char number);
    // Empties the repository (the erase time moves on).
    void erase();

    // The raw reading Get Sensor Reading returns for a sensor.
    bool setReading(unsigned char number, unsigned char raw);

    // Every record's bytes, header included, in repository order.
    std::vector<Bytes> records() const;
    std::uint16_t reservation() const;
    std::uint32_t lastAddition() const;
    void setMaxRead(unsigned int bytes);  // 0: no limit
    unsigned int maxRead() const;
    void setIdStride(unsigned int stride);
    // Whether the controller knows the repository commands at all (0xC1).
    void setPresent(bool present);

    Response info(const Request& request) const;
    Response allocationInfo(const Request& request) const;
    Response reserve(const Request& request);
    Response getSdr(const Request& request) const;
    Response getSensorReading(const Request& request) const;
    Response getSensorReadingFactors(const Request& request) const;
    Response getSensorThresholds(const Request& request) const;

    static constexpr unsigned int capacity = 0x2000;
    static constexpr unsigned int allocationUnit = 16;
    // The controller's clock counts from here (seconds since the epoch).
    static constexpr std::uint32_t epochBase = 1700000000;

private:
    struct Entry {
        std::uint16_t id = 0;
        unsigned char type = 0;
        Bytes body;                                   // records that are not sensors
        std::optional<qelSdr::SensorRecord> sensor;   // sensor records
        std::vector<unsigned char> readings;          // one per sensor the record stands for
        std::vector<FactorRange> ranges;              // non-linear sensors, by `from`
        Bytes bytes() const;
    };
    Entry* sensorEntry(unsigned char number, std::size_t* index = nullptr);
    const Entry* sensorEntry(unsigned char number, std::size_t* index = nullptr) const;
    // The comparison status of a threshold sensor at `raw`.
    static unsigned char thresholdStatus(const qelSdr::SensorRecord& s, unsigned char raw);
    void changed();
    std::uint16_t nextId();
    std::uint32_t now() const;

    SimBmc& bmc_;
    std::vector<Entry> entries_;
    std::uint16_t lastId_ = 0;
    unsigned int stride_ = 1;
    unsigned int maxRead_ = 0;
    std::uint16_t reservation_ = 0;
    bool reservationValid_ = false;
    std::uint32_t lastAddition_ = 0;
    std::uint32_t lastErase_ = 0;
};

// "sensor ..." description words into a record and its raw reading; throws
// std::invalid_argument. See registerSdrCommands for the syntax.
qelSdr::SensorRecord parseSensorWords(const std::vector<std::string>& words, unsigned char* reading,
                                      std::vector<FactorRange>* ranges = nullptr);

}  // namespace qelSim

#endif
