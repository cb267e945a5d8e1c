#include "fragments/detail/FragmentBoxes.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "fragments/FragmentsError.h"
#include "movie/MovieError.h"
#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/ByteArray.h"

namespace tarn {
namespace {

namespace tfhd {
constexpr uint32_t hasBaseDataOffset = 0x1;
constexpr uint32_t hasDescription = 0x2;
constexpr uint32_t hasDuration = 0x8;
constexpr uint32_t hasSize = 0x10;
constexpr uint32_t hasFlags = 0x20;
constexpr uint32_t baseIsMoof = 0x2'0000;
}  // namespace tfhd

namespace trun {
constexpr uint32_t hasDataOffset = 0x1;
constexpr uint32_t hasFirstFlags = 0x4;
constexpr uint32_t hasDuration = 0x100;
constexpr uint32_t hasSize = 0x200;
constexpr uint32_t hasFlags = 0x400;
constexpr uint32_t hasCompositionOffset = 0x800;
constexpr uint32_t entryFields[] = {hasDuration, hasSize, hasFlags, hasCompositionOffset};
}  // namespace trun

/// The extended type of boxes that hold what a `senc` does.
constexpr std::array<uint8_t, 16> encryptionUUID = {0xA2, 0x39, 0x4F, 0x52, 0x5A, 0x9B, 0x4F, 0x14,
                                                    0xA2, 0x44, 0x6C, 0x42, 0x7C, 0x64, 0x8D, 0xF4};

/// Those of boxes that say when and where in a live stream a fragment belongs.
constexpr std::array<std::array<uint8_t, 16>, 2> streamUUIDs = {
    {{0x6D, 0x1D, 0x9B, 0x05, 0x42, 0xD5, 0x44, 0xE6, 0x80, 0xE2, 0x14, 0x1D, 0xAF, 0xF7, 0x57, 0xB2},
     {0xD4, 0x80, 0x7E, 0xF2, 0xCA, 0x39, 0x46, 0x95, 0x8E, 0x54, 0x26, 0xCB, 0x9E, 0x46, 0xA7, 0x9F}}};

bool isAboutFragments(std::string_view type, ByteView contents) {
  constexpr std::array<std::string_view, 5> known{"tfhd", "tfdt", "trun", "free", "skip"};
  if (std::ranges::find(known, type) != known.end()) return true;
  return type == "uuid" && std::ranges::any_of(streamUUIDs, [&](const auto& uuid) {
           return contents.size() >= uuid.size() && std::ranges::equal(contents.first(uuid.size()), uuid);
         });
}

/// Each type once, and not all of very many.
void note(std::vector<std::string>& types, const std::string& type) {
  constexpr size_t most = 8;
  if (types.size() < most && std::ranges::find(types, type) == types.end()) types.push_back(type);
}

uint32_t flagsOf(uint32_t versionAndFlags) {
  return versionAndFlags & 0xFF'FFFF;
}

template <typename Visit>
void forEachChild(ByteView parent, Visit visit) {
  BufferBoxWalker walker(parent, 0, parent.size(), boxwalk::openChildren);
  while (const auto child = walker.next()) {
    if (child->end() > parent.size() || child->contentOffset() > child->end()) {
      throw MovieError::damaged(fmt::format("a {} reaches over the end of its parent", child->type));
    }
    visit(*child, parent.subspan(child->contentOffset(), child->contentSize()));
  }
}

void requireNotEncrypted(std::string_view type, ByteView contents) {
  const bool isUUID = type == "uuid" && contents.size() >= encryptionUUID.size() &&
                      std::ranges::equal(contents.first(encryptionUUID.size()), encryptionUUID);
  if (isUUID || type == "senc" || type == "saiz" || type == "saio") {
    throw FragmentsError(
        fmt::format("The movie is encrypted (its fragments hold {}); only a copy without encryption "
                    "can be repaired",
                    type));
  }
}

/// Reads the `tfhd`; returns the defaults that hold in this fragment.
SampleDefaults readHeader(ByteView contents, const DefaultsOfTrack& defaultsOf, TrackFragment& fragment) {
  ByteArray fields(contents);
  const uint32_t flags = flagsOf(fields.readUInt32());
  fragment.trackID = fields.readUInt32();
  SampleDefaults defaults = defaultsOf(fragment.trackID);
  if (flags & tfhd::hasBaseDataOffset) fragment.baseDataOffset = fields.readUInt64();
  if (flags & tfhd::hasDescription) defaults.description = fields.readUInt32();
  if (flags & tfhd::hasDuration) defaults.duration = fields.readUInt32();
  if (flags & tfhd::hasSize) defaults.size = fields.readUInt32();
  if (flags & tfhd::hasFlags) defaults.flags = fields.readUInt32();
  fragment.baseIsMoof = (flags & tfhd::baseIsMoof) != 0;
  fragment.description = defaults.description;
  return defaults;
}

uint64_t readDecodeTime(ByteView contents) {
  ByteArray fields(contents);
  const bool isLong = fields.readUInt32() >> 24 != 0;
  return isLong ? fields.readUInt64() : fields.readUInt32();
}

TrackFragment parseTrackFragment(ByteView contents, const DefaultsOfTrack& defaultsOf) {
  TrackFragment fragment;
  std::optional<SampleDefaults> defaults;
  forEachChild(contents, [&](const BoxHeader& box, ByteView child) {
    requireNotEncrypted(box.type, child);
    if (box.type == "tfhd" && !defaults) defaults = readHeader(child, defaultsOf, fragment);
  });
  if (!defaults) throw MovieError::damaged("a traf has no tfhd");
  forEachChild(contents, [&](const BoxHeader& box, ByteView child) {
    if (box.type == "tfdt") fragment.decodeTime = readDecodeTime(child);
    if (box.type == "trun") fragment.runs.emplace_back(child, *defaults);
    if (box.type != "sgpd" && box.type != "sbgp") {
      if (!isAboutFragments(box.type, child)) note(fragment.others, box.type);
      return;
    }
    if (box.headerSize != layout::boxHeaderSize)
      throw MovieError::damaged(fmt::format("a {} has a 64-bit size", box.type));
    auto& boxes = box.type == "sgpd" ? fragment.groupDescriptions : fragment.sampleGroups;
    boxes.push_back(contents.subspan(box.offset, box.size));
  });
  return fragment;
}

}  // namespace

TrackRun::TrackRun(ByteView contents, const SampleDefaults& defaults) : defaults_(defaults) {
  ByteArray fields(contents);
  flags_ = flagsOf(fields.readUInt32());
  count_ = fields.readUInt32();
  if (has(trun::hasDataOffset)) dataOffset_ = static_cast<int32_t>(fields.readUInt32());
  if (has(trun::hasFirstFlags)) firstFlags_ = fields.readUInt32();
  for (const uint32_t field : trun::entryFields) entrySize_ += has(field) ? sizeof(uint32_t) : 0;
  entries_ = contents.subspan(fields.position);
  if (entrySize_ > 0 && count_ > entries_.size() / entrySize_) {
    throw MovieError::damaged(fmt::format("a trun promises {} samples and ends before them", count_));
  }
}

FragmentSample TrackRun::sample(uint32_t index) const {
  ByteArray entry(entries_);
  entry.position = index * entrySize_;
  FragmentSample sample{.duration = defaults_.duration, .size = defaults_.size, .flags = defaults_.flags};
  if (index == 0 && firstFlags_) sample.flags = *firstFlags_;
  if (has(trun::hasDuration)) sample.duration = entry.readUInt32();
  if (has(trun::hasSize)) sample.size = entry.readUInt32();
  if (has(trun::hasFlags)) sample.flags = entry.readUInt32();
  // Version 0 has no sign. But nobody composes a sample 2^31 ticks late, and writers store negative offsets in it.
  if (has(trun::hasCompositionOffset)) sample.compositionOffset = static_cast<int32_t>(entry.readUInt32());
  return sample;
}

std::vector<TrackFragment> parseMovieFragment(ByteView moof, const DefaultsOfTrack& defaults) try {
  std::vector<TrackFragment> fragments;
  forEachChild(moof, [&](const BoxHeader& /*box*/, ByteView contents) {
    forEachChild(contents, [&](const BoxHeader& box, ByteView child) {
      requireNotEncrypted(box.type, child);
      if (box.type == "traf") fragments.push_back(parseTrackFragment(child, defaults));
    });
  });
  return fragments;
} catch (const ByteArrayError&) {
  throw MovieError::damaged("a box of it ends before its fields");
}

std::optional<TrackExtends> parseTrackExtends(ByteView contents) try {
  ByteArray fields(contents);
  fields.readUInt32();
  TrackExtends extends{.trackID = fields.readUInt32()};
  extends.defaults.description = fields.readUInt32();
  extends.defaults.duration = fields.readUInt32();
  extends.defaults.size = fields.readUInt32();
  extends.defaults.flags = fields.readUInt32();
  return extends;
} catch (const ByteArrayError&) {
  return std::nullopt;
}

}  // namespace tarn
