#pragma once

namespace tarn {

/// Holds what times and timescales of 64 and 32 bits multiply to.
__extension__ using Int128 = __int128;

/// To the nearest whole number; a half goes away from zero. The divisor is above 0.
constexpr Int128 dividedAndRounded(Int128 value, Int128 divisor) {
  return (value + (value < 0 ? -divisor : divisor) / 2) / divisor;
}

}  // namespace tarn
