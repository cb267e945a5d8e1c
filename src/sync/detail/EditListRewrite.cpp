#include "sync/detail/EditListRewrite.h"

#include "movie/MediaLayout.h"
#include "movie/MoovCheck.h"
#include "movie/MovieError.h"
#include "movie/MovieRewrite.h"
#include "movie/TrackFields.h"
#include "platform/FreedMemory.h"
#include "platform/Log.h"
#include "platform/OpenFile.h"
#include "platform/TempFile.h"
#include "sync/ErrorTypes.h"

namespace tarn {
namespace {

constexpr const EditRules& rules = edit::syncing;

/// Chunk offsets follow the media that come after the `moov`.
void followMedia(Bytes& moov, const BoxHeader& moovBox, const MediaLayout& layout, int64_t growth) {
  const ChunkOffsetShift shift = layout.shift(moovBox, growth, rules);
  if (shift.delta == 0) return;
  log("MP4AVSyncFixer: Moov before mdat - adjusting chunk offsets by {}", growth);
  moveChunks(moov, shift, rules);
}

struct EditedMoov {
  Bytes bytes;
  int64_t growth;
};

/// Nothing if the edit changes nothing.
std::optional<EditedMoov> editedMoov(FileHandle& source, const BoxHeader& moovBox,
                                     const std::function<void(MovieBox&)>& edit) {
  const Bytes before = readMoov(source, moovBox, rules);
  requireEditable(before, moovBox.offset, rules);
  MovieBox tree = MovieBox::parse(before, rules);
  edit(tree);
  Bytes moov = tree.bytes();
  if (moov == before) return std::nullopt;
  const int64_t growth = static_cast<int64_t>(moov.size()) - static_cast<int64_t>(before.size());
  return EditedMoov{std::move(moov), growth};
}

AVSyncError syncError(const MovieError& error) {
  const bool isOfFile = error.kind() == MovieError::Case::unreadable || error.kind() == MovieError::Case::cutOff;
  return isOfFile ? AVSyncError::fileHandleError(error.description()) : AVSyncError::fixError(error.description());
}

}  // namespace

bool rewriteMoov(FileManager& files, const Path& fileURL, const BoxHeader& moovBox,
                 const std::function<void(MovieBox&)>& edit, NamesInTheMaking* names, const RewriteCheck& check) try {
  auto source =
      openFile(files, fileURL, OpenMode::reading, AVSyncError::fileHandleError("Cannot open file for reading"));
  auto edited = editedMoov(*source, moovBox, edit);
  if (!edited) {
    log("MP4AVSyncFixer: The moov stays as it is");
    return false;
  }
  const int64_t growth = edited->growth;
  const MediaLayout layout = MediaLayout::scan(*source, rules);
  followMedia(edited->bytes, moovBox, layout, growth);

  const Path target = fileURL.parent_path() / (makeUUID() + ".mp4.tmp");
  std::optional<NamesInTheMaking::Hold> hold;
  if (names) hold.emplace(names->hold(target));
  TempFile temp(files, target);
  auto draft = openFile(files, target, OpenMode::creating, AVSyncError::fileHandleError("Cannot create temp file"));
  RewriteListener quiet;
  const auto copied = rewriteMovie(*source, *draft, layout, moovBox, edited->bytes, rules, quiet);
  draft.reset();
  source.reset();
  // The check needs as much memory again.
  edited.reset();
  giveBackFreedMemory();
  if (check) check(target, copied);
  files.replaceItem(fileURL, target);
  log("MP4AVSyncFixer: Moov rewritten with both edts (total size delta: {})", growth);
  return true;
} catch (const MovieError& error) {
  throw syncError(error);
}

}  // namespace tarn
