#include "presentation/TrackWords.h"

#include <fmt/format.h>

#include <algorithm>

namespace tarn {

std::string handlerWords(std::string_view handler) {
  if (handler == "vide") return "video";
  if (handler == "soun") return "sound";
  if (handler == "text" || handler == "sbtl" || handler == "subt") return "text";
  return fmt::format("\"{}\" track", handler);
}

std::string trackWords(const Presentation& movie, std::string_view handler, uint32_t trackID) {
  std::string words = handlerWords(handler);
  const auto alike = std::ranges::count(movie.tracks(), handler, &TrackPresentation::handler);
  if (alike > 1) words += fmt::format(" (track {})", trackID);
  return words;
}

std::string editListWords(const Presentation& movie, const TrackPresentation& track) {
  const std::string name = trackWords(movie, track.handler, track.trackID);
  switch (track.damage) {
    case EditListDamage::none:
      return fmt::format("the first picture is shown at {:.3f} s, and no edit list says so",
                         static_cast<double>(track.mediaStart()) / track.timescale);
    case EditListDamage::showsNothing:
      return fmt::format("the edit list of the {} shows nothing of it", name);
    case EditListDamage::mediaTimeBelowMinusOne:
      return fmt::format("the edit list of the {} begins at an impossible time", name);
    case EditListDamage::liesBehindMedia:
      return fmt::format("the edit list of the {} shows what comes after its end", name);
  }
  return "";
}

}  // namespace tarn
