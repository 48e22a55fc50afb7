// The model of one A2L file: what the tool needs of its measurements, parameters, conversions and XCP
// interface.
//
// Threads: immutable after load(); read from any thread. Lifetime: every std::string_view in the records
// below points into the description's own text store and lives as long as the Description it came from
// (moving the Description keeps them valid). Texts are UTF-8 and as written in the file, but for quotes: a
// doubled one and one behind a backslash stand there alone.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "a2l/calibration_access.h"
#include "a2l/dependency.h"
#include "a2l/folders.h"
#include "a2l/memory_segments.h"
#include "a2l/record_layout.h"
#include "a2l/structure_records.h"
#include "a2l/xcp_interface.h"
#include "core/bytes.h"
#include "core/result.h"
#include "core/stop_token.h"
#include "value/data_type.h"

namespace lm::a2l {

/// What an object says of its bits: BIT_MASK and BIT_OPERATION.
struct BitField {
    std::uint64_t mask = 0;  ///< 0: none
    bool emptyMask = false;  ///< a mask of 0 was written
    bool operation = false;  ///< there is a BIT_OPERATION; what follows is in it
    bool signExtend = false;
    std::uint8_t leftShift = 0;
    std::uint8_t rightShift = 0;
};

/// Where a record's numbers stand in a pool of the description: what few objects have costs the others a
/// word.
struct PoolRange {
    std::uint32_t first = 0;
    std::uint16_t count = 0;
};

/// MEASUREMENT.
struct Measurement {
    std::string_view name;
    std::string_view longIdentifier;
    std::string_view conversion;  ///< name of a COMPU_METHOD or NO_COMPU_METHOD
    std::string_view displayIdentifier;
    std::string_view format;                   ///< overrides the method's when not empty
    std::optional<std::string_view> physUnit;  ///< overrides the method's, also when empty
    double lowerLimit = 0;
    double upperLimit = 0;
    BitField bits;
    std::uint32_t ecuAddress = 0;
    std::uint32_t elementCount = 1;  ///< product of ARRAY_SIZE or MATRIX_DIM, saturated
    std::uint32_t firstEvent = 0;    ///< where its events begin in the description's pool
    PoolRange dimensions;            ///< MATRIX_DIM, or ARRAY_SIZE
    std::uint16_t eventCount = 0;
    std::uint16_t preferredEvent =
        0;  ///< which of them its FIXED_EVENT_LIST or DEFAULT_EVENT_LIST names first
    std::uint8_t addressExtension = 0;
    value::DataType dataType = value::DataType::ubyte;
    std::optional<ByteOrder> byteOrder;
    bool hasAddress = false;  ///< also false for a VIRTUAL one at address 0
    bool readOnly = false;
    bool readWrite = false;
    bool wordSwapped = false;       ///< a BYTE_ORDER that swaps words, which nothing here reads
    std::optional<bool> columnDir;  ///< LAYOUT
    AddressType addressType = AddressType::direct;
};

enum class CharacteristicType : std::uint8_t { value, curve, map, cuboid, cube4, cube5, valBlk, ascii };

enum class TextEncoding : std::uint8_t { notGiven, utf8, utf16, utf32 };

/// CHARACTERISTIC.
struct Characteristic {
    std::string_view name;
    std::string_view longIdentifier;
    std::string_view deposit;  ///< name of a RECORD_LAYOUT
    std::string_view conversion;
    std::string_view displayIdentifier;
    std::string_view format;
    std::optional<std::string_view> physUnit;
    double maxDiff = 0;
    double lowerLimit = 0;
    double upperLimit = 0;
    std::optional<std::pair<double, double>> extendedLimits;
    BitField bits;
    std::uint32_t address = 0;
    std::uint32_t elementCount = 1;  ///< product of MATRIX_DIM or NUMBER, saturated
    PoolRange dimensions;            ///< MATRIX_DIM, or NUMBER
    PoolRange maps;                  ///< MAP_LIST
    std::uint8_t addressExtension = 0;
    CharacteristicType type = CharacteristicType::value;
    TextEncoding encoding = TextEncoding::notGiven;
    std::optional<ByteOrder> byteOrder;
    bool wordSwapped = false;  ///< a BYTE_ORDER that swaps words, which nothing here reads
    bool guardRails = false;
    CalibrationAccess access = CalibrationAccess::notGiven;
    bool readOnly = false;   ///< READ_ONLY, or an `access` that forbids to write
    bool isVirtual = false;  ///< VIRTUAL_CHARACTERISTIC: computed by tools, has no place in ECU memory
    std::vector<AxisDescription> axes;
};

/// AXIS_PTS.
struct AxisPoints {
    std::string_view name;
    std::string_view longIdentifier;
    std::string_view inputQuantity;
    std::string_view deposit;  ///< name of a RECORD_LAYOUT
    std::string_view conversion;
    std::string_view displayIdentifier;
    std::string_view format;
    std::optional<std::string_view> physUnit;
    std::uint32_t address = 0;
    std::uint32_t maxAxisPoints = 0;
    double lowerLimit = 0;
    double upperLimit = 0;
    std::optional<std::pair<double, double>> extendedLimits;
    BitField bits;  ///< none; the objects have it in common
    std::uint8_t addressExtension = 0;
    Deposit pointDeposit = Deposit::notGiven;
    Monotony monotony = Monotony::none;
    std::optional<ByteOrder> byteOrder;
    bool wordSwapped = false;  ///< a BYTE_ORDER that swaps words, which nothing here reads
    bool guardRails = false;
    CalibrationAccess access = CalibrationAccess::notGiven;
    bool readOnly = false;  ///< READ_ONLY, or an `access` that forbids to write
};

enum class ConversionType : std::uint8_t { identical, linear, ratFunc, tabIntp, tabNointp, tabVerb, form };

/// COMPU_METHOD.
struct CompuMethod {
    std::string_view name;
    std::string_view longIdentifier;
    ConversionType type = ConversionType::identical;
    std::string_view format;
    std::string_view unit;
    std::vector<double> coefficients;  ///< COEFFS_LINEAR (a, b) or COEFFS (a to f), as `type` asks
    std::string_view tableRef;         ///< COMPU_TAB_REF
    std::string_view statusStringRef;  ///< STATUS_STRING_REF
    std::string_view formula;          ///< text of FORMULA
    std::optional<std::string_view> formulaInverse;
};

/// COMPU_TAB.
struct CompuTab {
    std::string_view name;
    std::vector<std::pair<double, double>> pairs;  ///< (InVal, OutVal) in file order
    std::optional<double> defaultNumeric;
    std::string_view defaultText;
};

/// COMPU_VTAB and COMPU_VTAB_RANGE; a pair of the former has equal bounds.
struct CompuVtab {
    struct Range {
        double lower = 0;
        double upper = 0;
        std::string_view text;
    };
    std::string_view name;
    std::vector<Range> ranges;  ///< in file order
    std::string_view defaultText;
};

/// What MOD_COMMON and MOD_PAR say of all objects.
struct ObjectDefaults {
    bool wordSwapped = false;  ///< a BYTE_ORDER that swaps words, which nothing here reads
    Alignments alignments{};
    Deposit deposit = Deposit::notGiven;
    std::string_view layout;              ///< S_REC_LAYOUT
    std::uint32_t calibrationOffset = 0;  ///< ECU_CALIBRATION_OFFSET
};

class Description {
  public:
    Description();
    ~Description();
    Description(Description&&) noexcept;
    Description& operator=(Description&&) noexcept;
    Description(const Description&) = delete;
    Description& operator=(const Description&) = delete;

    /// Lookups by exact, case-sensitive name; nullptr when there is none. The pointers live as long as the
    /// object.
    const Measurement* findMeasurement(std::string_view name) const;
    const Characteristic* findCharacteristic(std::string_view name) const;
    const AxisPoints* findAxisPoints(std::string_view name) const;
    const CompuMethod* findCompuMethod(std::string_view name) const;
    const CompuTab* findCompuTab(std::string_view name) const;
    const CompuVtab* findCompuVtab(std::string_view name) const;
    const RecordLayout* findRecordLayout(std::string_view name) const;
    const Blob* findBlob(std::string_view name) const;
    const Instance* findInstance(std::string_view name) const;

    /// Types of instances and components: as the records of objects, without a place.
    const Measurement* findMeasurementType(std::string_view name) const;
    const Characteristic* findCharacteristicType(std::string_view name) const;
    const AxisPoints* findAxisType(std::string_view name) const;
    const Blob* findBlobType(std::string_view name) const;
    const StructureType* findStructureType(std::string_view name) const;

    const Folder* findGroup(std::string_view name) const;
    const Folder* findFunction(std::string_view name) const;
    /// How the object or leaf of that name is computed, or the one that it is an element of; nullptr when it
    /// is not.
    const Dependency* findDependency(std::string_view name) const;
    /// The same of a TYPEDEF_MEASUREMENT or TYPEDEF_CHARACTERISTIC.
    const Dependency* findTypeDependency(std::string_view name) const;
    std::span<const std::string_view> sources(const Dependency& dependency) const;

    std::span<const FolderList> lists(const Folder& folder) const;
    std::span<const NameNumber> numbers(const FolderList& list) const;
    std::string_view nameOf(NameNumber number) const;
    /// None for a name that neither an object nor a folder's list has.
    std::optional<NameNumber> numberOf(std::string_view name) const;

    std::span<const std::uint32_t> dimensions(const Extent& extent) const;
    std::string_view typeName(const Instance& instance) const;
    const InstanceDetails& details(const Instance& instance) const;
    std::span<const Overwrite> overwrites(const Instance& instance) const;

    /// Event channels that the measurement's own XCP interface data names, in file order.
    std::span<const std::uint16_t> events(const Measurement& measurement) const;
    /// Those of an instance, for the measurements in it that name none.
    std::span<const std::uint16_t> events(const Instance& instance) const;
    /// The numbers of MATRIX_DIM as written, or the one of ARRAY_SIZE or NUMBER.
    std::span<const std::uint32_t> dimensions(PoolRange range) const;
    /// The names of a MAP_LIST.
    std::span<const std::string_view> maps(PoolRange range) const;

    // Contents, each in file order. Filled by the parser; nobody changes them afterwards.
    std::optional<std::pair<double, double>> asap2Version;
    std::string_view projectName;
    std::string_view projectLongIdentifier;
    std::string_view moduleName;
    std::string_view moduleLongIdentifier;
    std::string sha256;                  ///< of the file, in hexadecimal, when load() was asked for it
    std::optional<ByteOrder> byteOrder;  ///< of MOD_COMMON
    ObjectDefaults defaults;
    std::vector<Measurement> measurements;
    std::vector<Characteristic> characteristics;
    std::vector<AxisPoints> axisPoints;
    std::vector<CompuMethod> compuMethods;
    std::vector<CompuTab> compuTabs;
    std::vector<CompuVtab> compuVtabs;
    std::vector<RecordLayout> recordLayouts;
    std::vector<Blob> blobs;
    std::vector<Instance> instances;
    std::vector<Measurement> measurementTypes;        ///< TYPEDEF_MEASUREMENT
    std::vector<Characteristic> characteristicTypes;  ///< TYPEDEF_CHARACTERISTIC
    std::vector<AxisPoints> axisTypes;                ///< TYPEDEF_AXIS
    std::vector<Blob> blobTypes;                      ///< TYPEDEF_BLOB
    std::vector<StructureType> structureTypes;        ///< TYPEDEF_STRUCTURE
    std::vector<Folder> groups;
    std::vector<Folder> functions;
    std::vector<Dependency> dependencies;      ///< of objects, and of the leaves of instances
    std::vector<Dependency> typeDependencies;  ///< of TYPEDEF_...; sources may begin with THIS
    std::unordered_map<std::string_view, std::string_view> systemConstants;  ///< MOD_PAR: name to value text
    ModuleParameters parameters;  ///< MOD_PAR: the software, and the segments of memory
    XcpInterface xcp;

    /// What was left out while loading ("skipped: ..." with object kind, name, reason and line), and what is
    /// odd, with a line; in file order.
    std::vector<std::string> warnings;
    /// What was left out and nobody misses, with its line.
    std::vector<std::string> notes;

  private:
    friend class Parser;
    struct Store;  // texts, name indices and event pool
    std::unique_ptr<Store> store_;
};

/// Reads and parses a file; a stop ends the reading. Errors: "cannot open A2L file PATH" (with the errno),
/// "cannot read A2L file PATH: REASON", too little memory for its content and a stop included, "A2L file PATH
/// is larger than 2 GiB", the tokenizer's "A2L line N: ...", "A2L: no PROJECT block", "A2L: no MODULE block".
/// An object that cannot be read becomes a warning. The digest costs a pass over the file.
Result<Description> load(const std::filesystem::path& path, const StopToken& stop = {}, bool digest = false);

/// The same from text in memory (UTF-8, Windows-1252 or UTF-16 with a byte order mark).
Result<Description> parseDescription(std::string_view text);

}  // namespace lm::a2l
