#include "kind/detail/MovieKind.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/MP4BoxUtils.h"

namespace tarn {
namespace {

using What = Kind::What;

/// What the top level of a file holds.
struct TopLevel {
  std::optional<BoxHeader> moov;
  bool hasMedia = false;      ///< an `mdat`
  bool hasFragments = false;  ///< a `moof`
  bool isCut = false;         ///< a box overruns the file
};

/// What the tracks of a `moov` are.
struct Tracks {
  bool hasSamples = false;
  bool hasSound = false;     ///< a track of sound
  bool hasPictures = false;  ///< a track of anything else that is shown
};

bool beginsWithBox(ByteView head, uint64_t fileSize) {
  if (head.size() < layout::boxHeaderSize) return false;
  const std::string_view type = textOf(head).substr(layout::boxType.offset, layout::boxType.width);
  constexpr std::array certain{"ftyp", "moov", "mdat", "styp", "moof"};
  if (std::ranges::find(certain, type) != certain.end()) return true;
  constexpr std::array likely{"wide", "free", "skip", "pnot", "sidx", "uuid", "meta", "udta", "pdin", "emsg", "prft"};
  const uint32_t size = layout::load32(head.data(), layout::boxSize);
  return std::ranges::find(likely, type) != likely.end() && size >= layout::boxHeaderSize && size <= fileSize;
}

/// Walks on to the `moov` and the first `moof`, and no further.
TopLevel readTopLevel(FileHandle& file, uint64_t fileSize) {
  TopLevel level;
  FileBoxWalker walker(file, 0, fileSize, boxwalk::topLevel);
  for (size_t count = 0; count < MP4BoxUtils::mostTopLevelHeaders; ++count) {
    const auto box = walker.next();
    if (!box) break;
    level.isCut |= box->end() > fileSize;
    level.hasMedia |= box->type == "mdat";
    level.hasFragments |= box->type == "moof";
    if (box->type == "moov" && !level.moov) level.moov = box;
    if (level.moov && level.hasFragments) break;
  }
  // A recorder that dies leaves a size that it meant to write at the end.
  if (walker.stop().type == "mdat") level.hasMedia = level.isCut = true;
  return level;
}

/// A picture of a HEIF file (ISO/IEC 23008-12) or an AVIF one, by the brand of its `ftyp`.
const char* pictureOfBrand(ByteView head) {
  const std::string_view text = textOf(head);
  if (text.substr(4, 4) != "ftyp" || text.size() < 12) return nullptr;
  const std::string_view brand = text.substr(8, 4);
  if (brand == "avif" || brand == "avis") return "an AVIF picture";
  constexpr std::array brands{"heic", "heix", "heim", "heis", "hevc", "hevx", "mif1", "msf1"};
  return std::ranges::find(brands, brand) != brands.end() ? "a HEIC picture" : nullptr;
}

/// The count of `stsz` or `stz2` (8.7.3).
bool hasSamples(FileHandle& file, const BoxHeader& trak) {
  for (const char* sizes : {"stsz", "stz2"}) {
    const auto box = MP4BoxUtils::findDescendant(file, trak, {"mdia", "minf", "stbl", sizes});
    if (!box) continue;
    file.seek(box->contentOffset());
    const Bytes fields = file.read(12);
    return fields.size() == 12 && layout::load32(fields.data(), {8, 4}) > 0;
  }
  return false;
}

/// Tracks that are whole in the file; in a fragmented movie the samples of each stand elsewhere.
Tracks readTracks(FileHandle& file, const BoxHeader& moov, bool isFragmented, uint64_t fileSize) {
  Tracks tracks;
  FileBoxWalker walker(file, moov.contentOffset(), std::min(moov.end(), fileSize), boxwalk::tracks);
  while (const auto box = walker.next()) {
    if (box->type == "cmov") tracks.hasSamples = true;  // of QuickTime: the tracks are compressed
    if (box->type != "trak" || box->end() > fileSize) continue;
    const bool has = hasSamples(file, *box);
    tracks.hasSamples |= has;
    if (!has && !isFragmented) continue;
    const auto handler = MP4BoxUtils::getHandlerType(file, *box);
    tracks.hasSound |= handler == "soun";
    tracks.hasPictures |= handler == "vide" || handler == "auxv" || handler == "pict";
  }
  return tracks;
}

Kind withoutMoov(const TopLevel& level) {
  if (level.hasFragments) {
    return {What::lacksMoov, "a piece of a stream without its beginning", "give the address of the whole video"};
  }
  const char* words = !level.hasMedia ? "a movie of which only the start is there"
                      : level.isCut   ? "a movie without its end"
                                      : "a movie whose moov, the index of its media, is missing";
  return {What::lacksMoov, words, "download it again, or rebuild it with `tarn repair --like` and a healthy recording"};
}

Kind kindOfMoov(FileHandle& file, const TopLevel& level, uint64_t fileSize) {
  const bool isFragmented = level.hasFragments || MP4BoxUtils::findChildBox(file, *level.moov, "mvex");
  const Tracks tracks = readTracks(file, *level.moov, isFragmented, fileSize);
  if (!tracks.hasSamples && !level.hasFragments) {
    if (level.moov->end() > fileSize) return withoutMoov(level);
    const char* words = isFragmented ? "only the beginning of a movie in fragments" : "a movie without a single sample";
    return {What::lacksSamples, words, "download it again"};
  }
  if (tracks.hasSound && !tracks.hasPictures) return {What::audio, "sound without pictures", ""};
  if (isFragmented) return {What::fragmentedMovie, "a movie in fragments", ""};
  return {What::plainMovie, "a movie", ""};
}

}  // namespace

std::optional<Kind> movieKind(FileHandle& file, ByteView head) {
  const uint64_t fileSize = file.seekToEnd();
  const TopLevel level = readTopLevel(file, fileSize);
  if (level.moov) return kindOfMoov(file, level, fileSize);  // boxes of any type may stand before it
  if (!beginsWithBox(head, fileSize)) return std::nullopt;
  if (const char* words = pictureOfBrand(head)) {
    return Kind{What::picture, words, Kind::adviseVideoItself};
  }
  return withoutMoov(level);
}

}  // namespace tarn
