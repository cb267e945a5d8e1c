#include "audio/MP4AudioTrackReplacer.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "audio/replace/TrackBoxEdit.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"
#include "mp4/ItemLocations.h"
#include "platform/Checked.h"
#include "platform/Log.h"

namespace tarn {
namespace {

using ReplacerError = AudioTrackReplacerError;

constexpr uint64_t uint32Max = std::numeric_limits<uint32_t>::max();
constexpr uint64_t farthestOffset = std::numeric_limits<uint64_t>::max() >> 1;
constexpr size_t mostBoxes = 1'000'000;
constexpr uint64_t defaultTimescale = 1000;

/// What is said of one input, and of the other.
struct InputWords {
  std::string_view title;
  const char* cannotOpen;
  const char* noMdat;
  const char* cannotReadMoov;
  const char* cannotReadMedia;
};

constexpr InputWords originalWords{"Original", "Cannot open original file", "No mdat box found",
                                   "Cannot read original moov", "Failed to read video mdat"};
constexpr InputWords audioWords{"Audio", "Cannot open audio file", "No mdat in audio file", "Cannot read audio moov",
                                "Failed to read audio mdat"};

uint64_t requireSum(uint64_t a, uint64_t b) {
  const auto sum = checkedAdd(a, b);
  if (!sum || *sum > farthestOffset) throw ReplacerError::corruptedMP4("The media do not fit a file");
  return *sum;
}

// --- The two inputs ---

/// One of the two files, open, and those of its top-level boxes that matter.
class Input {
 public:
  Input(FileManager& files, const Path& path, const InputWords& words)
      : words_(words), file_(open(files, path)), length_(file_->seekToEnd()) {
    parseTopLevelBoxes();
    if (!moov_) throw ReplacerError::moovNotFound();
    if (media_.empty()) throw ReplacerError::corruptedMP4(words.noMdat);
  }

  uint64_t length() const { return length_; }
  bool hasFtyp() const { return hasFtyp_; }
  const BoxHeader& moov() const { return *moov_; }
  const std::vector<BoxHeader>& media() const { return media_; }
  const std::vector<BoxHeader>& metas() const { return metas_; }
  FileHandle& file() { return *file_; }

  MovieBox readMoov() {
    if (moov_->size <= uint32Max && moov_->end() <= length_) {
      const Bytes bytes = read(*moov_);
      if (bytes.size() == moov_->size && moov_->size > static_cast<uint64_t>(moov_->headerSize)) {
        return MovieBox::parse(bytes);
      }
    }
    throw ReplacerError::corruptedMP4(words_.cannotReadMoov);
  }

  /// A whole box; shorter where it cannot be read.
  Bytes read(const BoxHeader& box) {
    try {
      file_->seek(box.offset);
      return file_->read(static_cast<size_t>(box.size));
    } catch (const PosixError&) {
      return {};
    }
  }

  void copy(FileHandle& target, uint64_t offset, uint64_t size) {
    file_->seek(offset);
    if (file_->copyRange(target, size) < size) throw ReplacerError::writeError(words_.cannotReadMedia);
  }

 private:
  std::unique_ptr<FileHandle> open(FileManager& files, const Path& path) const {
    if (!files.fileExists(path)) throw ReplacerError::fileNotFound(path);
    try {
      return files.open(path, OpenMode::reading);
    } catch (const PosixError&) {
      throw ReplacerError::ioError(Error("FileHandle", -1, words_.cannotOpen));
    }
  }

  void parseTopLevelBoxes() {
    std::string types;
    size_t count = 0;
    FileBoxWalker walker(*file_, 0, length_, boxwalk::topLevelScan);
    while (auto box = walker.next()) {
      if (++count > mostBoxes) throw ReplacerError::corruptedMP4("The file holds too many boxes");
      types += (count == 1 ? "" : ", ") + box->type;
      // Its samples would be left behind: what describes them is not in the moov.
      if (box->type == "moof") throw ReplacerError::corruptedMP4("Fragmented MP4 (moof box found)");
      hasFtyp_ = hasFtyp_ || box->type == "ftyp";
      if (box->type == "mdat") media_.push_back(*box);
      if (box->type == "meta") metas_.push_back(*box);
      if (box->type == "moov" && !moov_) moov_ = std::move(box);
    }
    log("  {} boxes: {}", words_.title, types);
  }

  const InputWords& words_;
  std::unique_ptr<FileHandle> file_;
  uint64_t length_;
  bool hasFtyp_ = false;
  std::optional<BoxHeader> moov_;
  std::vector<BoxHeader> media_;
  std::vector<BoxHeader> metas_;
};

// --- The new movie ---

uint64_t timescaleOf(const MovieBox& moov) {
  const MovieBox* mvhd = moov.find({"mvhd"});
  if (!mvhd) throw ReplacerError::corruptedMP4("mvhd not found");
  return headerTimescaleField.load(mvhd, defaultTimescale);
}

/// A duration in another timescale.
uint64_t rescaled(uint64_t duration, uint64_t from, uint64_t to) {
  if (from == 0) return duration;
  const auto product = checkedMultiply(duration, to);
  if (!product) throw ReplacerError::corruptedMP4("The audio duration does not fit 64 bits");
  return *product / from;
}

/// Gives the movie a copy of the track, with a track_ID of its own.
MovieBox& addTrack(MovieBox& moov, MovieBox track) {
  uint64_t highest = 0;
  size_t place = 0;
  for (size_t i = 0; i < moov.children.size(); ++i) {
    if (moov.children[i].type != "trak") continue;
    highest = std::max(highest, trackIDField.load(moov.children[i].find({"tkhd"}), 0));
    place = i + 1;
  }
  if (highest > uint32Max - 2) throw ReplacerError::corruptedMP4("No track_ID is left behind the video's");
  log("  Video track_ID: {}, new audio track_ID: {}", highest, highest + 1);
  MovieBox* mvhd = moov.find({"mvhd"});
  const uint64_t next = std::max(nextTrackIDField.load(mvhd, 0), highest + 2);
  nextTrackIDField.store(mvhd, "mvhd.next_track_ID", next);
  track.removeAll("edts");
  trackIDField.store(track.find({"tkhd"}), "audio track_ID", highest + 1);
  return *moov.children.insert(moov.children.begin() + static_cast<ptrdiff_t>(place), std::move(track));
}

/// Makes the movie as long as its longest track. All ones is a duration that is not known.
void coverTracks(MovieBox& moov) {
  uint64_t longest = 0;
  for (const MovieBox& track : moov.children) {
    if (track.type != "trak") continue;
    const uint64_t duration = tkhdDurationField.load(track.find({"tkhd"}), 0);
    if (duration != uint32Max && duration != std::numeric_limits<uint64_t>::max())
      longest = std::max(longest, duration);
  }
  headerDurationField.store(moov.find({"mvhd"}), "mvhd.duration", longest);
}

/// The movie of the result; `sound` is the track whose chunks lie in the new audio. All chunk offsets are still those
/// of the inputs.
struct NewMovie {
  MovieBox moov;
  size_t sound;
};

NewMovie makeMovie(Input& original, Input& newAudio, MP4AudioTrackReplacer::EditList editList) {
  MovieBox moov = original.readMoov();
  MovieBox audioMoov = newAudio.readMoov();
  if (moov.find({"mdat"})) throw ReplacerError::corruptedMP4("The moov holds the media");
  if (!findTrack(moov, "vide", "vmhd")) throw ReplacerError::noVideoTrack();
  const MovieBox* newTrack = findTrack(audioMoov, "soun", "smhd");
  if (!newTrack) throw ReplacerError::noAudioTrack();
  const uint64_t movieTimescale = timescaleOf(moov), audioMovieTimescale = timescaleOf(audioMoov);
  log("  Original movie timescale: {}", movieTimescale);
  log("  Audio movie timescale: {}", audioMovieTimescale);
  const uint64_t sourceDuration = tkhdDurationField.load(newTrack->find({"tkhd"}), 0);
  const uint64_t duration = rescaled(sourceDuration, audioMovieTimescale, movieTimescale);
  log("  Audio tkhd.duration: {} (in audio timescale {}) -> {} (rescaled to {})", sourceDuration, audioMovieTimescale,
      duration, movieTimescale);

  MovieBox* old = findTrack(moov, "soun", "smhd");
  MovieBox& sound = old ? *old : addTrack(moov, *newTrack);
  putMedia(sound, *newTrack, static_cast<uint32_t>(movieTimescale), duration,
           editList == MP4AudioTrackReplacer::EditList::kept);
  coverTracks(moov);
  const auto place = static_cast<size_t>(&sound - moov.children.data());
  return {std::move(moov), place};
}

// --- The new file ---

Bytes createDefaultFtyp() {
  Bytes ftyp;
  ByteWriter(ftyp).uint32(20).text("ftyp").text("mp42").uint32(0).text("mp42");
  return ftyp;
}

/// Where the bytes of the inputs go: what is ahead of the `moov` stays, the new media come behind it, and the rest of
/// the source behind them.
struct Layout {
  Layout(uint64_t ftypSize, uint64_t moovSize, const Input& original, const Input& newAudio) {
    const BoxHeader& moov = original.moov();
    uint64_t at = requireSum(requireSum(ftypSize, moov.offset), moovSize);
    for (const BoxHeader& box : newAudio.media()) {
      audioMoves.push_back({box.offset, box.end(), at});
      at = requireSum(at, box.size);
    }
    requireSum(at, original.length());
    // Also what a damaged file says to lie behind its end.
    sourceMoves = {{0, moov.offset, ftypSize}, {moov.end(), farthestOffset - at, at}};
    // And chunks in the moov: there are none, and who says so will not be believed in the result either.
    chunkMoves = {sourceMoves.front(), {moov.offset + 1, moov.end() - 1, ftypSize + moov.offset}, sourceMoves.back()};
  }

  std::vector<MediaMove> sourceMoves;
  std::vector<MediaMove> chunkMoves;  ///< of the source's tracks
  std::vector<MediaMove> audioMoves;
};

Bytes assembleMoov(const NewMovie& movie, const Layout& layout) {
  MovieBox moov = movie.moov;
  for (size_t i = 0; i < moov.children.size(); ++i) {
    if (moov.children[i].type != "trak") continue;
    moveChunkOffsets(moov.children[i], i == movie.sound ? layout.audioMoves : layout.chunkMoves);
  }
  Bytes bytes = moov.bytes();
  if (!moveItemsInMoov(bytes, layout.sourceMoves)) throw ReplacerError::corruptedMP4("An item lies in no mdat box");
  return bytes;
}

/// The `moov` for the place that its own length gives the media. A longer one moves them on, and may so turn a table
/// into a longer `co64`; a longer table never makes another one shorter, so the lengths go one way.
Bytes buildMoov(const NewMovie& movie, uint64_t ftypSize, const Input& original, const Input& newAudio) {
  uint64_t assumedSize = movie.moov.size();
  for (;;) {
    Bytes moov = assembleMoov(movie, Layout(ftypSize, assumedSize, original, newAudio));
    if (moov.size() == assumedSize) return moov;
    log("  Moov size recalculation: estimated {}, actual {}", assumedSize, moov.size());
    assumedSize = moov.size();
  }
}

/// Bytes that go in the place of some of the source's.
struct Patch {
  uint64_t offset;
  uint64_t removed;
  Bytes bytes;
};

/// The item locations at the top level of the source, as they are in the result.
std::vector<Patch> moveTopLevelItems(Input& original, const Layout& layout) {
  std::vector<Patch> patches;
  for (const BoxHeader& meta : original.metas()) {
    for (const BoxHeader& iloc : findItemLocations(original.file(), meta)) {
      if (iloc.end() > original.length()) continue;
      Patch patch{iloc.offset, iloc.size, original.read(iloc)};
      const auto header = static_cast<size_t>(iloc.headerSize);
      if (patch.bytes.size() != iloc.size || !moveItems(std::span(patch.bytes).subspan(header), layout.sourceMoves)) {
        throw ReplacerError::corruptedMP4("An item lies in no mdat box");
      }
      patches.push_back(std::move(patch));
    }
  }
  return patches;
}

std::unique_ptr<FileHandle> createOutput(FileManager& files, const Path& path) {
  try {
    return files.open(path, OpenMode::creating);
  } catch (const PosixError&) {
    throw ReplacerError::writeError("Cannot create output file");
  }
}

/// Copies the `mdat` boxes of the new audio. The last box of a file may leave its size open; here others follow.
void copyMedia(Input& newAudio, FileHandle& output) {
  for (const BoxHeader& box : newAudio.media()) {
    const auto header = static_cast<uint64_t>(box.headerSize);
    if (header > layout::boxHeaderSize) {
      newAudio.copy(output, box.offset, box.size);
    } else {
      if (box.size > uint32Max) throw ReplacerError::corruptedMP4("The new audio does not fit its mdat");
      Bytes head;
      ByteWriter(head).uint32(static_cast<uint32_t>(box.size)).text("mdat");
      output.write(head);
      newAudio.copy(output, box.offset + header, box.size - header);
    }
    log("  Wrote audio mdat: {} bytes", box.size);
  }
}

/// Writes the source with its patches and the new media; returns what it copied.
std::vector<CopiedRange> writeResult(Input& original, Input& newAudio, const std::vector<Patch>& patches,
                                     FileHandle& output) {
  std::vector<CopiedRange> copied;
  uint64_t position = 0;
  const auto copyUpTo = [&](uint64_t end) {
    if (end == position) return;
    copied.push_back({position, output.offset(), end - position});
    original.copy(output, position, end - position);
  };
  for (const Patch& patch : patches) {
    copyUpTo(patch.offset);
    output.write(patch.bytes);
    if (patch.offset == original.moov().offset && patch.removed > 0) copyMedia(newAudio, output);
    position = patch.offset + patch.removed;
  }
  copyUpTo(original.length());
  return copied;
}

}  // namespace

void MP4AudioTrackReplacer::replaceAudioTrack(FileManager& files, const Path& originalMP4, const Path& newAudioM4A,
                                              const Path& outputURL, EditList editList, const RewriteCheck& check) {
  logLine("MP4AudioTrackReplacer: Starting audio track replacement");
  log("  Original: {}", originalMP4.filename().string());
  log("  New audio: {}", newAudioM4A.filename().string());
  log("  Output: {}", outputURL.filename().string());
  Input original(files, originalMP4, originalWords);
  Input newAudio(files, newAudioM4A, audioWords);

  const NewMovie movie = makeMovie(original, newAudio, editList);
  const Bytes ftyp = original.hasFtyp() ? Bytes() : createDefaultFtyp();
  Bytes moov = buildMoov(movie, ftyp.size(), original, newAudio);
  log("  Final moov size: {} bytes", moov.size());
  std::vector<Patch> patches = moveTopLevelItems(original, Layout(ftyp.size(), moov.size(), original, newAudio));
  patches.push_back({original.moov().offset, original.moov().size, std::move(moov)});
  std::ranges::sort(patches, {}, &Patch::offset);
  if (!ftyp.empty()) patches.insert(patches.begin(), {0, 0, ftyp});

  auto output = createOutput(files, outputURL);
  const std::vector<CopiedRange> copied = writeResult(original, newAudio, patches, *output);
  output->synchronize();
  const uint64_t size = output->seekToEnd();
  output->close();
  log("MP4AudioTrackReplacer: Complete, output size: {} bytes", size);
  if (check) check(outputURL, copied);
}

}  // namespace tarn
