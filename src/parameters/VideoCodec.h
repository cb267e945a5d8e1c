#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "parameters/NALCodec.h"
#include "parameters/ParameterSets.h"
#include "parameters/PictureSize.h"
#include "platform/Bytes.h"

namespace tarn {

struct ScanRules;

/// What a decoder configuration box holds, whichever the codec.
struct ConfigurationContents {
  ParameterSets sets;                    ///< as stored, whether or not a decoder can read them; only the lists of units
  bool isComplete = false;               ///< a set of each kind is there that is not empty
  int nalLengthSize = 4;                 ///< of the samples' length prefixes, in bytes
  std::vector<std::string> others = {};  ///< what else it holds, in words ("1 SEI message")
};

/// All that is known of one video codec: its tags and boxes (ISO/IEC 14496-15 5.3, 8.3), and how its parameter sets are
/// found, read and written. Nobody else compares tags.
struct VideoCodec {
  std::string_view name;
  std::string_view tag;        ///< of a sample entry whose box holds all parameter sets
  std::string_view inBandTag;  ///< of one whose samples may hold them
  std::string_view configBox;
  std::string_view olderConfigBox;  ///< its older name; empty if there is none
  bool mayBeEncrypted;              ///< the repair takes encrypted sample entries (ISO/IEC 14496-12 8.12)
  bool hasTagRepair;                ///< a remux first tries the repair without a rewrite
  const NALCodec& nal;
  const ScanRules& scan;

  /// Throws ConfigurationBoxError.
  Bytes (*buildConfigBox)(const ParameterSets& sets, int nalLengthSize);
  /// The contents of a configuration box, header not included. Throws ConfigurationBoxError.
  ConfigurationContents (*readConfigBox)(ByteView contents);

  /// The sizes that an SPS of `ParameterSets::spsRbspArray` states: of the pictures that are shown, and the one that
  /// the remux writes. Nothing if they cannot be read; the log may hear of the second.
  std::optional<PictureSize> (*shownSize)(ByteView spsRbsp);
  std::optional<PictureSize> (*pictureSize)(ByteView spsRbsp);

  /// True if two such SPS are the same for a decoder although their bytes differ; null if there are none.
  bool (*areAlikeForDecoders)(ByteView spsRbsp, ByteView otherRbsp);

  /// True for the tag of a sample entry that the repair takes.
  bool accepts(std::string_view entryTag) const;
  bool isConfigBox(std::string_view type) const {
    return type == configBox || (!olderConfigBox.empty() && type == olderConfigBox);
  }

  static const VideoCodec hevc;
  static const VideoCodec avc;
};

/// The codec whose tag or in-band tag this is, and the one whose configuration box has this type; null for any other.
const VideoCodec* codecOfTag(std::string_view tag);
const VideoCodec* codecOfConfigBox(std::string_view type);

/// True for a sample entry that hides its codec in a `sinf` (ISO/IEC 14496-12 8.12).
bool isEncryptedVideo(std::string_view tag);

/// Those of some sets that a decoder can read and a sample entry can hold.
ParameterSets readableAmong(const ParameterSets& sets, const VideoCodec& codec);

/// True if `inEntry` says all that `carried` does. An SPS that differs in its usability information alone is the same
/// set for a decoder: writers set the shape of a pixel or the frame rate in the entry and leave the samples alone.
bool areSaid(const ParameterSets& carried, const ParameterSets& inEntry, const VideoCodec& codec);

}  // namespace tarn
