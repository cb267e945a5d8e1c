#include "parameters/detail/SetRules.h"

#include <tarn/hevc.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "parameters/AVCConfigurationBox.h"
#include "parameters/NALUnitParser.h"
#include "parameters/detail/AVCSPSParser.h"
#include "parameters/detail/RBSPReading.h"

namespace tarn {
namespace {

struct PPSIdentifiers {
  uint32_t own = 0;
  uint32_t sps = 0;
  bool isWhole = false;
};

PPSIdentifiers readPPS(ByteView payload) {
  BitReader bits(payload);
  PPSIdentifiers ids{.own = readUE(bits)};
  ids.sps = readUE(bits);
  ids.isWhole = !bits.atEnd();
  return ids;
}

/// vps_reserved_0xffff_16bits (ITU-T H.265 7.3.2.1), after 16 bits of fields.
bool isReadableVPS(ByteView payload) {
  return payload.size() > 4 && payload[2] == 0xFF && payload[3] == 0xFF;
}

bool isReadableHEVC(ParameterSetKind kind, ByteView cleaned) {
  ByteView payload = cleaned.subspan(hevcNALCodec.headerSize);
  int layer = (cleaned[0] & 1) << 5 | cleaned[1] >> 3;
  if (layer != 0) return false;
  HEVCSPSInfo info;
  switch (kind) {
    case ParameterSetKind::vps:
      return isReadableVPS(payload);
    case ParameterSetKind::sps:
      return hevc_parse_sps(cleaned.data(), cleaned.size(), &info) == 0 && parseHEVCParameterSetID(kind, payload) <= 15;
    case ParameterSetKind::pps:
      PPSIdentifiers ids = readPPS(payload);
      return ids.isWhole && ids.own <= 63 && ids.sps <= 15;
  }
  return false;
}

bool isReadableAVC(ParameterSetKind kind, ByteView cleaned) {
  ByteView payload = cleaned.subspan(avcNALCodec.headerSize);
  if (kind == ParameterSetKind::sps) return payload.size() > 3 && readAVCSPS(payload).isPlausible;
  PPSIdentifiers ids = readPPS(payload);
  return ids.isWhole && ids.own <= 255 && ids.sps <= 31;
}

/// The identifier of a unit as stored.
uint32_t identifierOf(const Bytes& unit, ParameterSetKind kind, const ParameterSetRules& rules) {
  Bytes cleaned = removeEmulationPrevention(unit);
  return rules.codec.identifier(kind, ByteView(cleaned).subspan(rules.codec.headerSize));
}

/// Identifier and content of each set of one kind.
std::vector<std::pair<uint32_t, const Bytes*>> identified(const ParameterSets& sets, ParameterSetKind kind,
                                                          const ParameterSetRules& rules) {
  std::vector<std::pair<uint32_t, const Bytes*>> result;
  for (const Bytes& unit : unitsOf(sets, kind)) {
    if (unit.size() > rules.codec.headerSize) result.emplace_back(identifierOf(unit, kind, rules), &unit);
  }
  return result;
}

}  // namespace

const ParameterSetRules hevcReadableSets{.codec = hevcNALCodec,
                                         .pictureSize = NALUnitParser::parseShownSize,
                                         .isReadable = isReadableHEVC,
                                         .report = nullptr};

const ParameterSetRules avcReadableSets{.codec = avcNALCodec,
                                        .pictureSize = AVCConfigurationBox::parseSPSResolution,
                                        .isReadable = isReadableAVC,
                                        .report = nullptr};

ParameterSets merged(const ParameterSets& older, const ParameterSets& newer, const ParameterSetRules& rules) {
  ParameterSetCollector collector(rules);
  for (ParameterSetKind kind : allParameterSetKinds) {
    const auto news = identified(newer, kind, rules);
    for (const auto& [id, unit] : identified(older, kind, rules)) {
      auto replacement = std::ranges::find(news, id, &std::pair<uint32_t, const Bytes*>::first);
      collector.processNALUnit(replacement == news.end() ? *unit : *replacement->second);
    }
    for (const auto& [id, unit] : news) collector.processNALUnit(*unit);
  }
  return std::move(collector).take();
}

bool areCompatible(const ParameterSets& older, const ParameterSets& newer, const ParameterSetRules& rules) {
  ParameterSetCollector collector(rules);
  collector.addAll(older);
  collector.addAll(newer);
  return !collector.sets().requiresMultipleSampleEntries && !collector.sets().hasResolutionChanges;
}

}  // namespace tarn
