// The memory of the simulated ECU and the model that runs in it.
//
// Threads: one thread at a time. Lifetime: the catalogue must live as long as the world. Pointers into memory
// that read() gives stay valid for the life of the world; restart() rewrites the bytes in place.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "core/result.h"
#include "sim/catalog.h"
#include "sim/pages.h"

namespace lm::sim {

enum class Access : std::uint8_t { granted, outOfRange, writeProtected };

class World {
  public:
    explicit World(const Catalog& catalog);

    /// Memory as it was at power-on: parameters and signals at their initial values, counters 0.
    void restart();

    /// One occurrence of an event: counts it and computes every signal that belongs to it.
    void step(std::uint8_t event);
    /// How often the event has occurred since the start.
    std::uint32_t counter(std::uint8_t event) const { return counters_[event]; }

    /// `size` bytes of memory as the ECU uses it, null when they are not all in one region.
    const std::uint8_t* read(std::uint8_t extension, std::uint32_t address, std::size_t size) const;
    /// Likewise as XCP sees it, which may be on another page.
    const std::uint8_t* readByXcp(std::uint8_t extension, std::uint32_t address, std::size_t size);
    /// Writes whole or not at all; bytes of an object that ignores writes keep their value.
    Access write(std::uint8_t extension, std::uint32_t address, std::span<const std::uint8_t> bytes);

    Pages& pages() { return pages_; }
    /// Parameters have changed by another way than write().
    void memoryChanged() { inputsStale_ = true; }

    /// Every region: extension, base address and size (32 bits each, least significant byte first), bytes.
    Result<void> saveMemory(const std::string& path) const;

  private:
    struct Signal {
        const Row* row;
        std::uint8_t* at;
        ByteOrder order;
    };
    struct Input {
        const Row* row;
        std::uint8_t* at;
        std::int64_t Inputs::*whole;
        double Inputs::*real;
    };

    std::uint8_t* locate(std::uint8_t extension, std::uint32_t address, std::size_t size,
                         bool* writable) const;
    void bindInput(std::string_view name, std::int64_t Inputs::*whole, double Inputs::*real);
    void readInputs();
    Table table(std::string_view name) const;

    void storeTexts();

    const Catalog& catalog_;
    Pages pages_;
    std::vector<std::unique_ptr<std::uint8_t[]>> memory_;  ///< bytes of each region of the catalogue
    std::array<std::uint32_t, kEventCount> counters_{};
    std::array<std::vector<Signal>, kEventCount> signals_;
    std::vector<std::uint8_t*> load_;  ///< the load signals, which have no model of their own
    std::size_t loadSize_ = 4;
    ByteOrder loadOrder_ = ByteOrder::littleEndian;
    std::vector<Input> bound_;
    Inputs inputs_;
    bool inputsStale_ = true;
};

}  // namespace lm::sim
