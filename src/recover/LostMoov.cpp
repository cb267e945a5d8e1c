#include "recover/LostMoov.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <string_view>
#include <utility>

#include "fragments/MovieTimes.h"
#include "fragments/PlainMovie.h"
#include "media/DecodeCheck.h"
#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "mp4/MP4BoxUtils.h"
#include "recover/detail/FoundMedia.h"
#include "recover/detail/MediaWalk.h"
#include "recover/detail/RebuiltMoov.h"
#include "recover/detail/Recorder.h"

namespace tarn {
namespace {

/// Boxes that may stand beside the media of a movie.
constexpr std::array<std::string_view, 12> neighbours{"ftyp", "free", "skip", "wide", "uuid", "moov",
                                                      "mdat", "udta", "meta", "pnot", "PICT", "pdin"};

bool isNeighbour(std::string_view type) {
  return std::ranges::find(neighbours, type) != neighbours.end();
}

struct Media {
  uint64_t begin = 0;
  uint64_t end = 0;
  uint64_t endOfAll = 0;  ///< of the last `mdat`
};

/// Finds where the media are, though the size of their `mdat` may be wrong.
class MediaFinder {
 public:
  explicit MediaFinder(FileHandle& file) : file_(file), fileSize_(file.seekToEnd()) {}

  Media find() {
    FileBoxWalker walker(file_, 0, fileSize_, boxwalk::topLevelScan);
    for (size_t count = 0; count < MP4BoxUtils::mostTopLevelHeaders; ++count) {
      const auto box = walker.next();
      if (!box) break;
      if (box->type == "moov" && box->end() <= fileSize_) {
        throw LostMoovError("The moov of this movie is there: repair it without --like");
      }
      if (!isNeighbour(box->type)) break;
      if (box->type != "mdat") continue;
      const bool isLast = box->end() >= fileSize_ || !isBoxAt(box->end());
      add(box->contentOffset(), isLast && box->end() != fileSize_ && !isAtEnd(box->end()) ? fileSize_ : box->end());
      if (isLast) break;
    }
    const BoxWalkStop& stop = walker.stop();
    if (media_.begin == 0 && stop.type == "mdat") add(stop.offset + headerSizeAt(stop.offset), fileSize_);
    if (media_.begin == 0 || media_.begin >= fileSize_) {
      throw LostMoovError("This file holds no media (mdat) outside of fragments");
    }
    return media_;
  }

 private:
  void add(uint64_t begin, uint64_t end) {
    end = std::min(end, fileSize_);
    if (end <= begin) return;
    media_.endOfAll = end;
    if (media_.begin == 0) media_ = {begin, end, end};
  }

  bool isAtEnd(uint64_t offset) const { return offset <= fileSize_ && fileSize_ - offset < layout::boxHeaderSize; }

  bool isBoxAt(uint64_t offset) {
    file_.seek(offset);
    const Bytes header = file_.read(layout::boxHeaderSize);
    return header.size() == layout::boxHeaderSize && isNeighbour(textOf(header).substr(layout::boxType.offset));
  }

  size_t headerSizeAt(uint64_t offset) {
    file_.seek(offset);
    return readUInt32(file_.read(layout::boxHeaderSize), 0) == 1U ? layout::longBoxHeaderSize : layout::boxHeaderSize;
  }

  FileHandle& file_;
  uint64_t fileSize_;
  Media media_;
};

/// One rebuilding, from the walk to the proof by decoding.
class Rebuilding {
 public:
  Rebuilding(FileHandle& file, Recorder recorder, const std::function<void(double)>& poll)
      : file_(file), recorder_(std::move(recorder)), poll_(poll) {}

  void find() {
    const Media media = MediaFinder(file_).find();
    walk(media.begin, media.end);
    if (found_.pictures.empty() && recorder_.firstSample > 0) walk(media.begin + recorder_.firstSample, media.end);
    found_.end = std::max(found_.end, media.endOfAll);
    if (!found_.pictures.empty() && !found_.pictures.front().isSync) throw broken("the first picture needs others");
    decode();
    if (found_.isBroken()) found_.dropPicturesBehindHole();
    fitPicturesToSound();
    requireWhole();
  }

  RebuiltMovie write(FileHandle& target) {
    RebuiltMovie result{.pictures = found_.pictures.size(), .seconds = secondsOfPictures()};
    if (found_.isBroken()) result.brokenOff = words("all after it is lost");
    result.notes = notes();
    writePlainMovie(file_, target, rebuiltMovie(std::move(recorder_), found_),
                    [this](double part) { poll_(decoded + (1 - decoded) * part); });
    return result;
  }

 private:
  // How far the rebuilding is at the end of its parts.
  static constexpr double walked = 0.3;
  static constexpr double decoded = 0.8;

  double secondsOfPictures() const { return found_.secondsOfPictures(recorder_.pictures); }

  std::string words(std::string_view why) const {
    return fmt::format("The chain of samples breaks at byte {} of {}, after {} pictures ({:.1f} s): {}", found_.stop,
                       found_.end, found_.pictures.size(), secondsOfPictures(), why);
  }
  LostMoovError broken(std::string_view why) const {
    return LostMoovError(words(why) + "; the healthy movie must be from the same recorder, with the same settings");
  }

  void walk(uint64_t begin, uint64_t end) {
    begin_ = begin;
    const auto size = static_cast<double>(std::max<uint64_t>(end - std::min(begin, end), 1));
    found_ = MediaWalk(file_, recorder_, begin, end).run([&](uint64_t at) {
      poll_(walked * static_cast<double>(at - begin) / size);
    });
  }

  /// Lets the chain break where the decoder complains.
  void decode() {
    using Codec = DecodeCheck::Codec;
    const RecordedPictures& pictures = recorder_.pictures;
    const std::vector<int64_t> times = compositionTimes(found_.pictures, pictures);
    decode(found_.pictures, pictures.codec == &VideoCodec::hevc ? Codec::hevc : Codec::avc, pictures.configuration,
           [&](size_t picture) { return times[picture]; });
    if (!recorder_.sound || recorder_.sound->isPCM) return;
    decode(found_.sound, Codec::aac, recorder_.sound->configuration,
           [](size_t packet) { return static_cast<int64_t>(packet); });
  }

  template <typename Sample, typename Time>
  void decode(const std::vector<Sample>& samples, DecodeCheck::Codec codec, const Bytes& configuration, Time timeOf) {
    if (samples.empty()) return;
    DecodeCheck check(codec, configuration);
    bool isGood = true;
    for (size_t i = 0; i < samples.size() && isGood; ++i) {
      file_.seek(samples[i].offset);
      isGood = check.take(file_.read(samples[i].size), timeOf(i));
      bytesDecoded_ += samples[i].size;
      const auto all = static_cast<double>(std::max<uint64_t>(found_.end - begin_, 1));
      if (i % 64 == 0) poll_(std::min(walked + (decoded - walked) * static_cast<double>(bytesDecoded_) / all, decoded));
    }
    if (!check.finish()) found_.breakAt(samples[static_cast<size_t>(check.goodSamples())].offset);
  }

  /// Nobody knows how long each picture of a recorder lasted that varies it; together they last as long as the sound.
  void fitPicturesToSound() {
    constexpr double largestStretch = 0.25;
    RecordedPictures& pictures = recorder_.pictures;
    if (pictures.areSteady() || !recorder_.sound || found_.pictures.size() < 2) return;
    const double sound = found_.secondsOfSound(*recorder_.sound) - secondsOfHiddenSound();
    if (std::abs(sound - secondsOfPictures()) > largestStretch * secondsOfPictures()) return;
    const auto ticks = static_cast<uint64_t>(std::llround(sound * pictures.timescale));
    const uint64_t count = found_.pictures.size();
    // A picture lasts a tick at least, and what 32 bits can hold at most.
    if (ticks < count || ticks / count >= std::numeric_limits<uint32_t>::max()) return;
    pictures.ticks = ticks;
    pictures.count = count;
  }

  /// What the recorder's edit list hides of the beginning of its sound.
  double secondsOfHiddenSound() const {
    size_t left = recorder_.sound->trak;
    for (const MovieBox& box : recorder_.moov.children) {
      if (box.type != "trak" || left-- > 0) continue;
      const std::vector<EditListEntry> entries = editListOf(box);
      const auto media = std::ranges::find_if_not(entries, &EditListEntry::isEmpty);
      if (media == entries.end() || media->mediaTime < 0) return 0;
      return static_cast<double>(media->mediaTime) / recorder_.sound->timescale;
    }
    return 0;
  }

  std::vector<std::string> notes() const {
    std::vector<std::string> notes;
    if (!recorder_.pictures.areSteady()) {
      notes.push_back(
          fmt::format("How long each picture was shown is lost, since this recorder varies it: all are now "
                      "shown for {:.1f} ms",
                      recorder_.pictures.seconds(1) * 1000));
    }
    for (const OtherTrack& other : recorder_.others) {
      notes.push_back(fmt::format("The track of the kind \"{}\" is lost: it cannot be rebuilt", other.handler));
    }
    return notes;
  }

  /// What was found must be the movie's beginning, and not what a wrong recorder takes for one.
  void requireWhole() const {
    constexpr double leastSeconds = 1;  // of a chain that breaks
    constexpr double largestDifference = 0.01;
    if (found_.pictures.empty()) throw broken("no picture was found");
    if (found_.isBroken() && secondsOfPictures() < leastSeconds) throw broken("that is too little to trust");
    if (!recorder_.sound) return;
    const double pictures = secondsOfPictures();
    const double sound = found_.secondsOfSound(*recorder_.sound);
    const double allowed = largestDifference * std::max(pictures, sound) + recorder_.longestPiece;
    if (found_.sound.empty() || std::abs(pictures - sound) > allowed) {
      throw broken(fmt::format("there are {:.1f} s of pictures and {:.1f} s of sound", pictures, sound));
    }
  }

  FileHandle& file_;
  Recorder recorder_;
  const std::function<void(double)>& poll_;
  FoundMedia found_;
  uint64_t begin_ = 0;  ///< of the media
  uint64_t bytesDecoded_ = 0;
};

}  // namespace

RebuiltMovie rebuildLostMoov(FileManager& files, const Path& broken, const Path& healthy, const Path& result,
                             const std::function<void(double)>& poll) {
  const auto source = files.open(broken, OpenMode::reading);
  Rebuilding rebuilding(*source, Recorder::read(files, healthy), poll);
  rebuilding.find();
  const auto target = files.open(result, OpenMode::creating);
  RebuiltMovie rebuilt = rebuilding.write(*target);
  target->close();
  return rebuilt;
}

}  // namespace tarn
