#include "audio/transcode/NoiseTable.h"

#include <algorithm>
#include <random>

namespace tarn {

NoiseTable::NoiseTable() {
  std::random_device random;
  std::ranges::generate(values_, [&] { return static_cast<int16_t>(random()); });
}

NoiseTable::NoiseTable(uint64_t seed) {
  std::mt19937_64 random(seed);
  std::ranges::generate(values_, [&] { return static_cast<int16_t>(random()); });
}

NoiseTable& NoiseTable::shared() {
  static NoiseTable table;
  return table;
}

}  // namespace tarn
