#include "remux/detail/RemuxCodec.h"

#include "parameters/AVCConfigurationBox.h"
#include "parameters/HEVCConfigurationBox.h"
#include "parameters/SetRules.h"
#include "remux/MP4Remuxer.h"

namespace tarn {
namespace {

Bytes buildHvcC(const ExtractedParameterSets& extracted) {
  const ParameterSets& sets = extracted.sets;
  return HEVCConfigurationBox(sets.vpsArray, sets.spsArray, sets.ppsArray, sets.spsRbspArray, extracted.nalLengthSize,
                              sets.isCollectionComplete)
      .buildHvcCBox();
}

Bytes buildAvcC(const ExtractedParameterSets& extracted) {
  const ParameterSets& sets = extracted.sets;
  return AVCConfigurationBox(sets.spsArray, sets.ppsArray, sets.spsRbspArray, extracted.nalLengthSize).buildAvcCBox();
}

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

}  // namespace

const RemuxCodec hevcRemux{
    .prefix = "",
    .donePrefix = "",
    .readableSets = hevcReadableSets,
    .readRecord = readHEVCRecord,
    .configBox = "hvcC",
    .oldConfigBoxes = {"hvcC", "hevC"},
    .tag = "hvc1",
    .inBandTag = "hev1",
    .allowsEncryption = true,
    .logsWalk = true,
    .triesTagRepair = false,
    .startText = "Starting Phase 2: Extracting parameter sets from bitstream...",
    .diskCheckEnd = " for remuxing",
    .diskAdvice = " Please free up space and try again.",
    .extractText = "Extracting VPS/SPS/PPS from video bitstream...",
    .recordName = "HEVCDecoderConfigurationRecord",
    .detectNALLengthSize = NALUnitParser::detectNALLengthSize,
    .extract = NALUnitParser::extractParameterSets,
    .buildConfigBox = buildHvcC,
    .noVideoTrack = noHEVCVideoTrack,
    .wrongTag = notHEVC,
    .severalEntriesText = "Using multiple sample entries approach for correct playback...",
    .severalEntriesDone = "Phase 2 complete: Video remuxed successfully with multiple sample entries",
    .remuxWithSeveralEntries = MP4Remuxer::remuxWithMultipleSampleEntries,
};

const RemuxCodec avcRemux{
    .prefix = "AVC: ",
    .donePrefix = "AVC ",
    .readableSets = avcReadableSets,
    .readRecord = readAVCRecord,
    .configBox = "avcC",
    .oldConfigBoxes = {"avcC", "avcC"},
    .tag = "avc1",
    .inBandTag = "avc3",
    .allowsEncryption = false,
    .logsWalk = false,
    .triesTagRepair = true,
    .startText = "Starting Phase 2 - Extracting parameter sets from bitstream...",
    .diskCheckEnd = "",
    .diskAdvice = "",
    .extractText = "Extracting SPS/PPS from video bitstream...",
    .recordName = "AVCDecoderConfigurationRecord",
    .detectNALLengthSize = NALUnitParser::detectAVCNALLengthSize,
    .extract = NALUnitParser::extractAVCParameterSets,
    .buildConfigBox = buildAvcC,
    .noVideoTrack = noAVCVideoTrack,
    .wrongTag = notAVC,
    .severalEntriesText = "AVC: Using multiple sample entries approach...",
    .severalEntriesDone = "AVC Phase 2 complete: Video remuxed with multiple sample entries",
    .remuxWithSeveralEntries = MP4Remuxer::remuxAVCWithMultipleSampleEntries,
};

const RemuxCodec* remuxCodecOfTag(std::string_view tag) {
  for (const RemuxCodec* codec : {&hevcRemux, &avcRemux}) {
    if (tag == codec->tag || tag == codec->inBandTag) return codec;
  }
  return nullptr;
}

}  // namespace tarn
