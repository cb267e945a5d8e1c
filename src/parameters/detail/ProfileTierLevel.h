#pragma once

#include <array>
#include <cstddef>

namespace tarn {

/// Steps over the sub-layer part of profile_tier_level (ITU-T H.265 7.3.3). `subLayers` is sps_max_sub_layers_minus1,
/// 0 to 7; `readBit()` gives the next bit, `skip(n)` steps over n bits.
template <typename ReadBit, typename Skip>
void skipSubLayers(unsigned subLayers, ReadBit readBit, Skip skip) {
  if (subLayers == 0) return;
  struct Presence {
    bool profile = false;
    bool level = false;
  };
  std::array<Presence, 7> present;
  for (unsigned i = 0; i < subLayers; ++i) {
    present[i].profile = readBit() != 0;
    present[i].level = readBit() != 0;
  }
  skip(size_t{2} * (8 - subLayers));
  for (unsigned i = 0; i < subLayers; ++i) {
    if (present[i].profile) skip(size_t{88});
    if (present[i].level) skip(size_t{8});
  }
}

}  // namespace tarn
