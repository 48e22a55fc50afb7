// The objects of an A2L file over memory that is given in text, for calculations of another hand to compare
// with. `object_probe FILE`, then one command per line of standard input, one line of JSON for each:
//   mem ADDRESS HEX       memory (hexadecimal, extension 0), without an answer; `clear` forgets all
//   get NAME              {"dimensions","points" per axis,"raw","physical"} or {"error"}; of a text its bytes
//   set NAME VALUE        elements or points as users name them: {"writes":{"ADDRESS":"HEX"}}
//   text NAME TEXT        likewise, of a text; the rest of the line
#include <iostream>
#include <sstream>
#include <string>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "a2l/object_content.h"
#include "a2l/object_name.h"
#include "core/text.h"

namespace lm::a2l {
namespace {

std::string errorLine(const Error& error) {
    std::string text;
    for (const char letter : error.text())
        text += letter == '"' || letter == '\\' ? std::string{'\\', letter} : std::string(1, letter);
    return "{\"error\":\"" + text + "\"}";
}

std::string number(const value::Value& value) {
    const auto* const exact = std::get_if<value::Exact>(&value);
    return exact != nullptr ? exact->shortest() : formatShortest(value::toDouble(value));
}

std::string hex(const std::uint8_t* bytes, std::size_t size) {
    return fmt::format("{:02X}", fmt::join(bytes, bytes + size, ""));
}

class Probe {
  public:
    explicit Probe(const Description& description) : description_(description) {}

    std::string answer(const std::string& line) {
        std::istringstream words(line);
        std::string command;
        std::string name;
        words >> command >> name;
        std::string rest;
        std::getline(words >> std::ws, rest);
        if (command == "clear") memory_ = {};
        if (command == "mem") put(static_cast<std::uint32_t>(std::stoul(name, nullptr, 16)), rest);
        if (command == "get") return get(name);
        if (command == "set") return set(name, rest);
        if (command == "text") return text(name, rest);
        return "";
    }

  private:
    void put(std::uint32_t address, const std::string& text) {
        std::vector<std::uint8_t> bytes;
        for (std::size_t i = 0; i + 1 < text.size(); i += 2)
            bytes.push_back(static_cast<std::uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
        memory_.add({address, 0}, bytes);
    }

    Result<ObjectContent> content(const std::string& name) const {
        auto object = findObject(description_, name);
        if (!object) return object.error();
        const auto read = [this](xcp::Address at, std::size_t size) -> Result<std::vector<std::uint8_t>> {
            const std::uint8_t* const bytes = memory_.at(at, size);
            if (bytes == nullptr)
                return Error{ErrorCode::ioError, fmt::format("no memory at {:X}+{}", at.address, size)};
            return std::vector(bytes, bytes + size);
        };
        return readObject(object.value(), read, 0);
    }

    std::string get(const std::string& name) const {
        const auto read = content(name);
        if (!read) return errorLine(read.error());
        const ObjectContent& c = read.value();
        std::vector<std::string> points;
        std::vector<std::string> raw;
        std::vector<std::string> physical;
        for (std::size_t i = 0; i < c.placed.axes().size(); ++i) {
            std::vector<std::string> axis;
            for (const auto& point : c.points(i))
                axis.push_back(number(c.placed.axes()[i].physical(point)));
            points.push_back(fmt::format("[{}]", fmt::join(axis, ",")));
        }
        for (std::size_t i = 0; i < c.placed.elementCount(); ++i) {
            raw.push_back(number(c.raw(i)));
            physical.push_back(number(c.physical(i)));
        }
        return fmt::format(R"({{"dimensions":{},"points":[{}],"raw":[{}],"physical":[{}]}})",
                           c.placed.dimensions(), fmt::join(points, ","), fmt::join(raw, ","),
                           fmt::join(physical, ","));
    }

    std::string set(const std::string& text, const std::string& number) const {
        const auto name = parseObjectName(description_, text);
        if (!name) return errorLine(name.error());
        const auto read = content(name.value().object);
        if (!read) return errorLine(read.error());
        const PlacedObject& placed = read.value().placed;
        const auto axis = name.value().axis;
        std::vector<std::uint32_t> dimensions = placed.dimensions();
        if (axis && *axis < placed.axes().size()) dimensions = {placed.axes()[*axis].count()};
        const auto numbers = selectElements(name.value(), dimensions);
        if (!numbers) return errorLine(numbers.error());
        std::vector<ObjectChange> changes;
        for (const std::size_t element : numbers.value())
            changes.push_back({axis, element, parseDouble(number).value_or(0)});
        return writes(read.value(), changed(read.value(), changes));
    }

    std::string text(const std::string& name, const std::string& text) const {
        const auto read = content(name);
        return read ? writes(read.value(), changedText(read.value(), text)) : errorLine(read.error());
    }

    static std::string writes(const ObjectContent& before, const Result<MemoryImage>& after) {
        if (!after) return errorLine(after.error());
        std::vector<std::string> all;
        for (const MemorySpan& span : differences(before, after.value()))
            all.push_back(fmt::format(R"("{:X}":"{}")", span.address.address,
                                      hex(after.value().at(span.address, span.size), span.size)));
        return fmt::format(R"({{"writes":{{{}}}}})", fmt::join(all, ","));
    }

    const Description& description_;
    MemoryImage memory_;
};

}  // namespace
}  // namespace lm::a2l

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const auto description = lm::a2l::load(argv[1]);
    if (!description) {
        std::cerr << description.error().text() << "\n";
        return 1;
    }
    lm::a2l::Probe probe(description.value());
    for (std::string line; std::getline(std::cin, line);) {
        const std::string answer = probe.answer(line);
        if (!answer.empty()) std::cout << answer << std::endl;
    }
    return 0;
}
