#include "remux/VideoPlan.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <utility>

#include "mp4/BoxLayout.h"
#include "parameters/NALUnitParser.h"
#include "parameters/ParameterScan.h"
#include "parameters/VideoCodec.h"
#include "platform/Log.h"
#include "platform/ReadWatch.h"
#include "remux/detail/MovieAccess.h"
#include "remux/detail/TagRepair.h"
#include "remux/detail/VideoEntries.h"

namespace tarn {
namespace {

using Kind = VideoPlan::Kind;

MP4SampleTableParser parseTable(FileHandle& file, const MP4BoxInfo& stbl) {
  MP4SampleTableParser table;
  table.parseSampleTable(file, stbl);
  return table;
}

/// The way from a track's tables to its plan.
class Planner {
 public:
  Planner(FileHandle& file, const VideoCodec& codec, std::vector<VideoEntry> entries, const MP4BoxInfo& stbl)
      : file_(file),
        codec_(codec),
        entries_(std::move(entries)),
        scan_(codec, ParameterScan::Purpose::plan, parseTable(file, stbl)) {}

  VideoPlan make() {
    if (auto problem = findEntriesInUse()) return {.kind = Kind::cannot, .reason = *problem};
    plan_.nalLengthSize = findNALLengthSize();
    scan_.read(file_, [this](const SampleInfo& sample) -> std::optional<int> {
      const VideoEntry& entry = entryOf(sample);
      if (isForeign(entry)) return std::nullopt;
      return nalLengthSize(entry);
    });
    findSegments();
    if (!plan_.segments.empty() && !areComplete() && codec_.nal.hasSetsBehindSlices) {
      scan_.readBehindSlices(file_);
      findSegments();
    }
    if (isSaidByEntries_) {
      keepEntries();
    } else {
      replaceEntries();
    }
    return std::move(plan_);
  }

 private:
  /// Says what stands in the way, if anything does.
  std::optional<std::string> findEntriesInUse() {
    std::set<uint32_t> used = scan_.table().usedSampleDescriptionIndices();
    if (scan_.syncSamples().empty()) used = {1};
    for (uint32_t description : used) {
      if (description == 0 || description > entries_.size()) {
        return fmt::format("stsc names sample entry {}, and stsd holds {}", description, entries_.size());
      }
      const VideoEntry& entry = entries_[description - 1];
      if (isForeign(entry)) {
        foreign_ = fmt::format("sample entry {} of {} has the tag '{}' beside '{}'", description, entries_.size(),
                               entry.tag, entries_.front().tag);
      } else {
        inUse_.push_back(&entry);
      }
    }
    return std::nullopt;
  }

  /// True if the entry is of another codec: its samples are not looked at.
  bool isForeign(const VideoEntry& entry) const { return !codec_.accepts(entry.tag); }
  bool isComplete(const VideoEntry& entry) const { return tarn::isComplete(entry.sets, codec_.nal); }
  bool areComplete() const {
    return std::ranges::all_of(plan_.segments, [&](const ConfigurationSegment& segment) {
      return tarn::isComplete(segment.sets, codec_.nal);
    });
  }

  int nalLengthSize(const VideoEntry& entry) const {
    return isComplete(entry) ? entry.nalLengthSize : plan_.nalLengthSize;
  }

  /// The length size of the first complete entry, else the one that most samples fit.
  int findNALLengthSize() {
    for (const VideoEntry* entry : inUse_) {
      if (isComplete(*entry)) return entry->nalLengthSize;
    }
    return scan_.detectNALLengthSize(file_);
  }

  const VideoEntry& entryOf(const SampleInfo& sample) const {
    return entries_[scan_.table().sampleDescriptionIndex(sample.index).value_or(1) - 1];
  }

  /// Finds the segments, and whether the entries say all that the samples carry.
  void findSegments() {
    isSaidByEntries_ = areSaidByEntries();
    plan_.segments.clear();
    if (!scan_.hasRead()) return;
    plan_.segments =
        scan_.segments(scan_.table().sampleCount(), ParameterScan::Side::both,
                       [this](const SampleInfo& sample) -> const ParameterSets& { return entryOf(sample).sets; });
  }

  bool areSaidByEntries() const {
    bool areSaid = std::ranges::all_of(inUse_, [&](const VideoEntry* entry) { return isComplete(*entry); });
    bool areSame = true;
    const VideoEntry* last = nullptr;
    size_t lastSample = 0;
    for (size_t sample = 0; sample < scan_.syncSamples().size(); ++sample) {
      if (!scan_.isRead(sample)) continue;
      const VideoEntry& entry = entryOf(scan_.syncSamples()[sample]);
      if (&entry == last && scan_.carryTheSame(sample, lastSample)) continue;
      const ParameterSets carried = scan_.carriedBy(sample);
      areSame = areSame && areAmong(carried, entry.sets);
      areSaid = areSaid && tarn::areSaid(carried, entry.sets, codec_);
      last = &entry;
      lastSample = sample;
    }
    return areSaid && (areSame || !scan_.sets().requiresMultipleSampleEntries);
  }

  void keepEntries() {
    plan_.segments.clear();
    for (const VideoEntry& entry : entries_) {
      if (entry.tag == codec_.inBandTag && isComplete(entry)) {
        plan_.tagOffsets.push_back(entry.offset + layout::boxType.offset);
      }
    }
    plan_.hasWholeEntries = true;
    plan_.newTag = codec_.tag;
    plan_.kind = plan_.tagOffsets.empty() ? Kind::leavesAlone : Kind::changesTags;
    plan_.reason = "the file's header holds all that a decoder needs";
    if (plan_.kind == Kind::leavesAlone) return;
    plan_.reason = fmt::format("the video has the tag \"{}\", which many players refuse though nothing is missing",
                               codec_.inBandTag);
    plan_.remedy = fmt::format("changed the tag to \"{}\"", codec_.tag);
  }

  void replaceEntries() {
    std::string missing;
    for (const ConfigurationSegment& segment : plan_.segments) {
      if (missing.empty()) missing = missingKinds(segment.sets, codec_.nal);
    }
    if (plan_.segments.empty()) missing = "no samples";
    if (!missing.empty()) {
      return giveUp(fmt::format("neither the file's header nor its pictures hold what a decoder needs ({})", missing));
    }
    if (!foreign_.empty()) return giveUp(foreign_);
    bool areOneLength = std::ranges::all_of(
        inUse_, [&](const VideoEntry* entry) { return nalLengthSize(*entry) == plan_.nalLengthSize; });
    if (!areOneLength) return giveUp("the sample entries state different sizes of NAL lengths");
    plan_.kind = plan_.segments.size() > 1 || entries_.size() > 1 ? Kind::splits : Kind::rebuilds;
    tellWhyReplaced();
    plan_.hasWholeEntries = std::ranges::all_of(inUse_, [&](const VideoEntry* entry) { return isComplete(*entry); });
    for (const VideoEntry* entry : inUse_) {
      for (const std::string& other : entry->others) {
        plan_.losses.push_back(fmt::format("{} of the old {} is not kept", other, codec_.configBox));
      }
    }
  }

  void giveUp(const std::string& reason) { plan_ = {.kind = Kind::cannot, .reason = reason}; }

  void tellWhyReplaced() {
    const bool isOfSizes = plan_.segments.size() > 1 && changesPictureSize();
    plan_.reason = isOfSizes ? "the picture size changes on the way, and the file's header holds one only"
                   : plan_.segments.size() > 1 ? "the decoder's parameter sets change on the way under the same numbers"
                                               : whyRebuilt();
    plan_.remedy = plan_.kind == Kind::splits
                       ? fmt::format("gave each part of the video its parameter sets in the file's header ({} entries)",
                                     plan_.segments.size())
                       : fmt::format("put the parameter sets into the file's header, under the tag \"{}\"", codec_.tag);
  }

  std::string whyRebuilt() const {
    for (const VideoEntry* entry : inUse_) {
      std::string missing = missingKinds(entry->sets, codec_.nal);
      if (missing.empty()) continue;
      return fmt::format("the decoder's parameter sets stand only in the bitstream: the file's header has {}", missing);
    }
    return "the file's header holds other parameter sets than the pictures need";
  }

  bool changesPictureSize() const {
    std::optional<PictureSize> first;
    for (const ConfigurationSegment& segment : plan_.segments) {
      for (const Bytes& sps : segment.sets.spsRbspArray) {
        const auto size = codec_.shownSize(sps);
        if (first && size && *size != *first) return true;
        if (!first) first = size;
      }
    }
    return false;
  }

  FileHandle& file_;
  const VideoCodec& codec_;
  std::vector<VideoEntry> entries_;
  std::vector<const VideoEntry*> inUse_;  // of the codec
  std::string foreign_;                   // names an entry in use of another codec
  ParameterScan scan_;
  bool isSaidByEntries_ = false;
  VideoPlan plan_;
};

std::optional<VideoPlan> planFor(FileHandle& file) {
  auto moov = MP4BoxUtils::findTopLevelBox(file, "moov");
  if (!moov) throw MP4RemuxError::corruptedMP4("moov box not found");
  auto stbl = NALUnitParser::findVideoTrackStbl(file, *moov);
  auto stsd = stbl ? MP4BoxUtils::findChildBox(file, *stbl, "stsd") : std::nullopt;
  if (!stsd) throw MP4RemuxError::corruptedMP4("Video track stsd not found");
  auto tag = readVideoCodecFromStsd(file, *stsd);
  const VideoCodec* codec = tag ? codecOfTag(*tag) : nullptr;
  if (!codec) return std::nullopt;
  std::vector<VideoEntry> entries = readVideoEntries(file, *stsd, *codec);
  if (entries.empty()) throw MP4RemuxError::corruptedMP4("No sample entry can be read");
  VideoPlan plan = Planner(file, *codec, std::move(entries), *stbl).make();
  if (!plan.segments.empty() && scanAround(file, *moov).isMdatCut()) {
    return VideoPlan{.kind = Kind::cannot, .reason = plan.reason + ", and the file is cut off in its media"};
  }
  return plan;
}

}  // namespace

std::optional<VideoPlan> planVideo(FileManager& files, const Path& path) {
  // A box that cannot be read would pass for one that is not there, and lead to another plan.
  return readWatched(ReadWatch(openFile(files, path, OpenMode::reading, "Cannot open file")), planFor);
}

void changeTags(FileManager& files, const Path& path, const VideoPlan& plan) {
  auto file = openFile(files, path, OpenMode::updating, "Cannot open file for writing");
  for (uint64_t offset : plan.tagOffsets) {
    file->seek(offset);
    file->write(bytesOf(plan.newTag));
    log("Changed the tag at {} to {}", offset, plan.newTag);
  }
  file->synchronize();
  file->close();
}

}  // namespace tarn
