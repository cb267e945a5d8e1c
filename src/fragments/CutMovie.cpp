#include "fragments/CutMovie.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "fragments/FragmentsError.h"
#include "movie/MoovCheck.h"
#include "movie/MovieError.h"
#include "movie/MovieRewrite.h"
#include "movie/TrackFields.h"
#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "mp4/ItemLocations.h"
#include "platform/ReadWatch.h"

namespace tarn {
namespace {

constexpr const EditRules& rules = edit::remuxing;

/// False if samples of a track lie in other files (ISO/IEC 14496-12 8.7.2).
bool isSelfContained(const MovieBox& trak) {
  constexpr uint32_t sameFile = 1;
  const MovieBox* dinf = trak.find({"mdia", "minf", "dinf"});
  if (!dinf) return true;
  const ByteView contents = dinf->contents;
  BufferBoxWalker boxes(contents, 0, contents.size(), boxwalk::tableChildren);
  while (const auto dref = boxes.next()) {
    if (dref->type != "dref") continue;
    BufferBoxWalker entries(contents, dref->offset + layout::tableHeaderSize, dref->end(), boxwalk::tableChildren);
    while (const auto entry = entries.next()) {
      const auto flags = readUInt32(contents, entry->offset + layout::versionAndFlags.offset);
      if (flags && (*flags & sameFile) == 0) return false;
    }
  }
  return true;
}

/// The samples of a track that end past the end of the media, or lie after one that does, leave its tables.
MissingSamples dropMissing(TrackTables& tables, bool isVideo, uint64_t mediaEnd) {
  MissingSamples missing;
  const uint64_t present = tables.samplesAheadOf(mediaEnd);
  missing.count = tables.sampleCount() - present;
  if (missing.count == 0) return missing;
  if (isVideo) {
    const auto times = tables.compositionTimes();
    missing.firstTime = std::ranges::min(std::span(times).subspan(present));
  }
  tables.truncate(present);
  return missing;
}

/// True if a chunk lies whole in the file after one that does not.
bool hasChunksBehindMissing(const TrackTables& tables, uint64_t fileSize) {
  bool isMissing = false, isFound = false;
  tables.forEachChunk([&](uint64_t offset, uint64_t size) {
    const bool isThere = offset <= fileSize && size <= fileSize - offset;
    isFound = isFound || (isThere && isMissing);
    isMissing = isMissing || !isThere;
  });
  return isFound;
}

bool isTrack(const MovieBox& box) {
  return box.type == "trak";
}

class Finder {
 public:
  Finder(FileHandle& file, CutMovie& movie) : file_(file), movie_(movie) {}

  /// Returns false if nothing is cut, or nobody can tell.
  bool find() {
    movie_.layout = MediaLayout::scan(file_, rules);
    const auto moov = movie_.layout.moov(rules);
    if (!moov || movie_.layout.first("moof") || !hasBrokenOff()) return false;
    movie_.place = *moov;
    if (movie_.layout.isCut(*moov)) return findCutMoov();
    const Bytes bytes = readMoov(file_, *moov, rules);
    requireEditable(bytes, moov->offset, rules);
    movie_.moov = MovieBox::parse(bytes, rules);
    if (movie_.moov.find({"mvex"})) return false;
    return readTables(movie_.layout.fileSize) ? cut() : movie_.layout.isMdatCut();
  }

 private:
  bool hasMedia() const { return movie_.layout.first("mdat").has_value(); }

  /// A file of whole boxes did not break off: if samples lie past its end, its tables are wrong.
  bool hasBrokenOff() const {
    const auto mdat = movie_.layout.last("mdat");
    return !mdat || movie_.layout.isMdatCut() || movie_.layout.end < movie_.layout.fileSize || hasOpenSize(*mdat);
  }

  /// A size field of 0: the box ends with the file.
  bool hasOpenSize(const BoxHeader& box) const {
    file_.seek(box.offset);
    return readUInt32(file_.read(sizeof(uint32_t)), 0) == 0u;
  }

  /// The media stand before a `moov` that is cut off. It serves as it is if all its tracks are there; without those
  /// that are cut off if pictures are left.
  bool findCutMoov() {
    movie_.moov = MovieBox::parse(readMoov(file_, movie_.place, edit::syncing), edit::syncing);
    auto& children = movie_.moov.children;
    const auto isCutTrack = [](const MovieBox& box) { return isTrack(box) && box.isCut; };
    const auto isWholeVideo = [](const MovieBox& box) { return isTrack(box) && handlerOf(box) == "vide"; };
    const auto lostTracks = static_cast<uint64_t>(std::ranges::count_if(children, isCutTrack));
    std::erase_if(children, [](const MovieBox& box) { return box.isCut; });
    const auto needed =
        lostTracks > 0 ? std::ranges::count_if(children, isWholeVideo) : std::ranges::count_if(children, isTrack);
    if (needed == 0) throw FragmentsError::ofCutMoov();
    const bool areAnyMissing = readTables(movie_.place.offset);
    // Media that are whole miss no sample: the tables are wrong.
    if (areAnyMissing ? hasMedia() : lostTracks == 0) return false;
    cut();
    movie_.loss->tracks = lostTracks;
    return true;
  }

  /// Returns true if samples are missing.
  bool readTables(uint64_t mediaEnd) {
    bool areAnyMissing = false;
    movie_.tables.reserve(movie_.moov.children.size());  // growing would copy the tables
    for (const MovieBox& trak : movie_.moov.children) {
      if (!isTrack(trak)) continue;
      const MovieBox* stbl = trak.find({"mdia", "minf", "stbl"});
      if (!stbl) throw MovieError::damaged("A track has no sample table");
      TrackTables& tables = movie_.tables.emplace_back(TrackTables::read(*stbl));
      missing_.emplace_back();
      if (!isSelfContained(trak)) continue;
      requireRoom(tables);
      if (tables.farthestEnd() <= mediaEnd) continue;
      if (!movie_.layout.isMdatCut() && hasChunksBehindMissing(tables, mediaEnd)) {
        throw MovieError::damaged("Samples of a file that did not break off lie past its end");
      }
      missing_.back() = dropMissing(tables, handlerOf(trak) == "vide", hasMedia() ? mediaEnd : 0);
      areAnyMissing = true;
    }
    return areAnyMissing;
  }

  /// Samples may share bytes, but a file never has more of them than bytes.
  void requireRoom(const TrackTables& tables) const {
    const uint64_t fileSize = movie_.layout.fileSize;
    if (tables.samplesAheadOf(fileSize) <= fileSize) return;
    throw MovieError::damaged("More samples are promised than the file can hold");
  }

  bool cut() {
    const auto seconds = length();
    movie_.loss = cutToCommonEnd(movie_.moov, movie_.tables, missing_);
    movie_.loss->secondsBefore = seconds;
    return true;
  }

  std::optional<double> length() const {
    const MovieBox* header = movie_.moov.find({"mvhd"});
    const auto duration = headerDurationField.load(header), timescale = headerTimescaleField.load(header);
    const bool isKnown =
        duration && timescale && *duration > 0 && *timescale > 0 && *duration < std::numeric_limits<uint32_t>::max();
    if (!isKnown) return std::nullopt;
    return static_cast<double>(*duration) / static_cast<double>(*timescale);
  }

  FileHandle& file_;
  CutMovie& movie_;
  std::vector<MissingSamples> missing_;  ///< of each track
};

/// The new `moov`, with the places that the media get by its length.
Bytes newMoov(CutMovie& movie) {
  if (!movie.loss) return movie.moov.bytes();
  putTables(movie.moov, movie.tables);
  const uint64_t oldEnd = movie.place.end(), newEnd = movie.place.offset + movie.moov.size();
  const auto place = [&](uint64_t offset) { return offset < oldEnd ? offset : offset - oldEnd + newEnd; };
  for (TrackTables& tables : movie.tables) tables.moveChunks(place);
  putTables(movie.moov, movie.tables);
  if (movie.place.offset + movie.moov.size() != newEnd) {
    throw MovieError(MovieError::Case::doesNotFit, "The tables of the cut movie are longer than before");
  }
  Bytes bytes = movie.moov.bytes();
  const MediaMove moves[] = {{0, movie.place.offset, 0}, {oldEnd, std::max(oldEnd, movie.layout.fileSize), newEnd}};
  moveItemsInMoov(bytes, moves);
  return bytes;
}

/// Copies ranges of a file, and tells how far it has come.
class Copier {
 public:
  Copier(FileHandle& source, FileHandle& target, uint64_t size, const std::function<void(double)>& poll)
      : writer_(source, target), size_(size), poll_(poll) {}

  void write(ByteView bytes) { writer_.write(bytes); }

  void copy(uint64_t begin, uint64_t end) {
    while (begin < end) {
      const uint64_t copied = writer_.copy(begin, std::min(rewritePieceSize, end - begin));
      if (copied == 0) throw MovieError(MovieError::Case::cutOff, "The source became shorter");
      begin += copied;
      poll_(static_cast<double>(begin) / static_cast<double>(size_));
    }
  }

 private:
  MovieWriter writer_;
  uint64_t size_;
  const std::function<void(double)>& poll_;
};

Bytes mdatHeader(FileHandle& source, const BoxHeader& mdat, uint64_t fileSize) {
  source.seek(mdat.offset);
  Bytes header = source.read(static_cast<size_t>(mdat.headerSize));
  const bool isLong = header.size() > layout::boxHeaderSize;
  layout::store(header.data(), isLong ? layout::longBoxSize : layout::boxSize, fileSize - mdat.offset);
  return header;
}

}  // namespace

std::optional<CutMovie> findCut(FileHandle& file) try {
  CutMovie movie;
  return Finder(file, movie).find() ? std::optional(std::move(movie)) : std::nullopt;
} catch (const MovieError&) {
  return std::nullopt;
}

bool isCutOff(FileManager& files, const Path& path) try {
  return readWatched(ReadWatch(files.open(path, OpenMode::reading)),
                     [](FileHandle& file) { return findCut(file).has_value(); });
} catch (const FragmentsError&) {
  return true;
}

void writeCutMovie(FileHandle& source, FileHandle& target, CutMovie movie, const std::function<void(double)>& poll) {
  const uint64_t fileSize = movie.layout.fileSize;
  Copier copier(source, target, fileSize, poll);
  copier.copy(0, movie.place.offset);
  copier.write(newMoov(movie));
  uint64_t behind = movie.place.end();
  if (movie.layout.isMdatCut()) {
    const BoxHeader& mdat = movie.layout.boxes.back();
    copier.copy(behind, mdat.offset);
    copier.write(mdatHeader(source, mdat, fileSize));
    behind = mdat.contentOffset();
  }
  copier.copy(behind, fileSize);
}

}  // namespace tarn
