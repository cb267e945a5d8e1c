#include "support/Fragmenter.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "mp4/BoxWalker.h"
#include "mp4/MP4SampleTableParser.h"
#include "mp4/SampleTimes.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/ProbedMovie.h"

namespace tarn::test {
namespace {

constexpr uint32_t nonSync = 0x10000;

struct Track {
  uint32_t id;
  MP4SampleTableParser table;
  std::unique_ptr<SampleTimes> times;
  uint32_t next = 0;  ///< sample

  /// How many samples follow that have one description.
  uint32_t inOneRun(uint32_t most) const {
    uint32_t count = 0;
    if (next == table.sampleCount()) return count;
    const auto description = table.sampleDescriptionIndex(next);
    while (count < most && next + count < table.sampleCount() &&
           table.sampleDescriptionIndex(next + count) == description) {
      ++count;
    }
    return count;
  }
};

std::vector<Track> tracksOf(FileHandle& file) {
  std::vector<Track> tracks;
  const auto moov = *MP4BoxUtils::findTopLevelBox(file, "moov");
  FileBoxWalker walker(file, moov.contentOffset(), moov.end(), boxwalk::tracks);
  while (const auto box = walker.next()) {
    if (box->type != "trak") continue;
    const auto tkhd = *MP4BoxUtils::findChildBox(file, *box, "tkhd");
    file.seek(tkhd.offset + 20);
    const Bytes id = file.read(4);
    const auto stbl = *MP4BoxUtils::findDescendant(file, *box, {"mdia", "minf", "stbl"});
    tracks.push_back({.id = readUInt32(id, 0).value(), .table = {}, .times = {}});
    tracks.back().table.parseSampleTable(file, stbl);
    tracks.back().times = std::make_unique<SampleTimes>(file, stbl, tracks.back().table.sampleCount());
  }
  return tracks;
}

/// The `moov` without a sample.
Bytes emptyMoov(Bytes moov, const std::vector<Track>& tracks) {
  writeUInt32(moov, static_cast<uint32_t>(moov.size()), 0);
  BoxTree tree(moov);
  Bytes defaults;
  for (const Track& track : tracks) defaults = joined({defaults, fullBox("trex", {track.id, 1, 0, 0, 0})});
  for (BoxTree& child : tree.children) {
    if (child.type != "trak") continue;
    auto& boxes = child.at("mdia/minf/stbl").children;
    std::erase_if(boxes, [](const BoxTree& box) {
      const std::string tables[] = {"stts", "ctts", "stss", "sdtp", "stsc", "stsz", "stz2", "stco", "co64", "sbgp"};
      return std::ranges::find(tables, box.type) != std::end(tables);
    });
    for (const char* type : {"stts", "stsc", "stco"}) boxes.emplace_back(fullBox(type, {0}));
    boxes.emplace_back(fullBox("stsz", {0, 0}));
  }
  tree.children.emplace_back(box("mvex", {defaults}));
  return tree.bytes();
}

/// Takes samples of a track. Their bytes go behind `media`, which begins at `place`, counted from the `moof`.
Bytes trackFragment(FileHandle& file, Track& track, uint32_t count, Bytes& media, size_t place) {
  Bytes run = values({0x1000F01, count, static_cast<uint32_t>(place + media.size())});
  SampleTimes::Cursor cursor(*track.times, track.next);
  const auto begin = static_cast<uint64_t>(cursor.time().decodeTime);
  for (uint32_t i = 0; i < count; ++i, cursor.advance()) {
    const SampleInfo sample = track.table.sampleInfo(track.next + i);
    const SampleTime time = cursor.time();
    run = joined({run, values({time.delta, sample.size, sample.isSyncSample ? 0 : nonSync,
                               static_cast<uint32_t>(time.compositionTime - time.decodeTime)})});
    file.seek(sample.fileOffset);
    media = joined({media, file.read(sample.size)});
  }
  const uint32_t description = track.table.sampleDescriptionIndex(track.next).value();
  track.next += count;
  return box("traf",
             {box("tfhd", {values({0x20002, track.id, description})}),
              box("tfdt", {values({0x1000000, static_cast<uint32_t>(begin >> 32), static_cast<uint32_t>(begin)})}),
              box("trun", {run})});
}

}  // namespace

Bytes inFragments(FileManager& files, const Path& plain, uint32_t mostSamples) {
  const auto file = files.open(plain, OpenMode::reading);
  std::vector<Track> tracks = tracksOf(*file);
  const Bytes source = readFile(files, plain);
  Bytes movie;
  for (const auto& [type, bytes] : topLevel(source)) {
    if (type == "mdat") continue;
    const Bytes whole(bytes.begin(), bytes.end());
    movie = joined({movie, type == "moov" ? emptyMoov(whole, tracks) : whole});
  }
  const auto make = [&](std::vector<Track>& from, size_t place) {
    Bytes fragments, media;
    for (Track& track : from) {
      if (const uint32_t count = track.inOneRun(mostSamples)) {
        fragments = joined({fragments, trackFragment(*file, track, count, media, place)});
      }
    }
    return std::pair(box("moof", {fullBox("mfhd", {1}), fragments}), media);
  };
  const auto isLeft = [](const Track& track) { return track.next < track.table.sampleCount(); };
  while (std::ranges::any_of(tracks, isLeft)) {
    std::vector<uint32_t> places;
    for (const Track& track : tracks) places.push_back(track.next);
    const size_t size = make(tracks, 0).first.size();
    for (size_t i = 0; i < tracks.size(); ++i) tracks[i].next = places[i];
    const auto [moof, media] = make(tracks, size + 8);
    movie = joined({movie, moof, box("mdat", {media})});
  }
  return movie;
}

}  // namespace tarn::test
