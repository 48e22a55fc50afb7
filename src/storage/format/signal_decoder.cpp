#include "storage/format/signal_decoder.h"

#include <bit>
#include <type_traits>
#include <variant>

#include "core/bytes.h"

namespace lm::storage {

struct SignalDecoder::Loops {
    // How a raw value is read. Plain values are read inline; what is rarer goes through the decoder of the
    // raw coding.
    template <typename Value, ByteOrder kOrder>
    struct Plain {
        static double read(const SignalDecoder& /*self*/, const std::uint8_t* bytes) {
            using Word = std::conditional_t<
                sizeof(Value) == 1, std::uint8_t,
                std::conditional_t<sizeof(Value) == 2, std::uint16_t,
                                   std::conditional_t<sizeof(Value) == 4, std::uint32_t, std::uint64_t>>>;
            return static_cast<double>(std::bit_cast<Value>(readBytes<Word>(bytes, kOrder)));
        }
    };
    // A field inside an integer of at most 32 bits.
    template <typename Word, ByteOrder kOrder>
    struct Masked {
        static double read(const SignalDecoder& self, const std::uint8_t* bytes) {
            const std::uint64_t value = self.field_.valueIn(readBytes<Word>(bytes, kOrder));
            return static_cast<double>(static_cast<std::int64_t>(value));
        }
    };
    template <ByteOrder kOrder>
    struct Half {
        static double read(const SignalDecoder& /*self*/, const std::uint8_t* bytes) {
            return value::doubleFromHalf(readBytes<std::uint16_t>(bytes, kOrder));
        }
    };
    struct AnyRaw {
        static double read(const SignalDecoder& self, const std::uint8_t* bytes) {
            return self.decode_(bytes, self.coding_);
        }
    };

    // How it becomes physical.
    struct Same {
        static double convert(const SignalDecoder& /*self*/, double raw) { return raw; }
    };
    struct Scaled {
        static double convert(const SignalDecoder& self, double raw) {
            return self.factor_ * raw + self.addend_;
        }
    };
    struct Interpolated {
        static double convert(const SignalDecoder& self, double raw) {
            return value::interpolate(*self.pairs_, self.conversion_->tableIndex(), raw);
        }
    };
    struct Nearest {
        static double convert(const SignalDecoder& self, double raw) {
            return value::nearestOutput(*self.pairs_, self.conversion_->tableIndex(), raw);
        }
    };
    struct AnyConversion {
        static double convert(const SignalDecoder& self, double raw) {
            return self.conversion_->toPhysical(raw);
        }
    };

    template <typename Read, typename Convert>
    static void run(const SignalDecoder& self, ValueRange& range, const std::uint8_t* bytes,
                    std::size_t stride, std::size_t count) {
        double minimum = range.minimum;
        double maximum = range.maximum;
        for (std::size_t i = 0; i < count; ++i, bytes += stride) {
            const double value = Convert::convert(self, Read::read(self, bytes));
            // A comparison with NaN is false, so NaN never gets in.
            minimum = value < minimum ? value : minimum;
            maximum = value > maximum ? value : maximum;
        }
        range.minimum = minimum;
        range.maximum = maximum;
    }

    template <typename Convert, ByteOrder kOrder>
    static Loop choosePlain(value::DataType type) {
        switch (type) {
            case value::DataType::ubyte:
                return &run<Plain<std::uint8_t, kOrder>, Convert>;
            case value::DataType::sbyte:
                return &run<Plain<std::int8_t, kOrder>, Convert>;
            case value::DataType::uword:
                return &run<Plain<std::uint16_t, kOrder>, Convert>;
            case value::DataType::sword:
                return &run<Plain<std::int16_t, kOrder>, Convert>;
            case value::DataType::ulong:
                return &run<Plain<std::uint32_t, kOrder>, Convert>;
            case value::DataType::slong:
                return &run<Plain<std::int32_t, kOrder>, Convert>;
            case value::DataType::uint64:
                return &run<Plain<std::uint64_t, kOrder>, Convert>;
            case value::DataType::int64:
                return &run<Plain<std::int64_t, kOrder>, Convert>;
            case value::DataType::float32:
                return &run<Plain<float, kOrder>, Convert>;
            case value::DataType::float64:
                return &run<Plain<double, kOrder>, Convert>;
            case value::DataType::float16:
                break;
        }
        return &run<Half<kOrder>, Convert>;
    }

    template <typename Convert, ByteOrder kOrder>
    static Loop chooseMasked(value::DataType type) {
        switch (type) {
            case value::DataType::ubyte:
            case value::DataType::sbyte:
                return &run<Masked<std::uint8_t, kOrder>, Convert>;
            case value::DataType::uword:
            case value::DataType::sword:
                return &run<Masked<std::uint16_t, kOrder>, Convert>;
            case value::DataType::ulong:
            case value::DataType::slong:
                return &run<Masked<std::uint32_t, kOrder>, Convert>;
            default:
                return &run<AnyRaw, Convert>;
        }
    }

    template <typename Convert>
    static Loop choose(const value::RawCoding& coding) {
        if (coding.bitMask != 0) {
            return coding.byteOrder == ByteOrder::bigEndian
                       ? chooseMasked<Convert, ByteOrder::bigEndian>(coding.dataType)
                       : chooseMasked<Convert, ByteOrder::littleEndian>(coding.dataType);
        }
        return coding.byteOrder == ByteOrder::bigEndian
                   ? choosePlain<Convert, ByteOrder::bigEndian>(coding.dataType)
                   : choosePlain<Convert, ByteOrder::littleEndian>(coding.dataType);
    }
};

SignalDecoder::SignalDecoder(const SignalInfo& signal)
    : offset_(signal.recordOffset),
      coding_(signal.coding),
      field_(signal.coding),
      decode_(value::rawDecoder(signal.coding)),
      conversion_(signal.conversion.get()) {
    using value::Conversion;
    const Conversion::Kind& kind = signal.conversion->kind();
    if (const auto* linear = std::get_if<Conversion::Linear>(&kind)) {
        factor_ = linear->a;
        addend_ = linear->b;
        loop_ = Loops::choose<Loops::Scaled>(coding_);
    } else if (std::holds_alternative<Conversion::Identical>(kind) || signal.conversion->isVerbal()) {
        loop_ = Loops::choose<Loops::Same>(coding_);
    } else if (const auto* table = std::get_if<Conversion::NumericTable>(&kind);
               table != nullptr && !table->pairs.empty() && (table->interpolate || !table->defaultValue)) {
        pairs_ = &table->pairs;
        loop_ = table->interpolate ? Loops::choose<Loops::Interpolated>(coding_)
                                   : Loops::choose<Loops::Nearest>(coding_);
    } else {
        loop_ = &Loops::run<Loops::AnyRaw, Loops::AnyConversion>;
    }
}

bool SignalDecoder::shareTable(const SignalDecoder& other) {
    if (!hasTable() || !other.hasTable() || *pairs_ != *other.pairs_) return false;
    pairs_ = other.pairs_;
    conversion_ = other.conversion_;  // for the index; how it is read stays this decoder's own
    return true;
}

}  // namespace lm::storage
