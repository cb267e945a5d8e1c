#include "sync/detail/SyncFacts.h"

#include <tarn/avsync.h>

#include <algorithm>
#include <limits>

#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"
#include "mp4/EditList.h"
#include "mp4/TableEntries.h"
#include "mp4/TimeHeader.h"
#include "platform/Log.h"
#include "presentation/Presentation.h"
#include "sync/ErrorTypes.h"
#include "sync/detail/SyncSource.h"
#include "sync/detail/TimeArithmetic.h"

namespace tarn {
namespace {

constexpr uint64_t headerReadLimit = layout::timeHeader64.duration.end();
constexpr uint64_t editListReadLimit = layout::tableHeaderSize + editlist::synced.mostEntries * layout::editRow64.size;
constexpr uint64_t tableReadLimit = std::numeric_limits<int32_t>::max();
constexpr uint32_t defaultAudioTimescale = 48000;
constexpr int64_t defaultAudioDelay = 2112;

/// A box of at most `limit` bytes as the timing-box primitives take it, with an 8-byte header whatever the file has;
/// nothing if it cannot be read.
std::optional<Bytes> readBox(FileHandle& file, const MP4BoxInfo& box, uint64_t limit) {
  const uint64_t start = box.contentOffset() - layout::boxHeaderSize;
  file.seek(start);
  try {
    Bytes bytes = file.read(std::min(box.end() - start, limit));
    if (bytes.empty()) return std::nullopt;
    if (box.headerSize != layout::boxHeaderSize && bytes.size() >= layout::boxHeaderSize) {
      std::copy(box.type.begin(), box.type.end(), bytes.begin() + layout::boxType.offset);
    }
    return bytes;
  } catch (const PosixError&) {
    return std::nullopt;
  }
}

int32_t lengthOf(const Bytes& bytes) {
  return static_cast<int32_t>(bytes.size());
}

MP4BoxInfo requireChild(FileHandle& file, const MP4BoxInfo& parent, const char* type) {
  auto child = MP4BoxUtils::findChildBox(file, parent, type);
  if (!child) throw AVSyncError::corruptedMP4(std::string(type) + " box not found");
  return *child;
}

Bytes requireBox(FileHandle& file, const MP4BoxInfo& box) {
  auto bytes = readBox(file, box, headerReadLimit);
  if (!bytes) throw AVSyncError::fileHandleError("Cannot read " + box.type);
  return *std::move(bytes);
}

/// The duration that the `mdhd` states, else the sum of the `stts`; track timescale.
int64_t mediaDuration(FileHandle& file, const MP4BoxInfo& mdia, ByteView mdhd) {
  if (const int64_t stated = parseMdhdDuration(mdhd); stated != 0) return stated;
  auto stts = MP4BoxUtils::findDescendant(file, mdia, {"minf", "stbl", "stts"});
  auto bytes = stts ? readBox(file, *stts, tableReadLimit) : std::nullopt;
  if (!bytes) return 0;
  const auto table = TableEntries(*bytes, layout::runEntrySize, TableEntries::HugeCount::isNone);
  int64_t sum = 0;
  for (size_t i = 0; i < table.size(); ++i) {
    const uint64_t entry =
        layout::load(table.entry(i), layout::runSampleCount) * layout::load(table.entry(i), layout::runValue);
    sum = addTimes(sum, static_cast<int64_t>(std::min<uint64_t>(entry, std::numeric_limits<int64_t>::max())));
  }
  return sum;
}

/// Where an edit list makes a track start.
struct EditListStart {
  int64_t emptyDuration = 0;  // of the leading empty edits, movie timescale
  int64_t mediaTime = 0;      // of the first other entry, track timescale
};

EditListStart startOf(const std::vector<EditListEntry>& entries) {
  EditListStart start;
  for (const EditListEntry& entry : entries) {
    if (entry.mediaTime != layout::emptyEdit) {
      start.mediaTime = entry.mediaTime;
      break;
    }
    start.emptyDuration = addTimes(start.emptyDuration, entry.duration);
  }
  return start;
}

/// Which edit lists of the first tracks are damaged, and so count as absent.
struct DamagedLists {
  bool video = false;
  bool audio = false;
};

DamagedLists findDamagedLists(FileManager& files, const Path& path) {
  const auto presentation =
      Presentation::readIfPossible(files, path, "MP4AVSyncFixer: The edit lists are taken as they are");
  if (!presentation) return {};
  const auto isDamaged = [&](MP4TrackType type) {
    const TrackPresentation* track = presentation->first(handlerTypeText(type));
    return track && track->damage != EditListDamage::none;
  };
  return {isDamaged(MP4TrackType::video), isDamaged(MP4TrackType::audio)};
}

}  // namespace

uint32_t parseMovieTimescale(FileHandle& file, const MP4BoxInfo& moov) {
  Bytes mvhd = requireBox(file, requireChild(file, moov, "mvhd"));
  uint32_t timescale = avsync_parse_mvhd_timescale(mvhd.data(), lengthOf(mvhd));
  if (timescale == 0) throw AVSyncError::analysisError("Invalid movie timescale");
  return timescale;
}

TrackTimingInfo parseVideoTrackInfo(FileHandle& file, const MP4BoxInfo& moov) {
  auto trak = MP4BoxUtils::findTrack(file, moov, MP4TrackType::video);
  if (!trak) throw AVSyncError::corruptedMP4("Video trak not found");
  auto mdia = requireChild(file, *trak, "mdia");
  Bytes mdhd = requireBox(file, requireChild(file, mdia, "mdhd"));

  TrackTimingInfo info;
  info.timescale = avsync_parse_mdhd_timescale(mdhd.data(), lengthOf(mdhd));
  if (info.timescale == 0) throw AVSyncError::analysisError("Invalid track timescale");
  info.duration = mediaDuration(file, mdia, mdhd);

  auto stbl = requireChild(file, requireChild(file, mdia, "minf"), "stbl");
  auto ctts = MP4BoxUtils::findChildBox(file, stbl, "ctts");
  if (!ctts) return info;
  info.hasCtts = true;
  info.cttsOffset = ctts->offset;
  info.cttsSize = ctts->size;
  if (auto bytes = readBox(file, *ctts, tableReadLimit)) {
    info.cttsVersion = avsync_get_ctts_version(bytes->data(), lengthOf(*bytes));
    avsync_parse_ctts(bytes->data(), lengthOf(*bytes), &info.firstCts, &info.minCts);
  }
  return info;
}

std::optional<AudioTrackTimingInfo> parseAudioTrackInfo(FileHandle& file, const MP4BoxInfo& moov,
                                                        bool audioWasTranscoded) {
  auto trak = MP4BoxUtils::findTrack(file, moov, MP4TrackType::audio);
  auto mdia = trak ? MP4BoxUtils::findChildBox(file, *trak, "mdia") : std::nullopt;
  auto mdhd = mdia ? MP4BoxUtils::findChildBox(file, *mdia, "mdhd") : std::nullopt;
  auto bytes = mdhd ? readBox(file, *mdhd, headerReadLimit) : std::nullopt;
  if (!bytes) return std::nullopt;

  AudioTrackTimingInfo info;
  info.trackTimescale = avsync_parse_mdhd_timescale(bytes->data(), lengthOf(*bytes));
  if (info.trackTimescale == 0) return std::nullopt;
  info.duration = mediaDuration(file, *mdia, *bytes);
  info.codec = parseAudioCodec(file, *mdia);
  if (audioWasTranscoded) {
    info.encoderDelay = avsync_get_default_encoder_delay(info.codec.c_str());
  } else {
    log("MP4AVSyncFixer: Audio not transcoded - using encoder delay of 0 (passthrough)");
  }
  return info;
}

std::vector<EditListEntry> parseTrackEditList(FileHandle& file, const MP4BoxInfo& moov, MP4TrackType type) {
  auto trak = MP4BoxUtils::findTrack(file, moov, type);
  auto elst = trak ? MP4BoxUtils::findDescendant(file, *trak, {"edts", "elst"}) : std::nullopt;
  auto bytes = elst ? readBox(file, *elst, editListReadLimit) : std::nullopt;
  if (!bytes) return {};

  return readEditList(*bytes, editlist::synced);
}

std::string parseAudioCodec(FileHandle& file, const MP4BoxInfo& mdia) {
  std::string unknown = "unknown";
  auto stsd = MP4BoxUtils::findDescendant(file, mdia, {"minf", "stbl", "stsd"});
  auto bytes = stsd ? readBox(file, *stsd, layout::sampleEntryFormat.end()) : std::nullopt;
  if (!bytes || bytes->size() < layout::sampleEntryFormat.end()) return unknown;
  if (layout::load(bytes->data(), layout::entryCount) == 0) return unknown;
  return decodeASCII(ByteView(*bytes).last(layout::sampleEntryFormat.width)).value_or(unknown);
}

int64_t parseMdhdDuration(ByteView mdhd) {
  const auto clock = parseTimeHeader(mdhd, LongHeader::isVersion1);
  return clock ? static_cast<int64_t>(clock->duration) : 0;
}

OriginalSyncInfo readOriginalSyncInfo(FileManager& files, const Path& path) {
  SyncSource source(files, path);
  FileHandle& file = source.file();
  const BoxHeader& moov = source.moov();

  OriginalSyncInfo info;
  info.movieTimescale = parseMovieTimescale(file, moov);
  auto video = parseVideoTrackInfo(file, moov);
  info.videoFirstCts = video.firstCts;
  info.videoTrackTimescale = video.timescale;
  const DamagedLists damaged = findDamagedLists(files, path);
  if (!damaged.video) info.videoEditList = parseTrackEditList(file, moov, MP4TrackType::video);
  auto videoEdits = startOf(info.videoEditList);
  info.videoMediaStartMovieTime = videoEdits.emptyDuration;

  auto audio = parseAudioTrackInfo(file, moov, true);
  info.audioTrackTimescale = audio ? audio->trackTimescale : defaultAudioTimescale;
  info.audioEncoderDelay = audio ? audio->encoderDelay : defaultAudioDelay;
  if (!damaged.audio) info.audioEditList = parseTrackEditList(file, moov, MP4TrackType::audio);
  source.requireReadable();
  auto audioEdits = startOf(info.audioEditList);
  info.audioMediaStartMovieTime = audioEdits.emptyDuration;
  info.audioMediaTime = audioEdits.mediaTime;

  int64_t videoFirst = subtractTimes(info.videoFirstCts, videoEdits.mediaTime);
  int64_t audioFirst = subtractTimes(0, audioEdits.mediaTime);
  int64_t videoStart =
      addTimes(videoEdits.emptyDuration, rescaleTime(videoFirst, info.movieTimescale, info.videoTrackTimescale));
  int64_t audioStart =
      addTimes(audioEdits.emptyDuration, rescaleTime(audioFirst, info.movieTimescale, info.audioTrackTimescale));
  info.syncOffsetMovieTime = subtractTimes(audioStart, videoStart);
  info.syncOffsetSeconds = static_cast<double>(info.syncOffsetMovieTime) / info.movieTimescale;

  log("MP4AVSyncFixer: Sync offset computation:");
  log("  Video: emptyDur={}, mediaTime={}, firstCts={}", videoEdits.emptyDuration, videoEdits.mediaTime,
      info.videoFirstCts);
  log("  Video first PTS (track): {}, (movie): {}", videoFirst, videoStart);
  log("  Audio: emptyDur={}, mediaTime={}", audioEdits.emptyDuration, audioEdits.mediaTime);
  log("  Audio first PTS (track): {}, (movie): {}", audioFirst, audioStart);
  log("  Computed sync offset: {} ({:.1f}ms)", info.syncOffsetMovieTime, info.syncOffsetSeconds * 1000);
  log("MP4AVSyncFixer.readOriginalSyncInfo: {}", info.text());
  log("  Video: editList={} entries, startMovieTime={}, firstCts={}", info.videoEditList.size(),
      videoEdits.emptyDuration, info.videoFirstCts);
  log("  Audio: editList={} entries, startMovieTime={}, mediaTime={}", info.audioEditList.size(),
      audioEdits.emptyDuration, audioEdits.mediaTime);
  return info;
}

}  // namespace tarn
