#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "parameters/PictureSize.h"
#include "parameters/VideoCodec.h"
#include "platform/Bytes.h"
#include "platform/Error.h"

namespace tarn {

/// The failures of a VisualSampleEntryBuilder.
class VisualSampleEntryBuilderError : public Error {
 public:
  explicit VisualSampleEntryBuilderError(const std::string& description)
      : Error("VisualSampleEntryBuilder", -1, description) {}
};

/// Makes sample entries for further configurations of a video track out of one that it has (ISO/IEC 14496-12 12.1.3).
/// No state; works on bytes.
class VisualSampleEntryBuilder {
 public:
  /// One entry, counted from 0, of a whole `stsd` box. Throws VisualSampleEntryBuilderError, and ByteArrayError where
  /// an entry on the way runs over the data.
  static Bytes extractSampleEntry(ByteView stsdData, int64_t entryIndex);

  /// The entry with this configuration box, a whole `hvcC` or `avcC`, after its other children and with the target
  /// tag, a four-character code; "encv" stays, and its `frma` gets the target. With a size, width and height are set
  /// and a `clap` of that size (12.1.4) comes last in place of any older one; a size that the 16-bit fields cannot
  /// hold is left out. Children from the first damaged one on are lost, and so is a last one of 8 bytes. Throws
  /// VisualSampleEntryBuilderError for an entry of fewer than 86 bytes and for a result of more than 32 bits.
  static Bytes cloneEntry(ByteView originalEntry, ByteView configBox, const VideoCodec& codec,
                          std::string_view targetCodecTag, std::optional<PictureSize> size);
  static Bytes cloneEntryWithNewHvcC(ByteView originalEntry, ByteView newHvcCBox, std::string_view targetCodecTag,
                                     std::optional<PictureSize> size);
  static Bytes cloneEntryWithNewAvcC(ByteView originalEntry, ByteView newAvcCBox, std::string_view targetCodecTag,
                                     std::optional<PictureSize> size);
};

}  // namespace tarn
