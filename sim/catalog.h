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
#include "sim/model.h"
#include "sim/options.h"
#include "sim/record.h"

namespace lm::sim {

/// Event channels, by number.
enum Event : std::uint8_t { kEvent1ms = 0, kEvent10ms = 1, kEvent100ms = 2, kEventAsync = 3 };
inline constexpr std::size_t kEventCount = 4;
inline constexpr std::uint8_t kNoEvent = 0xFF;

/// `hidden` takes memory alone: a leaf of a structure, or what a pointer points to.
enum class Kind : std::uint8_t { measurement, characteristic, axisPoints, blob, instance, hidden };
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
    std::string sharesWith = {};            ///< lies at the address of this earlier row
    std::uint32_t offset = 0;               ///< bytes after that address
    std::uint16_t elements = 1;             ///< elements that the object takes in memory
    std::uint16_t firstElement = 0;         ///< number of the first of them in the model
    std::vector<std::uint16_t> sizes = {};  ///< elements along each direction, X first; empty: not told
    Record record = {};                     ///< what it holds, if that is more than elements of one type
    std::uint32_t border = 0;               ///< its address is a multiple of this; 0: of the type's size
    bool toggles = false;                   ///< the model inverts what memory holds, whatever that is
    bool ignoresWrites = false;             ///< a DOWNLOAD succeeds and changes nothing
    std::string shape = "VALUE";            ///< A2L type of a characteristic
    std::string deposit = {};               ///< record layout; empty: the one of the data type
    std::string attributes = {};            ///< further A2L lines, each ending in a line feed
    std::string input = {};                 ///< input quantity of shared axis points
    std::string structure = {};             ///< structure of an instance
    std::uint16_t a2lVersion = 0;           ///< the first A2L version that can describe it, 171 for 1.71
    std::uint32_t address = 0;              ///< given by the catalogue
    std::uint8_t extension = 0;             ///< given by the catalogue
    std::size_t size() const { return record.empty() ? typeInfo(type).size * elements : recordSize(record); }
    bool isModelled() const { return model.whole != nullptr || model.real != nullptr; }
};

/// One piece of ECU memory.
struct Region {
    std::uint8_t extension;
    std::uint32_t base;
    std::uint32_t size;
    bool writable;
};

/// A part of the memory that has calibration pages.
struct SegmentPlace {
    std::uint8_t extension;
    std::uint32_t base;
    std::uint32_t size;
};

class Catalog {
  public:
    explicit Catalog(const Options& options);

    const std::vector<Row>& rows() const { return rows_; }
    const std::vector<Region>& regions() const { return regions_; }
    /// Those with pages: the parameters in two halves, none without --pages.
    const std::vector<SegmentPlace>& segments() const { return segments_; }
    /// What GET_ID tells, empty when there is no text of that type.
    std::string idText(std::uint8_t type) const;
    /// What the memory at kEpkBase holds.
    std::string epkInMemory() const;
    const Options& options() const { return options_; }
    /// The row of that name, null when there is none.
    const Row* find(std::string_view name) const;
    /// The names of the event channels, by number.
    const std::vector<std::string>& eventNames() const { return eventNames_; }
    /// Where the slave keeps the name of an event channel for UPLOAD.
    std::uint32_t eventNameAddress(std::size_t event) const;
    ByteOrder order(const Row& row) const;

  private:
    void layOut();
    void divide();

    Options options_;
    std::vector<Row> rows_;
    std::vector<Region> regions_;
    std::vector<SegmentPlace> segments_;
    std::vector<std::string> eventNames_;
};

inline constexpr std::uint64_t kLoadStep = 7919;  ///< load_NNNN has the value n + NNNN * kLoadStep
inline constexpr std::uint8_t kFlashExtension = 1;
inline constexpr std::uint8_t kNameExtension = 0xFE;  ///< region of the event names, in no A2L file
inline constexpr std::uint8_t kIdExtension = 0xFD;    ///< region of the texts of GET_ID, likewise
inline constexpr std::uint32_t kIdSlot = 256;         ///< bytes kept for one of them
inline constexpr std::uint8_t kIdTypes = 7;
inline constexpr std::uint32_t kEpkBase = 0x00090000;    ///< the EPK, flash
inline constexpr std::uint32_t kNameSlot = 32;           ///< bytes kept for one event name
inline constexpr std::uint32_t kSpareBase = 0x00200000;  ///< region that no object of the catalogue lies in

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
    /// An array, X first. It and every record lie at addresses that serve all granularities.
    RowList& array(std::vector<std::uint16_t> sizes);
    RowList& record(Record record);
    /// A measurement becomes another kind of object, which A2L knows since that version (0: always).
    RowList& kind(Kind kind, std::uint16_t a2lVersion = 0);
    void append(Row row) { rows_.push_back(std::move(row)); }
    Row& last() { return rows_.back(); }
    std::vector<Row> take() { return std::move(rows_); }

  private:
    std::vector<Row> rows_;
};

/// The rows of measurements and of parameters, in the order of the A2L file.
std::vector<Row> measurementRows();
std::vector<Row> parameterRows();
/// Axes, curves, maps, blocks, texts and structures, part of parameterRows().
void addTables(RowList& rows);
/// An instance of a structure of sim/structure.h, and a hidden row for each of its leaves.
void addInstance(RowList& rows, const Row& instance);

}  // namespace lm::sim
