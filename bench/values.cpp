// What a value costs: decoding, converting and summarising in the pyramid by kind of signal, against copying
// the record, and formulas against the same expressions compiled. Google Benchmark: see --help; scripts/bench
// takes the JSON output of interleaved repetitions.

#include <array>
#include <bit>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "core/bytes.h"
#include "storage/write/summary_writer.h"
#include "value/formula.h"

namespace {

using namespace lm;

constexpr std::size_t kSignals = 250;
constexpr std::size_t kRecords = 1024;
constexpr std::size_t kTimestamp = 8;

struct Group {
    storage::GroupInfo info;
    std::vector<std::uint8_t> records;
};

std::uint32_t next(std::uint32_t& random) {
    random = random * 1664525U + 1013904223U;
    return random >> 8U;
}

/// 250 signals of one kind and 1,024 records of random values for them.
Group makeGroup(const value::RawCoding& coding, const value::Conversion& conversion,
                std::uint32_t most = 65536) {
    Group group;
    const std::size_t size = coding.size();
    for (std::size_t i = 0; i < kSignals; ++i) {
        storage::SignalInfo signal;
        signal.name = "s" + std::to_string(i);
        signal.coding = coding;
        signal.recordOffset = static_cast<std::uint32_t>(i * size);
        signal.conversion = std::make_shared<const value::Conversion>(conversion);
        group.info.signals.push_back(std::move(signal));
    }
    group.info.recordSize = static_cast<std::uint32_t>(kSignals * size);
    group.records.resize(kRecords * (group.info.recordSize + kTimestamp));
    std::uint32_t random = 1;
    for (std::size_t at = 0; at < group.records.size(); at += group.info.recordSize + kTimestamp) {
        for (std::size_t i = 0; i < kSignals; ++i) {
            std::uint8_t* place = &group.records[at + kTimestamp + i * size];
            const std::uint32_t value = next(random) % most;
            if (coding.dataType == value::DataType::float32) {
                writeBytes(place, std::bit_cast<std::uint32_t>(static_cast<float>(value)), coding.byteOrder);
            } else {
                writeSized(place, value, size, coding.byteOrder);
            }
        }
    }
    return group;
}

value::Conversion linear() {
    return {value::Conversion::Linear{0.25, -40}, "%6.2", "degC"};
}

/// `pairs` of inputs over the range of a UWORD, at even or at uneven distances.
value::Conversion table(std::size_t pairs, bool interpolate, bool even, std::uint32_t random = 7) {
    value::Conversion::NumericTable table{interpolate, {}, {}};
    for (std::size_t i = 0; i < pairs; ++i) {
        const double place =
            even ? static_cast<double>(i) : static_cast<double>(i * i) / static_cast<double>(pairs);
        table.pairs.emplace_back(place * 65536.0 / static_cast<double>(pairs), next(random) % 1000);
    }
    return {table, "%6.2", ""};
}

/// The same group with a table of its own for every signal: nothing to share.
Group withOwnTables(Group group, std::size_t pairs) {
    std::uint32_t seed = 1;
    for (storage::SignalInfo& signal : group.info.signals)
        signal.conversion = std::make_shared<const value::Conversion>(table(pairs, true, false, seed++));
    return group;
}

value::Conversion verbal() {
    return {value::Conversion::VerbalTable{{{0, 0, "off"}, {1, 1, "on"}}, ""}, "", ""};
}

value::Formula compiled(const char* text) {
    auto formula = value::Formula::compile(text, {});
    if (!formula) std::abort();
    return std::move(formula).value();
}

value::Conversion formula(const char* text) {
    return {value::Conversion::Formulas{compiled(text), {}}, "%6.2", ""};
}

constexpr const char* kShort = "X*2+1";
constexpr const char* kLong = "((X+3)*(X-5)+X*X-(X*0.5+2)*(X-1)+(X+11)*3)*0.001-X/13+X*0.25-X/3";

/// A group in the pyramid; the time is per record of 250 values. The files lie in memory where the system has
/// such a place.
void summarise(benchmark::State& state, const Group& group) {
    namespace fs = std::filesystem;
    const fs::path memory = "/dev/shm";
    std::string directory =
        ((fs::exists(memory) ? memory : fs::temp_directory_path()) / "bench-XXXXXX").string();
    if (::mkdtemp(directory.data()) == nullptr) std::abort();
    {
        storage::RecordingFaults faults{directory};
        auto made = storage::SummaryWriter::create(0, group.info, faults);
        if (!made) std::abort();
        storage::SummaryWriter& pyramid = made.value();
        for (auto _ : state)
            pyramid.add(group.records.data(), kRecords);
        pyramid.close();
    }
    fs::remove_all(directory);
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kRecords * kSignals));
}

void copyRecords(benchmark::State& state, const Group& group) {
    std::vector<std::uint8_t> copy(group.records.size());
    const std::size_t stride = group.info.recordSize + kTimestamp;
    for (auto _ : state) {
        for (std::size_t at = 0; at < copy.size(); at += stride)
            std::memcpy(&copy[at], &group.records[at], stride);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kRecords * kSignals));
}

[[gnu::noinline]] double shortCompiled(double x) {
    return x * 2 + 1;
}

// The operators stand as in kLong.
[[gnu::noinline]] double longCompiled(double x) {
    return ((x + 3) * (x - 5) + x * x - (x * 0.5 + 2) * (x - 1) + (x + 11) * 3) * 0.001 - x / 13 + x * 0.25 -
           x / 3;
}

template <typename Function>
void evaluate(benchmark::State& state, const Function& function) {
    std::array<double, 256> values{};
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = static_cast<double>(i * 17);
    for (auto _ : state) {
        for (const double value : values)
            benchmark::DoNotOptimize(function(value));
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * values.size()));
}

void addPyramid(const char* name, const Group& group) {
    benchmark::RegisterBenchmark((std::string("pyramid/") + name).c_str(),
                                 [group](benchmark::State& state) { summarise(state, group); });
    benchmark::RegisterBenchmark((std::string("copy/") + name).c_str(),
                                 [group](benchmark::State& state) { copyRecords(state, group); });
}

void addFormula(const char* name, const char* text, double (*baseline)(double)) {
    if (compiled(text).evaluate(100.0) != baseline(100.0)) std::abort();
    benchmark::RegisterBenchmark((std::string("formula/") + name).c_str(),
                                 [formula = compiled(text)](benchmark::State& state) {
                                     evaluate(state, [&formula](double x) { return formula.evaluate(x); });
                                 });
    benchmark::RegisterBenchmark((std::string("compiled/") + name).c_str(),
                                 [baseline](benchmark::State& state) { evaluate(state, baseline); });
}

}  // namespace

int main(int argc, char** argv) {
    using value::DataType;
    constexpr ByteOrder kLittle = ByteOrder::littleEndian;
    const value::RawCoding word = {DataType::uword, kLittle, 0};
    addPyramid("linear UWORD", makeGroup(word, linear()));
    addPyramid("linear UWORD Motorola", makeGroup({DataType::uword, ByteOrder::bigEndian, 0}, linear()));
    addPyramid("linear masked UWORD", makeGroup({DataType::uword, kLittle, 0x7F0}, linear()));
    addPyramid("linear masked SLONG", makeGroup({DataType::slong, kLittle, 0xFFF00}, linear()));
    addPyramid("FLOAT32", makeGroup({DataType::float32, kLittle, 0}, value::Conversion()));
    addPyramid("linear FLOAT16", makeGroup({DataType::float16, kLittle, 0}, linear(), 31000));
    addPyramid("verbal UBYTE", makeGroup({DataType::ubyte, kLittle, 0}, verbal(), 2));
    for (const std::size_t pairs : {std::size_t{16}, std::size_t{64}, std::size_t{256}, std::size_t{1024}}) {
        const std::string count = " " + std::to_string(pairs) + " pairs";
        addPyramid(("interpolated table" + count).c_str(), makeGroup(word, table(pairs, true, false)));
        addPyramid(("nearest table" + count).c_str(), makeGroup(word, table(pairs, false, false)));
    }
    const Group words = makeGroup(word, linear());
    addPyramid("interpolated table 64 pairs, 250 tables", withOwnTables(words, 64));
    addPyramid("interpolated table 1024 pairs, 250 tables", withOwnTables(words, 1024));
    addPyramid("even table 256 pairs", makeGroup(word, table(256, true, true)));
    addPyramid("formula X*2+1", makeGroup(word, formula(kShort)));
    addPyramid("rational function",
               makeGroup(word, {value::Conversion::Rational{0, 4, 12, 0, 0, 1}, "%6.2", ""}));
    addFormula("X*2+1", kShort, &shortCompiled);
    addFormula("20 operators", kLong, &longCompiled);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
