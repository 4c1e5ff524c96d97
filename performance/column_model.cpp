#include "performance/column_model.h"

#include <cmath>

namespace {

constexpr std::array<double, 7> kPowers = {1, 10, 100, 1e3, 1e4, 1e5, 1e6};
constexpr uint64_t kSign = uint64_t{1} << 63;

}  // namespace

uint64_t ColumnModel::ToNumber(uint64_t bits, int scale) {
    if (scale == kWhole) return bits;
    if (scale == kBits) return (bits & kSign) != 0 ? ~bits : bits | kSign;
    const double number = std::bit_cast<double>(bits) * kPowers[static_cast<size_t>(scale)];
    // A double has whole numbers up to this; the comparison is false for what is no number.
    constexpr double kMost = 9007199254740992.0;
    if (!(std::fabs(number) < kMost)) return 0;
    return static_cast<uint64_t>(static_cast<int64_t>(std::nearbyint(number)));
}

uint64_t ColumnModel::FromNumber(uint64_t number, int scale) {
    if (scale == kWhole) return number;
    if (scale == kBits) return (number & kSign) != 0 ? number & ~kSign : ~number;
    return std::bit_cast<uint64_t>(static_cast<double>(static_cast<int64_t>(number)) /
                                   kPowers[static_cast<size_t>(scale)]);
}

// The smallest one from which the value comes back bit by bit.
int ColumnModel::ScaleFor(uint64_t bits, int from) {
    for (int scale = from; scale < kBits; ++scale) {
        if (FromNumber(ToNumber(bits, scale), scale) == bits) return scale;
    }
    return kBits;
}
