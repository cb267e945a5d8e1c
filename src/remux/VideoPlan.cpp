#include "remux/VideoPlan.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <span>
#include <utility>

#include "mp4/MP4SampleTableParser.h"
#include "parameters/AVCSPSParser.h"
#include "parameters/NALUnitParser.h"
#include "parameters/SegmentList.h"
#include "parameters/SetRules.h"
#include "platform/Log.h"
#include "remux/MP4Remuxer.h"
#include "remux/VisualSampleEntry.h"
#include "remux/detail/MediaLayout.h"
#include "remux/detail/OpenFile.h"
#include "remux/detail/RemuxCodec.h"
#include "remux/detail/VideoEntries.h"

namespace tarn {
namespace {

using Kind = VideoPlan::Kind;

void reportSegment(size_t number, const ConfigurationSegment& segment) {
  log("Segment {}: samples {}-{}", number, segment.startSampleIndex, segment.endSampleIndex);
}

constexpr SegmentRules segmentRules(const ParameterSetRules& sets) {
  return {.sets = sets,
          .joinsCompatibleSets = true,
          .domain = "VideoPlan",
          .prefix = "",
          .errorPrefix = "",
          .reportSegment = reportSegment};
}

/// True where an entry says what its samples carry. An SPS that differs in its usability information alone is the same
/// set for a decoder: writers set the shape of a pixel or the frame rate in the entry and leave the samples alone.
bool isSaid(const ParameterSets& carried, const VideoEntry& entry, const RemuxCodec& codec) {
  if (areAmong(carried, entry.sets)) return true;
  if (codec.readableSets.codec.vpsType) return false;
  ParameterSets others = carried;
  std::erase_if(others.spsArray, [&](const Bytes& unit) {
    auto at = static_cast<size_t>(std::ranges::find(carried.spsArray, unit) - carried.spsArray.begin());
    return std::ranges::any_of(entry.sets.spsRbspArray,
                               [&](const Bytes& rbsp) { return differInVUIAtMost(carried.spsRbspArray[at], rbsp); });
  });
  return areAmong(others, entry.sets);
}

void addAll(ParameterSetCollector& collector, const ParameterSets& sets) {
  for (const auto* units : {&sets.vpsArray, &sets.spsArray, &sets.ppsArray}) {
    for (const Bytes& unit : *units) collector.processNALUnit(unit);
  }
}

/// The way from a track's tables to its plan.
class Planner {
 public:
  Planner(FileHandle& file, const RemuxCodec& codec, std::vector<VideoEntry> entries, const MP4BoxInfo& stbl)
      : file_(file), codec_(codec), entries_(std::move(entries)) {
    table_.parseSampleTable(file, stbl);
    samples_ = table_.syncSamplesOnly();
  }

  VideoPlan make() {
    if (auto problem = findEntriesInUse()) return {.kind = Kind::cannot, .reason = *problem};
    plan_.nalLengthSize = findNALLengthSize();
    walk(true);
    // AVC encoders may put parameter sets behind a slice.
    if (!plan_.segments.empty() && !areComplete() && !codec_.readableSets.codec.vpsType) walk(false);
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
    std::set<uint32_t> used = table_.usedSampleDescriptionIndices();
    if (samples_.empty()) used = {1};
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

  /// Of another codec: its samples are not looked at.
  bool isForeign(const VideoEntry& entry) const { return !codec_.accepts(entry.tag); }
  bool isComplete(const VideoEntry& entry) const { return tarn::isComplete(entry.sets, codec_.readableSets.codec); }
  bool areComplete() const {
    return std::ranges::all_of(plan_.segments, [&](const ConfigurationSegment& segment) {
      return tarn::isComplete(segment.sets, codec_.readableSets.codec);
    });
  }

  int nalLengthSize(const VideoEntry& entry) const {
    return isComplete(entry) ? entry.nalLengthSize : plan_.nalLengthSize;
  }

  /// That of the first whole entry, else what the samples vote for.
  int findNALLengthSize() {
    for (const VideoEntry* entry : inUse_) {
      if (isComplete(*entry)) return entry->nalLengthSize;
    }
    auto voters = std::span(samples_).first(std::min(NALUnitParser::votingSamples, samples_.size()));
    return codec_.detectNALLengthSize(file_, voters);
  }

  const VideoEntry& entryOf(const SampleInfo& sample) const {
    return entries_[table_.sampleDescriptionIndex(sample.index).value_or(1) - 1];
  }

  /// Finds the segments, and whether the entries say all that the samples carry.
  void walk(bool stopsAtSlice) {
    const SegmentRules rules = segmentRules(codec_.readableSets);
    const NALWalkRules units{.codec = codec_.readableSets.codec, .stopsAtSlice = stopsAtSlice, .logsDamage = false};
    SegmentList segments(rules);
    ParameterSetCollector allCarried(codec_.readableSets);
    bool areSame = true;
    isSaidByEntries_ = std::ranges::all_of(inUse_, [&](const VideoEntry* entry) { return isComplete(*entry); });
    size_t unreadable = 0;
    const VideoEntry* last = nullptr;
    for (const SampleInfo& sample : samples_) {
      const VideoEntry& entry = entryOf(sample);
      if (isForeign(entry)) continue;
      ParameterSets carried =
          readCarriedSets(file_, sample, nalLengthSize(entry), units, codec_.readableSets, &unreadable);
      if (&entry != last) segments.enterSampleEntry(sample.index, entry.sets);
      last = &entry;
      segments.addSyncSample(sample.index, carried);
      areSame = areSame && areAmong(carried, entry.sets);
      isSaidByEntries_ = isSaidByEntries_ && isSaid(carried, entry, codec_);
      addAll(allCarried, carried);
    }
    if (unreadable > 0) log("Skipping {} parameter sets that no decoder can read or no sample entry hold", unreadable);
    ParameterSets all = std::move(allCarried).take();
    if (!areSame && all.requiresMultipleSampleEntries) isSaidByEntries_ = false;
    plan_.segments.clear();
    if (last != nullptr) plan_.segments = std::move(segments).finish(table_.sampleCount());
  }

  void keepEntries() {
    plan_.segments.clear();
    for (const VideoEntry& entry : entries_) {
      if (entry.tag == codec_.inBandTag && isComplete(entry)) {
        plan_.tagOffsets.push_back(entry.offset + sampleEntryTypeInBox);
      }
    }
    plan_.hasWholeEntries = true;
    plan_.newTag = codec_.tag;
    plan_.kind = plan_.tagOffsets.empty() ? Kind::leavesAlone : Kind::changesTags;
    const std::string_view who = entries_.size() == 1 ? "the sample entry holds" : "the sample entries hold";
    plan_.reason = fmt::format("{} all parameter sets", who);
    if (plan_.kind == Kind::changesTags) {
      plan_.reason += fmt::format(", so {} becomes {} in the file itself", codec_.inBandTag, codec_.tag);
    }
  }

  void replaceEntries() {
    ParameterSetCollector collector(codec_.readableSets);
    std::string missing;
    for (const ConfigurationSegment& segment : plan_.segments) {
      addAll(collector, segment.sets);
      if (missing.empty()) missing = missingKinds(segment.sets, codec_.readableSets.codec);
    }
    if (plan_.segments.empty()) missing = "no samples";
    if (!missing.empty()) {
      return giveUp(fmt::format("neither the sample entry nor the sync samples hold its parameter sets ({})", missing));
    }
    if (!foreign_.empty()) return giveUp(foreign_);
    bool areOneLength = std::ranges::all_of(
        inUse_, [&](const VideoEntry* entry) { return nalLengthSize(*entry) == plan_.nalLengthSize; });
    if (!areOneLength) return giveUp("the sample entries state different sizes of NAL lengths");
    ParameterSets all = std::move(collector).take();
    plan_.kind = plan_.segments.size() > 1 || entries_.size() > 1 ? Kind::splits : Kind::rebuilds;
    plan_.reason = whyReplaced(all);
    plan_.hasWholeEntries = std::ranges::all_of(inUse_, [&](const VideoEntry* entry) { return isComplete(*entry); });
    for (const VideoEntry* entry : inUse_) {
      for (const std::string& other : entry->others) {
        plan_.losses.push_back(fmt::format("{} of the old {} is not kept", other, codec_.configBox));
      }
    }
  }

  void giveUp(const std::string& reason) { plan_ = {.kind = Kind::cannot, .reason = reason}; }

  std::string whyReplaced(const ParameterSets& all) const {
    if (plan_.segments.size() > 1 && all.hasResolutionChanges) return "the picture size changes in mid-stream";
    if (plan_.segments.size() > 1) return "identifiers of parameter sets come again with other content";
    for (const VideoEntry* entry : inUse_) {
      std::string missing = missingKinds(entry->sets, codec_.readableSets.codec);
      if (!missing.empty()) return fmt::format("the sample entry has {}; the samples have them", missing);
    }
    return "the samples carry other parameter sets than the sample entry";
  }

  FileHandle& file_;
  const RemuxCodec& codec_;
  std::vector<VideoEntry> entries_;
  std::vector<const VideoEntry*> inUse_;  // of the codec
  std::string foreign_;                   // names an entry in use of another codec
  MP4SampleTableParser table_;
  std::vector<SampleInfo> samples_;
  bool isSaidByEntries_ = false;
  VideoPlan plan_;
};

}  // namespace

std::optional<VideoPlan> planVideo(FileManager& files, const Path& path) {
  auto file = openFile(files, path, OpenMode::reading, "Cannot open file");
  auto moov = MP4BoxUtils::findTopLevelBox(*file, "moov");
  if (!moov) throw MP4RemuxError::corruptedMP4("moov box not found");
  auto stbl = NALUnitParser::findVideoTrackStbl(*file, *moov);
  auto stsd = stbl ? MP4BoxUtils::findChildBox(*file, *stbl, "stsd") : std::nullopt;
  if (!stsd) throw MP4RemuxError::corruptedMP4("Video track stsd not found");
  auto tag = MP4Remuxer::readVideoCodecFromStsd(*file, *stsd);
  const RemuxCodec* codec = tag ? remuxCodecOfTag(*tag) : nullptr;
  if (!codec) return std::nullopt;
  std::vector<VideoEntry> entries = readVideoEntries(*file, *stsd, *codec);
  if (entries.empty()) throw MP4RemuxError::corruptedMP4("No sample entry can be read");
  VideoPlan plan = Planner(*file, *codec, std::move(entries), *stbl).make();
  if (!plan.segments.empty() && findMediaLayout(*file, *moov).isMdatCut) {
    return VideoPlan{.kind = Kind::cannot, .reason = plan.reason + ", but the file is cut off in its media"};
  }
  return plan;
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
