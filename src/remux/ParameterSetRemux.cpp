#include <fmt/ranges.h>

#include <memory>
#include <set>
#include <string>
#include <utility>

#include "mp4/DataExtensions.h"
#include "mp4/MoovCheck.h"
#include "platform/Log.h"
#include "remux/MP4Remuxer.h"
#include "remux/OpenFile.h"
#include "remux/RemuxCodec.h"

namespace tarn {
namespace {

void throwIfCancelled(const CancellationToken* token) {
  if (token) token->throwIfCancelled();
}

uint64_t requireSize(FileManager& files, const Path& fileURL) {
  auto attributes = files.attributes(fileURL);
  if (!attributes) throw MP4RemuxError::fileNotFound();
  return attributes->size;
}

/// The new file stands beside the old one for a while, and room must be left.
void checkDiskSpace(FileManager& files, uint64_t fileSize, const RemuxCodec& codec) {
  auto free = files.freeSpace(files.temporaryDirectory());
  if (!free) return;
  uint64_t available = *free >> 20;
  uint64_t required = fileSize >> 19;
  if (fileSize >= *free / 2 + *free % 2) {
    throw MP4RemuxError::writeError(fmt::format("Insufficient disk space: need {}MB, have {}MB available.{}", required,
                                                available, codec.diskAdvice));
  }
  log("{}Disk space check: {}MB available, {}MB required{}", codec.prefix, available, required, codec.diskCheckEnd);
}

struct Moov {
  MP4BoxInfo box;
  Bytes bytes;
};

Bytes readBox(FileHandle& file, const MP4BoxInfo& box) {
  Bytes bytes;
  try {
    file.seek(box.offset);
    bytes = file.read(static_cast<size_t>(box.size));
  } catch (const PosixError&) {
    // No data, which is told below.
  }
  if (bytes.empty()) throw MP4RemuxError::ioError(Error("Cannot read moov box", -1, "Cannot read moov box"));
  return bytes;
}

/// The whole `moov`, fit for being edited in memory. One that reaches to the end of the file gets its size written out.
Moov readMoov(FileHandle& file, const RemuxCodec& codec) {
  file.seek(0);
  auto box = MP4Remuxer::findBox(file, "moov", remuxSearchLimit);
  if (!box) throw MP4RemuxError::corruptedMP4("moov box not found");
  if (box->headerSize != 8) throw MP4RemuxError::corruptedMP4("moov box has a 64-bit size field");
  Bytes bytes = readBox(file, *box);
  if (bytes.size() < box->size) throw MP4RemuxError::corruptedMP4("moov box extends beyond the end of the file");
  if (box->size > UINT32_MAX) throw MP4RemuxError::corruptedMP4("moov box does not fit a 32-bit size field");
  writeUInt32(bytes, static_cast<uint32_t>(box->size), 0);
  if (auto problem = whatForbidsEditing(bytes)) throw MP4RemuxError::corruptedMP4(*problem);
  log("{}Read moov box ({} bytes)", codec.prefix, bytes.size());
  return {*std::move(box), std::move(bytes)};
}

std::string pictureSizes(const ParameterSets& sets) {
  std::set<std::string> texts;
  for (const PictureSize& size : sets.spsResolutions) {
    if (size.width > 0 && size.height > 0) texts.insert(fmt::format("{}x{}", size.width, size.height));
  }
  return fmt::format("{}", fmt::join(texts, ", "));
}

/// One sample entry cannot describe a stream whose picture size changes or whose identifiers come again with other
/// parameter sets.
bool needsSeveralEntries(const ParameterSets& sets, const RemuxCodec& codec) {
  if (sets.hasResolutionChanges) {
    log("{}INFO: Video has dynamic resolution changes: {}", codec.donePrefix, pictureSizes(sets));
  }
  if (sets.requiresMultipleSampleEntries) logLine("INFO: Parameter set IDs are reused with different content");
  return sets.hasResolutionChanges || sets.requiresMultipleSampleEntries;
}

void remux(FileManager& files, const Path& fileURL, const CancellationToken* token,
           std::optional<RemuxTimings>& timings, const RemuxCodec& codec) {
  log("{}{}", codec.prefix, codec.startText);
  if (!timings) timings.emplace();
  throwIfCancelled(token);
  if (!files.fileExists(fileURL)) throw MP4RemuxError::fileNotFound();
  checkDiskSpace(files, requireSize(files, fileURL), codec);

  if (codec.triesTagRepair) {
    log("{}Attempting Phase 1 first...", codec.prefix);
    if (MP4Remuxer::remuxAVCTag(files, fileURL, codec.inBandTag)) {
      log("{}Phase 1 succeeded, no full remux needed", codec.prefix);
      return;
    }
    log("{}Phase 1 failed, proceeding with full Phase 2 remux...", codec.prefix);
  }

  TimingHelper timer;
  log("{}{}", codec.prefix, codec.extractText);
  ExtractedParameterSets extracted = codec.extract(files, fileURL);
  timings->parameterExtraction = timer.stop();
  throwIfCancelled(token);

  timer.start();
  log("{}Reading MP4 structure...", codec.prefix);
  auto file = openFile(files, fileURL, OpenMode::reading, "Cannot open file");
  Moov moov = readMoov(*file, codec);
  timings->readMoov = timer.stop();
  if (needsSeveralEntries(extracted.sets, codec)) {
    logLine(codec.severalEntriesText);
    timings->isMultipleSampleEntries = true;
    codec.remuxWithSeveralEntries(files, fileURL, moov.box, moov.bytes, extracted.nalLengthSize, *file, timings);
    logLine(codec.severalEntriesDone);
    return;
  }

  timer.start();
  log("{}Building {}...", codec.prefix, codec.recordName);
  Bytes configBox = codec.buildConfigBox(extracted);
  timings->buildHvcC = timer.stop();
  log("{}Built {} box ({} bytes)", codec.prefix, codec.configBox, configBox.size());

  timer.start();
  Bytes newMoov = injectConfigBoxIntoMoov(moov.bytes, configBox, codec);
  timings->injectHvcC = timer.stop();
  auto delta = static_cast<int64_t>(newMoov.size()) - static_cast<int64_t>(moov.bytes.size());
  log("{}Modified moov box ({} bytes, delta: +{})", codec.prefix, newMoov.size(), delta);
  throwIfCancelled(token);

  timer.start();
  MP4Remuxer::writeAtomicMP4(files, fileURL, moov.box, std::move(newMoov), *file, timings);
  timings->writeAtomicMP4 = timer.stop();
  log("{}Phase 2 complete: Video remuxed successfully", codec.donePrefix);
}

}  // namespace

void MP4Remuxer::remuxHEVCWithParameterExtraction(FileManager& files, const Path& fileURL,
                                                  const CancellationToken* cancellationToken,
                                                  std::optional<RemuxTimings>& timings) {
  remux(files, fileURL, cancellationToken, timings, hevcRemux);
}

void MP4Remuxer::remuxAVCWithParameterExtraction(FileManager& files, const Path& fileURL, std::string_view /*codecTag*/,
                                                 const CancellationToken* cancellationToken,
                                                 std::optional<RemuxTimings>& timings) {
  remux(files, fileURL, cancellationToken, timings, avcRemux);
}

}  // namespace tarn
