#include "parameters/detail/ParameterSetCollector.h"

#include "parameters/NALUnitParser.h"
#include "parameters/detail/RBSPReading.h"

namespace tarn {
namespace {

/// No NAL unit ends with a zero (ITU-T H.264 and H.265 7.4.1): writers that cut at start codes leave some behind.
void dropTrailingZeros(Bytes& unit) {
  while (!unit.empty() && unit.back() == 0) unit.pop_back();
}

}  // namespace

std::optional<size_t> ParameterSetCollector::processNALUnit(Bytes originalNAL) {
  if (rules_.isReadable != nullptr) dropTrailingZeros(originalNAL);
  if (originalNAL.size() < rules_.codec.headerSize) return std::nullopt;
  uint8_t type = rules_.codec.type(originalNAL[0]);
  auto kind = rules_.codec.parameterSetKind(type);
  if (!kind) return std::nullopt;
  if (auto known = known_.find(textOf(originalNAL)); known != known_.end()) return known->second;
  size_t size = originalNAL.size();
  Bytes cleanedNAL = removeEmulationPrevention(originalNAL);
  if (rules_.isReadable != nullptr && (size > longestStoredSet || !rules_.isReadable(*kind, cleanedNAL))) {
    ++unreadable_;
    return std::nullopt;
  }
  bytes_ += size;
  if (bytes_ > mostBytes_) throw NALUnitParserError::tooManyParameterSets();
  const size_t number = places_.size();
  auto& kept = unitsOf(sets_, *kind);
  places_.push_back({*kind, kept.size()});
  kept.push_back(std::move(originalNAL));
  known_.emplace(textOf(kept.back()), number);  // the bytes stay in place when the array grows
  noteIdentifier(*kind, type, cleanedNAL);
  std::optional<PictureSize> pictureSize;
  if (*kind == ParameterSetKind::sps) pictureSize = addSPS(std::move(cleanedNAL));
  if (rules_.report != nullptr) rules_.report(*kind, size, pictureSize, kept.size());
  return number;
}

void ParameterSetCollector::addAll(const ParameterSets& sets) {
  for (ParameterSetKind kind : allParameterSetKinds) {
    for (const Bytes& unit : unitsOf(sets, kind)) processNALUnit(unit);
  }
}

/// Called for new bytes only, so an identifier that is known already has been used again.
void ParameterSetCollector::noteIdentifier(ParameterSetKind kind, uint8_t type, ByteView cleanedNAL) {
  if (cleanedNAL.size() <= rules_.codec.headerSize) return;
  PSKey key{.type = type, .id = rules_.codec.identifier(kind, cleanedNAL.subspan(rules_.codec.headerSize))};
  if (!keys_.insert(key).second) sets_.requiresMultipleSampleEntries = true;
}

std::optional<PictureSize> ParameterSetCollector::addSPS(Bytes cleanedNAL) {
  const size_t dropped = rules_.codec.headerSize - rules_.codec.headerBytesInRbsp;
  if (cleanedNAL.size() > dropped) {
    cleanedNAL.erase(cleanedNAL.begin(), cleanedNAL.begin() + static_cast<ptrdiff_t>(dropped));
  }
  std::optional<PictureSize> size;
  if (rules_.pictureSize != nullptr) size = rules_.pictureSize(cleanedNAL);
  if (size) {
    auto& sizes = sets_.spsResolutions;
    if (!sizes.empty() && sizes.back() != *size) sets_.hasResolutionChanges = true;
    sizes.push_back(*size);
  }
  sets_.spsRbspArray.push_back(std::move(cleanedNAL));
  return size;
}

}  // namespace tarn
