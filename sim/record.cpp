#include "sim/record.h"

namespace lm::sim {
namespace {

std::size_t aligned(std::size_t offset, std::size_t size) {
    return (offset + size - 1) / size * size;
}

}  // namespace

std::size_t recordSize(const Record& record) {
    std::size_t end = 0;
    for (const Part& part : record) {
        const std::size_t size = typeInfo(part.type).size;
        end = aligned(end, size) + size * part.content.size();
    }
    return end;
}

void storeRecord(std::uint8_t* to, const Record& record, ByteOrder order,
                 const std::function<std::uint32_t(const std::string& target)>& addressOf) {
    std::size_t offset = 0;
    for (const Part& part : record) {
        const std::size_t size = typeInfo(part.type).size;
        offset = aligned(offset, size);
        for (const double content : part.content) {
            const double value = part.role == Role::pointer ? addressOf(part.target) : content;
            storeRaw(to + offset, part.type, order, 0, {static_cast<std::int64_t>(value), value});
            offset += size;
        }
    }
}

Table readTable(const std::uint8_t* from, const Record& record, ByteOrder order) {
    Table table;
    std::size_t inUse = SIZE_MAX;
    std::size_t offset = 0;
    for (const Part& part : record) {
        const TypeInfo& info = typeInfo(part.type);
        const bool counted = inUse != SIZE_MAX && (part.role == Role::points || part.role == Role::values);
        if (counted && (inUse == 0 || inUse > part.content.size())) return {};
        const std::size_t length = counted ? inUse : part.content.size();
        offset = aligned(offset, info.size);
        for (std::size_t i = 0; i < length; ++i, offset += info.size) {
            const RawValue raw = loadRaw(from + offset, part.type, order, 0);
            const double value = info.isFloat ? raw.real : static_cast<double>(raw.whole);
            if (part.role == Role::count) inUse = static_cast<std::size_t>(raw.whole);
            if (part.role == Role::points) table.points.push_back(value);
            if (part.role == Role::values) table.values.push_back(value);
        }
    }
    return table;
}

}  // namespace lm::sim
