#include "audio/replace/ReplacedMovie.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "audio/AudioTrackReplacerError.h"
#include "audio/replace/TrackMedia.h"
#include "platform/Checked.h"
#include "platform/Log.h"

namespace tarn {
namespace {

using ReplacerError = AudioTrackReplacerError;

constexpr uint64_t uint32Max = std::numeric_limits<uint32_t>::max();
constexpr uint64_t defaultTimescale = 1000;

uint64_t timescaleOf(const MovieBox& moov) {
  const MovieBox* mvhd = moov.find({"mvhd"});
  if (!mvhd) throw ReplacerError::corruptedMP4("mvhd not found");
  return headerTimescaleField.load(mvhd).value_or(defaultTimescale);
}

/// A duration in another timescale.
uint64_t rescaled(uint64_t duration, uint64_t from, uint64_t to) {
  if (from == 0) return duration;
  const auto product = checkedMultiply(duration, to);
  if (!product) throw ReplacerError::corruptedMP4("The audio duration does not fit 64 bits");
  return *product / from;
}

/// Gives the movie a copy of the track, with a track_ID of its own.
MovieBox& addTrack(MovieBox& moov, MovieBox track) {
  uint64_t highest = 0;
  size_t place = 0;
  for (size_t i = 0; i < moov.children.size(); ++i) {
    if (moov.children[i].type != "trak") continue;
    highest = std::max(highest, trackIDField.load(moov.children[i].find({"tkhd"})).value_or(0));
    place = i + 1;
  }
  if (highest > uint32Max - 2) throw ReplacerError::corruptedMP4("No track_ID is left behind the video's");
  log("  Video track_ID: {}, new audio track_ID: {}", highest, highest + 1);
  MovieBox* mvhd = moov.find({"mvhd"});
  const uint64_t next = std::max(nextTrackIDField.load(mvhd).value_or(0), highest + 2);
  storeField(nextTrackIDField, mvhd, "mvhd.next_track_ID", next);
  track.removeAll("edts");
  storeField(trackIDField, track.find({"tkhd"}), "audio track_ID", highest + 1);
  return *moov.children.insert(moov.children.begin() + static_cast<ptrdiff_t>(place), std::move(track));
}

/// Makes the movie as long as its longest track. All ones is a duration that is not known.
void coverTracks(MovieBox& moov) {
  uint64_t longest = 0;
  for (const MovieBox& track : moov.children) {
    if (track.type != "trak") continue;
    const uint64_t duration = tkhdDurationField.load(track.find({"tkhd"})).value_or(0);
    if (duration != uint32Max && duration != std::numeric_limits<uint64_t>::max())
      longest = std::max(longest, duration);
  }
  storeField(headerDurationField, moov.find({"mvhd"}), "mvhd.duration", longest);
}

}  // namespace

ReplacedMovie makeReplacedMovie(const ReplacerInput& original, const ReplacerInput& newAudio,
                                MP4AudioTrackReplacer::EditList editList) {
  MovieBox moov = original.readMoov();
  MovieBox audioMoov = newAudio.readMoov();
  if (moov.find({"mdat"})) throw ReplacerError::corruptedMP4("The moov holds the media");
  if (!findTrack(moov, MP4TrackType::video, edit::replacing)) throw ReplacerError::noVideoTrack();
  const MovieBox* newTrack = findTrack(audioMoov, MP4TrackType::audio, edit::replacing);
  if (!newTrack) throw ReplacerError::noAudioTrack();
  const uint64_t movieTimescale = timescaleOf(moov), audioMovieTimescale = timescaleOf(audioMoov);
  log("  Original movie timescale: {}", movieTimescale);
  log("  Audio movie timescale: {}", audioMovieTimescale);
  const uint64_t sourceDuration = tkhdDurationField.load(newTrack->find({"tkhd"})).value_or(0);
  const uint64_t duration = rescaled(sourceDuration, audioMovieTimescale, movieTimescale);
  log("  Audio tkhd.duration: {} (in audio timescale {}) -> {} (rescaled to {})", sourceDuration, audioMovieTimescale,
      duration, movieTimescale);

  MovieBox* old = findTrack(moov, MP4TrackType::audio, edit::replacing);
  MovieBox& audio = old ? *old : addTrack(moov, *newTrack);
  putMedia(audio, *newTrack, static_cast<uint32_t>(movieTimescale), duration,
           editList == MP4AudioTrackReplacer::EditList::kept);
  coverTracks(moov);
  const auto place = static_cast<size_t>(&audio - moov.children.data());
  return {std::move(moov), place};
}

}  // namespace tarn
