#include "audio/replace/ReplacedFile.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "audio/AudioTrackReplacerError.h"
#include "movie/MovieRewrite.h"
#include "movie/TrackFields.h"
#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"
#include "mp4/ItemLocations.h"
#include "platform/Checked.h"
#include "platform/Log.h"

namespace tarn {
namespace {

using ReplacerError = AudioTrackReplacerError;

constexpr uint64_t uint32Max = std::numeric_limits<uint32_t>::max();
constexpr uint64_t farthestOffset = std::numeric_limits<uint64_t>::max() >> 1;

uint64_t requireSum(uint64_t a, uint64_t b) {
  const auto sum = checkedAdd(a, b);
  if (!sum || *sum > farthestOffset) throw ReplacerError::corruptedMP4("The media do not fit a file");
  return *sum;
}

Bytes createDefaultFtyp() {
  Bytes ftyp;
  ByteWriter(ftyp).uint32(20).text("ftyp").text("mp42").uint32(0).text("mp42");
  return ftyp;
}

/// Where the bytes of the inputs go: what is before the `moov` stays, the new media come after it, and the rest of
/// the source after them.
struct Places {
  Places(uint64_t ftypSize, uint64_t moovSize, const ReplacerInput& original, const ReplacerInput& newAudio) {
    const BoxHeader& moov = original.moovBox();
    const uint64_t mediaStart = requireSum(requireSum(ftypSize, moov.offset), moovSize);
    audioMoves = newAudio.layout().moves(mediaStart);
    const MediaMove& last = audioMoves.back();
    const uint64_t at = requireSum(last.newBegin, last.end - last.begin);
    requireSum(at, original.layout().fileSize);
    // Also what a damaged file says to be past its end.
    sourceMoves = {{0, moov.offset, ftypSize}, {moov.end(), farthestOffset - at, at}};
    // And chunks in the moov: there are none, and who says so will not be believed in the result either.
    chunkMoves = {sourceMoves.front(), {moov.offset + 1, moov.end() - 1, ftypSize + moov.offset}, sourceMoves.back()};
  }

  std::vector<MediaMove> sourceMoves;
  std::vector<MediaMove> chunkMoves;  ///< of the source's tracks
  std::vector<MediaMove> audioMoves;
};

Bytes assembleMoov(const ReplacedMovie& movie, const Places& places) {
  MovieBox moov = movie.moov;
  for (size_t i = 0; i < moov.children.size(); ++i) {
    if (moov.children[i].type != "trak") continue;
    moveChunks(moov.children[i], i == movie.audio ? places.audioMoves : places.chunkMoves);
  }
  Bytes bytes = moov.bytes();
  if (!moveItemsInMoov(bytes, places.sourceMoves)) throw ReplacerError::corruptedMP4("An item lies in no mdat box");
  return bytes;
}

/// The `moov` for the place that its own length gives the media. A longer one moves them on, and may so turn a table
/// into a longer `co64`; a longer table never makes another one shorter, so the lengths go one way.
Bytes buildMoov(const ReplacedMovie& movie, uint64_t ftypSize, const ReplacerInput& original,
                const ReplacerInput& newAudio) {
  uint64_t assumedSize = movie.moov.size();
  for (;;) {
    Bytes moov = assembleMoov(movie, Places(ftypSize, assumedSize, original, newAudio));
    if (moov.size() == assumedSize) return moov;
    log("  Moov size recalculation: estimated {}, actual {}", assumedSize, moov.size());
    assumedSize = moov.size();
  }
}

/// The item locations at the top level of the source, as they are in the result.
std::vector<Patch> moveTopLevelItems(const ReplacerInput& original, const Places& places) {
  std::vector<Patch> patches;
  for (const BoxHeader& meta : original.layout().boxes) {
    if (meta.type != "meta") continue;
    for (const BoxHeader& iloc : findItemLocations(original.file(), meta)) {
      if (original.layout().isCut(iloc)) continue;
      original.file().seek(iloc.offset);
      Patch patch{iloc.offset, iloc.size, original.file().read(static_cast<size_t>(iloc.size))};
      const auto header = static_cast<size_t>(iloc.headerSize);
      if (patch.bytes.size() != iloc.size || !moveItems(std::span(patch.bytes).subspan(header), places.sourceMoves)) {
        throw ReplacerError::corruptedMP4("An item lies in no mdat box");
      }
      patches.push_back(std::move(patch));
    }
  }
  original.requireReadable();
  return patches;
}

void copy(MovieWriter& writer, uint64_t offset, uint64_t size, const InputWords& words) {
  if (writer.copy(offset, size) < size) throw ReplacerError::writeError(words.cannotReadMedia);
}

/// Copies the `mdat` boxes of the new audio. The last box of a file may leave its size open; here others follow.
void copyMedia(const ReplacerInput& newAudio, FileHandle& output) {
  MovieWriter writer(newAudio.file(), output);
  for (const BoxHeader& box : newAudio.layout().boxes) {
    if (box.type != "mdat") continue;
    const auto header = static_cast<uint64_t>(box.headerSize);
    if (header > layout::boxHeaderSize) {
      copy(writer, box.offset, box.size, newAudio.words());
    } else {
      if (box.size > uint32Max) throw ReplacerError::corruptedMP4("The new audio does not fit its mdat");
      Bytes head;
      ByteWriter(head).uint32(static_cast<uint32_t>(box.size)).text("mdat");
      writer.write(head);
      copy(writer, box.offset + header, box.size - header, newAudio.words());
    }
    log("  Wrote audio mdat: {} bytes", box.size);
  }
}

}  // namespace

std::vector<Patch> makePatches(const ReplacedMovie& movie, const ReplacerInput& original,
                               const ReplacerInput& newAudio) {
  const Bytes ftyp = original.layout().first("ftyp") ? Bytes() : createDefaultFtyp();
  Bytes moov = buildMoov(movie, ftyp.size(), original, newAudio);
  log("  Final moov size: {} bytes", moov.size());
  std::vector<Patch> patches = moveTopLevelItems(original, Places(ftyp.size(), moov.size(), original, newAudio));
  patches.push_back({original.moovBox().offset, original.moovBox().size, std::move(moov)});
  std::ranges::sort(patches, {}, &Patch::offset);
  if (!ftyp.empty()) patches.insert(patches.begin(), {0, 0, ftyp});
  return patches;
}

std::vector<CopiedRange> writeReplacedFile(const ReplacerInput& original, const ReplacerInput& newAudio,
                                           const std::vector<Patch>& patches, FileHandle& output) {
  MovieWriter writer(original.file(), output);
  uint64_t position = 0;
  const auto copyUpTo = [&](uint64_t end) { copy(writer, position, end - position, original.words()); };
  for (const Patch& patch : patches) {
    copyUpTo(patch.offset);
    writer.write(patch.bytes);
    if (patch.offset == original.moovBox().offset && patch.removed > 0) copyMedia(newAudio, output);
    position = patch.offset + patch.removed;
  }
  copyUpTo(original.layout().fileSize);
  return writer.copied();
}

}  // namespace tarn
