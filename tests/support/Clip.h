#pragma once

#include <memory>

#include "media/AVAsset.h"
#include "platform/host/PosixFileManager.h"
#include "platform/memory/InMemoryFileManager.h"

namespace tarn::test {

/// A movie on a disk in memory, and the asset that it is.
struct Clip {
  InMemoryFileManager files;
  AVAsset asset{files, "/clip.mp4"};

  Clip() = default;
  explicit Clip(const Bytes& movie) { write(movie); }
  /// A copy of a file of the host.
  explicit Clip(const Path& file) {
    PosixFileManager host("/nonexistent");
    write(readFile(host, file));
  }

  void write(const Bytes& movie) { writeFileAtomically(files, asset.url(), movie); }
  Bytes bytes() { return readFile(files, asset.url()); }
  AVAssetTrack track(AVMediaType type = AVMediaType::audio) const { return asset.tracks(type).at(0); }
  std::unique_ptr<CompressedSampleSource> samples(AVMediaType type = AVMediaType::audio) const {
    return asset.compressedSamples(track(type));
  }
};

}  // namespace tarn::test
