#include "fragments/FragmentReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string_view>

#include "fragments/FragmentsError.h"
#include "movie/MoovCheck.h"
#include "movie/MovieError.h"
#include "mp4/BoxWalker.h"
#include "mp4/ItemLocations.h"
#include "platform/Checked.h"

namespace tarn {
namespace {

constexpr const EditRules& rules = edit::remuxing;

constexpr uint64_t mostMoofBytes = 256 << 20;
constexpr uint64_t mostKeptBytes = 16 << 20;
/// Samples without a byte and without an entry: a few bytes could promise billions of them.
constexpr uint64_t mostEmptySamples = 1 << 20;

/// A recorder that makes its file longer before the media leaves zeros. Media may end with a few, too.
constexpr uint64_t fewZeros = 64;
constexpr uint64_t manyZeros = 4096;

/// What a plain movie has no use for: media, what is about fragments, and free space.
constexpr std::string_view passedOver[] = {"mdat", "styp", "sidx", "ssix", "prft",
                                           "mfra", "pdin", "free", "skip", "wide"};

MovieError tooManySamples() {
  return MovieError::damaged("more samples are promised than the file can hold");
}

Bytes readBox(FileHandle& file, const BoxHeader& box) {
  file.seek(box.offset);
  Bytes bytes = file.read(box.size);
  if (bytes.size() < box.size)
    throw MovieError::damaged(fmt::format("the {} at {} cannot be read", box.type, box.offset));
  return bytes;
}

/// The end of the last byte that is not 0.
uint64_t endOfContent(FileHandle& file, uint64_t fileSize) {
  constexpr uint64_t piece = 1 << 20;
  for (uint64_t end = fileSize; end > 0;) {
    const uint64_t begin = end - std::min(end, piece);
    file.seek(begin);
    const Bytes bytes = file.read(end - begin);
    const auto last = std::find_if(bytes.rbegin(), bytes.rend(), [](uint8_t byte) { return byte != 0; });
    if (last != bytes.rend()) return begin + static_cast<uint64_t>(bytes.rend() - last);
    end = begin;
  }
  return 0;
}

class Reader {
 public:
  Reader(FileHandle& file, const std::function<void(double)>& poll)
      : file_(file), poll_(poll), fileSize_(file.seekToEnd()) {}

  FragmentedMovie read() {
    findMoov();
    walk();
    finish();
    return std::move(movie_);
  }

 private:
  void findMoov() {
    FileBoxWalker walker(file_, 0, fileSize_, rules.topLevel);
    auto box = walker.next();
    while (box && box->type != "moov") box = walker.next();
    if (!box) throw MovieError::damaged("there is no moov");
    if (box->end() > fileSize_) throw FragmentsError::ofCutMoov();
    moovPlace_ = box->offset;
    const Bytes moov = readMoov(file_, *box, rules);
    requireEditable(moov, moovPlace_, rules);
    movie_.moov = MovieBox::parse(moov, rules);
    movie_.tracks = tracksOf(movie_.moov);
    for (FragmentTrack& track : movie_.tracks) {
      const uint64_t present = track.tables().samplesAheadOf(fileSize_);
      if (present > fileSize_) throw tooManySamples();
      track.missing = track.samplesInMoov() - present;
      track.truncate(present);
      if (track.missing > 0) movie_.isCut = true;
    }
  }

  static std::vector<FragmentTrack> tracksOf(const MovieBox& moov) {
    std::vector<FragmentTrack> tracks;
    for (const MovieBox& child : moov.children) {
      if (child.type != "trak") continue;
      tracks.emplace_back(child);
      const uint32_t id = tracks.back().trackID();
      if (std::ranges::count(tracks, id, &FragmentTrack::trackID) > 1) {
        throw MovieError::damaged(fmt::format("two tracks have the number {}", id));
      }
    }
    readDefaults(moov, tracks);
    return tracks;
  }

  static void readDefaults(const MovieBox& moov, std::vector<FragmentTrack>& tracks) {
    const MovieBox* mvex = moov.find({"mvex"});
    if (!mvex) return;
    const ByteView contents = mvex->contents;
    BufferBoxWalker walker(contents, 0, contents.size(), boxwalk::tableChildren);
    while (const auto box = walker.next()) {
      if (box->type != "trex") continue;
      const auto extends = parseTrackExtends(contents.subspan(box->contentOffset(), box->contentSize()));
      if (!extends) throw MovieError::damaged("a trex ends before its fields");
      const auto track = std::ranges::find(tracks, extends->trackID, &FragmentTrack::trackID);
      if (track != tracks.end()) track->defaults = extends->defaults;
    }
  }

  FragmentTrack& trackOf(uint32_t id) {
    const auto track = std::ranges::find(movie_.tracks, id, &FragmentTrack::trackID);
    if (track == movie_.tracks.end())
      throw MovieError::damaged(fmt::format("it has samples of track {}, which the moov does not have", id));
    return *track;
  }

  void walk() {
    FileBoxWalker walker(file_, 0, fileSize_, rules.topLevel);
    uint64_t end = 0;
    bool isMediaCut = false, isIndexCut = false;
    while (const auto box = walker.next()) {
      if (box->type == std::string_view("\0\0\0\0", 4)) break;
      if (box->end() > fileSize_) {
        isMediaCut = box->type == "mdat";
        isIndexCut = box->type == "mfra";
        if (isMediaCut) end = fileSize_;
        break;
      }
      take(*box);
      end = box->end();
      tellProgress(end);
    }
    if (end == fileSize_ && !isMediaCut) return;
    const uint64_t content = endOfContent(file_, fileSize_);
    // Fragments have begun here, or what stands before them; an index (8.8.9) is the last box.
    if (content > end && !isIndexCut) movie_.isCut = true;
    dropZeros(end, content);
  }

  void take(const BoxHeader& box) {
    if (box.type == "moof") {
      readFragment(box);
    } else if (box.type == "moov") {
      if (box.offset != moovPlace_) passOver(box);
    } else if (box.type == "emsg") {
      ++messages_;
    } else if (box.type == "ftyp") {
      if (!hasFileType_) keepFileType(box);
    } else if (std::ranges::find(passedOver, box.type) == std::end(passedOver)) {
      keep(box);
    }
  }

  void keepFileType(const BoxHeader& box) {
    if (box.size > mostKeptBytes) {
      throw MovieError::damaged(fmt::format("the {} at {} has {} bytes", box.type, box.offset, box.size));
    }
    movie_.ahead = joined(readBox(file_, box), movie_.ahead);
    hasFileType_ = true;
  }

  static Bytes joined(Bytes first, const Bytes& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
  }

  /// What it holds may say where in the file something lies.
  bool namesPlaces(const BoxHeader& box) { return box.type == "meta" && !findItemLocations(file_, box).empty(); }

  void keep(const BoxHeader& box) {
    if (movie_.ahead.size() + box.size > mostKeptBytes || namesPlaces(box)) {
      if (!firstLeftOut_) firstLeftOut_ = box;
      ++leftOut_;
    } else {
      movie_.ahead = joined(std::move(movie_.ahead), readBox(file_, box));
    }
  }

  /// A second `moov` that says the same again, as where each part of a stream was stored with its beginning.
  void passOver(const BoxHeader& box) {
    const Bytes bytes = readMoov(file_, box, rules);
    const MovieBox moov = MovieBox::parse(bytes, rules);
    std::vector<FragmentTrack> tracks = tracksOf(moov);
    const auto isSame = [](const FragmentTrack& a, const FragmentTrack& b) {
      return a.trackID() == b.trackID() && a.timescale() == b.timescale() && a.stsd() == b.stsd();
    };
    const auto hasSamples = [](const FragmentTrack& track) { return track.samplesInMoov() > 0; };
    if (!std::ranges::equal(tracks, movie_.tracks, isSame) || std::ranges::any_of(tracks, hasSamples)) {
      throw FragmentsError(
          fmt::format("A second movie with other tracks begins at {} in the file; repair each of them "
                      "as a file of its own",
                      box.offset));
    }
    for (size_t i = 0; i < tracks.size(); ++i) movie_.tracks[i].defaults = tracks[i].defaults;
  }

  void readFragment(const BoxHeader& moof) try {
    if (moof.size > mostMoofBytes) throw MovieError::damaged(fmt::format("it has {} bytes", moof.size));
    if (movie_.isCut) throw MovieError::damaged("samples before it do not lie in the file");
    const Bytes bytes = readBox(file_, moof);
    const auto fragments = parseMovieFragment(bytes, [this](uint32_t id) { return trackOf(id).defaults; });
    uint64_t dataEnd = moof.offset;
    for (const TrackFragment& fragment : fragments) {
      const uint64_t base = fragment.baseIsMoof ? moof.offset : dataEnd;
      dataEnd = addSamples(fragment, fragment.baseDataOffset.value_or(base));
    }
  } catch (const MovieError& error) {
    throw MovieError(error.kind(), fmt::format("the moof at {}: {}", moof.offset, error.description()), moof);
  }

  /// Returns where the fragment's data end. Data offsets count from `base`.
  uint64_t addSamples(const TrackFragment& fragment, uint64_t base) {
    FragmentTrack& track = trackOf(fragment.trackID);
    const auto first = std::ranges::find_if(fragment.runs, [](const TrackRun& run) { return run.count() > 0; });
    if (fragment.decodeTime && first != fragment.runs.end()) {
      track.continueAt(*fragment.decodeTime, first->sample(0).isSync());
    }
    const uint64_t firstSample = track.tables().sampleCount();
    uint64_t place = base;
    for (const TrackRun& run : fragment.runs) {
      if (run.dataOffset()) place = placeOf(base, *run.dataOffset());
      place = addRun(track, fragment, run, place);
    }
    if (track.missing > 0) movie_.isCut = true;
    track.appendGroups(firstSample, fragment);
    track.leaveOut(fragment.others);
    return place;
  }

  static uint64_t placeOf(uint64_t base, int64_t offset) {
    if (offset >= 0) return checkedAdd(base, static_cast<uint64_t>(offset)).value_or(UINT64_MAX);
    const auto back = static_cast<uint64_t>(-offset);
    if (base < back) throw MovieError::damaged("samples lie before the file's first byte");
    return base - back;
  }

  uint64_t addRun(FragmentTrack& track, const TrackFragment& fragment, const TrackRun& run, uint64_t place) {
    uint32_t count = run.count();
    if (!run.hasEntries() && count > 0) {
      count = countPresent(run, place);
      track.missing += run.count() - count;
    }
    for (uint32_t i = 0; i < count; ++i) {
      const FragmentSample sample = run.sample(i);
      const bool isThere = place <= fileSize_ && sample.size <= fileSize_ - place;
      if (!isThere || track.missing > 0) {
        ++track.missing;
      } else {
        track.append({.offset = place,
                      .size = sample.size,
                      .duration = sample.duration,
                      .compositionOffset = sample.compositionOffset,
                      .description = fragment.description,
                      .isSync = sample.isSync(),
                      .dependencies = sample.dependencies()});
      }
      place = checkedAdd<uint64_t>(place, sample.size).value_or(UINT64_MAX);
    }
    return place;
  }

  /// Of a run whose samples have no entries: how many lie in the file. Samples that share bytes count all the same, so
  /// that a file never has more of them than bytes.
  uint32_t countPresent(const TrackRun& run, uint64_t place) {
    const uint32_t size = run.sample(0).size;
    uint64_t& used = size > 0 ? bytesUsed_ : emptySamples_;
    const uint64_t most = size > 0 ? fileSize_ : mostEmptySamples;
    const uint64_t present = size > 0 ? (fileSize_ - std::min(place, fileSize_)) / size : run.count();
    const auto count = static_cast<uint32_t>(std::min<uint64_t>(run.count(), present));
    used += uint64_t{count} * std::max<uint32_t>(size, 1);
    if (used > most) throw tooManySamples();
    return count;
  }

  /// There are no boxes after `end`, and after `content` nothing but zeros.
  void dropZeros(uint64_t end, uint64_t content) {
    if (fileSize_ - content < (end < fileSize_ ? fewZeros : manyZeros)) return;
    for (FragmentTrack& track : movie_.tracks) {
      const uint64_t whole = track.tables().samplesAheadOf(content + fewZeros);
      const uint64_t lost = track.tables().sampleCount() - whole;
      if (lost == 0) continue;
      track.truncate(whole);
      track.missing += lost;
      movie_.isCut = true;
    }
  }

  void finish() {
    if (messages_ > 0) {
      movie_.notes.push_back(fmt::format("{} event message{} (emsg) {} left out", messages_, messages_ == 1 ? "" : "s",
                                         messages_ == 1 ? "is" : "are"));
    }
    if (firstLeftOut_) {
      const std::string first =
          fmt::format("The {} at {} ({} bytes)", firstLeftOut_->type, firstLeftOut_->offset, firstLeftOut_->size);
      movie_.notes.push_back(leftOut_ == 1 ? first + " is left out"
                                           : fmt::format("{} and {} more boxes are left out", first, leftOut_ - 1));
    }
    uint64_t samples = 0;
    for (const FragmentTrack& track : movie_.tracks) {
      track.finish();
      std::ranges::copy(track.notes(), std::back_inserter(movie_.notes));
      samples += track.tables().sampleCount();
    }
    if (samples == 0) throw FragmentsError("No sample of the movie lies in the file: download it again");
  }

  void tellProgress(uint64_t place) {
    constexpr double step = 0.01;
    const double part = static_cast<double>(place) / static_cast<double>(fileSize_);
    if (part < told_ + step) return;
    told_ = part;
    poll_(part);
  }

  FileHandle& file_;
  const std::function<void(double)>& poll_;
  const uint64_t fileSize_;
  FragmentedMovie movie_;
  uint64_t moovPlace_ = 0;
  bool hasFileType_ = false;
  uint64_t messages_ = 0;
  std::optional<BoxHeader> firstLeftOut_;
  uint64_t leftOut_ = 0;
  uint64_t bytesUsed_ = 0;
  uint64_t emptySamples_ = 0;
  double told_ = 0;
};

}  // namespace

FragmentedMovie readFragmentedMovie(FileHandle& file, const std::function<void(double)>& poll) {
  return Reader(file, poll).read();
}

}  // namespace tarn
