#include "remux/detail/CodecWords.h"

namespace tarn {
namespace {

MP4RemuxError noHEVCVideoTrack(size_t tracks) {
  return MP4RemuxError::unsupportedFormat("No video track found in moov (checked " + std::to_string(tracks) +
                                          " tracks)");
}

MP4RemuxError noAVCVideoTrack(size_t /*tracks*/) {
  return MP4RemuxError::corruptedMP4("No video track found in moov");
}

MP4RemuxError notHEVC(const std::string& tag) {
  return MP4RemuxError::unsupportedFormat("Video track has codec '" + tag +
                                          "', not 'hev1', 'hvc1', or 'encv'. Cannot inject hvcC into this track.");
}

MP4RemuxError notAVC(const std::string& tag) {
  return MP4RemuxError::unsupportedFormat("Video track has codec '" + tag +
                                          "', not 'avc1' or 'avc3'. Cannot inject avcC.");
}

constexpr CodecWords hevcWords{
    .prefix = "",
    .donePrefix = "",
    .logsDetails = true,
    .startText = "Starting Phase 2: Extracting parameter sets from bitstream...",
    .diskCheckEnd = " for remuxing",
    .diskAdvice = " Please free up space and try again.",
    .extractText = "Extracting VPS/SPS/PPS from video bitstream...",
    .recordName = "HEVCDecoderConfigurationRecord",
    .severalEntriesText = "Using multiple sample entries approach for correct playback...",
    .severalEntriesHeading = "\n=== Multiple Sample Entries Remuxing (Option 2) ===",
    .severalEntriesDone = "Phase 2 complete: Video remuxed successfully with multiple sample entries",
    .noVideoTrack = noHEVCVideoTrack,
    .wrongTag = notHEVC,
};

constexpr CodecWords avcWords{
    .prefix = "AVC: ",
    .donePrefix = "AVC ",
    .logsDetails = false,
    .startText = "Starting Phase 2 - Extracting parameter sets from bitstream...",
    .diskCheckEnd = "",
    .diskAdvice = "",
    .extractText = "Extracting SPS/PPS from video bitstream...",
    .recordName = "AVCDecoderConfigurationRecord",
    .severalEntriesText = "AVC: Using multiple sample entries approach...",
    .severalEntriesHeading = "\n=== AVC Multiple Sample Entries Remuxing ===",
    .severalEntriesDone = "AVC Phase 2 complete: Video remuxed with multiple sample entries",
    .noVideoTrack = noAVCVideoTrack,
    .wrongTag = notAVC,
};

}  // namespace

const CodecWords& wordsFor(const VideoCodec& codec) {
  return &codec == &VideoCodec::hevc ? hevcWords : avcWords;
}

}  // namespace tarn
