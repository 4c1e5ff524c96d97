// The texts of one series of a module, in the form in which they lie in memory that its module may
// write: checked when they are packed, and again when they are unpacked.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "kemd/performance.h"

// name, unit, help, and name and value of each label, sorted by name; each with its NUL. The end is
// filled with NULs.
using PackedSeries = std::array<char, 384>;

// 0, EINVAL or ENAMETOOLONG; see KemdSeriesRegister.
[[nodiscard]] int PackSeries(const KemdSeriesDescription& description, PackedSeries& packed);

// False when it is nothing that PackSeries made. `kind` is that of KemdSeriesDescription.
[[nodiscard]] bool UnpackSeries(const PackedSeries& packed, uint32_t kind, std::string_view module,
                                KemdSeriesInfo& info);

// Of texts that PackSeries made.
[[nodiscard]] std::string_view PackedName(const PackedSeries& packed);
[[nodiscard]] std::string_view PackedUnit(const PackedSeries& packed);
// All labels, with NULs between.
[[nodiscard]] std::string_view PackedLabels(const PackedSeries& packed);

// It may be shown in a terminal as it is.
[[nodiscard]] bool IsPrintable(std::string_view text);
