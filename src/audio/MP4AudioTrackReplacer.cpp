#include "audio/MP4AudioTrackReplacer.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "audio/TrackBoxEdit.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "mp4/MP4BoxUtils.h"
#include "mp4/MoovCheck.h"
#include "mp4/TimingBoxLayout.h"
#include "platform/Checked.h"
#include "platform/Log.h"

namespace tarn {
namespace {

using ReplacerError = AudioTrackReplacerError;

constexpr uint64_t uint32Max = std::numeric_limits<uint32_t>::max();
constexpr uint64_t largestFtyp = 0xA00000;
constexpr uint64_t estimateMargin = 100;

/// What is said of one input, and of the other.
struct InputWords {
  std::string_view title;
  const char* cannotOpen;
  const char* noMdat;
  const char* cannotReadMoov;
  const char* mdatLabel;
};

constexpr InputWords originalWords{"Original", "Cannot open original file", "No mdat box found",
                                   "Cannot read original moov", "video mdat"};
constexpr InputWords audioWords{"Audio", "Cannot open audio file", "No mdat in audio file", "Cannot read audio moov",
                                "audio mdat"};

struct WantedTrack {
  std::string_view mediaHeader;
  std::string_view handlerType;
};

constexpr WantedTrack videoTrack{"vmhd", "vide"};
constexpr WantedTrack audioTrack{"smhd", "soun"};

uint64_t requireSum(uint64_t a, uint64_t b) {
  const auto sum = checkedAdd(a, b);
  if (!sum) throw ReplacerError::corruptedMP4("The media do not fit a file");
  return *sum;
}

// --- The two inputs ---

/// One of the two files, open, and its top-level boxes.
class Input {
 public:
  Input(FileManager& files, const Path& path, const InputWords& words) : words_(words), file_(open(files, path)) {
    parseTopLevelBoxes();
    if (!first("moov")) throw ReplacerError::moovNotFound();
    if (!first("mdat")) throw ReplacerError::corruptedMP4(words.noMdat);
  }

  std::optional<BoxHeader> first(std::string_view type) const {
    const auto found = std::ranges::find(boxes_, type, &BoxHeader::type);
    return found == boxes_.end() ? std::nullopt : std::optional(*found);
  }

  uint64_t mediaSize() const {
    uint64_t size = 0;
    for (const BoxHeader& box : boxes_) {
      if (box.type == "mdat") size = requireSum(size, box.size);
    }
    return size;
  }

  /// Where each `mdat` goes when the first begins at `start`.
  std::vector<MediaMove> mediaMoves(uint64_t start) const {
    std::vector<MediaMove> moves;
    for (const BoxHeader& box : boxes_) {
      if (box.type != "mdat") continue;
      moves.push_back({box.offset, box.end(), start});
      start = requireSum(start, box.size);
    }
    return moves;
  }

  Bytes readMoovContents() {
    const BoxHeader moov = *first("moov");
    const auto header = static_cast<uint64_t>(moov.headerSize);
    if (moov.size <= uint32Max) {
      Bytes contents = read(moov.offset + header, moov.size - header);
      if (!contents.empty() && contents.size() == moov.size - header) return contents;
    }
    throw ReplacerError::corruptedMP4(words_.cannotReadMoov);
  }

  /// The bytes of the `ftyp`; none when they are not all there, or more than any real one has.
  Bytes readFtyp(const BoxHeader& box) {
    if (box.size > largestFtyp) return {};
    Bytes bytes = read(box.offset, box.size);
    if (bytes.size() < box.size) bytes.clear();
    return bytes;
  }

  void copyMedia(FileHandle& target) {
    for (const BoxHeader& box : boxes_) {
      if (box.type != "mdat") continue;
      file_->seek(box.offset);
      copyDataInChunks(target, box.size);
    }
  }

 private:
  std::unique_ptr<FileHandle> open(FileManager& files, const Path& path) const {
    try {
      return files.open(path, OpenMode::reading);
    } catch (const PosixError&) {
      throw ReplacerError::ioError(Error("FileHandle", -1, words_.cannotOpen));
    }
  }

  void parseTopLevelBoxes() {
    std::string types;
    FileBoxWalker walker(*file_, 0, file_->seekToEnd(), boxwalk::topLevelScan);
    while (auto box = walker.next()) {
      types += (boxes_.empty() ? "" : ", ") + box->type;
      boxes_.push_back(*std::move(box));
    }
    log("  {} boxes: {}", words_.title, types);
    // Its samples would be left behind: what describes them is not in the moov.
    if (first("moof")) throw ReplacerError::corruptedMP4("Fragmented MP4 (moof box found)");
  }

  Bytes read(uint64_t offset, uint64_t size) {
    try {
      file_->seek(offset);
      return file_->read(static_cast<size_t>(size));
    } catch (const PosixError&) {
      return {};
    }
  }

  void copyDataInChunks(FileHandle& target, uint64_t size) {
    if (file_->copyRange(target, size) < size) {
      throw ReplacerError::writeError(std::string("Failed to read ") + words_.mdatLabel);
    }
    log("  Wrote {}: {} bytes", words_.mdatLabel, size);
  }

  const InputWords& words_;
  std::unique_ptr<FileHandle> file_;
  std::vector<BoxHeader> boxes_;
};

// --- What is taken out of a `moov` ---

/// Calls `isWanted(bytes)` for each child of the type; the first that it is true for, or nothing.
template <typename IsWanted>
std::optional<Bytes> findChild(ByteView moovContents, std::string_view type, IsWanted isWanted) {
  BufferBoxWalker walker(moovContents, 0, moovContents.size(), boxwalk::trackBuffer);
  while (auto child = walker.next()) {
    if (child->type != type) continue;
    if (child->end() > moovContents.size()) throw ReplacerError::corruptedMP4(child->type + " reaches over its moov");
    const ByteView bytes = moovContents.subspan(child->offset, child->size);
    if (isWanted(bytes)) return Bytes(bytes.begin(), bytes.end());
  }
  return std::nullopt;
}

bool isOfKind(ByteView trak, const WantedTrack& kind) {
  if (!MP4BoxUtils::findBoxOffsets(trak, kind.mediaHeader, 0, std::nullopt, true).empty()) return true;
  const auto mdia = MP4BoxUtils::findBoxOffsets(trak, "mdia", layout::boxHeaderSize, std::nullopt, false);
  if (mdia.empty()) return false;
  const auto hdlr =
      MP4BoxUtils::findBoxOffsets(trak, "hdlr", mdia.front() + layout::boxHeaderSize, std::nullopt, false);
  if (hdlr.empty() || trak.size() - hdlr.front() < layout::handlerType.end()) return false;
  return textOf(trak.subspan(hdlr.front() + layout::handlerType.offset, layout::handlerType.width)) == kind.handlerType;
}

TrakBuffer extractVideoTrak(ByteView moovContents) {
  auto trak = findChild(moovContents, "trak", [](ByteView bytes) { return isOfKind(bytes, videoTrack); });
  if (!trak) throw ReplacerError::noVideoTrack();
  return TrakBuffer(*std::move(trak));
}

TrakBuffer extractAudioTrak(ByteView moovContents) {
  auto found = findChild(moovContents, "trak", [](ByteView bytes) { return isOfKind(bytes, audioTrack); });
  if (!found) throw ReplacerError::noAudioTrack();
  TrakBuffer trak(*std::move(found));
  trak.stripEditList();
  return trak;
}

MvhdBuffer extractMvhd(ByteView moovContents) {
  auto mvhd = findChild(moovContents, "mvhd", [](ByteView) { return true; });
  if (!mvhd) throw ReplacerError::corruptedMP4("mvhd not found");
  return MvhdBuffer(*std::move(mvhd));
}

Bytes createDefaultFtyp() {
  Bytes ftyp;
  ByteWriter(ftyp).uint32(20).text("ftyp").text("mp42").uint32(0).text("mp42");
  return ftyp;
}

Bytes ftypFor(Input& original) {
  const auto box = original.first("ftyp");
  if (!box) return createDefaultFtyp();
  Bytes bytes = original.readFtyp(*box);
  // The last box of a file may leave its size open; here it is the first.
  if (box->headerSize == layout::boxHeaderSize) writeUInt32(bytes, static_cast<uint32_t>(box->size), 0);
  return bytes;
}

// --- The new file ---

/// The parts of the new `moov`, with the chunk offsets of their files.
struct MovieParts {
  MvhdBuffer mvhd;
  TrakBuffer video;
  TrakBuffer audio;
  uint32_t audioTrackID;
  uint64_t audioDuration;  ///< timescale of the movie

  uint64_t moovSize() const {
    return layout::boxHeaderSize + mvhd.bytes().size() + video.bytes().size() + audio.bytes().size();
  }
};

/// A duration in another timescale.
uint64_t rescaled(uint64_t duration, uint32_t from, uint32_t to) {
  if (from == 0) return duration;
  const auto product = checkedMultiply<uint64_t>(duration, to);
  if (!product) throw ReplacerError::corruptedMP4("The audio duration does not fit 64 bits");
  return *product / from;
}

MovieParts collectParts(Input& original, Input& newAudio) {
  const Bytes originalMoov = original.readMoovContents();
  const Bytes audioMoov = newAudio.readMoovContents();
  TrakBuffer video = extractVideoTrak(originalMoov);
  TrakBuffer audio = extractAudioTrak(audioMoov);
  MvhdBuffer mvhd = extractMvhd(originalMoov);
  const uint32_t movieTimescale = mvhd.extractMvhdTimescale();
  const uint32_t audioMovieTimescale = extractMvhd(audioMoov).extractMvhdTimescale();
  log("  Original movie timescale: {}", movieTimescale);
  log("  Audio movie timescale: {}", audioMovieTimescale);

  const uint32_t videoTrackID = video.extractTrackID();
  if (videoTrackID > uint32Max - 2) throw ReplacerError::corruptedMP4("No track_ID is left behind the video's");
  log("  Video track_ID: {}, new audio track_ID: {}", videoTrackID, videoTrackID + 1);

  const uint64_t videoDuration = video.extractTkhdDuration();
  const uint64_t sourceDuration = audio.extractTkhdDuration();
  const uint64_t audioDuration = rescaled(sourceDuration, audioMovieTimescale, movieTimescale);
  log("  Video tkhd.duration: {} (in movie timescale {})", videoDuration, movieTimescale);
  log("  Audio tkhd.duration: {} (in audio timescale {}) -> {} (rescaled to {})", sourceDuration, audioMovieTimescale,
      audioDuration, movieTimescale);

  mvhd.updateMvhdNextTrackID(videoTrackID + 2);
  mvhd.updateMvhdDuration(std::max(videoDuration, audioDuration));
  return {std::move(mvhd), std::move(video), std::move(audio), videoTrackID + 1, audioDuration};
}

/// Where the boxes of the new file begin, for a `moov` of some size.
struct Layout {
  Layout(uint64_t ftypSize, uint64_t moovSize, const Input& original, const Input& newAudio)
      : moovStart(ftypSize),
        videoStart(requireSum(ftypSize, moovSize)),
        audioStart(requireSum(videoStart, original.mediaSize())),
        end(requireSum(audioStart, newAudio.mediaSize())) {}

  uint64_t moovStart;
  uint64_t videoStart;
  uint64_t audioStart;
  uint64_t end;
};

void logEstimate(const Layout& layout) {
  logLine("  Estimated layout:");
  log("    ftyp: 0-{}", layout.moovStart);
  log("    moov: {}-{}", layout.moovStart, layout.videoStart);
  log("    video mdat: {}-{}", layout.videoStart, layout.audioStart);
  log("    audio mdat: {}-{}", layout.audioStart, layout.end);
}

Bytes assembleMoov(const MovieParts& parts, std::span<const MediaMove> videoMoves,
                   std::span<const MediaMove> audioMoves) {
  TrakBuffer video = parts.video;
  video.moveChunkOffsets(videoMoves);
  TrakBuffer audio = parts.audio;
  audio.moveChunkOffsets(audioMoves);
  audio.normalizeAudioStts();
  audio.updateTrackID(parts.audioTrackID);
  audio.updateTkhdDuration(parts.audioDuration);

  const uint64_t size = layout::boxHeaderSize + parts.mvhd.bytes().size() + video.bytes().size() + audio.bytes().size();
  if (size > uint32Max) throw ReplacerError::corruptedMP4("The new moov does not fit its size field");
  Bytes moov;
  moov.reserve(size);
  ByteWriter writer(moov);
  writer.uint32(static_cast<uint32_t>(size)).text("moov");
  writer.bytes(parts.mvhd.bytes()).bytes(video.bytes()).bytes(audio.bytes());
  return moov;
}

/// The `moov` for the place that its own length gives the media. A longer one moves them on, and may so turn a table
/// into a longer `co64`; farther media never make it shorter, so its lengths go one way, and no farther than through
/// the two tables.
Bytes buildMoov(const MovieParts& parts, uint64_t ftypSize, const Input& original, const Input& newAudio) {
  uint64_t assumedSize = parts.moovSize() + estimateMargin;
  logEstimate(Layout(ftypSize, assumedSize, original, newAudio));
  for (;;) {
    const Layout layout(ftypSize, assumedSize, original, newAudio);
    Bytes moov = assembleMoov(parts, original.mediaMoves(layout.videoStart), newAudio.mediaMoves(layout.audioStart));
    if (moov.size() == assumedSize) return moov;
    log("  Moov size recalculation: estimated {}, actual {}", assumedSize, moov.size());
    assumedSize = moov.size();
  }
}

std::unique_ptr<FileHandle> createOutput(FileManager& files, const Path& path) {
  try {
    return files.open(path, OpenMode::creating);
  } catch (const PosixError&) {
    throw ReplacerError::writeError("Cannot create output file");
  }
}

void requireFile(FileManager& files, const Path& path) {
  if (!files.fileExists(path)) throw ReplacerError::fileNotFound(path);
}

}  // namespace

void MP4AudioTrackReplacer::replaceAudioTrack(FileManager& files, const Path& originalMP4, const Path& newAudioM4A,
                                              const Path& outputURL) {
  logLine("MP4AudioTrackReplacer: Starting audio track replacement");
  log("  Original: {}", originalMP4.filename().string());
  log("  New audio: {}", newAudioM4A.filename().string());
  log("  Output: {}", outputURL.filename().string());
  requireFile(files, originalMP4);
  requireFile(files, newAudioM4A);
  Input original(files, originalMP4, originalWords);
  Input newAudio(files, newAudioM4A, audioWords);

  const MovieParts parts = collectParts(original, newAudio);
  const Bytes ftyp = ftypFor(original);
  const Bytes moov = buildMoov(parts, ftyp.size(), original, newAudio);
  if (auto problem = whatForbidsEditing(moov)) throw ReplacerError::corruptedMP4(*problem);
  log("  Final moov size: {} bytes", moov.size());

  auto output = createOutput(files, outputURL);
  output->write(ftyp);
  log("  Wrote ftyp: {} bytes", ftyp.size());
  output->write(moov);
  log("  Wrote moov: {} bytes", moov.size());
  original.copyMedia(*output);
  newAudio.copyMedia(*output);
  output->synchronize();
  const uint64_t size = output->seekToEnd();
  output->close();
  log("MP4AudioTrackReplacer: Complete, output size: {} bytes", size);
}

AudioTrackReplacerError::AudioTrackReplacerError(Case kind, std::string description)
    : Error("AudioTrackReplacerError", -1, std::move(description)), kind_(kind) {}

AudioTrackReplacerError AudioTrackReplacerError::fileNotFound(const Path& path) {
  return {Case::fileNotFound, "File not found: " + path.string()};
}

AudioTrackReplacerError AudioTrackReplacerError::corruptedMP4(const std::string& text) {
  return {Case::corruptedMP4, "Corrupted MP4: " + text};
}

AudioTrackReplacerError AudioTrackReplacerError::writeError(const std::string& text) {
  return {Case::writeError, "Write error: " + text};
}

AudioTrackReplacerError AudioTrackReplacerError::ioError(const Error& error) {
  return {Case::ioError, "I/O error: " + error.description()};
}

AudioTrackReplacerError AudioTrackReplacerError::noVideoTrack() {
  return {Case::noVideoTrack, "No video track found in original file"};
}

AudioTrackReplacerError AudioTrackReplacerError::noAudioTrack() {
  return {Case::noAudioTrack, "No audio track found in new audio file"};
}

AudioTrackReplacerError AudioTrackReplacerError::moovNotFound() {
  return {Case::moovNotFound, "moov box not found in file"};
}

}  // namespace tarn
