#include "exporter/csv_column.h"

#include <array>
#include <bit>
#include <charconv>

#include "exporter/number_text.h"
#include "value/value_text.h"

namespace lm::exporter {

void appendField(std::string& line, std::string_view field) {
    if (field.find_first_of(",\"\r\n") == std::string_view::npos) {
        line += field;
        return;
    }
    line += '"';
    for (const char c : field) {
        if (c == '"') line += '"';
        line += c;
    }
    line += '"';
}

namespace {

bool isWide(const storage::SignalInfo& signal) {
    return signal.coding.size() == sizeof(std::uint64_t) && !value::isFloat(signal.coding.dataType) &&
           signal.conversion.binaryExponent();
}

}  // namespace

CsvColumn::CsvColumn(const storage::SignalInfo& signal, const ExportOptions& options)
    : signal_(&signal),
      offset_(signal.recordOffset),
      raw_(options.raw),
      form_(formOf(signal, options)),
      wide_(isWide(signal)),
      decode_(value::rawDecoder(signal.coding)) {}

CsvColumn::Form CsvColumn::formOf(const storage::SignalInfo& signal, const ExportOptions& options) {
    if (options.raw) return value::isFloat(signal.coding.dataType) ? Form::number : Form::rawInteger;
    if (options.a2lFormat) return Form::formatted;
    if (signal.conversion.isVerbal()) return Form::verbal;
    return isWide(signal) && *signal.conversion.binaryExponent() == 0 ? Form::rawInteger : Form::number;
}

/// What tells one cell from another, in the form that makeCell() needs.
std::uint64_t CsvColumn::rawBits(const std::uint8_t* bytes) const {
    if (form_ == Form::rawInteger || wide_) return value::decodeInteger(bytes, signal_->coding);
    return std::bit_cast<std::uint64_t>(decode_(bytes, signal_->coding));
}

void CsvColumn::makeCell(std::uint64_t bits) {
    lastBits_ = bits;
    cell_.clear();
    if (form_ == Form::rawInteger) return setInteger(bits);
    if (wide_) return setWide(bits);
    const auto raw = std::bit_cast<double>(bits);
    if (form_ == Form::formatted) {
        appendField(cell_, signal_->conversion.format(raw));
        return;
    }
    if (form_ == Form::verbal) {
        if (const auto text = signal_->conversion.verbalText(raw)) {
            appendField(cell_, *text);
            return;
        }
    }
    setNumber(raw_ ? raw : signal_->conversion.toPhysical(raw));
}

void CsvColumn::setInteger(std::uint64_t bits) {
    std::array<char, kNumberWidth> text{};
    char* end = text.data() + text.size();
    end = value::isSigned(signal_->coding.dataType)
              ? std::to_chars(text.data(), end, static_cast<std::int64_t>(bits)).ptr
              : std::to_chars(text.data(), end, bits).ptr;
    cell_.append(text.data(), end);
}

void CsvColumn::setWide(std::uint64_t bits) {
    const long double raw = value::isSigned(signal_->coding.dataType)
                                ? static_cast<long double>(static_cast<std::int64_t>(bits))
                                : static_cast<long double>(bits);
    const auto style = form_ == Form::formatted ? value::NumberStyle::formatted : value::NumberStyle::exact;
    appendField(cell_, value::valueText(raw, signal_->coding, signal_->conversion, style));
}

void CsvColumn::setNumber(double value) {
    std::array<char, kNumberWidth> text{};
    cell_.append(text.data(), writeShortest(text.data(), value));
}

}  // namespace lm::exporter
