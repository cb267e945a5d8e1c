#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Bytes.h"

namespace tarn {

using Path = std::filesystem::path;

/// An open file with one position for reading and writing. The handle owns the descriptor; destroying it closes the
/// file and ignores a failure, so a writer that cares calls close(). Not thread-safe: one handle, one thread.
/// Every operation throws PosixError when the system refuses. Interrupted calls are repeated here.
class FileHandle {
 public:
  virtual ~FileHandle() = default;

  /// Reads up to `count` bytes at the position and advances. Fewer bytes than asked mean the end of the file, so an
  /// empty result at a non-zero `count` is the end. Memory is taken for the bytes that are there, not for `count`.
  virtual Bytes read(size_t count) = 0;

  /// Reads into the caller's memory, up to its size; returns the number of bytes read, as above.
  virtual size_t readInto(std::span<uint8_t> target) = 0;

  /// Writes all bytes at the position and advances. After a failure the file may hold a part of them.
  virtual void write(ByteView bytes) = 0;

  /// Moves the position, counted from the start of the file. A position past the end is allowed; reading there
  /// gives nothing.
  virtual void seek(uint64_t offset) = 0;

  /// The position, counted from the start of the file.
  virtual uint64_t offset() const = 0;

  /// Moves the position to the end of the file and returns it: the file's size in bytes.
  virtual uint64_t seekToEnd() = 0;

  /// Copies up to `count` bytes from this position to the position of `target`, in pieces of at most 10,485,760 bytes,
  /// and advances both. Extents may be shared where the file system can. Returns the number of bytes copied; fewer
  /// than asked mean the end of this file. `target` must come from the same FileManager.
  virtual uint64_t copyRange(FileHandle& target, uint64_t count) = 0;

  /// Cuts or extends the file to `size` bytes. The position stays.
  virtual void truncate(uint64_t size) = 0;

  /// Returns once everything written is on stable storage.
  virtual void synchronize() = 0;

  /// Closes the file. A second call does nothing. Any other operation after it throws EBADF.
  virtual void close() = 0;
};

/// What identifies a file's content without reading it.
struct FileAttributes {
  uint64_t device = 0;
  uint64_t inode = 0;
  uint64_t size = 0;             ///< bytes
  int64_t changeTime = 0;        ///< st_ctime in nanoseconds since 1970
  int64_t modificationTime = 0;  ///< st_mtime in nanoseconds since 1970
  bool isDirectory = false;

  bool operator==(const FileAttributes&) const = default;
};

enum class OpenMode {
  reading,           ///< the file must exist
  updating,          ///< read and write; the file must exist
  creating,          ///< read and write; the file is made, and emptied when it exists
  exclusive,         ///< read and write; the file is made, and must not exist
  exclusivePrivate,  ///< the same, and nobody but its owner may read or write it
};

inline bool isExclusive(OpenMode mode) {
  return mode == OpenMode::exclusive || mode == OpenMode::exclusivePrivate;
}

/// The file system, as the whole system sees it: nothing else opens, lists, moves or deletes a file. Operations throw
/// PosixError when the system refuses; those that answer with an optional or a bool do not. Thread-safe.
///
/// What survives a power cut: bytes after FileHandle::synchronize; a name after synchronizeDirectory of its directory
/// or after replaceItem; a directory that createDirectory has made. All else may be lost or left.
class FileManager {
 public:
  virtual ~FileManager() = default;

  virtual std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) = 0;

  /// True if the path leads to anything, a directory included.
  virtual bool fileExists(const Path& path) = 0;

  /// Facts about what is at the path, following links; nothing if there is none or it cannot be asked.
  virtual std::optional<FileAttributes> attributes(const Path& path) = 0;

  /// Names (no paths) of a directory's entries, in no fixed order.
  virtual std::vector<std::string> contentsOfDirectory(const Path& path) = 0;

  /// Makes the directory and those above it, and flushes the names of those that it made. One that exists is no
  /// failure; a file in the way is one (EEXIST).
  virtual void createDirectory(const Path& path) = 0;

  /// Renames within one file system. Across file systems: copies to a hidden sibling of `to`, flushes it, renames, and
  /// deletes `from`. An existing `to` is a failure (EEXIST).
  virtual void moveItem(const Path& from, const Path& to) = 0;

  /// Copies a file, with shared extents where possible, and flushes the copy. An existing `to` is a failure (EEXIST);
  /// a failed copy leaves no `to`.
  virtual void copyItem(const Path& from, const Path& to) = 0;

  /// Makes `to` a second name of the file at `from`. An existing `to` is a failure (EEXIST); another file system too
  /// (EXDEV).
  virtual void linkItem(const Path& from, const Path& to) = 0;

  /// Deletes a file, or a directory with all that is in it. A missing path is a failure (ENOENT).
  virtual void removeItem(const Path& path) = 0;

  /// Puts `source` in the place of `target`, whether or not `target` exists, in one step: at any moment, a power cut
  /// included, `target` is the old file or the new one, whole. Flushes `source`, renames it over `target`, flushes the
  /// directory. Where the two are on different file systems, `source` is first copied to a hidden sibling of `target`.
  /// On failure `target` is as it was, and `source` still there; only where the last flush, that of the directory,
  /// fails, the new file is at `target` already, and a power cut may bring the old one back.
  virtual void replaceItem(const Path& target, const Path& source) = 0;

  /// Flushes a directory, so that names made or removed in it survive a power cut.
  virtual void synchronizeDirectory(const Path& path) = 0;

  /// Bytes free for this user on the file system that holds `path`; nothing if it cannot be found.
  virtual std::optional<uint64_t> freeSpace(const Path& path) = 0;

  /// The directory for the videos in work, made on demand with `create`; throws ENOENT when it is missing without.
  virtual Path documentsDirectory(bool create) = 0;

  /// The directory for temporary files; made when missing.
  virtual Path temporaryDirectory() = 0;
};

/// The path from the root. Throws PosixError for an empty one, and when the working directory is gone.
Path absolutePath(const Path& path);

/// A fresh random UUID (RFC 4122 version 4) in upper-case text form. Thread-safe.
std::string makeUUID();

/// Whether the text has the form that makeUUID() gives, of whatever version.
inline constexpr size_t uuidLength = 36;
bool isUUID(std::string_view text);

/// A fresh name in the directory of `target` for a file in the making: ".<UUID>.tmp".
Path hiddenSibling(const Path& target);

/// Deletes the hidden siblings that a killed process has left in a directory; returns how many. Only for a time at
/// which nobody is making one there. Never throws.
size_t removeAbandonedSiblings(FileManager& files, const Path& directory) noexcept;

/// What copyRange does where nothing better is known: reads and writes piece by piece. Same contract, for handles of
/// any kind.
uint64_t copyByReading(FileHandle& source, FileHandle& target, uint64_t count);

/// Deletes what is at `path`; true if something was there and is gone. Never throws.
bool removeIfExists(FileManager& files, const Path& path) noexcept;

/// The whole content of a file.
Bytes readFile(FileManager& files, const Path& path);

/// Replaces the content of `target` in one step (write a hidden sibling, flush, replaceItem). On failure `target` is
/// as it was and nothing is left behind. The file is for its owner alone.
void writeFileAtomically(FileManager& files, const Path& target, ByteView bytes);

/// A file URL's absolute text, "file:///a%20b.mp4": every byte outside the unreserved set of RFC 3986 and "/" is
/// percent-encoded, so that any name survives. `path` must be absolute.
std::string fileURLText(const Path& path);

/// The path of such a text; nothing for another scheme, a host, or a broken escape.
std::optional<Path> pathFromFileURL(std::string_view text);

}  // namespace tarn
