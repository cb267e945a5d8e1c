#include "presentation/Harms.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "presentation/TrackWords.h"
#include "presentation/detail/LaidEdit.h"

namespace tarn {
namespace {

using namespace std::chrono_literals;

/// "45 ms", "0.4 ms", "1.25 s".
std::string durationText(MovieTime time) {
  double milliseconds = std::abs(static_cast<double>(time.count())) / 1e6;
  if (milliseconds < 9.95) return fmt::format("{:.1f} ms", milliseconds);
  if (milliseconds < 999.5) return fmt::format("{:.0f} ms", milliseconds);
  return fmt::format("{:.2f} s", milliseconds / 1000);
}

/// What people call the samples of a track, and the track itself.
struct TrackWords {
  TrackWords(const TrackChange& change, const Presentation& before) {
    bool isVideo = change.handler == "vide";
    one = isVideo ? "picture" : "packet";
    track = trackWords(before, change.handler, change.trackID);
    auto alike = std::ranges::count(before.tracks(), change.handler, &TrackPresentation::handler);
    if (isVideo && alike > 1) among = fmt::format(" of track {}", change.trackID);
    if (!isVideo) among = " of the " + track;
  }

  /// "1 picture is hidden", "3 packets of the sound are hidden".
  std::string counted(uint32_t count, std::string_view happens) const {
    return fmt::format("{} {}{}{} {} {}", count, one, count == 1 ? "" : "s", among, count == 1 ? "is" : "are", happens);
  }

  std::string one;
  std::string track;
  std::string among;
};

class HarmCollector {
 public:
  HarmCollector(const TrackChange& change, const TrackWords& words, MovieTime tolerance,
                std::vector<std::string>& harms)
      : change_(change), words_(words), tolerance_(tolerance), harms_(harms) {}

  void samples() {
    count(change_.samplesMissing, "lost");
    count(change_.samplesAdded, "added");
    count(change_.samplesChanged, "changed");
    count(change_.samplesHidden, "hidden");
    count(change_.samplesRevealed, "shown that were hidden");
  }

  void times(MovieTime againstPictures) {
    if (std::chrono::abs(againstPictures) > tolerance_) {
      add("the {} comes {} too {} against the pictures", words_.track, durationText(againstPictures),
          againstPictures > 0ns ? "late" : "early");
    }
    if (change_.largestMove > tolerance_) {
      add("parts of the {} move by up to {} against each other", words_.track, durationText(change_.largestMove));
    }
    if (change_.hidden > tolerance_) add("{} of the {} is hidden", durationText(change_.hidden), words_.track);
    if (change_.revealed > tolerance_) {
      add("{} of the {} is played that was not", durationText(change_.revealed), words_.track);
    }
  }

  void description() {
    if (change_.isDescribedOtherwise) add("the {} is turned otherwise, or switched on or off", words_.track);
    if (change_.hasDamagedList) add("the edit list of the {} is damaged", words_.track);
  }

 private:
  template <typename... Values>
  void add(fmt::format_string<Values...> text, Values&&... values) {
    harms_.push_back(fmt::format(text, std::forward<Values>(values)...));
  }
  void count(uint32_t samples, std::string_view happens) {
    if (samples > 0) harms_.push_back(words_.counted(samples, happens));
  }

  const TrackChange& change_;
  const TrackWords& words_;
  MovieTime tolerance_;
  std::vector<std::string>& harms_;
};

}  // namespace

std::vector<std::string> harmsOf(const PresentationChange& change, const Presentation& before,
                                 const Presentation& after, const AnnouncedChange& announced) {
  MovieTime tick = tickOf(std::min(before.movieTimescale(), after.movieTimescale()));
  std::vector<std::string> harms;
  for (const TrackChange& track : change.tracks) {
    TrackWords words(track, before);
    if (track.isLost) {
      harms.push_back(fmt::format("the {} is lost", words.track));
      continue;
    }
    MovieTime tolerance = std::max<MovieTime>(track.isRemade ? 2ms + announced.packetLength : 1ms, tick);
    HarmCollector collector(track, words, tolerance, harms);
    collector.samples();
    collector.times(change.againstPictures(track));
    collector.description();
  }
  if (!change.metadataLost.empty()) {
    harms.push_back(fmt::format("metadata is lost: {}", fmt::join(change.metadataLost, ", ")));
  }
  return harms;
}

std::vector<std::string> harmsOfResult(FileManager& files, const Path& result, const Presentation& before,
                                       SharedBytes shared, const AnnouncedChange& announced) {
  try {
    const Presentation after = Presentation::read(files, result);
    return harmsOf(comparePresentations(before, after, shared, announced), before, after, announced);
  } catch (const PosixError&) {
    throw;
  } catch (const Error& failure) {
    return {"the result cannot be read: " + failure.description()};
  }
}

}  // namespace tarn
