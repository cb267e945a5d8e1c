#include "fragments/SampleGroups.h"

#include <fmt/format.h>

#include <utility>

#include "movie/MovieError.h"
#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"

namespace tarn {
namespace {

using Case = MovieError::Case;

/// Indexes above it count in the `sgpd` of the fragment (8.9.4).
constexpr uint32_t lastTrackIndex = 0x10000;

/// The 32-bit field at a place of a box. Throws MovieError: damaged if the box ends before its end.
uint32_t fieldAt(ByteView box, size_t at) {
  const auto value = readUInt32(box, at);
  if (!value) throw MovieError::damaged("A box of sample groups ends before its fields");
  return *value;
}

uint8_t versionOf(ByteView box) {
  return static_cast<uint8_t>(fieldAt(box, layout::version.offset) >> 24);
}

}  // namespace

SampleGroups::Kind SampleGroups::kindOf(ByteView sbgp) {
  Kind kind{fieldAt(sbgp, layout::groupingType.offset), std::nullopt};
  if (versionOf(sbgp) > 0) kind.parameter = fieldAt(sbgp, layout::groupingType.end());
  return kind;
}

SampleGroups::Descriptions SampleGroups::readDescriptions(ByteView sgpd) {
  Descriptions result{.version = versionOf(sgpd)};
  const auto header = layout::groupDescriptionHeader(result.version);
  const uint32_t count = fieldAt(sgpd, header.entryCount.offset);
  size_t at = header.entryCount.end();
  if (count > lastTrackIndex || count > sgpd.size()) {
    throw MovieError::damaged(fmt::format("An sgpd of {} bytes promises {} groups", sgpd.size(), count));
  }
  uint32_t length = 0;
  if (result.version == 0) {
    // The standard gives each kind a length and the box does not: all entries of one box are equally long in practice.
    length = count == 0 ? 0 : static_cast<uint32_t>((sgpd.size() - at) / count);
  } else {
    length = fieldAt(sgpd, header.defaultLength.offset);
    if (result.version > 1) result.defaultIndex = fieldAt(sgpd, header.defaultLength.end());
  }
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t size = length;
    if (result.version > 0 && length == 0) {
      size = fieldAt(sgpd, at);
      at += sizeof size;
    }
    if (size > sgpd.size() - at) throw MovieError::damaged("An sgpd ends before its groups");
    const ByteView entry = sgpd.subspan(at, size);
    result.entries.emplace_back(entry.begin(), entry.end());
    result.indexes.emplace(result.entries.back(), i + 1);
    at += size;
  }
  return result;
}

MovieBox SampleGroups::assignmentBox(const Kind& kind, const Runs<uint32_t>& groups) {
  Bytes contents;
  ByteWriter writer(contents);
  writer.uint32(static_cast<uint32_t>(layout::versionWord(kind.parameter ? 1 : 0)));
  writer.uint32(kind.type);
  if (kind.parameter) writer.uint32(*kind.parameter);
  writer.uint32(static_cast<uint32_t>(groups.runCount()));
  for (const auto& run : groups) writer.uint32(run.count).uint32(run.value);
  return MovieBox::of("sbgp", std::move(contents));
}

MovieBox SampleGroups::Descriptions::box(uint32_t type) const {
  const auto length = static_cast<uint32_t>(entries.front().size());
  const bool haveOneLength =
      length > 0 && std::ranges::all_of(entries, [&](const Bytes& entry) { return entry.size() == length; });
  // Version 0 has no place for lengths.
  const uint8_t written = std::max<uint8_t>(version, 1);
  Bytes contents;
  ByteWriter writer(contents);
  writer.uint32(static_cast<uint32_t>(layout::versionWord(written))).uint32(type);
  writer.uint32(haveOneLength ? length : 0);
  if (written > 1) writer.uint32(defaultIndex);
  writer.uint32(static_cast<uint32_t>(entries.size()));
  for (const Bytes& entry : entries) {
    if (!haveOneLength) writer.uint32(static_cast<uint32_t>(entry.size()));
    writer.bytes(entry);
  }
  return MovieBox::of("sgpd", std::move(contents));
}

uint32_t SampleGroups::trackIndex(uint32_t type, const Bytes& entry) {
  Descriptions& own = descriptions_[type];
  const auto [place, isNew] = own.indexes.emplace(entry, static_cast<uint32_t>(own.entries.size()) + 1);
  if (!isNew) return place->second;
  if (own.entries.size() == lastTrackIndex) throw MovieError(Case::doesNotFit, "The samples are in too many groups");
  own.entries.push_back(entry);
  own.haveGrown = true;
  return place->second;
}

void SampleGroups::read(const MovieBox& stbl, uint64_t sampleCount) {
  for (const MovieBox& child : stbl.children) {
    if (child.type != "sgpd") continue;
    const Bytes box = child.plainBytes();
    descriptions_.emplace(fieldAt(box, layout::groupingType.offset), readDescriptions(box));
  }
  for (const MovieBox& child : stbl.children) {
    if (child.type == "sbgp") append(0, child.plainBytes(), std::nullopt);
  }
  truncate(sampleCount);
}

void SampleGroups::append(uint64_t firstSample, ByteView sbgp, std::optional<ByteView> sgpd) {
  const Kind kind = kindOf(sbgp);
  Runs<uint32_t>& groups = groups_[kind];
  if (groups.size() > firstSample) throw MovieError::damaged("Two sbgp boxes put one sample into groups");
  const Descriptions local = sgpd ? readDescriptions(*sgpd) : Descriptions();
  size_t at = layout::groupingType.end() + (kind.parameter ? sizeof(uint32_t) : 0);
  const uint32_t count = fieldAt(sbgp, at);
  at += sizeof count;
  if (count > (sbgp.size() - at) / layout::runEntrySize) {
    throw MovieError::damaged(fmt::format("An sbgp of {} bytes promises {} entries", sbgp.size(), count));
  }
  groups.resize(firstSample, 0);
  for (uint32_t i = 0; i < count; ++i, at += layout::runEntrySize) {
    const uint32_t samples = layout::load32(sbgp.data() + at, layout::runSampleCount);
    uint32_t index = layout::load32(sbgp.data() + at, layout::runValue);
    if (index > lastTrackIndex) {
      index -= lastTrackIndex;
      if (index > local.entries.size()) {
        throw MovieError::damaged(fmt::format("An sbgp names group {} of {}", index, local.entries.size()));
      }
      index = trackIndex(kind.type, local.entries[index - 1]);
    }
    groups.append(index, samples);
  }
}

void SampleGroups::truncate(uint64_t samples) {
  for (auto& [kind, groups] : groups_) groups.truncate(samples);
}

void SampleGroups::writeTo(MovieBox& stbl) const {
  for (const auto& [kind, groups] : groups_) {
    const auto isOld = [&kind = kind](const MovieBox& box) {
      return box.type == "sbgp" && kindOf(box.plainBytes()) == kind;
    };
    const bool isNeeded = std::ranges::any_of(groups, [](const auto& run) { return run.value != 0; });
    stbl.replaceAll(isOld, isNeeded ? std::optional(assignmentBox(kind, groups)) : std::nullopt);
  }
  for (const auto& [type, own] : descriptions_) {
    const auto isOld = [&type = type](const MovieBox& box) {
      return box.type == "sgpd" && fieldAt(box.plainBytes(), layout::groupingType.offset) == type;
    };
    if (own.haveGrown) stbl.replaceAll(isOld, own.box(type));
  }
}

}  // namespace tarn
