#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace tarn {

/// Noise that a silence carries: a table of values spread evenly over the 16-bit range, drawn one after the other,
/// round and round. Serves one thread.
class NoiseTable {
 public:
  static constexpr size_t size = 4096;

  /// Fills the table from the system's random generator.
  NoiseTable();
  /// The same values for the same seed.
  explicit NoiseTable(uint64_t seed);

  /// The next value. The first draw reads element 1.
  int16_t draw() {
    index_ = (index_ + 1) % size;
    return values_[index_];
  }

  /// The one of this process, made on first use and never reset: a silence goes on in it where the one before stopped.
  /// Only the thread of the one running transcoding may touch it. Assign to it for noise that is the same every time.
  static NoiseTable& shared();

 private:
  std::array<int16_t, size> values_;
  size_t index_ = 0;
};

}  // namespace tarn
