#pragma once

#include <concepts>
#include <optional>

namespace tarn {

/// Arithmetic on sizes and counts that come from a file: nothing if the true result does not fit the type.
template <std::integral T>
std::optional<T> checkedAdd(T a, T b) {
  T result;
  if (__builtin_add_overflow(a, b, &result)) return std::nullopt;
  return result;
}

template <std::integral T>
std::optional<T> checkedSubtract(T a, T b) {
  T result;
  if (__builtin_sub_overflow(a, b, &result)) return std::nullopt;
  return result;
}

template <std::integral T>
std::optional<T> checkedMultiply(T a, T b) {
  T result;
  if (__builtin_mul_overflow(a, b, &result)) return std::nullopt;
  return result;
}

}  // namespace tarn
