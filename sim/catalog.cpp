#include "sim/catalog.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace lm::sim {
namespace {

struct PlaceInfo {
    Place place;
    std::uint8_t extension;
    std::uint32_t base;
    bool writable;
};

constexpr std::array<PlaceInfo, 4> kPlaces{{
    {Place::parameters, 0, 0x00010000, true},
    {Place::signals, 0, 0x00012000, true},
    {Place::flash, kFlashExtension, 0x00080000, false},
    {Place::load, 0, 0x00100000, true},
}};
constexpr std::uint32_t kOutsideAddress = 0xDEAD0000;
constexpr std::uint32_t kRegionStep = 16;  // regions end on a multiple of every granularity
constexpr std::uint32_t kWideBorder = 8;   // objects of several values begin on one too, whatever their types

constexpr std::uint32_t roundUp(std::uint32_t value, std::uint32_t step) {
    return (value + step - 1) / step * step;
}

std::vector<Row> loadRows(const Options& options) {
    std::vector<Row> rows;
    const DataType type = options.loadBytes == 8 ? DataType::uint64 : DataType::ulong;
    for (std::uint32_t i = 0; i < options.loadSignals; ++i) {
        Row row;
        row.name = fmt::format("load_{:04}", i);
        row.description = "Load test signal";
        row.type = type;
        row.upper = typeInfo(type).upper;
        row.event = kEvent1ms;
        row.place = Place::load;
        rows.push_back(std::move(row));
    }
    return rows;
}

std::string cycleName(std::uint32_t us) {
    return us % 1000 == 0 ? fmt::format("cyclic_{}ms", us / 1000) : fmt::format("cyclic_{}us", us);
}

}  // namespace

RowList& RowList::add(std::string name, std::string description, DataType type, std::string conversion) {
    Row row;
    row.name = std::move(name);
    row.description = std::move(description);
    row.type = type;
    row.conversion = std::move(conversion);
    row.lower = typeInfo(type).lower;
    row.upper = typeInfo(type).upper;
    rows_.push_back(std::move(row));
    return *this;
}

RowList& RowList::on(std::uint8_t event, const Model& model) {
    last().event = event;
    last().model = model;
    return *this;
}

RowList& RowList::limits(double lower, double upper) {
    last().lower = lower;
    last().upper = upper;
    return *this;
}

RowList& RowList::order(ObjectOrder order) {
    last().order = order;
    return *this;
}

RowList& RowList::mask(std::uint64_t mask, std::string sharesWith) {
    last().mask = mask;
    last().sharesWith = std::move(sharesWith);
    return *this;
}

RowList& RowList::initial(RawValue value) {
    last().initial = value;
    return *this;
}

RowList& RowList::place(Place place) {
    last().place = place;
    return *this;
}

RowList& RowList::attributes(std::string lines) {
    last().attributes = std::move(lines);
    return *this;
}

RowList& RowList::shape(std::string shape, std::string deposit, std::uint16_t elements) {
    last().shape = std::move(shape);
    last().deposit = std::move(deposit);
    last().elements = elements;
    return *this;
}

RowList& RowList::array(std::vector<std::uint16_t> sizes) {
    last().elements = 1;
    for (const std::uint16_t size : sizes)
        last().elements = static_cast<std::uint16_t>(last().elements * size);
    last().sizes = std::move(sizes);
    last().border = kWideBorder;
    return *this;
}

RowList& RowList::record(Record record) {
    last().record = std::move(record);
    last().border = kWideBorder;
    return *this;
}

RowList& RowList::kind(Kind kind, std::uint16_t a2lVersion) {
    last().kind = kind;
    last().a2lVersion = a2lVersion;
    return *this;
}

Catalog::Catalog(const Options& options)
    : options_(options),
      eventNames_({cycleName(options.fastEventUs), "cyclic_10ms", "cyclic_100ms", "crank_tooth"}) {
    for (auto&& rows : {measurementRows(), parameterRows(), loadRows(options)}) {
        rows_.insert(rows_.end(), rows.begin(), rows.end());
    }
    layOut();
}

void Catalog::layOut() {
    for (const PlaceInfo& info : kPlaces) {
        std::uint32_t next = info.base;
        for (Row& row : rows_) {
            if (row.place != info.place) continue;
            row.extension = info.extension;
            if (!row.sharesWith.empty()) {
                row.address = find(row.sharesWith)->address + row.offset;
                continue;
            }
            const auto own = static_cast<std::uint32_t>(typeInfo(row.type).size);
            row.address = roundUp(next, row.border != 0 ? row.border : own);
            next = row.address + static_cast<std::uint32_t>(row.size());
        }
        const std::uint32_t size = roundUp(next - info.base, kRegionStep);
        if (size != 0) regions_.push_back({info.extension, info.base, size, info.writable});
    }
    for (Row& row : rows_) {
        if (row.place == Place::outside) row.address = kOutsideAddress;
    }
    if (options_.spareBytes != 0)
        regions_.push_back({0, kSpareBase, roundUp(options_.spareBytes, kRegionStep), true});
    if (options_.paging.pages != 0) divide();
    regions_.push_back({kNameExtension, 0, static_cast<std::uint32_t>(kEventCount * kNameSlot), false});
    const PageOptions& paging = options_.paging;
    if (!paging.epk.empty() && !paging.unreadableEpk)
        regions_.push_back(
            {0, kEpkBase, roundUp(static_cast<std::uint32_t>(paging.epk.size()) + 1, kRegionStep), false});
    if (!paging.epk.empty() || paging.pages != 0)
        regions_.push_back({kIdExtension, 0, kIdTypes * kIdSlot, false});
}

/// No object lies across the border.
void Catalog::divide() {
    const Region& region = regions_.front();
    std::uint32_t border = region.base + region.size;
    for (const Row& row : rows_) {
        const bool begins = row.place == Place::parameters && row.sharesWith.empty();
        const bool behind = row.address >= region.base + region.size / 2 && row.address % kWideBorder == 0;
        if (begins && behind) border = std::min(border, row.address);
    }
    segments_ = {{region.extension, region.base, border - region.base},
                 {region.extension, border, region.base + region.size - border}};
}

std::string Catalog::epkInMemory() const {
    std::string epk = options_.paging.epk;
    if (options_.paging.wrongEpk && !epk.empty()) epk.back() = epk.back() == '?' ? '!' : '?';
    return epk;
}

std::string Catalog::idText(std::uint8_t type) const {
    constexpr std::uint8_t kText = 0;
    constexpr std::uint8_t kA2lName = 1;
    constexpr std::uint8_t kEpk = 5;
    return type == kText ? "Simulated ECU" : type == kA2lName ? "ecu" : type == kEpk ? epkInMemory() : "";
}

const Row* Catalog::find(std::string_view name) const {
    const auto row = std::find_if(rows_.begin(), rows_.end(), [&](const Row& r) { return r.name == name; });
    return row == rows_.end() ? nullptr : &*row;
}

std::uint32_t Catalog::eventNameAddress(std::size_t event) const {
    return static_cast<std::uint32_t>(event * kNameSlot);
}

ByteOrder Catalog::order(const Row& row) const {
    if (row.order == ObjectOrder::module) return options_.order;
    return row.order == ObjectOrder::msbFirst ? ByteOrder::bigEndian : ByteOrder::littleEndian;
}

}  // namespace lm::sim
