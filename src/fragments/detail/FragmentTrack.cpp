#include "fragments/detail/FragmentTrack.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <limits>
#include <string_view>

#include "fragments/FragmentsError.h"
#include "movie/MovieError.h"
#include "movie/TrackFields.h"
#include "mp4/BoxWalker.h"
#include "mp4/EditTimeline.h"
#include "mp4/TableEntries.h"

namespace tarn {
namespace {

constexpr std::string_view encryptedEntries[] = {"encv", "enca", "enct", "encs"};
/// Kinds of groups (ISO/IEC 14496-12 10) whose descriptions mean the same in a plain movie.
constexpr std::string_view knownGroups[] = {"roll", "prol", "rap ", "sync", "tele", "sap "};

std::string_view groupingTypeOf(ByteView box) {
  const layout::Field& field = layout::groupingType;
  if (box.size() < field.end()) throw MovieError::damaged("a box of sample groups ends before its fields");
  return textOf(box.subspan(field.offset, field.width));
}

}  // namespace

FragmentTrack::FragmentTrack(const MovieBox& trak) {
  const MovieBox* stbl = trak.find({"mdia", "minf", "stbl"});
  trackID_ = static_cast<uint32_t>(trackIDField.load(trak.find({"tkhd"})).value_or(0));
  timescale_ = static_cast<uint32_t>(headerTimescaleField.load(trak.find({"mdia", "mdhd"})).value_or(0));
  if (!stbl || trackID_ == 0 || timescale_ == 0)
    throw MovieError::damaged("a track has no number, timescale or sample table");
  readDescriptions(*stbl);
  tables_ = TrackTables::read(*stbl);
  samplesInMoov_ = tables_.sampleCount();
  duration_ = tables_.duration();
  lastDuration_ = tables_.lastDuration();
  hasPictures_ = handlerOf(trak) == "vide";
  mediaInMoov_ = media();
  readSyncs(*stbl);
}

TrackTables::Composition FragmentTrack::media() const {
  return hasPictures_ ? tables_.composition() : TrackTables::Composition{0, static_cast<int64_t>(duration_)};
}

void FragmentTrack::readDescriptions(const MovieBox& stbl) {
  const MovieBox* box = stbl.find({"stsd"});
  if (!box) throw MovieError::damaged("a track has no stsd");
  stsd_ = box->plainBytes();
  BufferBoxWalker entries(stsd_, layout::tableHeaderSize, stsd_.size(), boxwalk::tableChildren);
  while (const auto entry = entries.next()) {
    ++descriptions_;
    if (std::ranges::find(encryptedEntries, entry->type) == std::end(encryptedEntries)) continue;
    throw FragmentsError(
        fmt::format("The movie is encrypted ({}); only a copy without encryption can be repaired", entry->type));
  }
}

void FragmentTrack::readSyncs(const MovieBox& stbl) {
  const MovieBox* box = stbl.find({"stss"});
  syncs_.append(box == nullptr, samplesInMoov_);
  if (!box) return;
  const Bytes stss = box->plainBytes();
  const TableEntries entries(stss, layout::syncEntrySize, TableEntries::HugeCount::isCut);
  std::vector<uint32_t> numbers(entries.size());
  for (size_t i = 0; i < entries.size(); ++i) numbers[i] = layout::load32(entries.entry(i), layout::syncSampleNumber);
  std::ranges::sort(numbers);
  syncs_.truncate(0);
  for (const uint32_t number : numbers) {
    if (number <= syncs_.size() || number > samplesInMoov_) continue;
    syncs_.append(false, number - 1 - syncs_.size());
    syncs_.append(true);
  }
  syncs_.append(false, samplesInMoov_ - syncs_.size());
}

void FragmentTrack::continueAt(uint64_t time, bool isSync) {
  if (time > MediaEdit::latestTime)
    throw FragmentsError(fmt::format("Track {} begins at an impossible time", trackID_));
  const auto wanted = static_cast<int64_t>(time);
  if (tables_.sampleCount() == 0) {
    start_ = wanted;
  } else if (wanted > end()) {
    stretch(static_cast<uint64_t>(wanted - end()));
  } else if (wanted < end()) {
    goBack(wanted, isSync);
  }
}

void FragmentTrack::setLastDuration(uint64_t ticks) {
  if (ticks > std::numeric_limits<uint32_t>::max()) {
    throw FragmentsError(fmt::format("Track {} has a gap of {:.0f} s, which no sample table can say", trackID_,
                                     seconds(ticks - lastDuration_)));
  }
  duration_ += ticks - lastDuration_;
  lastDuration_ = static_cast<uint32_t>(ticks);
  tables_.setLastDuration(lastDuration_);
}

void FragmentTrack::stretch(uint64_t gap) {
  // Less than a sample is a clock that is rounded.
  if (gap >= lastDuration_) {
    if (end() < furthest_) finish();
    ++gaps_;
    gapTicks_ += gap;
  }
  setLastDuration(lastDuration_ + gap);
}

void FragmentTrack::goBack(int64_t time, bool isSync) {
  const auto behind = static_cast<uint64_t>(end() - time);
  if (behind < lastDuration_) return setLastDuration(lastDuration_ - behind);
  if (!isSync) {
    throw FragmentsError(fmt::format("The time of track {} goes back by {:.3f} s, to a sample that needs others",
                                     trackID_, seconds(behind)));
  }
  furthest_ = std::max(furthest_, end());
  const uint64_t kept = time > start_ ? tables_.samplesDecodedAhead(static_cast<uint64_t>(time - start_)) : 0;
  replaced_ += tables_.sampleCount() - kept;
  truncate(kept);
  if (kept == 0) {
    start_ = time;
  } else {
    setLastDuration(lastDuration_ - static_cast<uint64_t>(end() - time));
  }
}

void FragmentTrack::finish() const {
  if (end() + lastDuration_ >= furthest_) return;
  throw FragmentsError(fmt::format("The time of track {} goes back by {:.3f} s, to samples that do not go on as long",
                                   trackID_, seconds(static_cast<uint64_t>(furthest_ - end()))));
}

void FragmentTrack::append(const TrackSample& sample) {
  if (sample.description == 0 || sample.description > descriptions_) {
    throw FragmentsError(
        fmt::format("A sample of track {} needs sample entry {} of {}", trackID_, sample.description, descriptions_));
  }
  if (sample.duration > MediaEdit::latestTime - end()) {
    throw FragmentsError(fmt::format("Track {} reaches an impossible time", trackID_));
  }
  tables_.append(sample);
  syncs_.append(sample.isSync);
  duration_ += sample.duration;
  lastDuration_ = sample.duration;
}

void FragmentTrack::truncate(uint64_t samples) {
  tables_.truncate(samples);
  syncs_.truncate(samples);
  duration_ = tables_.duration();
  lastDuration_ = tables_.lastDuration();
  samplesInMoov_ = std::min(samplesInMoov_, samples);
}

void FragmentTrack::appendGroups(uint64_t first, const TrackFragment& fragment) {
  for (const ByteView sbgp : fragment.sampleGroups) {
    const std::string_view type = groupingTypeOf(sbgp);
    if (type == "seig") throw FragmentsError("The movie is encrypted (its samples are in groups of the kind seig)");
    if (std::ranges::find(knownGroups, type) == std::end(knownGroups)) {
      if (unknownGroups_.find(type) == std::string::npos)
        unknownGroups_ += fmt::format("{}'{}'", unknownGroups_.empty() ? "" : ", ", type);
      continue;
    }
    const auto isOfType = [&](ByteView sgpd) { return groupingTypeOf(sgpd) == type; };
    const auto found = std::ranges::find_if(fragment.groupDescriptions, isOfType);
    const bool isThere = found != fragment.groupDescriptions.end();
    tables_.appendGroups(first, sbgp, isThere ? std::optional(*found) : std::nullopt);
  }
}

void FragmentTrack::leaveOut(const std::vector<std::string>& types) {
  constexpr size_t mostTold = 8;
  for (const std::string& type : types) {
    if (leftOut_.size() < mostTold) leftOut_.insert("'" + type + "'");
  }
}

std::vector<std::string> FragmentTrack::notes() const {
  std::vector<std::string> notes;
  if (gaps_ > 0) {
    notes.push_back(fmt::format("Track {} has {} gap{} of {:.3f} s in all between its fragments", trackID_, gaps_,
                                gaps_ == 1 ? "" : "s", seconds(gapTicks_)));
  }
  if (replaced_ > 0) {
    notes.push_back(fmt::format("{} sample{} of track {} {} there twice; the later {}", replaced_,
                                replaced_ == 1 ? "" : "s", trackID_, replaced_ == 1 ? "is" : "are",
                                replaced_ == 1 ? "one counts" : "ones count"));
  }
  if (!unknownGroups_.empty()) {
    notes.push_back(fmt::format("Sample groups of track {} of the kind {} are left out", trackID_, unknownGroups_));
  }
  if (!leftOut_.empty()) {
    notes.push_back(fmt::format("What the fragments of track {} say of its samples in boxes of the kind {} is left out",
                                trackID_, fmt::join(leftOut_, ", ")));
  }
  return notes;
}

}  // namespace tarn
