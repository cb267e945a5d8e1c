#include "fragments/detail/ResultProof.h"

#include <fmt/format.h>

#include "movie/TrackFields.h"
#include "mp4/TableBox.h"
#include "presentation/Presentation.h"
#include "presentation/RewriteCheck.h"

namespace tarn {
namespace {

std::vector<uint32_t> syncNumbers(const Runs<bool>& syncs) {
  std::vector<uint32_t> numbers;
  uint32_t number = 1;
  for (const auto& run : syncs) {
    for (uint32_t i = 0; run.value && i < run.count; ++i) numbers.push_back(number + i);
    number += run.count;
  }
  return numbers;
}

bool areAllSync(const Runs<bool>& syncs) {
  return syncs.isEmpty() || (syncs.runCount() == 1 && syncs.last());
}

bool hasSyncs(FileHandle& file, const MP4BoxInfo& trak, const Runs<bool>& syncs) {
  const auto stss = MP4BoxUtils::findDescendant(file, trak, {"mdia", "minf", "stbl", "stss"});
  if (!stss || areAllSync(syncs)) return !stss && areAllSync(syncs);
  TableBox table(file, *stss, TableBox::oneField);
  return table.entries<uint32_t>(table.field()) == syncNumbers(syncs);
}

/// Throws RefusedResult, in words that say what differs.
class Proof {
 public:
  explicit Proof(uint32_t trackID) : trackID_(trackID) {}

  void require(bool holds, const std::string& what, uint64_t wanted, uint64_t found) const {
    if (!holds)
      throw RefusedResult(fmt::format("track {} would have {} {} instead of {}", trackID_, found, what, wanted));
  }

 private:
  uint32_t trackID_;
};

void requireTrack(const TrackPresentation& track, const TrackSums& sums) {
  const Proof proof(sums.trackID);
  const auto duration = static_cast<uint64_t>(track.times.duration());
  proof.require(track.trackID == sums.trackID, "as its number", sums.trackID, track.trackID);
  proof.require(track.sampleCount() == sums.samples, "samples", sums.samples, track.sampleCount());
  proof.require(track.locations.countInFile() == sums.samples, "samples in the file", sums.samples,
                track.locations.countInFile());
  proof.require(duration == sums.duration, "ticks", sums.duration, duration);
}

}  // namespace

std::vector<TrackSums> sumsOf(const FragmentedMovie& movie) {
  std::vector<TrackSums> sums;
  for (const FragmentTrack& track : movie.tracks) {
    sums.push_back({track.trackID(), track.tables().sampleCount(), track.duration(), track.syncs()});
  }
  return sums;
}

std::vector<TrackSums> sumsOf(const MovieBox& moov, const std::vector<TrackTables>& tables) {
  std::vector<TrackSums> sums;
  for (const MovieBox& trak : moov.children) {
    if (trak.type != "trak") continue;
    const TrackTables& own = tables.at(sums.size());
    const auto id = static_cast<uint32_t>(trackIDField.load(trak.find({"tkhd"})).value_or(0));
    sums.push_back({id, own.sampleCount(), own.duration(), own.syncs()});
  }
  return sums;
}

void requireSums(FileManager& files, const Path& result, const std::vector<TrackSums>& sums) {
  const Presentation presentation = Presentation::read(files, result);
  const auto& tracks = presentation.tracks();
  if (tracks.size() != sums.size()) throw RefusedResult("the result would have another number of tracks");
  const auto file = files.open(result, OpenMode::reading);
  const auto moov = MP4BoxUtils::findTopLevelBox(*file, "moov");
  if (!moov) throw RefusedResult("the result would have no moov");
  FileBoxWalker walker(*file, moov->contentOffset(), moov->end(), boxwalk::tracks);
  for (size_t i = 0; i < sums.size();) {
    const auto box = walker.next();
    if (!box) throw RefusedResult("the result would lose a track");
    if (box->type != "trak") continue;
    requireTrack(tracks[i], sums[i]);
    if (!hasSyncs(*file, *box, sums[i].syncs)) {
      throw RefusedResult(fmt::format("track {} would have other sync samples", sums[i].trackID));
    }
    ++i;
  }
}

}  // namespace tarn
