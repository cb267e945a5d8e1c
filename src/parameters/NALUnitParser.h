#pragma once

#include <optional>
#include <span>
#include <string>

#include "mp4/MP4BoxUtils.h"
#include "mp4/MP4SampleTableParser.h"
#include "parameters/ParameterSets.h"
#include "parameters/PictureSize.h"
#include "platform/Bytes.h"
#include "platform/Error.h"
#include "platform/FileManager.h"

namespace tarn {

/// The failures of a scan for parameter sets. A damaged sample is no failure: it is skipped.
class NALUnitParserError : public Error {
 public:
  enum class Case {
    noParameterSetsFound,  ///< there is no sync sample, or a kind of parameter set is in none of them
    tooManyParameterSets,  ///< more bytes of distinct sets than any real stream has
  };

  /// `missing` names the kinds, "no VPS, no PPS".
  static NALUnitParserError noParameterSetsFound(const std::string& missing);
  static NALUnitParserError tooManyParameterSets();

  Case kind() const { return kind_; }

 private:
  NALUnitParserError(Case kind, const std::string& description);
  Case kind_;
};

/// Finds the parameter sets in the sync samples of a file's first video track, whatever its sample entry says. No
/// state; each call makes a ParameterScan of its own.
class NALUnitParser {
 public:
  /// Throws MP4RemuxError (fileNotFound; ioError for a file that cannot be opened; corruptedMP4 without a `moov` or
  /// a video track with an `stbl`), NALUnitParserError, and what the sample table
  /// parser throws. HEVC needs VPS, SPS and PPS before the first slice; AVC needs SPS and PPS. Sets
  /// that no sample entry can hold, for their length, do not count.
  static ExtractedParameterSets extractParameterSets(FileManager& files, const Path& fileURL);
  static ExtractedParameterSets extractAVCParameterSets(FileManager& files, const Path& fileURL);

  /// The coded size of an HEVC SPS, conformance window not applied: a NAL unit with header and without emulation
  /// prevention. Nothing if it cannot be read.
  static std::optional<PictureSize> parseSPSResolution(ByteView cleanedSPS);

  /// The size of the pictures that are shown, conformance window applied; of such a unit. Nothing if it cannot be
  /// read.
  static std::optional<PictureSize> parseShownSize(ByteView cleanedSPS);

  /// The `stbl` of the first video track.
  static std::optional<MP4BoxInfo> findVideoTrackStbl(FileHandle& file, const MP4BoxInfo& moov);

  /// This many of a track's first sync samples are asked for the size of the length prefix.
  static constexpr size_t votingSamples = 3;

  /// The size of the NAL length prefix, 4 or 2 bytes, by vote of the samples; 4 with equal votes and without any. A
  /// sample of a single NAL unit has no vote. Restores the file's position.
  static int detectNALLengthSize(FileHandle& file, std::span<const SampleInfo> samples);
  static int detectAVCNALLengthSize(FileHandle& file, std::span<const SampleInfo> samples);

  /// The distinct parameter sets at the front of the samples. Throws NALUnitParserError::tooManyParameterSets alone: a
  /// damaged sample is skipped, and what was found before the damage counts.
  static HEVCParameterSets scanSamplesForParameterSets(FileHandle& file, std::span<const SampleInfo> samples,
                                                       int nalLengthSize);
  static AVCParameterSets scanSamplesForAVCParameterSets(FileHandle& file, std::span<const SampleInfo> samples,
                                                         int nalLengthSize);
};

}  // namespace tarn
