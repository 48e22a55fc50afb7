// A whole A2L description, and what the tool does with each of its objects: resolve, decode, convert, format,
// encode; leaves of structures, groups and functions, what depends on what. The same text in UTF-16 gives the
// same description. A byte 1 separates texts that the first can include as 1, 2 ..
#include <algorithm>
#include <array>
#include <cmath>
#include <iconv.h>
#include <set>
#include <string>
#include <vector>

#include "a2l/dependency.h"
#include "a2l/description.h"
#include "a2l/folders.h"
#include "a2l/object.h"
#include "a2l/object_content.h"
#include "a2l/parser.h"
#include "a2l/structure.h"
#include "a2l/tokenizer.h"
#include "core/text.h"
#include "fuzz_input.h"
#include "value/typed_text.h"

namespace lm::fuzz {
namespace {

constexpr std::array<std::array<std::uint8_t, 8>, 5> kContents = {{
    {0, 0, 0, 0, 0, 0, 0, 0},
    {1, 2, 3, 4, 5, 6, 7, 8},
    {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},
    {0x80, 0, 0, 0, 0, 0, 0, 0x80},
    {0x7F, 0xF0, 0, 0, 0, 0, 0xF0, 0x7F},
}};

void useElement(const value::Element& element) {
    require(element.size() >= 1 && element.size() <= 8, "size of an element");
    for (const auto& content : kContents) {
        const double raw = value::decodeRaw(content.data(), element.coding);
        auto again = content;
        const value::Value exact = value::rawValue(element, content.data());
        require(same(value::toDouble(exact), raw), "one value");
        if (element.keepsIntegers()) {
            const auto& line = *element.conversion->exactLine();
            const auto units = std::get<value::Exact>(exact).units;
            require(value::encodeInteger(units, element.coding, again).ok(), "a decoded integer is encoded");
            require(again == content, "encoding gives back the bytes");
            const auto shown = value::Exact::parse(line.physical(units).shortest());
            require(shown && line.raw(*shown) == units, "integers are shown with all digits");
        } else if (!std::isnan(raw) && !element.coding.isWide()) {
            require(value::encodeRaw(raw, element.coding, again).ok(), "what was decoded can be encoded");
            require(again == content, "encoding gives back the bytes");
        }
        const double physical = element.conversion->toPhysical(raw);
        const std::string text = element.conversion->format(raw);
        if (auto written = value::encodePhysical(element, physical, again); !written) again = content;
        const auto typed = value::parseText(element, text);
        const auto written =
            typed ? value::encodePhysical(element, typed.value(), again) : Result<void>(typed.error());
        require(written || written.error().text().starts_with(element.name), "the error names the object");
    }
}

/// Whole objects over memory that holds small numbers, so that counts are often possible.
void useWhole(const a2l::Object& object) {
    constexpr std::size_t kMost = std::size_t{1} << 16U;
    const auto read = [](xcp::Address address, std::size_t size) -> Result<std::vector<std::uint8_t>> {
        if (size > kMost) return Error{ErrorCode::unsupported, "large"};
        require(address.address + std::uint64_t{size} <= std::uint64_t{1} << 32U, "within the addresses");
        std::vector<std::uint8_t> bytes(size);
        for (std::size_t i = 0; i < size; ++i)
            bytes[i] = static_cast<std::uint8_t>((address.address + i) % 5);
        return bytes;
    };
    const auto content = a2l::readObject(object, read, 7);
    if (!content) return;
    const a2l::PlacedObject& placed = content.value().placed;
    require(placed.elementCount() >= 1, "an object has an element");
    const std::size_t last = placed.elementCount() - 1;
    require(content.value().bytes(0) != nullptr && content.value().bytes(last) != nullptr, "all was read");
    useElement(placed.element(last));
    for (std::size_t i = 0; i < placed.axes().size(); ++i)
        require(content.value().points(i).size() == placed.axes()[i].count(), "every point has a value");
    if (object.isText()) require(isValidUtf8(content.value().text()), "texts are UTF-8");
    const std::vector<a2l::ObjectChange> changes = {{{}, last, content.value().physical(last)}};
    if (const auto after = a2l::changed(content.value(), changes))
        require(a2l::differences(content.value(), after.value()).size() <= 1, "one value was set");
}

void useObjects(const a2l::Description& description, const auto& records) {
    // Tables may be named by any number of objects; a few objects show all there is to their use.
    std::size_t left = 20;
    for (const auto& record : records) {
        if (left-- == 0) return;
        if (const auto whole = a2l::findObject(description, record.name)) useWhole(whole.value());
        const auto object = a2l::findScalar(description, record.name);
        if (object) {
            useElement(object.value().element());
        } else {
            require(object.error().text().find(record.name) != std::string::npos,
                    "the error names the object");
        }
    }
}

// A few of everything: what one of them can do, all can.
constexpr std::size_t kFew = 20;

bool hasPlainNames(const a2l::Description& description) {
    const auto isPlain = [](std::string_view name) { return name.find_first_of(".[") == name.npos; };
    for (const a2l::StructureType& type : description.structureTypes)
        for (const a2l::StructureComponent& component : type.components)
            if (!isPlain(component.name)) return false;
    return std::all_of(description.instances.begin(), description.instances.end(),
                       [&](const a2l::Instance& instance) { return isPlain(instance.name); });
}

void useStructures(const a2l::Description& description) {
    const bool plain = hasPlainNames(description);
    for (std::size_t i = 0; i < std::min(kFew, description.instances.size()); ++i) {
        const a2l::Instance& instance = description.instances[i];
        std::uint64_t walked = 0;
        a2l::walkLeaves(description, instance, [&](const Result<a2l::Leaf>& leaf) {
            ++walked;
            if (!leaf) return walked < kFew;
            const auto found = a2l::findLeaf(description, leaf.value().name);
            if (plain) require(found.ok(), "a leaf that is walked over is found");
            if (plain) require(found.value().address == leaf.value().address, "at the same place");
            return walked < kFew;
        });
        const std::uint64_t all = a2l::leafCount(description, instance);
        require(walked == std::min<std::uint64_t>(all, kFew), "as many leaves as were counted");
    }
}

void useFolders(const a2l::Description& description) {
    for (const auto* folders : {&description.groups, &description.functions}) {
        for (std::size_t i = 0; i < std::min(kFew, folders->size()); ++i) {
            const auto names = a2l::objectsIn(description, (*folders)[i]);
            require(std::set(names.begin(), names.end()).size() == names.size(), "each name once");
            for (std::size_t n = 0; n < std::min(kFew, names.size()); ++n)
                require(!a2l::foldersOf(description, names[n]).empty(), "a name in a folder is found there");
        }
    }
}

void useDependencies(const a2l::Description& description) {
    for (std::size_t i = 0; i < std::min(kFew, description.dependencies.size()); ++i) {
        const a2l::Dependency& dependency = description.dependencies[i];
        const auto sources = description.sources(dependency);
        const auto formula = a2l::formulaOf(description, dependency);
        if (!formula)
            require(formula.error().text().starts_with(dependency.name), "the error names the object");
        const auto order = a2l::dependentsOf(description, sources);
        if (!order) continue;
        std::set<std::string_view> open;
        for (const a2l::Dependency* next : order.value())
            open.insert(next->name);
        for (const a2l::Dependency* next : order.value()) {
            for (const std::string_view source : description.sources(*next))
                require(!open.contains(source), "sources come first");
            open.erase(next->name);
        }
    }
}

/// Texts in memory that include each other.
class Parts : public a2l::SourceTexts {
  public:
    explicit Parts(std::string_view text) {
        for (auto end = text.find('\1'); end != text.npos; end = text.find('\1')) {
            parts_.push_back(text.substr(0, end));
            text.remove_prefix(end + 1);
        }
        parts_.push_back(text);
    }
    std::string_view first() const { return parts_.front(); }

    Result<Source> enter(std::string_view name) override {
        constexpr std::size_t kMost = 50;
        const std::size_t number = name.size() == 1 ? static_cast<std::size_t>(name[0] - '0') : 0;
        if (number == 0 || number >= parts_.size() || ++entered_ > kMost)
            return Error{ErrorCode::notFound, "no such part"};
        return Source{parts_[number], "part " + std::string(name)};
    }
    void leave() override {}

  private:
    std::vector<std::string_view> parts_;
    std::size_t entered_ = 0;
};

Result<a2l::Description> parseParts(std::string_view text) {
    Parts parts(text);
    a2l::Parser parser(&parts.lines);
    if (const auto scanned = a2l::scan(parts.first(), parser, &parts); !scanned) {
        require(scanned.error().text().starts_with("A2L line ") ||
                    scanned.error().text().starts_with("A2L part "),
                "an error tells file and line");
        return scanned.error();
    }
    return parser.finish();
}

std::string asUtf16(std::string utf8) {
    static const iconv_t converter = ::iconv_open("UTF-16LE", "UTF-8");
    std::string utf16(2 * utf8.size(), '\0');
    char* from = utf8.data();
    char* to = utf16.data();
    std::size_t left = utf8.size();
    std::size_t room = utf16.size();
    require(::iconv(converter, &from, &left, &to, &room) == 0, "valid UTF-8 has a form in UTF-16");
    return "\xFF\xFE" + utf16.substr(0, utf16.size() - room);
}

void requireSame(const Result<a2l::Description>& a, const Result<a2l::Description>& b) {
    require(a.ok() == b.ok(), "both encodings load or fail");
    if (!a) return require(a.error().text() == b.error().text(), "both encodings fail alike");
    const a2l::Description& left = a.value();
    const a2l::Description& right = b.value();
    require(left.warnings == right.warnings, "the same warnings");
    require(left.measurements.size() == right.measurements.size(), "the same measurements");
    for (std::size_t i = 0; i < left.measurements.size(); ++i) {
        const auto* found = right.findMeasurement(left.measurements[i].name);
        require(found == &right.measurements[i], "every measurement is found by its name");
        require(found->longIdentifier == left.measurements[i].longIdentifier, "the same texts");
    }
    require(left.characteristics.size() == right.characteristics.size(), "the same characteristics");
    require(left.xcp.daq.has_value() == right.xcp.daq.has_value(), "the same interface");
}

}  // namespace
}  // namespace lm::fuzz

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace lm;
    const std::string_view text = fuzz::Input(data, size).rest();
    const bool inParts = isValidUtf8(text) && text.find('\1') != text.npos;
    const Result<a2l::Description> loaded = inParts ? fuzz::parseParts(text) : a2l::parseDescription(text);
    if (!inParts && isValidUtf8(text) && !text.starts_with("\xEF\xBB\xBF"))
        fuzz::requireSame(loaded, a2l::parseDescription(fuzz::asUtf16(std::string(text))));
    if (!loaded) return 0;
    for (const std::string& warning : loaded.value().warnings)
        fuzz::require(warning.starts_with("skipped: ") || warning.starts_with("left out: ") ||
                          warning.find(" line ") != std::string::npos ||
                          warning.find("(line ") != std::string::npos,
                      "a warning tells a line");
    fuzz::useObjects(loaded.value(), loaded.value().measurements);
    fuzz::useObjects(loaded.value(), loaded.value().characteristics);
    fuzz::useObjects(loaded.value(), loaded.value().axisPoints);
    fuzz::useStructures(loaded.value());
    fuzz::useFolders(loaded.value());
    fuzz::useDependencies(loaded.value());
    return 0;
}
