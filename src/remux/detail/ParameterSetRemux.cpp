#include "remux/detail/ParameterSetRemux.h"

#include <fmt/ranges.h>

#include <cerrno>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "parameters/ParameterScan.h"
#include "platform/Log.h"
#include "remux/detail/AtomicRewrite.h"
#include "remux/detail/CodecWords.h"
#include "remux/detail/MovieAccess.h"
#include "remux/detail/SampleEntryInjection.h"
#include "remux/detail/SeveralEntries.h"
#include "remux/detail/TagRepair.h"

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
void checkDiskSpace(FileManager& files, uint64_t fileSize, const CodecWords& words) {
  auto free = files.freeSpace(files.temporaryDirectory());
  if (!free) return;
  uint64_t available = *free >> 20;
  uint64_t required = fileSize >> 19;
  if (fileSize >= *free / 2 + *free % 2) {
    throw MP4RemuxError::writeError(fmt::format("Insufficient disk space: need {}MB, have {}MB available.{}", required,
                                                available, words.diskAdvice),
                                    ENOSPC);
  }
  log("{}Disk space check: {}MB available, {}MB required{}", words.prefix, available, required, words.diskCheckEnd);
}

struct Moov {
  MP4BoxInfo box;
  Bytes bytes;
};

Moov readMoov(FileHandle& file, const CodecWords& words) {
  auto box = MP4BoxUtils::findTopLevelBox(file, "moov");
  if (!box) throw MP4RemuxError::corruptedMP4("moov box not found");
  Bytes bytes = readEditableMoov(file, *box);
  log("{}Read moov box ({} bytes)", words.prefix, bytes.size());
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
bool needsSeveralEntries(const ParameterSets& sets, const CodecWords& words) {
  if (sets.hasResolutionChanges) {
    log("{}INFO: Video has dynamic resolution changes: {}", words.donePrefix, pictureSizes(sets));
  }
  if (sets.requiresMultipleSampleEntries) {
    log("{}INFO: Parameter set IDs are reused with different content", words.donePrefix);
  }
  return sets.hasResolutionChanges || sets.requiresMultipleSampleEntries;
}

/// What a remux works with from start to end.
struct Work {
  FileManager& files;
  const Path& fileURL;
  const CancellationToken* token;
  RemuxTimings& timings;
  const VideoCodec& codec;
  const CodecWords& words;
  const VideoPlan* plan;  ///< null if the worker scans the stream for itself
  const RewriteCheck& check;
};

/// What the new sample entries must hold.
struct Contents {
  ExtractedParameterSets extracted = {};            ///< of one entry
  std::vector<ConfigurationSegment> segments = {};  ///< of several; empty if they are still to be found
  std::optional<ParameterScan> scan = {};           ///< in this one
  bool areSeveral = false;
};

Contents findContents(const Work& work) {
  if (const VideoPlan* plan = work.plan) {
    if (plan->segments.empty()) throw MP4RemuxError::unsupportedFormat("The plan has no new sample entries");
    Contents contents{.extracted = {plan->segments.front().sets, plan->nalLengthSize},
                      .segments = plan->segments,
                      .areSeveral = plan->kind == VideoPlan::Kind::splits};
    contents.extracted.sets.isCollectionComplete = true;
    return contents;
  }
  TimingHelper timer;
  log("{}{}", work.words.prefix, work.words.extractText);
  Contents contents;
  contents.scan.emplace(ParameterScan::ofFile(work.files, work.fileURL, work.codec));
  contents.extracted = contents.scan->extract();
  work.timings.parameterExtraction = timer.stop();
  contents.areSeveral = needsSeveralEntries(contents.extracted.sets, work.words);
  return contents;
}

/// The `moov` with the only configuration in the first sample entry.
Bytes buildMoov(const Work& work, const Moov& moov, const ExtractedParameterSets& extracted) {
  const VideoCodec& codec = work.codec;
  const CodecWords& words = work.words;
  TimingHelper timer;
  log("{}Building {}...", words.prefix, words.recordName);
  Bytes configBox = codec.buildConfigBox(extracted.sets, extracted.nalLengthSize);
  work.timings.buildHvcC = timer.stop();
  log("{}Built {} box ({} bytes)", words.prefix, codec.configBox, configBox.size());

  timer.start();
  Bytes newMoov = injectConfigBoxIntoMoov(moov.bytes, configBox, codec);
  work.timings.injectHvcC = timer.stop();
  auto delta = static_cast<int64_t>(newMoov.size()) - static_cast<int64_t>(moov.bytes.size());
  log("{}Modified moov box ({} bytes, delta: +{})", words.prefix, newMoov.size(), delta);
  return newMoov;
}

/// True if the first sample entry says what it must, now that its tag does.
bool repairTag(const Work& work) {
  log("{}Attempting Phase 1 first...", work.words.prefix);
  bool isDone = remuxAVCTag(work.files, work.fileURL);
  log("{}{}", work.words.prefix,
      isDone ? "Phase 1 succeeded, no full remux needed" : "Phase 1 failed, proceeding with full Phase 2 remux...");
  return isDone;
}

/// Another codec is refused. (Where there is one entry, whoever edits it refuses it.)
void requireOwnCodec(const Work& work) {
  const std::string tag = detectHEVCTag(work.files, work.fileURL).value_or("");
  const VideoCodec* codec = codecOfTag(tag);
  if (codec != nullptr && codec != &work.codec) throw work.words.wrongTag(tag);
}

/// The plan for a stream that carries more than its sample entries say, whole as they are; nothing for any other, and
/// where that cannot be told.
std::optional<VideoPlan> planOfChanges(const Work& work) {
  try {
    auto plan = planVideo(work.files, work.fileURL);
    if (!plan || !plan->hasWholeEntries || plan->segments.empty()) return std::nullopt;
    log("{}INFO: {}", work.words.donePrefix, plan->reason);
    return plan;
  } catch (const PosixError&) {
    throw;
  } catch (const Error& error) {
    log("{}The parameter sets of the samples cannot be read: {}", work.words.prefix, error.description());
    return std::nullopt;
  }
}

void remux(Work work) {
  const VideoCodec& codec = work.codec;
  const CodecWords& words = work.words;
  log("{}{}", words.prefix, words.startText);
  throwIfCancelled(work.token);
  if (!work.files.fileExists(work.fileURL)) throw MP4RemuxError::fileNotFound();
  checkDiskSpace(work.files, requireSize(work.files, work.fileURL), words);
  std::optional<VideoPlan> changes;
  if (work.plan == nullptr && codec.hasTagRepair) {
    changes = planOfChanges(work);
    if (changes) work.plan = &*changes;
    if (!changes && repairTag(work)) return;
  }
  const Contents contents = findContents(work);
  throwIfCancelled(work.token);

  TimingHelper timer;
  log("{}Reading MP4 structure...", words.prefix);
  auto file = openFile(work.files, work.fileURL, OpenMode::reading, "Cannot open file");
  const Moov moov = readMoov(*file, words);
  work.timings.readMoov = timer.stop();
  if (contents.areSeveral) {
    requireOwnCodec(work);
    logLine(words.severalEntriesText);
    work.timings.isMultipleSampleEntries = true;
    remuxWithSeveralEntries(work.files, work.fileURL, moov.box, moov.bytes, contents.extracted.nalLengthSize, *file,
                            work.timings, contents.segments, contents.scan ? &*contents.scan : nullptr, work.check,
                            codec);
    logLine(words.severalEntriesDone);
    return;
  }
  Bytes newMoov = buildMoov(work, moov, contents.extracted);
  throwIfCancelled(work.token);
  if (newMoov == moov.bytes) {
    log("{}The new moov is the old one, nothing is written", words.prefix);
    return;
  }
  timer.start();
  writeAtomicMP4(work.files, work.fileURL, moov.box, std::move(newMoov), *file, work.timings, work.check);
  work.timings.writeAtomicMP4 = timer.stop();
  log("{}Phase 2 complete: Video remuxed successfully", words.donePrefix);
}

}  // namespace

void remuxWithParameterExtraction(FileManager& files, const Path& path, const VideoCodec& codec,
                                  const CancellationToken* token, RemuxTimings& timings, const VideoPlan* plan,
                                  const RewriteCheck& check) {
  remux({files, path, token, timings, codec, wordsFor(codec), plan, check});
}

}  // namespace tarn
