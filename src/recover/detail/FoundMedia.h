#pragma once

#include <cstdint>
#include <vector>

#include "parameters/PictureReader.h"
#include "recover/detail/Recorder.h"

namespace tarn {

struct FoundPicture {
  uint64_t offset = 0;
  uint32_t size = 0;
  uint32_t slices = 0;
  PictureOrder order = {};
  bool isSync = false;
};

/// A packet of AAC, or a row of blocks of PCM.
struct FoundSound {
  uint64_t offset = 0;
  uint32_t size = 0;
};

/// What a walk found, in the order of the file, which is the order of decoding.
struct FoundMedia {
  std::vector<FoundPicture> pictures;
  std::vector<FoundSound> sound;
  uint64_t stop = 0;  ///< the first byte that is none of them
  uint64_t end = 0;   ///< where the media should end

  bool isBroken() const { return stop < end; }
  uint64_t soundSamples(const RecordedSound& recorded) const;
  double secondsOfPictures(const RecordedPictures& recorded) const;
  double secondsOfSound(const RecordedSound& recorded) const;

  /// Lets the chain break at this place: what begins there or after it is dropped.
  void breakAt(uint64_t offset);
  /// Drops pictures from the end, in decode order, until none is missing between those that are shown. The step of the
  /// counts is learned from all. Does nothing if more would go than a decoder may hold back.
  void dropPicturesBehindHole();
};

/// Composition times of the pictures in decode order: one picture after the other in the order of their counts, each
/// as long as recorded. Track timescale.
std::vector<int64_t> compositionTimes(const std::vector<FoundPicture>& pictures, const RecordedPictures& recorded);

}  // namespace tarn
