#include "recover/detail/ByteWindow.h"

#include <algorithm>

namespace tarn {
namespace {

constexpr size_t pieceSize = 1 << 20;
constexpr size_t startCodeSize = 3;

}  // namespace

ByteWindow::ByteWindow(FileHandle& file, uint64_t begin, uint64_t end)
    : file_(file),
      end_(std::min(end, file.seekToEnd())),
      start_(std::min(begin, end_)),
      freeFrom_(start_),
      freeTo_(start_) {}

ByteView ByteWindow::at(uint64_t offset, size_t count) {
  if (offset >= end_) return {};
  count = static_cast<size_t>(std::min<uint64_t>(count, end_ - offset));
  if (offset < start_ || offset + count > start_ + buffer_.size()) {
    file_.seek(offset);
    buffer_ = file_.read(static_cast<size_t>(std::min<uint64_t>(std::max(count, pieceSize), end_ - offset)));
    start_ = offset;
    work_ += buffer_.size();
  }
  const ByteView rest = ByteView(buffer_).subspan(static_cast<size_t>(offset - start_));
  return rest.first(std::min(count, rest.size()));
}

bool ByteWindow::isFreeOfStartCodes(uint64_t begin, uint64_t end) {
  if (begin < freeFrom_ || begin > freeTo_) {
    freeFrom_ = freeTo_ = begin;
    isHit_ = false;
  }
  if (end > begin + startCodeSize - 1) scanTo(end - (startCodeSize - 1));
  return !isHit_ || freeTo_ + startCodeSize > end;
}

/// Looks for start codes that begin before `end`.
void ByteWindow::scanTo(uint64_t end) {
  while (!isHit_ && freeTo_ < end) {
    const ByteView bytes =
        at(freeTo_, static_cast<size_t>(std::min<uint64_t>(end - freeTo_, pieceSize / 2)) + startCodeSize - 1);
    if (bytes.size() < startCodeSize) {
      freeTo_ = end;
      return;
    }
    const size_t starts = bytes.size() - (startCodeSize - 1);
    size_t i = 0;
    while (i < starts && !(bytes[i] == 0 && bytes[i + 1] == 0 && bytes[i + 2] < 3)) ++i;
    freeTo_ += i;
    work_ += i;
    isHit_ = i < starts;
  }
}

}  // namespace tarn
