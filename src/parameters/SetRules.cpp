#include "parameters/SetRules.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <string>
#include <utility>
#include <vector>

#include "parameters/AVCConfigurationBox.h"
#include "parameters/AVCSPSParser.h"
#include "parameters/HEVCSPSParser.h"
#include "parameters/NALUnitParser.h"
#include "parameters/detail/RBSPReading.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr std::array allKinds{ParameterSetKind::vps, ParameterSetKind::sps, ParameterSetKind::pps};

template <typename Sets>
auto& unitsOf(Sets& sets, ParameterSetKind kind) {
  if (kind == ParameterSetKind::vps) return sets.vpsArray;
  return kind == ParameterSetKind::sps ? sets.spsArray : sets.ppsArray;
}

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

/// vps_reserved_0xffff_16bits (ITU-T H.265 7.3.2.1), behind 16 bits of fields.
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

std::optional<PictureSize> avcPictureSize(ByteView cleanedSPS) {
  return AVCConfigurationBox::parseSPSResolution(cleanedSPS.subspan(avcNALCodec.headerSize));
}

/// The identifier of a unit as stored.
uint32_t identifierOf(const Bytes& unit, ParameterSetKind kind, const ParameterSetRules& rules) {
  Bytes cleaned = removeEmulationPrevention(unit);
  return rules.identifier(kind, ByteView(cleaned).subspan(rules.codec.headerSize));
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
                                         .headerBytesInRbsp = 2,
                                         .pictureSize = NALUnitParser::parseShownSize,
                                         .identifier = parseHEVCParameterSetID,
                                         .isReadable = isReadableHEVC,
                                         .report = nullptr};

const ParameterSetRules avcReadableSets{.codec = avcNALCodec,
                                        .headerBytesInRbsp = 0,
                                        .pictureSize = avcPictureSize,
                                        .identifier = parseAVCParameterSetID,
                                        .isReadable = isReadableAVC,
                                        .report = nullptr};

std::string_view nameOf(ParameterSetKind kind) {
  constexpr std::array<std::string_view, 3> names{"VPS", "SPS", "PPS"};
  return names[static_cast<size_t>(kind)];
}

uint32_t parseAVCParameterSetID(ParameterSetKind kind, ByteView payload) {
  BitReader bits(payload);
  if (kind == ParameterSetKind::sps) skipBits(bits, 24);  // profile, constraints, level
  return readUE(bits);
}

bool isComplete(const ParameterSets& sets, const NALCodec& codec) {
  return missingKinds(sets, codec).empty();
}

std::string missingKinds(const ParameterSets& sets, const NALCodec& codec) {
  std::vector<std::string> missing;
  for (ParameterSetKind kind : allKinds) {
    bool isNeeded = kind != ParameterSetKind::vps || codec.vpsType;
    if (isNeeded && unitsOf(sets, kind).empty()) missing.push_back(fmt::format("no {}", nameOf(kind)));
  }
  return fmt::format("{}", fmt::join(missing, ", "));
}

bool areAmong(const ParameterSets& sets, const ParameterSets& others) {
  return std::ranges::all_of(allKinds, [&](ParameterSetKind kind) {
    const auto& all = unitsOf(others, kind);
    return std::ranges::all_of(unitsOf(sets, kind),
                               [&](const Bytes& unit) { return std::ranges::find(all, unit) != all.end(); });
  });
}

ParameterSets merged(const ParameterSets& older, const ParameterSets& newer, const ParameterSetRules& rules) {
  ParameterSetCollector collector(rules);
  for (ParameterSetKind kind : allKinds) {
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
  for (const ParameterSets* sets : {&older, &newer}) {
    for (ParameterSetKind kind : allKinds) {
      for (const Bytes& unit : unitsOf(*sets, kind)) collector.processNALUnit(unit);
    }
  }
  ParameterSets all = std::move(collector).take();
  return !all.requiresMultipleSampleEntries && !all.hasResolutionChanges;
}

void dropTooLongSets(ParameterSets& sets) {
  for (ParameterSetKind kind : allKinds) {
    auto& units = unitsOf(sets, kind);
    for (size_t i = units.size(); i-- > 0;) {
      if (units[i].size() <= longestStoredSet) continue;
      log("Skipping a {} of {} bytes, of which a sample entry holds {} at most", nameOf(kind), units[i].size(),
          longestStoredSet);
      units.erase(units.begin() + static_cast<ptrdiff_t>(i));
      if (kind == ParameterSetKind::sps) sets.spsRbspArray.erase(sets.spsRbspArray.begin() + static_cast<ptrdiff_t>(i));
    }
  }
}

}  // namespace tarn
