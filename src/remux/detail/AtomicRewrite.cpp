#include "remux/detail/AtomicRewrite.h"

#include <string>
#include <string_view>
#include <vector>

#include "movie/MovieRewrite.h"
#include "movie/TrackFields.h"
#include "mp4/MP4RemuxError.h"
#include "platform/Log.h"
#include "platform/OpenFile.h"
#include "platform/TempFile.h"
#include "remux/detail/LongOffsets.h"
#include "remux/detail/MovieAccess.h"
#include "remux/detail/RemuxProgress.h"

namespace tarn {
namespace {

void logLayout(const MediaLayout& layout, const BoxHeader& moov) {
  const auto mdat = layout.first("mdat");
  log("Box layout: moov at {}, first mdat at {}", moov.offset, mdat ? std::to_string(mdat->offset) : "not found");
  const bool isBehind = layout.hasMediaBehind(moov);
  const std::string_view side = mdat && moov.offset < mdat->offset ? "before" : isBehind ? "between" : "after";
  log("Chunk offset adjustment: {} (moov {} mdat)", isBehind ? "REQUIRED" : "NOT REQUIRED", side);
}

/// Makes the chunk offsets right for the media's new places.
void moveOffsets(std::span<uint8_t> newMoov, const ChunkOffsetShift& shift, int64_t growth) {
  if (growth == 0) return;
  if (shift.delta == 0) {
    logLine("Skipping chunk offset adjustment (moov after mdat, offsets unchanged)");
    return;
  }
  log("Adjusting chunk offsets (moov precedes mdat, delta: {})", shift.delta);
  adjustChunkOffsets(newMoov, shift);
}

std::vector<CopiedRange> copyAround(FileHandle& source, FileHandle& target, const MediaLayout& layout,
                                    const BoxHeader& moov, ByteView newMoov, RemuxTimings& timings) try {
  RemuxProgress progress(moov, newMoov.size(), timings);
  auto copied = rewriteMovie(source, target, layout, moov, newMoov, edit::remuxing, progress);
  logLine("Finished writing all top-level boxes");
  return copied;
} catch (const MovieError& error) {
  throw remuxError(error);
}

}  // namespace

void adjustChunkOffsets(std::span<uint8_t> moov, const ChunkOffsetShift& shift) {
  log("Adjusting chunk offsets by {} bytes...", shift.delta);
  moveChunks(moov, shift, edit::remuxing);
  logLine("Chunk offset adjustment complete");
}

void writeAtomicMP4(FileManager& files, const Path& path, const MP4BoxInfo& moovBox, Bytes newMoov, FileHandle& file,
                    RemuxTimings& timings, const RewriteCheck& check) {
  const Path tempPath = files.temporaryDirectory() / (makeUUID() + ".mp4");
  log("Writing temporary file: {}", tempPath.string());
  TimingHelper timer;
  const MediaLayout layout = scanAround(file, moovBox);
  widenChunkOffsets(newMoov, moovBox, layout);
  const int64_t growth = static_cast<int64_t>(newMoov.size()) - static_cast<int64_t>(moovBox.size);
  log("Moov size changed: {} → {} (delta: {})", moovBox.size, newMoov.size(), growth);
  logLayout(layout, moovBox);
  timings.findBoxLayout = timer.stop();
  timer.start();
  moveOffsets(newMoov, layout.shift(moovBox, growth, edit::remuxing), growth);
  timings.adjustChunkOffsets = timer.stop();

  TempFile tempFile(files, tempPath);
  const auto target =
      openFile(files, tempPath, OpenMode::exclusive, MP4RemuxError::writeError("Cannot create temp file"));
  const auto copied = copyAround(file, *target, layout, moovBox, newMoov, timings);

  timer.start();
  target->synchronize();
  target->close();
  if (check) check(tempPath, copied);
  file.close();
  files.replaceItem(path, tempPath);
  tempFile.keep();
  timings.syncAndReplace = timer.stop();
  logLine("Atomic replace complete");
}

}  // namespace tarn
