#include "audio/replace/AudioSwap.h"

#include <algorithm>
#include <limits>

#include "audio/MP4AudioTrackReplacer.h"
#include "mp4/BoxLayout.h"
#include "presentation/PresentationChange.h"

namespace tarn {

AudioSwap::AudioSwap(ProcessingRun& run)
    : run_(run),
      before_(Presentation::readIfPossible(run.files, run.fileURL,
                                           "Cannot read what the file shows, so new audio goes in unchecked")) {}

double AudioSwap::shownMediaEnd() const {
  const TrackPresentation* track = audio();
  if (!track) return std::numeric_limits<double>::infinity();
  const double mediaEnd = static_cast<double>(track->mediaEnd) / track->timescale;
  double end = 0;
  for (const PresentedEdit& edit : track->edits) {
    if (!edit.mediaStart) continue;
    if (edit.rate != layout::normalRate) return mediaEnd;
    end = std::max(end, static_cast<double>(*edit.mediaStart) / track->timescale +
                            static_cast<double>(edit.movieDuration) / before_->movieTimescale());
  }
  return std::min(end, mediaEnd);
}

void AudioSwap::swap(const Path& newAudio, const Path& fixed, MovieTime packetLength) const {
  using EditList = MP4AudioTrackReplacer::EditList;
  const TrackPresentation* track = audio();
  AnnouncedChange announced{.remadeTrack = {}, .packetLength = packetLength};
  RewriteCheck check;
  if (track) {
    announced.remadeTrack = track->trackID;
    check = requireHarmless(run_.files, *before_, announced);
  }
  const bool isDamaged = track && track->damage != EditListDamage::none;
  MP4AudioTrackReplacer::replaceAudioTrack(run_.files, run_.fileURL, newAudio, fixed,
                                           isDamaged ? EditList::dropped : EditList::kept, check);
  run_.files.replaceItem(run_.fileURL, fixed);
}

}  // namespace tarn
