#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "parameters/NALCodec.h"
#include "parameters/ParameterSets.h"
#include "parameters/PictureSize.h"
#include "platform/Bytes.h"

namespace tarn {

/// Names a parameter set within a stream.
struct PSKey {
  uint8_t type = 0;  ///< nal_unit_type
  uint32_t id = 0;

  bool operator<(const PSKey& other) const { return std::tie(type, id) < std::tie(other.type, other.id); }
};

/// How a codec's parameter sets are collected.
struct ParameterSetRules {
  const NALCodec& codec;
  /// The size that an SPS of `ParameterSets::spsRbspArray` states; null if nobody asks.
  std::optional<PictureSize> (*pictureSize)(ByteView spsRbsp);
  /// False for a set, without emulation prevention, that no decoder can read; null if all are taken.
  bool (*isReadable)(ParameterSetKind kind, ByteView cleanedNAL);
  /// Tells the log of a set that was added, the `count`-th of its kind; `size` is that of an SPS. Null for silence.
  void (*report)(ParameterSetKind kind, size_t bytes, const std::optional<PictureSize>& size, size_t count);
};

/// Gathers the distinct parameter sets of one stream, numbered from 0. Two sets are the same when their stored bytes
/// are.
class ParameterSetCollector {
 public:
  /// Bounds memory where a damaged sample table leads to ever new bytes that look like parameter sets.
  static constexpr size_t mostBytes = 12 << 20;

  /// Where a set is in sets().
  struct Place {
    ParameterSetKind kind;
    size_t index;
  };

  explicit ParameterSetCollector(const ParameterSetRules& rules, size_t most = mostBytes)
      : rules_(rules), mostBytes_(most) {}

  /// Takes a NAL unit as stored and returns its number; nothing for one that is no parameter set or is left out.
  /// Throws tooManyParameterSets above the given number of bytes of distinct sets.
  std::optional<size_t> processNALUnit(Bytes originalNAL);

  /// The same for each of some sets.
  void addAll(const ParameterSets& sets);

  /// This many units were left out, since no decoder can read them or no sample entry can hold them.
  size_t unreadable() const { return unreadable_; }

  const ParameterSets& sets() const { return sets_; }
  const Place& place(size_t number) const { return places_[number]; }
  size_t count() const { return places_.size(); }

  ParameterSets take() && { return std::move(sets_); }

 private:
  void noteIdentifier(ParameterSetKind kind, uint8_t type, ByteView cleanedNAL);
  std::optional<PictureSize> addSPS(Bytes cleanedNAL);

  ParameterSetRules rules_;
  size_t mostBytes_;
  ParameterSets sets_;
  std::vector<Place> places_;                           // by number
  std::unordered_map<std::string_view, size_t> known_;  // the number of each unit in sets_, by its bytes
  std::set<PSKey> keys_;
  size_t bytes_ = 0;
  size_t unreadable_ = 0;
};

}  // namespace tarn
