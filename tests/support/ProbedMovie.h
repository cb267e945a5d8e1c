#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "mp4/DataExtensions.h"
#include "platform/FileManager.h"
#include "support/BoxEditor.h"

namespace tarn::test {

/// A packet as ffprobe tells it.
struct Packet {
  int64_t pts;
  double seconds;  ///< of the pts
  int64_t dts;
  int64_t size;       ///< bytes
  int64_t place;      ///< in the file
  std::string flags;  ///< "K" for a key, "D" where an edit list hides it
  std::string hash;

  bool isSame(const Packet& other) const {
    return pts == other.pts && dts == other.dts && flags == other.flags && hash == other.hash;
  }
};
/// By the kind of their track, "video" and "audio".
using Packets = std::map<std::string, std::vector<Packet>>;

/// The packets of a file, at the times that its edit lists give them or at those of the media.
Packets packetsOf(const Path& file, bool takesEditLists);

/// The bytes of a file, wherever it lies.
Bytes contentsOf(const Path& file);

/// The boxes of a file, one behind the other: types and bytes.
std::vector<std::pair<std::string, ByteView>> topLevel(ByteView file);

/// A movie as ffprobe and a walk of its own read it, without the engine.
struct ProbedMovie {
  explicit ProbedMovie(const Path& movie) : ProbedMovie(movie, movie) {}
  /// The packets come from another file: the same but for parameter sets without which ffprobe reads nothing.
  ProbedMovie(const Path& movie, const Path& readable);

  /// A track's edit list with its box, empty without one, and its rows (ISO/IEC 14496-12 8.6.6): duration and media
  /// time.
  Bytes edts(const std::string& handler);
  std::vector<std::pair<uint32_t, uint32_t>> rows(const std::string& handler);

  uint32_t movieTimescale() { return readUInt32(moov.at("mvhd").fields, 12).value(); }
  uint32_t timescale(const std::string& handler) {
    return readUInt32(moov.track(handler)->at("mdia/mdhd").fields, 12).value();
  }

  Path file;
  Bytes bytes;
  BoxTree moov;
  Packets media;  ///< without the edit lists
  Packets shown;
};

}  // namespace tarn::test
