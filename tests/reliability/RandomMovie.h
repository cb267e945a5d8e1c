#pragma once

#include <cstdint>
#include <string>

#include "platform/Bytes.h"

namespace tarn::test {

/// A movie put together at random of real pieces, healthy or damaged in some ways at once.
struct RandomMovie {
  std::string story;  ///< what was drawn
  Bytes bytes;
  Bytes truth;  ///< the same before its parameter sets and edit lists were damaged: what it should show
  /// It needs nothing but a tag or a rebuilt `hvcC`: whole parameter sets, AAC-LC in stereo at 44.1 or 48 kHz without
  /// holes or drift (or no sound), edit lists that say the truth.
  bool isHealthy;
  /// Its parameter sets are nowhere: a repair leaves the pictures as they are.
  bool lacksSets;
};

/// The same for the same seed. Its sound, at any rate, is a beep of 40 ms at each half second.
RandomMovie randomMovie(uint64_t seed);

}  // namespace tarn::test
