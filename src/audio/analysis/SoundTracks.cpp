#include "audio/analysis/SoundTracks.h"

namespace tarn {

std::optional<SoundTrack> SoundTracks::next() {
  while (const auto box = boxes_.next()) {
    if (box->type != "trak") continue;
    const MP4BoxInfo trak{box->size, box->type, box->offset, box->headerSize};
    const auto mdia = MP4BoxUtils::findChildBox(file_, trak, "mdia");
    const auto minf = mdia ? MP4BoxUtils::findChildBox(file_, *mdia, "minf") : std::nullopt;
    if (minf && MP4BoxUtils::findChildBox(file_, *minf, "smhd")) return SoundTrack{trak, *mdia, *minf};
  }
  return std::nullopt;
}

}  // namespace tarn
