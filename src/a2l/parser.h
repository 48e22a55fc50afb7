// Fills a Description from the blocks of one A2L text, while the text is being scanned.
//
// Threads: one at a time. Lifetime: blocks are used during the calls only; the text may be gone after
// finish().
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "a2l/block_visitor.h"
#include "a2l/description_store.h"
#include "a2l/diagnostics.h"
#include "a2l/folder_builder.h"
#include "a2l/object_readers.h"
#include "core/result.h"

namespace lm::a2l {

class Parser : public BlockVisitor {
  public:
    /// `lines` tells the files that lines are in; it must outlive this.
    explicit Parser(const SourceLines* lines = nullptr);

    Step opened(std::string_view keyword, std::size_t depth) override;
    void collected(const Block& block) override;
    void closed(const Block& block, std::size_t depth) override;
    void included(std::string_view file, std::uint32_t line) override;
    void passed(std::size_t offset, std::size_t size) override;

    /// The description of what was given. Errors (invalidArgument): "A2L: no PROJECT block", "A2L: no MODULE
    /// block".
    Result<Description> finish();

  private:
    enum class Kind : std::uint8_t {
        measurement,
        characteristic,
        axisPoints,
        compuMethod,
        compuTab,
        compuVtab,
        compuVtabRange,
        recordLayout,
        instance,
        blob,
        measurementType,
        characteristicType,
        axisType,
        blobType,
        structureType,
        group,
        function,
        modCommon,
        modPar,
        ifData,
        transformer,
        variantCoding,
        count,
    };
    using Lines = std::vector<std::uint32_t>;

    static Kind kindOf(std::string_view keyword);
    void read(const Block& block);
    void readModCommon(const Block& block);
    void readModPar(const Block& block);
    void closeRoot(const Block& block);
    void tellLeftOut(const Block& block);
    void noteSideTables(const Block& block);
    void noteDependency(const Block& object, const Block& block, DependencyKind kind);
    void addLeafDependencies();
    void indexSideTables();

    template <typename Record>
    void add(std::vector<Record>& records, Lines& lines, Record&& record, const Block& block);
    template <typename Record>
    void index(NameIndex& names, std::vector<Record>& records, Lines& lines, std::string_view kind);
    template <typename Record>
    void addObject(std::vector<Record>& records, Lines& lines, Record&& record, const Block& block);
    void tellInfiniteLimits();
    void tellNamesInCommon();
    void tellInstancesWithoutType();
    void tellOverwritesOfNothing();

    Description description_;
    TextInterner shared_;
    ModelStore modelStore_;
    Diagnostics diagnostics_;
    FolderBuilder folders_;
    LeftOutKinds leftOut_;
    Kind kind_ = Kind::count;         // of the block being collected
    std::size_t infiniteLimits_ = 0;  // objects with one
    std::string firstInfiniteLimit_;
    std::uint32_t infiniteLimitLine_ = 0;
    bool hasProject_ = false;
    bool hasModule_ = false;
    // The lines of the records, which nobody needs once the names are checked.
    Lines measurementLines_;
    Lines characteristicLines_;
    Lines axisPointsLines_;
    Lines methodLines_;
    Lines tabLines_;
    Lines vtabLines_;
    Lines layoutLines_;
    Lines instanceLines_;
    Lines blobLines_;
    Lines measurementTypeLines_;
    Lines characteristicTypeLines_;
    Lines axisTypeLines_;
    Lines blobTypeLines_;
    Lines structureTypeLines_;
    Lines groupLines_;
    Lines functionLines_;
};

}  // namespace lm::a2l
