#include "sync/MP4EditListStripper.h"

#include "movie/MediaLayout.h"
#include "movie/MoovCheck.h"
#include "movie/MovieError.h"
#include "movie/MovieRewrite.h"
#include "movie/TrackFields.h"
#include "mp4/BoxLayout.h"
#include "mp4/EditList.h"
#include "platform/Log.h"
#include "platform/OpenFile.h"
#include "platform/TempFile.h"
#include "sync/ErrorTypes.h"
#include "sync/detail/MovieEdits.h"

namespace tarn {
namespace {

using Entries = std::vector<OriginalEditListEntry>;
using StripperError = MP4EditListStripperError;

constexpr const EditRules& rules = edit::stripping;

StripperError stripperError(const MovieError& error) {
  switch (error.kind()) {
    case MovieError::Case::unreadable:
    case MovieError::Case::cutOff:
      return StripperError::readError(error.box().type == "moov" ? "Cannot read moov" : "Read failed");
    case MovieError::Case::longSize:
      return StripperError::corruptedMP4("moov box has a 64-bit size field");
    case MovieError::Case::damaged:
    case MovieError::Case::doesNotFit:
      break;
  }
  return StripperError::corruptedMP4(error.description());
}

MediaLayout scan(FileHandle& file) {
  MediaLayout layout = MediaLayout::scan(file, rules);
  if (layout.first("moof")) {
    log("MP4EditListStripper: Fragmented MP4 detected (moof box found)");
    throw StripperError::fragmentedMP4NotSupported();
  }
  if (!layout.moov(rules)) throw StripperError::corruptedMP4("moov box not found");
  return layout;
}

/// Cuts the edit list out of the first audio track and returns its entries; nothing, and no change, when there is none.
std::optional<Entries> strip(MovieBox& moov) {
  MovieBox* trak = findTrack(moov, MP4TrackType::audio, rules);
  const MovieBox* edts = trak ? trak->find({"edts"}) : nullptr;
  const MovieBox* elst = edts ? edts->find({"elst"}) : nullptr;
  if (!elst || elst->isCut) return std::nullopt;
  Entries entries = readEditList(elst->plainBytes(), editlist::stripped);
  if (entries.empty()) return std::nullopt;
  log("  Stripping edts box from audio trak ({} bytes)", edts->size());
  putEditList(*trak, {});
  return entries;
}

class CopyLog : public RewriteListener {
 public:
  CopyLog(const BoxHeader& moov, uint64_t newSize) : moov_(moov), newSize_(newSize) {}

  void ends(const BoxHeader& box) override {
    if (box.offset == moov_.offset) {
      log("MP4EditListStripper: Wrote modified moov ({} bytes)", newSize_);
    } else {
      log("MP4EditListStripper: Copied {} ({} bytes)", box.type, box.size);
    }
  }

 private:
  const BoxHeader& moov_;
  uint64_t newSize_;
};

}  // namespace

std::optional<Entries> MP4EditListStripper::stripAudioEditList(FileManager& files, const Path& from,
                                                               const Path& to) try {
  if (!files.fileExists(from)) throw StripperError::fileNotFound();
  auto input = openFile(files, from, OpenMode::reading, StripperError::cannotOpenFile());
  log("MP4EditListStripper: Processing {} ({} bytes)", from.filename().string(), input->seekToEnd());
  const MediaLayout layout = scan(*input);
  const BoxHeader moovBox = *layout.moov(rules);
  const Bytes before = readMoov(*input, moovBox, rules);
  requireEditable(before, moovBox.offset, rules);
  MovieBox tree = MovieBox::parse(before, rules);
  auto entries = strip(tree);
  if (!entries) {
    log("MP4EditListStripper: No audio edit list found, copying file unchanged");
    files.copyItem(from, to);
    return std::nullopt;
  }
  log("MP4EditListStripper: Stripped edit list with {} entries", entries->size());
  Bytes moov = tree.bytes();
  const auto growth = static_cast<int64_t>(moov.size()) - static_cast<int64_t>(before.size());
  const ChunkOffsetShift shift = layout.shift(moovBox, growth, rules);
  if (shift.delta != 0) log("MP4EditListStripper: Adjusting chunk offsets by {} bytes", shift.delta);
  moveChunks(moov, shift, rules);

  auto output = openFile(files, to, OpenMode::creating, StripperError::cannotCreateOutputFile());
  TempFile draft(files, to);
  CopyLog listener(moovBox, moov.size());
  rewriteMovie(*input, *output, layout, moovBox, moov, rules, listener);
  output->synchronize();
  output->close();
  draft.keep();
  log("MP4EditListStripper: Complete - output written to {}", to.filename().string());
  return entries;
} catch (const MovieError& error) {
  throw stripperError(error);
}

}  // namespace tarn
