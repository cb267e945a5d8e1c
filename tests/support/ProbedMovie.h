#pragma once

#include <cstdint>
#include <map>
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

/// The boxes of a file, one behind the other: types and bytes; and its `moov`, whatever is behind that.
using NamedBox = std::pair<std::string, ByteView>;
std::vector<NamedBox> topLevel(ByteView file);
BoxTree moovOf(ByteView file);

/// A movie as ffprobe and a walk of its own read it, without the engine.
struct ProbedMovie {
  explicit ProbedMovie(const Path& movie);

  uint32_t movieTimescale() { return readUInt32(moov.at("mvhd").fields, 12).value(); }

  Bytes bytes;
  BoxTree moov;
  Packets shown;  ///< with the edit lists
};

}  // namespace tarn::test
