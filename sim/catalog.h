// The objects of the simulated ECU: one row each, the single source of its memory layout, its model and its
// A2L file.
//
// Threads: immutable once built. Lifetime: owns its rows; references to them live as long as the catalogue.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sim/data_type.h"
#include "sim/options.h"

namespace lm::sim {

/// Event channels, by number.
enum Event : std::uint8_t { kEvent1ms = 0, kEvent10ms = 1, kEvent100ms = 2, kEventAsync = 3 };
inline constexpr std::size_t kEventCount = 4;
inline constexpr std::uint8_t kNoEvent = 0xFF;

/// The raw values that the model reads from memory before each step; the fields bear the names of the
/// objects.
struct Inputs {
    std::int64_t cal_injector = 0;
    std::int64_t cal_idle_speed = 0;
    std::int64_t cal_wave_period = 0;
    std::int64_t cal_ignition_trim = 0;
    std::int64_t cal_pressure_offset = 0;
    double cal_gain = 0;
    double cal_wave_offset = 0;
    double setpoint_rw = 0;
};

/// A measurement as a function of its event's sample counter n (from 1) and the inputs p. At most one of the
/// two functions is there, `whole` for integer types; `text` is the same function in words (valid Python).
struct Model {
    std::int64_t (*whole)(std::int64_t n, const Inputs& p) = nullptr;
    double (*real)(std::int64_t n, const Inputs& p) = nullptr;
    std::string_view text = {};
};

enum class Kind : std::uint8_t { measurement, characteristic };
enum class Place : std::uint8_t { parameters, signals, flash, load, outside, nowhere };
enum class ObjectOrder : std::uint8_t { module, lsbFirst, msbFirst };

struct Row {
    std::string name;
    std::string description;
    Kind kind = Kind::measurement;
    DataType type = DataType::ubyte;
    ObjectOrder order = ObjectOrder::module;
    std::uint64_t mask = 0;  ///< 0: none
    std::uint8_t event = kNoEvent;
    std::string conversion = "NO_COMPU_METHOD";
    double lower = 0;
    double upper = 0;
    Model model = {};
    RawValue initial = {};
    Place place = Place::signals;
    std::string sharesWith = {};  ///< lies at the address of this earlier row
    std::uint16_t elements = 1;   ///< elements that the object takes in memory
    bool ignoresWrites = false;   ///< a DOWNLOAD succeeds and changes nothing
    std::string shape = "VALUE";  ///< A2L type of a characteristic
    std::string deposit = {};     ///< record layout; empty: the one of the data type
    std::string attributes = {};  ///< further A2L lines, each ending in a line feed
    std::uint32_t address = 0;    ///< given by the catalogue
    std::uint8_t extension = 0;   ///< given by the catalogue
    std::size_t size() const { return typeInfo(type).size * elements; }
};

/// One piece of ECU memory.
struct Region {
    std::uint8_t extension;
    std::uint32_t base;
    std::uint32_t size;
    bool writable;
};

class Catalog {
  public:
    explicit Catalog(const Options& options);

    const std::vector<Row>& rows() const { return rows_; }
    const std::vector<Region>& regions() const { return regions_; }
    /// The row of that name, null when there is none.
    const Row* find(std::string_view name) const;
    /// The names of the event channels, by number.
    const std::vector<std::string>& eventNames() const { return eventNames_; }
    /// Where the slave keeps the name of an event channel for UPLOAD.
    std::uint32_t eventNameAddress(std::size_t event) const;
    ByteOrder order(const Row& row) const;

  private:
    void layOut();

    Options options_;
    std::vector<Row> rows_;
    std::vector<Region> regions_;
    std::vector<std::string> eventNames_;
};

inline constexpr std::uint64_t kLoadStep = 7919;  ///< load_NNNN has the value n + NNNN * kLoadStep
inline constexpr std::uint8_t kFlashExtension = 1;
inline constexpr std::uint8_t kNameExtension = 0xFE;     ///< region of the event names, in no A2L file
inline constexpr std::uint32_t kNameSlot = 32;           ///< bytes kept for one event name
inline constexpr std::uint32_t kSpareBase = 0x00200000;  ///< region that no object of the catalogue lies in

// The functions that model expressions use.
/// A triangle of period `period` that climbs from 0 to period / 2 and back; 0 when the period is 0.
constexpr std::int64_t tri(std::int64_t n, std::int64_t period) {
    if (period <= 0) return 0;
    const std::int64_t phase = n % period;
    return phase < period - phase ? phase : period - phase;
}
/// The quotient without its fraction (both numbers are positive).
constexpr std::int64_t div(std::int64_t a, std::int64_t b) {
    return a / b;
}
constexpr double real(std::int64_t value) {
    return static_cast<double>(value);
}

/// Milliseconds from occurrence n of the non-cyclic event to the next one, 5 to 50.
constexpr std::int64_t asyncIntervalMs(std::int64_t n) {
    return 5 + div((n * 2654435761) % 4294967296, 65536) % 46;
}

/// Makes rows: add() appends one over the full range of its type, the other calls change the row added last.
class RowList {
  public:
    RowList& add(std::string name, std::string description, DataType type, std::string conversion);
    RowList& on(std::uint8_t event, const Model& model);
    RowList& limits(double lower, double upper);
    RowList& order(ObjectOrder order);
    /// With `sharesWith` the row lies at the address of that earlier row.
    RowList& mask(std::uint64_t mask, std::string sharesWith = {});
    RowList& initial(RawValue value);
    RowList& place(Place place);
    /// Further A2L lines of the object, each ending in a line feed.
    RowList& attributes(std::string lines);
    /// A2L type and record layout of a characteristic that is more than one value.
    RowList& shape(std::string shape, std::string deposit, std::uint16_t elements);
    Row& last() { return rows_.back(); }
    std::vector<Row> take() { return std::move(rows_); }

  private:
    std::vector<Row> rows_;
};

/// The rows of the two kinds, in the order of the A2L file.
std::vector<Row> measurementRows();
std::vector<Row> parameterRows();

}  // namespace lm::sim
