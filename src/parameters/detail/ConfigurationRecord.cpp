#include "parameters/detail/ConfigurationRecord.h"

#include <fmt/format.h>

#include <algorithm>

#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"

namespace tarn {
namespace {

constexpr int unitLengthWidth = 16;

}  // namespace

uint8_t lengthSizeField(int nalLengthSize) {
  if (nalLengthSize != 1 && nalLengthSize != 2 && nalLengthSize != 4) {
    throw ConfigurationBoxError(fmt::format("a NAL length of {} bytes does not exist", nalLengthSize));
  }
  return static_cast<uint8_t>(nalLengthSize - 1);
}

bool holdsUnit(const std::vector<Bytes>& units) {
  return std::ranges::any_of(units, [](const Bytes& unit) { return !unit.empty(); });
}

void RecordWriter::append(uint64_t value, int width) {
  while (width > 0) {
    if (freeBits_ == 0) {
      bytes_.push_back(0);
      freeBits_ = 8;
    }
    int taken = std::min(width, freeBits_);
    uint64_t bits = value >> (width - taken) & ((1U << taken) - 1);
    bytes_.back() = static_cast<uint8_t>(bytes_.back() | bits << (freeBits_ - taken));
    width -= taken;
    freeBits_ -= taken;
  }
}

void RecordWriter::units(const std::vector<Bytes>& units, int countWidth) {
  list(units, countWidth, unitLengthWidth / 8, [this](const Bytes& unit) {
    checkFits(unit.size(), unitLengthWidth, "bytes of a parameter set");
    append(unit.size(), unitLengthWidth);
    bytes_.insert(bytes_.end(), unit.begin(), unit.end());
  });
}

Bytes RecordWriter::box(std::string_view type) const {
  size_t size = bytes_.size() + layout::boxHeaderSize;
  checkFits(size, 32, "bytes of a configuration box");
  Bytes box;
  box.reserve(size);
  ByteWriter(box).uint32(static_cast<uint32_t>(size)).text(type).bytes(bytes_);
  return box;
}

void RecordWriter::checkFits(size_t value, int width, const char* what) {
  if (uint64_t{value} >> width != 0) {
    throw ConfigurationBoxError(fmt::format("{} {} do not fit a field of {} bits", value, what, width));
  }
}

void RecordReader::units(std::vector<Bytes>& units, int countWidth) {
  list(units, countWidth, unitLengthWidth / 8, [this](Bytes& unit) {
    size_t length = take(unitLengthWidth);
    if (length > remaining()) throw cutOff();
    ByteView bytes = bits_.bytes.subspan(bits_.bytePosition, length);
    unit.assign(bytes.begin(), bytes.end());
    bits_.bytePosition += length;
  });
}

uint64_t RecordReader::take(int width) {
  if (remaining() * 8 < static_cast<size_t>(bits_.bitPosition) + static_cast<size_t>(width)) throw cutOff();
  uint64_t high = width > 32 ? bits_.readBits(width - 32) : 0;
  return high << 32 | bits_.readBits(std::min(width, 32));
}

ConfigurationBoxError RecordReader::cutOff() {
  return ConfigurationBoxError("the configuration record is cut off");
}

}  // namespace tarn
