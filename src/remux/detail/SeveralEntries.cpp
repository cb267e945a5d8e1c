#include "remux/detail/SeveralEntries.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "mp4/BoxLayout.h"
#include "mp4/MP4SampleTableParser.h"
#include "platform/Log.h"
#include "remux/VisualSampleEntryBuilder.h"
#include "remux/detail/AtomicRewrite.h"
#include "remux/detail/CodecWords.h"
#include "remux/detail/MovieAccess.h"
#include "remux/detail/SampleTableReplacement.h"
#include "remux/detail/VideoEntries.h"

namespace tarn {
namespace {

using Segments = std::vector<ConfigurationSegment>;

/// The size that the entry of the segment must state; nothing if that of the template stays. A plan's entries state the
/// size that is shown.
std::optional<PictureSize> pictureSize(const ConfigurationSegment& segment, size_t number, bool isPlanned,
                                       const VideoCodec& codec) {
  if (segment.sets.spsRbspArray.empty()) return std::nullopt;
  const CodecWords& words = wordsFor(codec);
  const Bytes& sps = segment.sets.spsRbspArray.front();
  auto size = isPlanned ? codec.shownSize(sps) : codec.pictureSize(sps);
  if (!size) {
    if (words.logsDetails) log("  WARNING: Could not parse SPS resolution for segment {}", number);
    return std::nullopt;
  }
  if (size->width < 1 || size->height < 1) {
    if (words.logsDetails) {
      log("  WARNING: Invalid dimensions {}x{} for segment {} - skipping dimension override", size->width, size->height,
          number);
    }
    return std::nullopt;
  }
  log("  {}Segment resolution: {}x{}", words.donePrefix, size->width, size->height);
  return size;
}

/// The way from a `moov` to one that has an entry for each segment.
class Redescription {
 public:
  Redescription(const MP4BoxInfo& moovBox, ByteView moov, int nalLengthSize, FileHandle& file, RemuxTimings& timings,
                const VideoCodec& codec)
      : moovBox_(moovBox),
        moov_(moov),
        nalLengthSize_(nalLengthSize),
        file_(file),
        timings_(timings),
        codec_(codec),
        words_(wordsFor(codec)) {}

  /// Detects the segments where no plan gives them, in the scan if there is one.
  Bytes buildNewMoov(Segments segments, const ParameterScan* scan) {
    parseTable();
    isPlanned_ = !segments.empty();
    if (!isPlanned_) segments = detectSegments(scan);
    for (ConfigurationSegment& segment : segments) dropTooLongSets(segment.sets);
    buildEntries(segments);
    rebuildTables();
    table_ = {};

    TimingHelper timer;
    log("{}Building new moov...", words_.prefix);
    Bytes moov = buildMoovWithMultipleEntries(moov_, entries_, stsc_, chunkOffsets_);
    timings_.buildNewMoov = timer.stop();
    log("{}New moov size: {} bytes (was {} bytes)", words_.prefix, moov.size(), moov_.size());
    return moov;
  }

 private:
  void parseTable() {
    TimingHelper timer;
    log("{}Parsing sample table...", words_.prefix);
    stbl_ = findStblBoxInMoov(moov_);
    table_.parseSampleTable(file_, stblInFile());
    stsd_ = extractStsdBoxFromMoov(moov_);
    timings_.parseSampleTable = timer.stop();
  }

  MP4BoxInfo stblInFile() const {
    return {.offset = moovBox_.offset + stbl_.offset, .size = stbl_.size, .type = stbl_.type};
  }

  Segments detectSegments(const ParameterScan* scan) {
    TimingHelper timer;
    auto syncSamples = table_.syncSamplesOnly();
    log("{}Total samples: {}, sync samples: {}", words_.prefix, table_.sampleCount(), syncSamples.size());
    log("{}Detecting configuration segments...", words_.prefix);
    ParameterSets atStart;
    if (!syncSamples.empty()) atStart = setsOfEntry(descriptionOf(syncSamples.front().index));
    const int64_t total = table_.sampleCount();
    Segments segments = scan != nullptr
                            ? scan->segments(total, ParameterScan::Side::aheadOfSlices,
                                             [&](const SampleInfo&) -> const ParameterSets& { return atStart; })
                            : tarn::detectSegments(file_, syncSamples, nalLengthSize_, total, atStart, codec_);
    timings_.detectSegments = timer.stop();
    log("{}Detected {} configuration segment(s)", words_.prefix, segments.size());
    return segments;
  }

  int64_t descriptionOf(int64_t sample) const { return table_.sampleDescriptionIndex(sample).value_or(1); }

  /// The sets in the configuration box of an entry, 1-based; none if it has no complete ones.
  ParameterSets setsOfEntry(int64_t description) {
    auto stsd = MP4BoxUtils::findChildBox(file_, stblInFile(), "stsd");
    auto entries = stsd ? readVideoEntries(file_, *stsd, codec_) : std::vector<VideoEntry>();
    if (description < 1 || static_cast<uint64_t>(description) > entries.size()) return {};
    ParameterSets& sets = entries[static_cast<size_t>(description) - 1].sets;
    return isComplete(sets, codec_.nal) ? std::move(sets) : ParameterSets();
  }

  /// The sample entry that a segment has now.
  Bytes findTemplate(const ConfigurationSegment& segment) {
    int64_t description = descriptionOf(segment.firstSyncSampleIndex);
    if (words_.logsDetails) {
      log("Using sample description index {} (entry {}) as template", description, description - 1);
    }
    return VisualSampleEntryBuilder::extractSampleEntry(stsd_, description - 1);
  }

  /// Makes the entries, and notes which one describes which samples.
  void buildEntries(const Segments& segments) {
    TimingHelper timer;
    log("{}Building {} sample entries...", words_.prefix, segments.size());
    for (size_t i = 0; i < segments.size(); ++i) {
      log("{}Building sample entry {}/{}...", words_.prefix, i + 1, segments.size());
      Bytes original = findTemplate(segments[i]);
      Bytes configBox = codec_.buildConfigBox(segments[i].sets, nalLengthSize_);
      auto size = pictureSize(segments[i], i + 1, isPlanned_, codec_);
      Bytes entry = VisualSampleEntryBuilder::cloneEntry(original, configBox, codec_, codec_.tag, size);
      descriptions_.push_back({.startSampleIndex = segments[i].startSampleIndex,
                               .endSampleIndex = segments[i].endSampleIndex,
                               .descriptionIndex = addEntry(std::move(entry))});
    }
    timings_.buildSampleEntries = timer.stop();
  }

  /// Gives the number of the entry. Segments of a plan share entries that are alike.
  uint32_t addEntry(Bytes entry) {
    if (auto known = numbers_.find(textOf(entry)); isPlanned_ && known != numbers_.end()) {
      log("{}Sample entry {} says the same and is used again", words_.prefix, known->second);
      return known->second;
    }
    entries_.push_back(std::move(entry));
    auto number = static_cast<uint32_t>(entries_.size());
    numbers_.emplace(textOf(entries_.back()), number);
    return number;
  }

  void rebuildTables() {
    TimingHelper timer;
    log("{}Rebuilding sample tables...", words_.prefix);
    stsc_ = table_.rebuildStscBox(descriptions_);
    chunkOffsets_ = table_.rebuildChunkOffsetBox(shiftWithShortOffsets());
    timings_.rebuildSampleTables = timer.stop();
    if (!words_.logsDetails) return;
    log("  New stsc: {} bytes", stsc_.size());
    log("  New chunk offsets: {} bytes", chunkOffsets_.size());
  }

  /// How the media will move if the chunk offsets stay 32 bits wide.
  ChunkOffsetShift shiftWithShortOffsets() {
    uint64_t stsd = layout::tableHeaderSize;
    for (const Bytes& entry : entries_) stsd += entry.size();
    uint64_t stco = layout::tableHeaderSize + layout::chunkOffset32.width * uint64_t{table_.sampleCount()};
    uint64_t newSize = sizeOfNewStbl(moov_.subspan(stbl_.offset, stbl_.size), stsd, stsc_.size(), stco);
    return scanAround(file_, moovBox_).shift(moovBox_, static_cast<int64_t>(newSize - stbl_.size), edit::remuxing);
  }

  const MP4BoxInfo& moovBox_;
  ByteView moov_;
  int nalLengthSize_;
  FileHandle& file_;
  RemuxTimings& timings_;
  const VideoCodec& codec_;
  const CodecWords& words_;

  BoxHeader stbl_;  // in the `moov`
  MP4SampleTableParser table_;
  Bytes stsd_;
  bool isPlanned_ = false;
  std::vector<Bytes> entries_;
  std::map<std::string_view, uint32_t> numbers_;  // of the entries, by their bytes
  std::vector<SampleDescriptionSegment> descriptions_;
  Bytes stsc_;
  Bytes chunkOffsets_;
};

}  // namespace

void remuxWithSeveralEntries(FileManager& files, const Path& path, const MP4BoxInfo& moovBox, ByteView moov,
                             int nalLengthSize, FileHandle& file, RemuxTimings& timings,
                             const std::vector<ConfigurationSegment>& segments, const ParameterScan* scan,
                             const RewriteCheck& check, const VideoCodec& codec) {
  const CodecWords& words = wordsFor(codec);
  logLine(words.severalEntriesHeading);
  Bytes newMoov = Redescription(moovBox, moov, nalLengthSize, file, timings, codec).buildNewMoov(segments, scan);
  if (std::ranges::equal(newMoov, moov)) {
    log("{}The new moov is the old one, nothing is written", words.prefix);
    return;
  }
  TimingHelper timer;
  writeAtomicMP4(files, path, moovBox, std::move(newMoov), file, timings, check);
  timings.writeAtomicMP4 = timer.stop();
}

}  // namespace tarn
