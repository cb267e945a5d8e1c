#include "audio/TrackBoxEdit.h"

#include <algorithm>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "audio/MP4AudioTrackReplacer.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "mp4/MP4BoxUtils.h"
#include "mp4/SampleTableBuilders.h"
#include "mp4/TimingBoxLayout.h"
#include "platform/Checked.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr uint64_t uint32Max = std::numeric_limits<uint32_t>::max();
constexpr uint32_t defaultTimescale = 1000;

/// The one of two fields that the version of a box says is there.
struct VersionedField {
  layout::Field version0;
  layout::Field otherVersions;
};

constexpr VersionedField trackIDField{layout::trackID32, layout::trackID64};
constexpr VersionedField tkhdDurationField{layout::trackDuration32, layout::trackDuration64};
constexpr VersionedField nextTrackIDField{layout::nextTrackID32, layout::nextTrackID64};
constexpr VersionedField mvhdDurationField{layout::timeHeader32.duration, layout::timeHeader64.duration};
constexpr VersionedField mvhdTimescaleField{layout::timeHeader32.timescale, layout::timeHeader64.timescale};

/// Nothing where the box ends ahead of the field.
std::optional<layout::Field> presentField(ByteView box, const VersionedField& fields) {
  if (box.size() < layout::version.end()) return std::nullopt;
  const auto& field = layout::load(box.data(), layout::version) == 0 ? fields.version0 : fields.otherVersions;
  return field.end() <= box.size() ? std::optional(field) : std::nullopt;
}

uint64_t load(ByteView box, const VersionedField& fields, uint64_t otherwise) {
  const auto field = presentField(box, fields);
  return field ? layout::load(box.data(), *field) : otherwise;
}

struct Change {
  uint64_t before;
  uint64_t after;
};

/// Nothing, and no change, where the field is not there.
std::optional<Change> store(std::span<uint8_t> box, const VersionedField& fields, uint64_t value) {
  const auto field = presentField(box, fields);
  if (!field) return std::nullopt;
  const Change change{layout::load(box.data(), *field), field->width == 4 ? std::min(value, uint32Max) : value};
  layout::store(box.data(), *field, change.after);
  return change;
}

/// The box on the way down to a sample table, among those of one level, that holds a place.
std::optional<BoxHeader> containerAround(ByteView data, size_t begin, size_t end, size_t targetPosition) {
  constexpr std::string_view containers[] = {"trak", "mdia", "minf", "stbl"};
  BufferBoxWalker walker(data, begin, end, boxwalk::movieBuffer);
  while (auto box = walker.next()) {
    const bool isContainer = std::ranges::find(containers, box->type) != std::end(containers);
    if (isContainer && box->end() > targetPosition) return box;
  }
  return std::nullopt;
}

/// All of them, the outermost first.
std::vector<BoxHeader> findContainerAncestors(ByteView data, size_t targetPosition) {
  std::vector<BoxHeader> ancestors;
  auto box = containerAround(data, 0, data.size(), targetPosition);
  while (box) {
    ancestors.push_back(*box);
    box = containerAround(data, box->offset + layout::boxHeaderSize, box->end(), targetPosition);
  }
  return ancestors;
}

/// What the rows of an `stts` add up to.
struct SampleRuns {
  uint64_t rows = 0;
  uint64_t totalSamples = 0;
  uint64_t totalDuration = 0;
};

/// Nothing for a table that ends ahead of its rows.
std::optional<SampleRuns> sumRuns(ByteView stts) {
  SampleRuns runs{.rows = layout::load(stts.data(), layout::entryCount)};
  if (runs.rows > (stts.size() - layout::tableHeaderSize) / layout::runRowSize) return std::nullopt;
  for (size_t i = 0; i < runs.rows; ++i) {
    const uint8_t* row = stts.data() + layout::tableHeaderSize + i * layout::runRowSize;
    const uint64_t samples = layout::load(row, layout::runSampleCount);
    const auto duration = checkedMultiply(samples, layout::load(row, layout::runValue));
    const auto sum = duration ? checkedAdd(runs.totalDuration, *duration) : std::nullopt;
    if (!sum) throw AudioTrackReplacerError::corruptedMP4("stts duration does not fit 64 bits");
    runs.totalSamples += samples;
    runs.totalDuration = *sum;
  }
  return runs;
}

/// The one row that says the same; nothing, and the reason in the log, where there is none.
std::optional<Bytes> collapsedStts(ByteView stts) {
  if (stts.size() < layout::tableHeaderSize) {
    logLine("  normalizeAudioStts: stts too small, skipping");
    return std::nullopt;
  }
  const auto runs = sumRuns(stts);
  if (!runs) {
    logLine("  normalizeAudioStts: stts truncated");
    return std::nullopt;
  }
  const auto [rows, samples, duration] = *runs;
  if (samples == 0) {
    logLine("  normalizeAudioStts: no samples recorded");
    return std::nullopt;
  }
  if (duration % samples != 0) {
    log("  normalizeAudioStts: duration {} not divisible by samples {}, leaving stts as-is", duration, samples);
    return std::nullopt;
  }
  const uint64_t delta = duration / samples;
  if (delta == 0) {
    logLine("  normalizeAudioStts: computed zero delta, skipping");
    return std::nullopt;
  }
  if (samples > uint32Max || delta > uint32Max) {
    throw AudioTrackReplacerError::corruptedMP4("stts does not fit a row of 32 bits");
  }
  return buildSimpleSttsBox(static_cast<uint32_t>(samples), static_cast<uint32_t>(delta));
}

}  // namespace

std::optional<TrakBuffer::BoxRange> TrakBuffer::findBoxInData(std::string_view type) const {
  const auto found = MP4BoxUtils::findBoxOffsets(bytes_, type, 0, std::nullopt, true);
  if (found.empty()) return std::nullopt;
  return BoxRange{found.front(), std::min<size_t>(*readUInt32(bytes_, found.front()), bytes_.size() - found.front())};
}

uint32_t TrakBuffer::extractTrackID() const {
  const auto tkhd = findBoxInData("tkhd");
  return tkhd ? static_cast<uint32_t>(load(view(*tkhd), trackIDField, 0)) : 0;
}

uint64_t TrakBuffer::extractTkhdDuration() const {
  const auto tkhd = findBoxInData("tkhd");
  return tkhd ? load(view(*tkhd), tkhdDurationField, 0) : 0;
}

void TrakBuffer::updateTrackID(uint32_t newTrackID) {
  const auto tkhd = findBoxInData("tkhd");
  if (!tkhd) return logLine("  Warning: tkhd not found, cannot update track_ID");
  const auto change = store(edit(*tkhd), trackIDField, newTrackID);
  if (change) log("  Updated audio track_ID: {} -> {}", change->before, change->after);
}

void TrakBuffer::updateTkhdDuration(uint64_t newDuration) {
  const auto tkhd = findBoxInData("tkhd");
  if (!tkhd) return logLine("  Warning: tkhd not found, cannot update duration");
  const auto change = store(edit(*tkhd), tkhdDurationField, newDuration);
  if (change) log("  Updated tkhd.duration: {} -> {}", change->before, change->after);
}

void TrakBuffer::stripEditList() {
  BufferBoxWalker walker(bytes_, layout::boxHeaderSize, bytes_.size(), boxwalk::trackBuffer);
  while (auto child = walker.next()) {
    if (child->type != "edts") continue;
    if (child->end() > bytes_.size()) throw AudioTrackReplacerError::corruptedMP4("edts reaches over its trak");
    log("  Stripping edts box from audio trak ({} bytes)", child->size);
    const auto begin = bytes_.begin() + static_cast<ptrdiff_t>(child->offset);
    bytes_.erase(begin, begin + static_cast<ptrdiff_t>(child->size));
    layout::store(bytes_.data(), layout::boxSize, bytes_.size());
    return;
  }
}

void TrakBuffer::normalizeAudioStts() {
  const auto stts = findBoxInData("stts");
  if (!stts) return logLine("  normalizeAudioStts: stts not found, skipping");
  const auto row = collapsedStts(view(*stts));
  if (!row) return;
  const uint64_t rows = layout::load(view(*stts).data(), layout::entryCount);
  replaceBox(*stts, *row);
  log("  normalizeAudioStts: collapsed {} entries into 1 (delta={})", rows,
      layout::load(row->data() + layout::tableHeaderSize, layout::runValue));
}

void TrakBuffer::moveChunkOffsets(std::span<const MediaMove> moves) {
  auto table = findBoxInData("stco");
  if (!table) table = findBoxInData("co64");
  if (!table) return;
  const auto moved = ChunkOffsetTable::moved(view(*table), moves);
  if (!moved) throw AudioTrackReplacerError::corruptedMP4("A chunk lies in no mdat box");
  if (moved->isPromoted) logLine("  Warning: stco offset would overflow 32-bit, upgrading to co64");
  const size_t oldSize = table->size;
  replaceBox(*table, moved->box);
  if (moved->isPromoted) log("  Upgraded stco to co64: {} bytes -> {} bytes", oldSize, moved->box.size());
}

void TrakBuffer::replaceBox(const BoxRange& old, ByteView replacement) {
  const auto change = static_cast<int64_t>(replacement.size()) - static_cast<int64_t>(old.size);
  if (change != 0) updateParentBoxSizes(old.offset, change);
  const auto place = bytes_.begin() + static_cast<ptrdiff_t>(old.offset);
  const auto kept = static_cast<ptrdiff_t>(std::min(old.size, replacement.size()));
  std::copy_n(replacement.begin(), kept, place);
  if (change < 0) {
    bytes_.erase(place + kept, place + static_cast<ptrdiff_t>(old.size));
  } else {
    bytes_.insert(place + kept, replacement.begin() + kept, replacement.end());
  }
}

void TrakBuffer::updateParentBoxSizes(size_t changedBoxStart, int64_t sizeDiff) {
  const auto ancestors = findContainerAncestors(bytes_, changedBoxStart);
  if (ancestors.empty()) {
    log("  WARNING: No container ancestors found for position {}", changedBoxStart);
    return;
  }
  log("  Updating {} container sizes by {} bytes:", ancestors.size(), sizeDiff);
  for (auto box = ancestors.rbegin(); box != ancestors.rend(); ++box) {
    const int64_t size = static_cast<int64_t>(box->size) + sizeDiff;
    if (size < int64_t{layout::boxHeaderSize} || size > int64_t{uint32Max}) {
      throw AudioTrackReplacerError::corruptedMP4("The size of a " + box->type + " does not fit its field");
    }
    layout::store(bytes_.data() + box->offset, layout::boxSize, static_cast<uint64_t>(size));
    log("    {} at {}: {} -> {}", box->type, box->offset, box->size, size);
  }
}

uint32_t MvhdBuffer::extractMvhdTimescale() const {
  return static_cast<uint32_t>(load(bytes_, mvhdTimescaleField, defaultTimescale));
}

void MvhdBuffer::updateMvhdNextTrackID(uint32_t nextTrackID) {
  const auto change = store(bytes_, nextTrackIDField, nextTrackID);
  if (!change) return logLine("  Warning: mvhd too small to contain next_track_ID");
  log("  Updated mvhd.next_track_ID: {} -> {}", change->before, change->after);
}

void MvhdBuffer::updateMvhdDuration(uint64_t newDuration) {
  const auto change = store(bytes_, mvhdDurationField, newDuration);
  if (change) log("  Updated mvhd.duration: {} -> {}", change->before, change->after);
}

}  // namespace tarn
