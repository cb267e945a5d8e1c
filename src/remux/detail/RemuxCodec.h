#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mp4/MP4BoxUtils.h"
#include "mp4/MP4RemuxError.h"
#include "parameters/HEVCConfigurationSegment.h"
#include "parameters/NALUnitParser.h"
#include "pipeline/RemuxTimingHelper.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"
#include "presentation/RewriteCheck.h"
#include "remux/detail/VideoEntries.h"

namespace tarn {

/// All that the remux of one codec has of its own: its boxes and tags (ISO/IEC 14496-15), how its parameter sets are
/// read and written, and its words.
struct RemuxCodec {
  std::string_view prefix;      ///< of its log lines
  std::string_view donePrefix;  ///< of the line that ends a remux

  const ParameterSetRules& readableSets;  ///< what its sample entries and samples hold
  void (*readRecord)(ByteView contents, VideoEntry& entry);
  std::string_view configBox;
  std::array<std::string_view, 2> oldConfigBoxes;  ///< dropped from a sample entry
  std::string_view tag;                            ///< of a sample entry whose box holds all parameter sets
  std::string_view inBandTag;                      ///< of one whose samples hold them
  bool allowsEncryption;                           ///< takes "encv" entries (ISO/IEC 14496-12 8.12)
  bool logsWalk;                                   ///< tells of each step of the walk over an entry's children

  bool triesTagRepair;  ///< first tries the repair without a rewrite
  std::string_view startText, diskCheckEnd, diskAdvice, extractText, recordName;
  int (*detectNALLengthSize)(FileHandle& file, std::span<const SampleInfo> samples);
  ExtractedParameterSets (*extract)(FileManager& files, const Path& fileURL);
  Bytes (*buildConfigBox)(const ExtractedParameterSets& extracted);
  MP4RemuxError (*noVideoTrack)(size_t tracks);
  MP4RemuxError (*wrongTag)(const std::string& tag);

  std::string_view severalEntriesText, severalEntriesDone;
  void (*remuxWithSeveralEntries)(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox, ByteView moovData,
                                  int nalLengthSize, FileHandle& fileHandle, std::optional<RemuxTimings>& timings,
                                  const std::vector<ConfigurationSegment>& segments, const RewriteCheck& check);

  bool isOldConfigBox(std::string_view type) const { return type == oldConfigBoxes[0] || type == oldConfigBoxes[1]; }
  bool accepts(std::string_view entryTag) const {
    return entryTag == tag || entryTag == inBandTag || (allowsEncryption && isEncrypted(entryTag));
  }
  static bool isEncrypted(std::string_view entryTag) { return entryTag == "encv"; }
};

extern const RemuxCodec hevcRemux;
extern const RemuxCodec avcRemux;

/// The codec whose tag or in-band tag this is; null for any other.
const RemuxCodec* remuxCodecOfTag(std::string_view tag);

/// The `moov` with the configuration box in the first sample entry of its video track; see MP4Remuxer.
Bytes injectConfigBoxIntoMoov(ByteView moov, ByteView configBox, const RemuxCodec& codec);

}  // namespace tarn
