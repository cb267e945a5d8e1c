#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_set>
#include <utility>
#include <vector>

#include "parameters/PictureSize.h"
#include "parameters/detail/NALCodec.h"
#include "platform/Bytes.h"
#include "platform/Error.h"

namespace tarn {

/// What a scan of the bitstream has found: the distinct parameter sets in first-seen order.
struct ParameterSets {
  std::vector<Bytes> vpsArray;  ///< NAL units as stored: header and emulation prevention bytes included; HEVC only
  std::vector<Bytes> spsArray;
  std::vector<Bytes> ppsArray;
  std::vector<Bytes> spsRbspArray;  ///< for each SPS, in the same order: without emulation prevention; the HEVC header
                                    ///< of 2 bytes is kept, the AVC header of 1 byte dropped
  std::vector<PictureSize> spsResolutions;     ///< of each SPS whose size could be read, so not aligned with spsArray
  bool requiresMultipleSampleEntries = false;  ///< an identifier came again with other bytes
  bool hasResolutionChanges = false;           ///< two SPS state different sizes
  bool isCollectionComplete = false;           ///< each kind that the codec has was found
};

using HEVCParameterSets = ParameterSets;
using AVCParameterSets = ParameterSets;

/// The failures of a scan for parameter sets. A damaged sample is none: it is passed over.
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

/// Names a parameter set within a stream.
struct PSKey {
  uint8_t type = 0;  ///< nal_unit_type
  uint32_t id = 0;

  bool operator<(const PSKey& other) const { return std::tie(type, id) < std::tie(other.type, other.id); }
};

/// How a codec's parameter sets are collected.
struct ParameterSetRules {
  const NALCodec& codec;
  size_t headerBytesInRbsp;  ///< of the NAL header, kept in spsRbspArray
  /// The size that an SPS states, from the NAL unit without emulation prevention; null where nobody asks.
  std::optional<PictureSize> (*pictureSize)(ByteView cleanedSPS);
  /// The identifier of a set, from its bytes behind the NAL header; null where identifiers are not tracked.
  uint32_t (*identifier)(ParameterSetKind kind, ByteView payload);
  /// False for a set, without emulation prevention, that no decoder can read; null where all are taken.
  bool (*isReadable)(ParameterSetKind kind, ByteView cleanedNAL);
  /// Tells the log of a set that was added, the `count`-th of its kind; `size` is that of an SPS. Null for silence.
  void (*report)(ParameterSetKind kind, size_t bytes, const std::optional<PictureSize>& size, size_t count);
};

/// The identifier of an HEVC parameter set (ITU-T H.265 7.3.2.1 to 7.3.2.3), from its bytes behind the NAL header and
/// without emulation prevention. Bits that are missing count as 0.
uint32_t parseHEVCParameterSetID(ParameterSetKind kind, ByteView payload);

/// Gathers the distinct parameter sets of one stream. Two sets are the same when their stored bytes are.
class ParameterSetCollector {
 public:
  /// Bounds memory where a damaged sample table leads to ever new bytes that look like parameter sets.
  static constexpr size_t mostBytes = 12 << 20;

  explicit ParameterSetCollector(const ParameterSetRules& rules) : rules_(rules) {}

  /// Takes a NAL unit as stored; one that is no parameter set is ignored. Throws tooManyParameterSets above
  /// `mostBytes` bytes of distinct sets.
  void processNALUnit(Bytes originalNAL);

  /// So many units were left out, since no decoder can read them or no sample entry can hold them.
  size_t unreadable() const { return unreadable_; }

  ParameterSets take() && { return std::move(sets_); }

 private:
  std::vector<Bytes>& units(ParameterSetKind kind);
  void noteIdentifier(ParameterSetKind kind, uint8_t type, ByteView cleanedNAL);
  std::optional<PictureSize> addSPS(Bytes cleanedNAL);

  ParameterSetRules rules_;
  ParameterSets sets_;
  std::unordered_set<std::string_view> known_;  // the bytes of every unit in sets_
  std::set<PSKey> keys_;
  size_t bytes_ = 0;
  size_t unreadable_ = 0;
};

}  // namespace tarn
