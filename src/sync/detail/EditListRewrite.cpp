#include "sync/detail/EditListRewrite.h"

#include "movie/MediaLayout.h"
#include "movie/MoovCheck.h"
#include "movie/MovieRewrite.h"
#include "movie/TrackFields.h"
#include "platform/Log.h"
#include "platform/OpenFile.h"
#include "platform/TempFile.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/detail/MovieEdits.h"

namespace tarn {
namespace {

constexpr const EditRules& rules = edit::syncing;

/// Chunk offsets follow the media that stand behind the `moov`.
void followMedia(Bytes& moov, const BoxHeader& moovBox, const MediaLayout& layout, int64_t growth) {
  const ChunkOffsetShift shift = layout.shift(moovBox, growth, rules);
  if (shift.delta == 0) return;
  log("MP4AVSyncFixer: Moov before mdat - adjusting chunk offsets by {}", growth);
  moveChunks(moov, shift, rules);
}

}  // namespace

bool rewriteMoov(FileManager& files, const Path& fileURL, const BoxHeader& moovBox,
                 const std::function<void(MovieBox&)>& edit, NamesInTheMaking* names, const RewriteCheck& check) try {
  auto source =
      openFile(files, fileURL, OpenMode::reading, AVSyncError::fileHandleError("Cannot open file for reading"));
  const Bytes before = readMoov(*source, moovBox, rules);
  requireEditable(before, moovBox.offset, rules);
  MovieBox tree = MovieBox::parse(before, rules);
  edit(tree);
  Bytes moov = tree.bytes();
  if (moov == before) {
    log("MP4AVSyncFixer: The moov stays as it is");
    return false;
  }
  const int64_t growth = static_cast<int64_t>(moov.size()) - static_cast<int64_t>(before.size());
  const MediaLayout layout = MediaLayout::scan(*source, rules);
  followMedia(moov, moovBox, layout, growth);

  const Path target = fileURL.parent_path() / (makeUUID() + ".mp4.tmp");
  std::optional<NamesInTheMaking::Hold> hold;
  if (names) hold.emplace(names->hold(target));
  TempFile temp(files, target);
  auto draft = openFile(files, target, OpenMode::creating, AVSyncError::fileHandleError("Cannot create temp file"));
  RewriteListener quiet;
  const auto copied = rewriteMovie(*source, *draft, layout, moovBox, moov, rules, quiet);
  draft.reset();
  source.reset();
  if (check) check(target, copied);
  files.replaceItem(fileURL, target);
  log("MP4AVSyncFixer: Moov rewritten with both edts (total size delta: {})", growth);
  return true;
} catch (const MovieError& error) {
  throw syncError(error);
}

bool MP4AVSyncFixer::rewriteMoovWithBothEdts(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                                             const MP4BoxInfo& videoTrakBox,
                                             const std::optional<MP4BoxInfo>& audioTrakBox, const MoovEdits& edits,
                                             NamesInTheMaking* names, const RewriteCheck& check) {
  const auto edit = [&](MovieBox& moov) { applyEdits(moov, moovBox, videoTrakBox, audioTrakBox, edits); };
  return rewriteMoov(files, fileURL, moovBox, edit, names, check);
}

bool MP4AVSyncFixer::rewriteMoovAsOrdered(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                                          const SyncFixOrder& order, NamesInTheMaking* names,
                                          const RewriteCheck& check) {
  return rewriteMoov(
      files, fileURL, moovBox, [&](MovieBox& moov) { applyOrder(moov, order); }, names, check);
}

}  // namespace tarn
