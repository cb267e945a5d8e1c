#pragma once

#include <cstdint>
#include <vector>

#include "movie/CopiedRange.h"
#include "movie/EditRules.h"
#include "movie/MediaLayout.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

/// A rewrite copies an `mdat`, and each box of more than so many bytes, in pieces of this size.
inline constexpr uint64_t rewritePieceSize = 10 << 20;

/// Writes a file that is made of ranges of another one and of new bytes, and notes the ranges. Throws PosixError.
class MovieWriter {
 public:
  /// Either handle must outlive it; `target` is written from its position on.
  MovieWriter(FileHandle& source, FileHandle& target) : source_(source), target_(target) {}

  void write(ByteView bytes) { target_.write(bytes); }
  /// Returns how many bytes were copied; fewer than asked if the source ends before them.
  uint64_t copy(uint64_t offset, uint64_t size);
  /// The same for bytes that the caller has read at `offset`.
  void writeRead(uint64_t offset, ByteView bytes);

  /// Adjacent ranges as one.
  const std::vector<CopiedRange>& copied() const { return copied_; }

 private:
  void note(uint64_t from, uint64_t to, uint64_t size);

  FileHandle& source_;
  FileHandle& target_;
  std::vector<CopiedRange> copied_;
};

/// Hears how a rewrite comes on. `box` is one of the source's top-level boxes, the old `moov` for the new one, or the
/// tail: the bytes at the end that are no box.
class RewriteListener {
 public:
  virtual ~RewriteListener() = default;

  static bool isTail(const BoxHeader& box) { return box.headerSize == 0; }

  virtual void begins(const BoxHeader& box);
  /// Another piece of at most 10 MiB is written; `written` counts from the start of the box.
  virtual void advances(const BoxHeader& box, uint64_t written);
  virtual void ends(const BoxHeader& box);
  /// A box of at most 10 MiB that is no `mdat` cannot be read. True: as many bytes of free space stand for it. False:
  /// the rewrite fails.
  virtual bool becomesFree(const BoxHeader& box);
};

/// Copies a file with `newMoov` in the place of the `moov`; every other box stays, in its order. The bytes after the
/// last box come along, or not, as `rules.tail` says, and media that the file cuts off as `rules.cutMedia` does.
/// Returns what was copied. Throws MovieError: unreadable; cutOff for a source that ends before a box that must be
/// whole; damaged if no box begins where the `moov` does. Failures of writing are PosixError.
std::vector<CopiedRange> rewriteMovie(FileHandle& source, FileHandle& target, const MediaLayout& layout,
                                      const BoxHeader& moov, ByteView newMoov, const EditRules& rules,
                                      RewriteListener& listener);

}  // namespace tarn
