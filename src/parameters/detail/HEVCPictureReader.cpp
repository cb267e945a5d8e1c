#include "parameters/detail/HEVCPictureReader.h"

#include <algorithm>
#include <bit>

#include "parameters/NALCodec.h"
#include "parameters/detail/ProfileTierLevel.h"
#include "parameters/detail/RBSPReading.h"
#include "platform/Error.h"

namespace tarn {
namespace {

enum NALType : uint8_t {
  lastLeading = 9,  // RASL_R
  firstIRAP = 16,   // BLA_W_LP
  firstIDR = 19,
  lastIDR = 20,
  cra = 21,
  delimiter = 35,
  endOfSequence = 36,
  endOfBitstream = 37,
  filler = 38,
  firstUnspecified = 48,
  firstUnspecifiedBehind = 56,
};
enum SliceType : uint32_t { B = 0, P = 1, I = 2 };

constexpr size_t headerSize = hevcNALCodec.headerSize;

Error unreadable(const char* words) {
  return {"PictureReader", -1, words};
}

bool isIDR(uint8_t type) {
  return type == firstIDR || type == lastIDR;
}
/// Leading pictures (RADL, RASL) and those of a sub-layer to which nothing refers do not count for the order (8.3.1).
bool countsForOrder(uint8_t type, unsigned temporalID) {
  const bool isLeading = type >= 6 && type <= lastLeading;
  const bool isUnused = type < firstIRAP && type % 2 == 0;
  return temporalID == 0 && !isLeading && !isUnused;
}

/// Reads a set as far as the size of the coding tree blocks.
HEVCSliceRules readSPS(BitReader& bits, uint32_t& id) {
  constexpr uint64_t generalPart = 88 + 8;
  HEVCSliceRules rules;
  bits.readBits(4);  // sps_video_parameter_set_id
  const uint32_t subLayersMinus1 = bits.readBits(3);
  bits.readBits(1);
  skipBits(bits, generalPart);
  skipSubLayers(
      subLayersMinus1, [&] { return bits.readBits(1); }, [&](size_t count) { skipBits(bits, count); });
  id = readUE(bits);
  if (readUE(bits) == 3) rules.hasSeparatePlanes = bits.readBits(1) != 0;
  const uint64_t width = readUE(bits);
  const uint64_t height = readUE(bits);
  if (bits.readBits(1) != 0) {
    for (int side = 0; side < 4; ++side) readUE(bits);
  }
  for (int plane = 0; plane < 2; ++plane) readUE(bits);  // bit depths
  const uint64_t orderBits = uint64_t{readUE(bits)} + 4;
  const bool hasAllSubLayers = bits.readBits(1) != 0;
  for (uint32_t i = hasAllSubLayers ? 0 : subLayersMinus1; i <= subLayersMinus1; ++i) {
    for (int field = 0; field < 3; ++field) readUE(bits);
  }
  const uint64_t smallest = uint64_t{readUE(bits)} + 3;
  const uint64_t log2Size = smallest + readUE(bits);
  if (bits.atEnd() || orderBits > 16 || log2Size > 6 || width - 1 >= 16384 || height - 1 >= 16384) {
    throw unreadable("A sequence parameter set cannot be read");
  }
  rules.orderBits = static_cast<unsigned>(orderBits);
  const auto inBlocks = [&](uint64_t length) { return (length + (1U << log2Size) - 1) >> log2Size; };
  rules.blocks = static_cast<uint32_t>(inBlocks(width) * inBlocks(height));
  rules.addressBits = static_cast<unsigned>(std::bit_width(rules.blocks - 1));
  return rules;
}

}  // namespace

HEVCPictureReader::HEVCPictureReader(const ParameterSets& sets) {
  std::map<uint32_t, HEVCSliceRules> sequences;
  for (const Bytes& unit : sets.spsArray) {
    const Bytes cleaned = removeEmulationPrevention(unit);
    if (cleaned.size() <= headerSize) continue;
    BitReader bits(ByteView(cleaned).subspan(headerSize));
    uint32_t id = 0;
    const HEVCSliceRules rules = readSPS(bits, id);
    sequences[id] = rules;
    orderBits_ = rules.orderBits;
  }
  for (const Bytes& unit : sets.ppsArray) {
    const Bytes cleaned = removeEmulationPrevention(unit);
    if (cleaned.size() <= headerSize) continue;
    BitReader bits(ByteView(cleaned).subspan(headerSize));
    const uint32_t id = readUE(bits);
    const auto sequence = sequences.find(readUE(bits));
    if (sequence == sequences.end()) {
      throw unreadable("A picture parameter set needs a sequence parameter set that is missing");
    }
    HEVCSliceRules& rules = rules_[id] = sequence->second;
    rules.mayDepend = bits.readBits(1) != 0;
    rules.hasOutputFlag = bits.readBits(1) != 0;
    rules.extraBits = bits.readBits(3);
  }
  if (rules_.empty()) throw unreadable("There are no picture parameter sets");
}

std::optional<StreamUnit> HEVCPictureReader::read(ByteView front) const {
  if (front.size() < headerSize) return std::nullopt;
  const uint8_t type = hevcNALCodec.type(front[0]);
  const bool isEnd = type == endOfSequence || type == endOfBitstream;
  if (front.size() == headerSize && !isEnd) return std::nullopt;
  const unsigned layer = (front[0] & 1U) << 5 | front[1] >> 3;
  const unsigned temporalID = (front[1] & 7U) - 1;
  if ((front[0] & 0x80) != 0 || layer != 0 || temporalID > 6) return std::nullopt;
  using Role = StreamUnit::Role;
  if (type >= hevcNALType::vps) {
    const bool isBehind =
        (type >= endOfSequence && type <= filler) || type == hevcNALType::suffixSEI || type >= firstUnspecifiedBehind;
    const bool isAhead = type <= delimiter || type == hevcNALType::prefixSEI || type >= firstUnspecified;
    if (!isBehind && !isAhead) return std::nullopt;
    const bool isMessage = type == hevcNALType::prefixSEI || type == hevcNALType::suffixSEI;
    if (isMessage && !isSEI(front.subspan(headerSize), front.size() < frontSize)) return std::nullopt;
    if (type == delimiter && !isDelimiter(front.subspan(headerSize))) return std::nullopt;
    return StreamUnit{.role = isBehind ? Role::behind : Role::ahead};
  }
  if (type > cra || (type > lastLeading && type < firstIRAP)) return std::nullopt;

  const bool isIRAP = type >= firstIRAP;
  const Bytes rbsp = removeEmulationPrevention(front.first(std::min(front.size(), frontSize)));
  BitReader bits(ByteView(rbsp).subspan(headerSize));
  StreamUnit unit{.isFirst = bits.readBits(1) != 0,
                  .isSync = isIRAP,
                  .startsOrder = isIRAP && type != cra,
                  .isReference = countsForOrder(type, temporalID)};
  if (isIRAP && temporalID != 0) return std::nullopt;
  if (isIRAP) bits.readBits(1);  // no_output_of_prior_pics_flag
  const auto found = rules_.find(readUE(bits));
  if (found == rules_.end()) return std::nullopt;
  const HEVCSliceRules& rules = found->second;
  if (!unit.isFirst) {
    const bool depends = rules.mayDepend && bits.readBits(1) != 0;
    const uint32_t address = rules.addressBits > 0 ? bits.readBits(static_cast<int>(rules.addressBits)) : 0;
    if (address == 0 || address >= rules.blocks) return std::nullopt;
    if (depends) return unit;
  }
  skipBits(bits, rules.extraBits);
  const uint32_t sliceType = readUE(bits);
  if (sliceType > I || (isIRAP && sliceType != I)) return std::nullopt;
  if (rules.hasOutputFlag) bits.readBits(1);
  if (rules.hasSeparatePlanes) bits.readBits(2);
  if (!isIDR(type)) unit.orderLSB = bits.readBits(static_cast<int>(rules.orderBits));
  return bits.atEnd() ? std::nullopt : std::optional(unit);
}

std::optional<PictureOrder> HEVCPictureReader::order(const StreamUnit& firstSlice) {
  if (firstSlice.startsOrder) {
    ++sequence_;
    count_.restart();
  }
  const int64_t count = count_.next(firstSlice.orderLSB, orderBits_);
  if (firstSlice.isReference) count_.setPrevious(count, firstSlice.orderLSB);
  return PictureOrder{.sequence = sequence_, .count = count};
}

}  // namespace tarn
