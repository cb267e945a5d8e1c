#include "movie/MovieRewrite.h"

#include <fmt/format.h>

#include <algorithm>

#include "movie/MovieError.h"
#include "mp4/BoxLayout.h"

namespace tarn {
namespace {

using Case = MovieError::Case;

/// A `free` box (ISO/IEC 14496-12 8.1.2) of so many bytes; zeros if they are too few for one.
Bytes freeBox(uint64_t size) {
  Bytes box(static_cast<size_t>(size));
  if (size < layout::boxHeaderSize) return box;
  layout::store(box.data(), layout::boxSize, size);
  layout::store(box.data(), layout::boxType, layout::fourCC("free"));
  return box;
}

class Rewrite {
 public:
  Rewrite(FileHandle& source, FileHandle& target, const MediaLayout& layout, const EditRules& rules,
          RewriteListener& listener)
      : source_(source), writer_(source, target), layout_(layout), rules_(rules), listener_(listener) {}

  std::vector<CopiedRange> write(const BoxHeader& moov, ByteView newMoov) {
    const bool dropsTail = rules_.tail == EditRules::Tail::isDropped;
    bool hasMoov = false;
    uint64_t end = 0;
    for (const BoxHeader& box : layout_.boxes) {
      if (box.offset == moov.offset) {
        writeMoov(moov, newMoov);
        hasMoov = true;
      } else if (layout_.isCut(box) && box.type != "mdat" && !dropsTail) {
        break;
      } else {
        copyBox(box);
      }
      end = box.end();
    }
    if (!hasMoov) throw MovieError(Case::damaged, fmt::format("no box begins at {}", end));
    if (end < layout_.fileSize && !dropsTail)
      copyTail({.offset = end, .size = layout_.fileSize - end, .type = "", .headerSize = 0});
    return writer_.copied();
  }

 private:
  void writeMoov(const BoxHeader& moov, ByteView newMoov) {
    listener_.begins(moov);
    writer_.write(newMoov);
    listener_.ends(moov);
  }

  void copyBox(const BoxHeader& box) {
    const bool isMedia = box.type == "mdat" || box.size > rewritePieceSize;
    if (isMedia && layout_.isCut(box) && rules_.cutMedia == EditRules::CutMedia::isRefused) throwCutOff(box);
    const uint64_t present = std::min(box.end(), layout_.fileSize) - box.offset;
    listener_.begins(box);
    if (!isMedia) {
      copySmall(box, present);
    } else {
      copyInPieces(box, present);
    }
    listener_.ends(box);
  }

  void copyTail(const BoxHeader& tail) {
    listener_.begins(tail);
    copyInPieces(tail, tail.size);
    listener_.ends(tail);
  }

  void copySmall(const BoxHeader& box, uint64_t size) {
    Bytes bytes;
    try {
      source_.seek(box.offset);
      bytes = source_.read(static_cast<size_t>(size));
    } catch (const PosixError&) {
      // Nothing was read.
    }
    if (bytes.size() == size) return writer_.writeRead(box.offset, bytes);
    if (!bytes.empty()) throwCutOff(box);
    if (!listener_.becomesFree(box)) throw MovieError(Case::unreadable, "Failed to read chunk during copy", box);
    // What stands after it must not move: chunk offsets are corrected for the moov alone.
    writer_.write(freeBox(size));
  }

  void copyInPieces(const BoxHeader& box, uint64_t size) {
    for (uint64_t written = 0; written < size; listener_.advances(box, written)) {
      const uint64_t copied = writer_.copy(box.offset + written, std::min(rewritePieceSize, size - written));
      if (copied == 0) throwCutOff(box);
      written += copied;
    }
  }

  [[noreturn]] static void throwCutOff(const BoxHeader& box) {
    throw MovieError(Case::cutOff, "Failed to read chunk during copy", box);
  }

  FileHandle& source_;
  MovieWriter writer_;
  const MediaLayout& layout_;
  const EditRules& rules_;
  RewriteListener& listener_;
};

}  // namespace

uint64_t MovieWriter::copy(uint64_t offset, uint64_t size) {
  const uint64_t to = target_.offset();
  source_.seek(offset);
  const uint64_t copied = source_.copyRange(target_, size);
  note(offset, to, copied);
  return copied;
}

void MovieWriter::writeRead(uint64_t offset, ByteView bytes) {
  note(offset, target_.offset(), bytes.size());
  target_.write(bytes);
}

void MovieWriter::note(uint64_t from, uint64_t to, uint64_t size) {
  if (size == 0) return;
  if (!copied_.empty()) {
    CopiedRange& last = copied_.back();
    if (last.from + last.size == from && last.to + last.size == to) {
      last.size += size;
      return;
    }
  }
  copied_.push_back({from, to, size});
}

void RewriteListener::begins(const BoxHeader& /*box*/) {}
void RewriteListener::advances(const BoxHeader& /*box*/, uint64_t /*written*/) {}
void RewriteListener::ends(const BoxHeader& /*box*/) {}
bool RewriteListener::becomesFree(const BoxHeader& /*box*/) {
  return false;
}

std::vector<CopiedRange> rewriteMovie(FileHandle& source, FileHandle& target, const MediaLayout& layout,
                                      const BoxHeader& moov, ByteView newMoov, const EditRules& rules,
                                      RewriteListener& listener) {
  return Rewrite(source, target, layout, rules, listener).write(moov, newMoov);
}

}  // namespace tarn
