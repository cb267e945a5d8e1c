#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "platform/ForwardingFileManager.h"

namespace tarn {

class LayeredFile;
struct ByteStore;

/// Files that are recipes until they are done. A file of the base can be read, written, copied, and replaced here as
/// if it were changed, and stays as it is: a copy of a part is a note of where that part is, and new bytes go into one
/// side file, in the order in which they are written. The finished file is written once, by materialise() or finish().
///
/// Names behave as in a FileManager, with these differences: every directory is there, and making one does nothing; a
/// file of the base can be covered, but not moved or removed (EROFS); nothing is durable without keepRecipe(), and then
/// what synchronizeDirectory() and replaceItem() say is durable is in the recipe. Thread-safe; one handle, one thread.
/// The handles must not outlive it.
class LayeredFiles : public ForwardingFileManager {
 public:
  /// Opens and makes nothing yet. `side` is made in the base with the first new byte.
  LayeredFiles(FileManager& base, Path side);
  /// The same with the side file in `sideFiles`, as for a trial run that must not write to the disk.
  LayeredFiles(FileManager& base, FileManager& sideFiles, Path side);
  /// Removes the side file, unless a recipe needs it.
  ~LayeredFiles() override;

  /// Lets `path` read as the base's file at `original`. Throws PosixError if that cannot be opened.
  void layOver(const Path& path, const Path& original);

  enum class TakenUp {
    nothing,  ///< there was no recipe, or it was for another file than the one at `work` now
    recipe,   ///< all files are as they were when it was stored last
    damaged,  ///< there was one, and it cannot be used: what it said is lost
  };
  /// From now on the recipe is stored in `recipe`, so that the work survives the process and a power cut: in one step,
  /// the side file's bytes before it. An earlier process may have left one; `work` is the file that it is about. Of
  /// files of the base only `work` can have parts in it (ENOTSUP). As long as no file was changed, `work` itself is
  /// opened for updating: a few bytes are changed in place. Call it first. Throws PosixError if a file cannot be read.
  TakenUp keepRecipe(const Path& work, const Path& recipe);

  /// Puts the finished file in the place of `work`, if it was changed, and forgets everything. `poll` is called every
  /// 10 MiB and may throw. On failure `work` is as it was, and so is the recipe.
  void finish(const std::function<void()>& poll);

  /// Forgets everything; the recipe and the side file are removed.
  void discard() noexcept;

  /// True if the bytes of the file at `path` are no longer those that it was laid over. Throws PosixError.
  bool isChanged(const Path& path);
  /// True if another file has replaced the one that `path` was laid over.
  bool isReplaced(const Path& path);

  /// The names that are here alone: the base has no file of them.
  std::set<Path> newNames();

  /// Writes the file at `path` to a new file of the base, in one copy, and logs that it did. Nothing is flushed. `poll`
  /// as above. On failure there is no `target`. Throws PosixError.
  void materialise(const Path& path, const Path& target, const std::function<void()>& poll);

  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override;
  bool fileExists(const Path& path) override;
  std::optional<FileAttributes> attributes(const Path& path) override;
  std::vector<std::string> contentsOfDirectory(const Path& path) override;
  void createDirectory(const Path& path) override;
  void moveItem(const Path& from, const Path& to) override;
  void copyItem(const Path& from, const Path& to) override;
  void linkItem(const Path& from, const Path& to) override;
  void removeItem(const Path& path) override;
  void replaceItem(const Path& target, const Path& source) override;
  void synchronizeDirectory(const Path& path) override;
  /// Nothing if new bytes do not go to the base.
  std::optional<uint64_t> freeSpace(const Path& path) override;
  /// Beside the side file; nothing is made.
  Path temporaryDirectory() override;

 private:
  class Handle;
  using FilePointer = std::shared_ptr<LayeredFile>;
  using Files = std::map<Path, FilePointer>;

  // All under the lock.
  FilePointer find(const Path& path);
  FilePointer make(const Path& path, bool mustBeNew);
  void requireFree(const Path& path);
  Files::iterator requireOwn(const Path& path);
  uint64_t append(ByteView bytes);
  bool isAnyTouched() const;
  void commit(const Files& files);
  void commitIfAtWork(const LayeredFile& file);
  TakenUp load(uint64_t inode, uint64_t size);
  void forget() noexcept;

  std::mutex mutex_;  ///< guards all below, and the positions of the stores
  FileManager& sideFiles_;
  const Path sidePath_;
  Path work_;
  Path recipe_;  ///< empty: none is kept
  Files files_;
  std::map<Path, Path> originals_;  ///< of files that were laid over another path than their own
  std::shared_ptr<ByteStore> side_;
  uint64_t sideEnd_ = 0;
};

}  // namespace tarn
