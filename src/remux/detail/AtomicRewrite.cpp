#include <algorithm>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mp4/BoxWalker.h"
#include "mp4/ChunkOffsetTable.h"
#include "mp4/DataExtensions.h"
#include "mp4/MP4RemuxError.h"
#include "platform/Log.h"
#include "platform/TempFile.h"
#include "remux/MP4Remuxer.h"
#include "remux/detail/LongOffsets.h"
#include "remux/detail/MediaLayout.h"
#include "remux/detail/OpenFile.h"

namespace tarn {
namespace {

constexpr uint64_t copyChunk = 0xA00000;
constexpr uint64_t progressConstant = 0x138800000;

/// Adds the time of its scope to a total.
class Stopwatch {
 public:
  explicit Stopwatch(double& total) : total_(total) {}
  ~Stopwatch() { total_ += timer_.stop(); }
  Stopwatch(const Stopwatch&) = delete;
  Stopwatch& operator=(const Stopwatch&) = delete;

 private:
  double& total_;
  TimingHelper timer_;
};

void logLayout(const MediaLayout& layout, const MP4BoxInfo& moov) {
  log("Box layout: moov at {}, first mdat at {}", moov.offset,
      layout.firstMdat ? std::to_string(*layout.firstMdat) : "not found");
  std::string_view side = layout.isMoovFirst(moov) ? "before" : layout.isMdatBehindMoov ? "between" : "after";
  log("Chunk offset adjustment: {} (moov {} mdat)", layout.isMdatBehindMoov ? "REQUIRED" : "NOT REQUIRED", side);
}

void adjustOffsets(std::span<uint8_t> newMoov, const ChunkOffsetShift& shift, int64_t delta) {
  if (delta == 0) return;
  if (shift.delta == 0) {
    logLine("Skipping chunk offset adjustment (moov after mdat, offsets unchanged)");
    return;
  }
  log("Adjusting chunk offsets (moov precedes mdat, delta: {})", shift.delta);
  MP4Remuxer::adjustChunkOffsets(newMoov, shift);
}

/// Tells of an `mdat` copy at every 10 percent, and more often where the box is big.
class CopyProgress {
 public:
  explicit CopyProgress(uint64_t size)
      : size_(size), step_(size > progressConstant ? 1 : std::min<uint64_t>(10, progressConstant / size)) {}

  void report(uint64_t written) {
    auto percent = static_cast<uint64_t>(static_cast<double>(written) * 100 / static_cast<double>(size_));
    if (percent < last_ + step_) return;
    log("Remuxing progress: {}% ({}MB / {}MB)", percent, written >> 20, size_ >> 20);
    last_ = percent;
  }

 private:
  uint64_t size_;
  uint64_t step_;
  uint64_t last_ = 0;
};

/// Writes the new file: the source's top-level boxes in their order, the new `moov` in the place of the old.
class BoxCopier {
 public:
  BoxCopier(FileHandle& source, FileHandle& target, RemuxTimings& timings)
      : source_(source), target_(target), timings_(timings) {}

  /// Returns the ranges that were copied.
  std::vector<CopiedRange> copy(const MediaLayout& layout, const MP4BoxInfo& moov, ByteView newMoov) {
    FileBoxWalker walker(source_, 0, layout.end, boxwalk::topLevelScan);
    while (auto box = walker.next()) {
      const uint64_t target = target_.offset();
      bool isCopied = true;
      if (box->offset == moov.offset) {
        writeMoov(newMoov, moov.size);
        isCopied = false;
      } else if (box->type == "mdat") {
        copyMdat(*box);
      } else if (box->size <= copyChunk) {
        isCopied = copySmall(*box);
      } else {
        copyLarge(*box);
      }
      if (isCopied) note({.from = box->offset, .to = target, .size = box->size});
    }
    if (walker.stop().reason != BoxWalkStop::Reason::endOfLevel) throw fileHandleError("Cannot read box header");
    if (layout.end < layout.fileSize) copyTail(layout.end, layout.fileSize - layout.end);
    return std::move(copied_);
  }

 private:
  void note(const CopiedRange& range) {
    if (!copied_.empty()) {
      CopiedRange& last = copied_.back();
      if (last.from + last.size == range.from && last.to + last.size == range.to) {
        last.size += range.size;
        return;
      }
    }
    copied_.push_back(range);
  }

  /// What is no box and stands behind the last one.
  void copyTail(uint64_t offset, uint64_t size) {
    Stopwatch watch(timings_.writeOtherBoxes);
    note({.from = offset, .to = target_.offset(), .size = size});
    source_.seek(offset);
    if (source_.copyRange(target_, size) < size) throw MP4RemuxError::writeError("Failed to copy the end of the file");
    log("Wrote {} bytes at {} that are no box", size, offset);
  }

  void writeMoov(ByteView newMoov, uint64_t oldSize) {
    Stopwatch watch(timings_.writeMoov);
    target_.write(newMoov);
    log("Wrote adjusted moov box ({} bytes, original: {} bytes)", newMoov.size(), oldSize);
  }

  void copyMdat(const BoxHeader& box) {
    Stopwatch watch(timings_.writeMdat);
    CopyProgress progress(box.size);
    source_.seek(box.offset);
    for (uint64_t written = 0; written < box.size; progress.report(written)) {
      uint64_t copied = source_.copyRange(target_, std::min(copyChunk, box.size - written));
      if (copied == 0) throw MP4RemuxError::writeError("Failed to copy mdat");
      written += copied;
    }
    log("Wrote mdat box ({} bytes)", box.size);
  }

  /// False where the box is lost.
  bool copySmall(const BoxHeader& box) {
    Stopwatch watch(timings_.writeOtherBoxes);
    Bytes bytes = readSmall(box);
    if (bytes.empty()) {
      log("WARNING: Failed to read {} box at offset {}", box.type, box.offset);
      // What stands behind it must not move: chunk offsets are corrected for the moov alone.
      target_.write(freeSpace(static_cast<size_t>(box.size)));
      return false;
    }
    target_.write(bytes);
    log("Wrote {} box ({} bytes)", box.type, box.size);
    return true;
  }

  /// A `free` box (ISO/IEC 14496-12 8.1.2) of so many bytes; zeros where they do not make a box.
  static Bytes freeSpace(size_t size) {
    Bytes box(size);
    if (size < 8) return box;
    writeUInt32(box, static_cast<uint32_t>(size), 0);
    std::ranges::copy(std::string_view("free"), box.begin() + 4);
    return box;
  }

  Bytes readSmall(const BoxHeader& box) {
    try {
      source_.seek(box.offset);
      return source_.read(static_cast<size_t>(box.size));
    } catch (const PosixError&) {
      return {};
    }
  }

  void copyLarge(const BoxHeader& box) {
    Stopwatch watch(timings_.writeOtherBoxes);
    log("Streaming large {} box ({} bytes) in chunks...", box.type, box.size);
    source_.seek(box.offset);
    if (source_.copyRange(target_, box.size) < box.size) {
      throw MP4RemuxError::writeError("Failed to stream " + box.type + " box");
    }
    log("Wrote {} box ({} bytes) via streaming", box.type, box.size);
  }

  FileHandle& source_;
  FileHandle& target_;
  RemuxTimings& timings_;
  std::vector<CopiedRange> copied_;
};

std::unique_ptr<FileHandle> createTempFile(FileManager& files, const Path& path) {
  try {
    return files.open(path, OpenMode::exclusive);
  } catch (const PosixError&) {
    throw MP4RemuxError::writeError("Cannot create temp file");
  }
}

}  // namespace

void MP4Remuxer::adjustChunkOffsets(std::span<uint8_t> moovData, const ChunkOffsetShift& shift) {
  log("Adjusting chunk offsets by {} bytes...", shift.delta);
  ChunkOffsetTable::adjustAllInMoov(moovData, shift);
  logLine("Chunk offset adjustment complete");
}

void MP4Remuxer::writeAtomicMP4(FileManager& files, const Path& sourceFileURL, const MP4BoxInfo& moovBox,
                                Bytes newMoovData, FileHandle& fileHandle, std::optional<RemuxTimings>& timings,
                                const RewriteCheck& check) {
  RemuxTimings unused;
  RemuxTimings& times = timings ? *timings : unused;
  Path tempURL = files.temporaryDirectory() / (makeUUID() + ".mp4");
  log("Writing temporary file: {}", tempURL.string());
  TimingHelper timer;
  MediaLayout layout = findMediaLayout(fileHandle, moovBox);
  widenChunkOffsets(newMoovData, moovBox, layout);
  int64_t delta = static_cast<int64_t>(newMoovData.size()) - static_cast<int64_t>(moovBox.size);
  log("Moov size changed: {} → {} (delta: {})", moovBox.size, newMoovData.size(), delta);
  logLayout(layout, moovBox);
  times.findBoxLayout = timer.stop();
  timer.start();
  adjustOffsets(newMoovData, layout.shift(moovBox, delta), delta);
  times.adjustChunkOffsets = timer.stop();

  TempFile tempFile(files, tempURL);
  auto target = createTempFile(files, tempURL);
  const std::vector<CopiedRange> copied = BoxCopier(fileHandle, *target, times).copy(layout, moovBox, newMoovData);
  logLine("Finished writing all top-level boxes");

  timer.start();
  target->synchronize();
  target->close();
  if (check) check(tempURL, copied);
  fileHandle.close();
  files.replaceItem(sourceFileURL, tempURL);
  tempFile.keep();
  times.syncAndReplace = timer.stop();
  logLine("Atomic replace complete");
}

}  // namespace tarn
