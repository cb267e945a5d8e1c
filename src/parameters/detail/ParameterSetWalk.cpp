#include "parameters/detail/ParameterSetWalk.h"

#include <algorithm>

#include "platform/Checked.h"
#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {

ByteView SampleFront::at(uint64_t position, size_t count) {
  if (position < pieceStart_ || position + count > pieceStart_ + piece_.size()) {
    pieceStart_ = position;
    const auto offset = checkedAdd(sampleOffset_, position);
    piece_ = offset ? load(*offset, count) : ByteView();
  }
  ByteView available = piece_.subspan(position - pieceStart_);
  return available.first(std::min(count, available.size()));
}

ByteView SampleFront::load(uint64_t offset, size_t count) {
  try {
    file_.seek(offset);
    if (count <= buffer_.size()) return ByteView(buffer_).first(file_.readInto(buffer_));
    longPiece_ = file_.read(count);
    return longPiece_;
  } catch (const PosixError&) {
    // A sample that cannot be read is skipped like one that is damaged.
    return {};
  }
}

ParameterSetWalk::ParameterSetWalk(FileHandle& file, const SampleInfo& sample, int nalLengthSize,
                                   const NALWalkRules& rules, uint32_t position)
    : front_(file, sample),
      rules_(rules),
      limit_(std::min(sample.size, searchLimit)),
      lengthSize_(nalLengthSize == 1 || nalLengthSize == 2 || nalLengthSize == 4 ? static_cast<uint64_t>(nalLengthSize)
                                                                                 : 0),
      position_(position) {}

std::optional<ParameterSetWalk::Unit> ParameterSetWalk::next() {
  while (position_ < limit_) {
    auto length = readLength();
    if (!length) return end();
    if (*length == 0 || *length >= invalidLength) {
      if (rules_.logsDamage) log("Invalid NAL length: {}, skipping sample", *length);
      return end();
    }
    uint64_t start = position_ + lengthSize_;
    ByteView header = front_.at(start, rules_.codec.headerSize);
    if (header.size() < rules_.codec.headerSize) return end();
    uint8_t type = rules_.codec.type(header[0]);
    if (rules_.codec.isSlice(type)) {
      if (rules_.stopsAtSlice) return std::nullopt;
      isBehindSlice_ = true;
    }
    position_ = start + *length;
    if (!rules_.codec.parameterSetKind(type)) continue;
    if (*length < rules_.codec.headerSize) {
      if (rules_.logsDamage) {
        log("Invalid NAL payload size: {}", int64_t{*length} - static_cast<int64_t>(rules_.codec.headerSize));
      }
      return end();
    }
    ByteView unit = front_.at(start, *length);
    if (unit.size() < *length) return end();
    return Unit{.bytes = {unit.begin(), unit.end()}, .isBehindSlice = isBehindSlice_};
  }
  return std::nullopt;
}

/// What follows damage is not looked at.
std::nullopt_t ParameterSetWalk::end() {
  position_ = limit_;
  return std::nullopt;
}

/// Nothing if the sample ends; 0, a length that is damage, where no such prefix exists.
std::optional<uint32_t> ParameterSetWalk::readLength() {
  ByteView prefix = front_.at(position_, lengthSize_);
  if (prefix.size() < lengthSize_) return std::nullopt;
  uint32_t length = 0;
  for (uint8_t byte : prefix) length = length << 8 | byte;
  return length;
}

}  // namespace tarn
