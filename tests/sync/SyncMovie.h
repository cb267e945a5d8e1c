#pragma once

#include <array>
#include <string>
#include <vector>

#include "mp4/DataExtensions.h"
#include "support/BoxBuilder.h"

namespace tarn::test {

/// A movie of empty tracks, put together by hand, that has the timing boxes and nothing to play.
struct SyncMovie {
  struct Track {
    std::string handler;
    uint32_t timescale;
    uint32_t duration;
    std::vector<Bytes> edits = {};        // one elst, if any
    std::vector<Bytes> sampleTable = {};  // further boxes of the stbl
    std::vector<uint32_t> chunks = {};
  };

  uint32_t timescale = 1000;
  std::vector<Track> tracks;

  static Bytes elst(std::initializer_list<uint32_t> rows) {
    return box("elst", {values({0, static_cast<uint32_t>(rows.size() / 3)}), values(rows)});
  }
  static Bytes elst64(const std::vector<std::array<uint64_t, 2>>& rows) {
    Bytes contents = values({0x01000000, static_cast<uint32_t>(rows.size())});
    for (auto [duration, mediaTime] : rows) ByteWriter(contents).uint64(duration).uint64(mediaTime).uint32(0x10000);
    return box("elst", {contents});
  }

  static Bytes together(const std::vector<Bytes>& parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
  }

  static Bytes trak(const Track& track) {
    Bytes chunks = values({0, static_cast<uint32_t>(track.chunks.size())});
    for (uint32_t chunk : track.chunks) ByteWriter(chunks).uint32(chunk);
    Bytes stbl = box("stbl", {together(track.sampleTable), box("stco", {chunks})});
    Bytes mdhd = fullBox("mdhd", {0, 0, track.timescale, track.duration, 0});
    return box("trak",
               {fullBox("tkhd", {0, 0, 1, 0, 7}), track.edits.empty() ? Bytes() : box("edts", {together(track.edits)}),
                box("mdia", {mdhd, handlerBox(track.handler), box("minf", {stbl})})});
  }

  Bytes moov() const {
    std::vector<Bytes> traks;
    for (const Track& track : tracks) traks.push_back(trak(track));
    return box("moov", {fullBox("mvhd", {0, 0, timescale, 5, 0}), together(traks)});
  }
};

}  // namespace tarn::test
