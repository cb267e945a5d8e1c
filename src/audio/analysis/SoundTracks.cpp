#include "audio/analysis/SoundTracks.h"

namespace tarn {

std::optional<SoundTrack> SoundTracks::next() {
  while (const auto box = boxes_.next()) {
    if (box->type != "trak") continue;
    const auto mdia = MP4BoxUtils::findChildBox(file_, *box, "mdia");
    const auto minf = mdia ? MP4BoxUtils::findChildBox(file_, *mdia, "minf") : std::nullopt;
    if (minf && MP4BoxUtils::findChildBox(file_, *minf, "smhd")) return SoundTrack{*box, *mdia, *minf};
  }
  return std::nullopt;
}

}  // namespace tarn
