#include "sync/detail/MovieEdits.h"

#include <fmt/format.h>
#include <tarn/avsync.h>

#include <algorithm>
#include <array>
#include <map>

#include "movie/MovieError.h"
#include "movie/TrackFields.h"
#include "platform/Log.h"
#include "sync/ErrorTypes.h"
#include "sync/MP4AVSyncFixer.h"

namespace tarn {
namespace {

using Case = MovieError::Case;

void requireWhole(const MovieBox& child, const MovieBox& parent) {
  if (child.isCut) throw MovieError(Case::damaged, "A box reaches over the end of its " + parent.type);
}

MovieBox& trakAt(MovieBox& moov, uint64_t offset) {
  const auto trak = std::ranges::find_if(
      moov.children, [&](const MovieBox& box) { return box.type == "trak" && box.offset == offset; });
  if (trak == moov.children.end()) throw AVSyncError::fixError("A trak does not end within the moov");
  return *trak;
}

/// The tracks by their numbers; null for a number that several have.
struct NumberedTracks {
  struct Track {
    MovieBox* trak = nullptr;
    size_t count = 0;
  };

  explicit NumberedTracks(MovieBox& moov) {
    for (MovieBox& trak : moov.children) {
      const auto trackID = trak.type == "trak" ? trackIDField.load(trak.find({"tkhd"})) : std::nullopt;
      if (!trackID) continue;
      Track& track = tracks[*trackID];
      track = {&trak, track.count + 1};
    }
  }

  MovieBox& one(uint32_t trackID) {
    const Track& track = tracks[trackID];
    if (track.count == 1) return *track.trak;
    throw AVSyncError::fixError(fmt::format("{} tracks have the number {}", track.count, trackID));
  }

  std::map<uint64_t, Track> tracks;
};

void replaceCtts(MovieBox& moov, uint64_t offset, uint64_t size, ByteView newCtts) {
  const auto trak = std::ranges::find_if(moov.children, [&](const MovieBox& box) {
    return box.type == "trak" && offset >= box.offset && offset < box.offset + box.oldSize;
  });
  MovieBox* stbl = trak == moov.children.end() ? nullptr : trak->find({"mdia", "minf", "stbl"});
  MovieBox* ctts = stbl ? stbl->find({"ctts"}) : nullptr;
  if (!ctts || ctts->offset != offset) throw AVSyncError::fixError("No ctts at its place");
  requireWhole(*ctts, *stbl);
  if (ctts->oldSize != size) throw AVSyncError::fixError("No ctts at its place");
  *ctts = MovieBox::of(newCtts);
  if (newCtts.size() == size) {
    log("MP4AVSyncFixer: Replaced CTTS v0 with v1 (in-place, no size change)");
  } else {
    log("MP4AVSyncFixer: Replaced CTTS v0 with v1 (size delta: {})", static_cast<int64_t>(newCtts.size() - size));
  }
}

void storeTrackDuration(MovieBox& trak, int64_t duration) {
  tkhdDurationField.store(trak.find({"tkhd"}), static_cast<uint64_t>(duration));
}

void storeMovieDuration(MovieBox& moov, int64_t duration) {
  headerDurationField.store(moov.find({"mvhd"}), static_cast<uint64_t>(duration));
  log("MP4AVSyncFixer: Updated mvhd.duration to {}", duration);
}

void updateDuration(MovieBox& moov, MP4TrackType type, std::string_view name, int64_t duration) {
  if (duration <= 0) return;
  MovieBox* trak = findTrack(moov, type, edit::syncing);
  if (trak) storeTrackDuration(*trak, duration);
  log("MP4AVSyncFixer: Updated {} tkhd.duration to {}", name, duration);
}

}  // namespace

Bytes edtsOf(const std::vector<EditListEntry>& entries) {
  std::vector<AVSyncElstEntry> stored;
  stored.reserve(entries.size());
  for (const EditListEntry& entry : entries) stored.push_back({entry.duration, entry.mediaTime, entry.mediaRate});
  std::array<uint8_t, 128> buffer{};
  const int32_t size = avsync_write_edts_box(stored.data(), static_cast<int32_t>(stored.size()), buffer.data(),
                                             static_cast<int32_t>(buffer.size()));
  return size < 1 ? Bytes() : Bytes(buffer.begin(), buffer.begin() + size);
}

void putEditList(MovieBox& trak, ByteView edts) {
  auto& children = trak.children;
  const auto old = std::ranges::find(children, "edts", &MovieBox::type);
  if (old != children.end()) {
    requireWhole(*old, trak);
    if (edts.empty()) {
      children.erase(old);
    } else {
      *old = MovieBox::of(edts);
    }
    return;
  }
  const auto tkhd =
      std::find_if(children.rbegin(), children.rend(), [](const auto& box) { return box.type == "tkhd"; });
  if (tkhd != children.rend()) requireWhole(*tkhd, trak);
  if (!edts.empty()) children.insert(tkhd.base(), MovieBox::of(edts));
}

void applyEdits(MovieBox& moov, const BoxHeader& moovBox, const BoxHeader& videoTrakBox,
                const std::optional<BoxHeader>& audioTrakBox, const MoovEdits& edits) {
  if (edits.convertedCttsData && edits.originalCttsSize != 0 && edits.originalCttsOffset > moovBox.offset) {
    replaceCtts(moov, edits.originalCttsOffset - moovBox.offset, edits.originalCttsSize, *edits.convertedCttsData);
  }
  if (edits.videoEdtsData) putEditList(trakAt(moov, videoTrakBox.offset - moovBox.offset), *edits.videoEdtsData);
  if (edits.audioEdtsData && audioTrakBox) {
    putEditList(trakAt(moov, audioTrakBox->offset - moovBox.offset), *edits.audioEdtsData);
  }
  updateDuration(moov, MP4TrackType::video, "video", edits.videoTrackDuration);
  updateDuration(moov, MP4TrackType::audio, "audio", edits.audioTrackDuration);
  const int64_t movieDuration = std::max(edits.videoTrackDuration, edits.audioTrackDuration);
  if (movieDuration > 0) storeMovieDuration(moov, movieDuration);
}

void applyOrder(MovieBox& moov, const SyncFixOrder& order) {
  NumberedTracks tracks(moov);
  for (const SyncFixOrder::Track& track : order.tracks) {
    MovieBox& trak = tracks.one(track.trackID);
    putEditList(trak, edtsOf(track.list.entries));
    storeTrackDuration(trak, track.list.trackDuration);
    log("MP4AVSyncFixer: Updated tkhd.duration of track {} to {}", track.trackID, track.list.trackDuration);
  }
  storeMovieDuration(moov, order.movieDuration);
}

}  // namespace tarn
