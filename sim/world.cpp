#include "sim/world.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <random>

namespace lm::sim {

World::World(const Catalog& catalog) : catalog_(catalog), pages_(catalog.options()) {
    for (const Region& region : catalog.regions()) {
        memory_.push_back(std::make_unique<std::uint8_t[]>(region.size));
    }
    for (const SegmentPlace& place : catalog.segments())
        pages_.add(place, locate(place.extension, place.base, place.size, nullptr));
    // The ECU itself changes nothing in a page.
    for (const Row& row : catalog.rows()) {
        std::uint8_t* at = locate(row.extension, row.address, row.size(), nullptr);
        if (at == nullptr || row.place == Place::nowhere) continue;
        if (row.place == Place::load) {
            load_.push_back(at);
            loadSize_ = row.size();
            loadOrder_ = catalog.order(row);
        } else if (row.isModelled() && !pages_.view(row.extension, row.address, 1)) {
            signals_[row.event].push_back({&row, at, catalog.order(row)});
        }
    }
    bindInput("cal_injector", &Inputs::cal_injector, nullptr);
    bindInput("cal_idle_speed", &Inputs::cal_idle_speed, nullptr);
    bindInput("cal_wave_period", &Inputs::cal_wave_period, nullptr);
    bindInput("cal_ignition_trim", &Inputs::cal_ignition_trim, nullptr);
    bindInput("cal_pressure_offset", &Inputs::cal_pressure_offset, nullptr);
    bindInput("cal_gain", nullptr, &Inputs::cal_gain);
    bindInput("cal_wave_offset", nullptr, &Inputs::cal_wave_offset);
    bindInput("setpoint_rw", nullptr, &Inputs::setpoint_rw);
    restart();
}

void World::bindInput(std::string_view name, std::int64_t Inputs::*whole, double Inputs::*real) {
    const Row* row = catalog_.find(name);
    bound_.push_back({row, locate(row->extension, row->address, row->size(), nullptr), whole, real});
}

void World::restart() {
    for (std::size_t i = 0; i < memory_.size(); ++i) {
        const Region& region = catalog_.regions()[i];
        std::minstd_rand random;  // the same bytes everywhere and after every restart
        const bool spare = region.extension == 0 && region.base == kSpareBase;
        std::generate_n(memory_[i].get(), region.size,
                        [&] { return spare ? static_cast<std::uint8_t>(random() >> 8U) : std::uint8_t{0}; });
    }
    for (const Row& row : catalog_.rows()) {
        std::uint8_t* at = locate(row.extension, row.address, row.size(), nullptr);
        const bool initialized = row.sharesWith.empty() || row.kind == Kind::hidden;
        if (at == nullptr || row.place == Place::nowhere || !initialized) continue;
        if (!row.record.empty()) {
            storeRecord(at, row.record, catalog_.order(row),
                        [&](const std::string& target) { return catalog_.find(target)->address; });
            continue;
        }
        const std::size_t step = typeInfo(row.type).size;
        for (std::size_t i = 0; i < row.elements; ++i) {
            storeRaw(at + i * step, row.type, catalog_.order(row), row.mask, row.initial);
        }
    }
    for (std::size_t event = 0; event < kEventCount; ++event) {
        const std::string& name = catalog_.eventNames()[event];
        std::uint8_t* at = locate(kNameExtension, catalog_.eventNameAddress(event), kNameSlot, nullptr);
        std::copy(name.begin(), name.end(), at);
    }
    storeTexts();
    pages_.restart();
    counters_ = {};
    inputsStale_ = true;
}

void World::storeTexts() {
    const auto store = [this](std::uint8_t extension, std::uint32_t address, const std::string& text) {
        std::uint8_t* at = locate(extension, address, text.size(), nullptr);
        if (at != nullptr) std::copy(text.begin(), text.end(), at);
    };
    store(0, kEpkBase, catalog_.epkInMemory());
    for (std::uint8_t type = 0; type < kIdTypes; ++type)
        store(kIdExtension, type * kIdSlot, catalog_.idText(type));
}

void World::readInputs() {
    for (const Input& input : bound_) {
        const RawValue raw = loadRaw(input.at, input.row->type, catalog_.order(*input.row), input.row->mask);
        if (input.whole != nullptr) inputs_.*input.whole = raw.whole;
        if (input.real != nullptr) inputs_.*input.real = raw.real;
    }
    const Table torque = table("cal_torque_curve");
    inputs_.cal_torque_curve = {torque.points, torque.values};
    inputs_.cal_ignition_map = {table("cal_speed_axis").points, table("cal_load_axis").points,
                                table("cal_ignition_map").values};
    inputsStale_ = false;
}

Table World::table(std::string_view name) const {
    const Row* row = catalog_.find(name);
    return readTable(locate(row->extension, row->address, row->size(), nullptr), row->record,
                     catalog_.order(*row));
}

void World::step(std::uint8_t event) {
    if (inputsStale_) readInputs();
    const std::uint32_t n = ++counters_[event];
    for (const Signal& signal : signals_[event]) {
        const Row& row = *signal.row;
        const std::size_t size = typeInfo(row.type).size;
        for (std::size_t k = 0; k < row.elements; ++k) {
            const auto i = static_cast<std::int64_t>(row.firstElement + k);
            RawValue value;
            if (row.model.whole != nullptr) value.whole = row.model.whole(n, inputs_, i);
            if (row.model.real != nullptr) value.real = row.model.real(n, inputs_, i);
            if (row.toggles) value.whole = 1 - loadRaw(signal.at, row.type, signal.order, row.mask).whole;
            storeRaw(signal.at + k * size, row.type, signal.order, row.mask, value);
        }
    }
    if (event != kEvent1ms) return;
    std::uint64_t value = n;
    for (std::uint8_t* at : load_) {
        writeSized(at, value, loadSize_, loadOrder_);
        value += kLoadStep;
    }
}

std::uint8_t* World::locate(std::uint8_t extension, std::uint32_t address, std::size_t size,
                            bool* writable) const {
    for (std::size_t i = 0; i < memory_.size(); ++i) {
        const Region& region = catalog_.regions()[i];
        if (region.extension != extension || address < region.base) continue;
        const std::size_t offset = address - region.base;
        if (offset >= region.size || size > region.size - offset) continue;
        if (writable != nullptr) *writable = region.writable;
        return memory_[i].get() + offset;
    }
    return nullptr;
}

const std::uint8_t* World::read(std::uint8_t extension, std::uint32_t address, std::size_t size) const {
    return locate(extension, address, size, nullptr);
}

const std::uint8_t* World::readByXcp(std::uint8_t extension, std::uint32_t address, std::size_t size) {
    if (const auto seen = pages_.view(extension, address, size)) return seen->bytes;
    return read(extension, address, size);
}

Access World::write(std::uint8_t extension, std::uint32_t address, std::span<const std::uint8_t> bytes) {
    bool writable = false;
    std::uint8_t* at = locate(extension, address, bytes.size(), &writable);
    if (const auto seen = pages_.view(extension, address, bytes.size())) {
        at = seen->bytes;
        writable = seen->writable;
    }
    if (at == nullptr) return Access::outOfRange;
    if (!writable) return Access::writeProtected;
    const std::vector<std::uint8_t> old(at, at + bytes.size());
    std::copy(bytes.begin(), bytes.end(), at);
    for (const Row& row : catalog_.rows()) {
        if (!row.ignoresWrites || row.extension != extension) continue;
        for (std::uint32_t i = 0; i < row.size(); ++i) {
            const std::uint32_t offset =
                row.address + i - address;  // wraps to a large number below the range
            if (offset < bytes.size()) at[offset] = old[offset];
        }
    }
    inputsStale_ = true;
    return Access::granted;
}

Result<void> World::saveMemory(const std::string& path) const {
    std::FILE* file = std::fopen(path.c_str(), "wbe");
    if (file == nullptr) return Error::fromErrno(errno, "cannot write " + path);
    bool whole = true;
    for (std::size_t i = 0; i < memory_.size(); ++i) {
        const Region& region = catalog_.regions()[i];
        std::array<std::uint8_t, 12> head{};
        writeLittle<std::uint32_t>(&head[0], region.extension);
        writeLittle(&head[4], region.base);
        writeLittle(&head[8], region.size);
        whole = whole && std::fwrite(head.data(), 1, head.size(), file) == head.size() &&
                std::fwrite(memory_[i].get(), 1, region.size, file) == region.size;
    }
    const int failure = errno;
    if (std::fclose(file) != 0) return Error::fromErrno(errno, "cannot write " + path);
    if (!whole) return Error::fromErrno(failure, "cannot write " + path);
    return {};
}

}  // namespace lm::sim
