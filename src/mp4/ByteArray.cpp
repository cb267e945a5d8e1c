#include "mp4/ByteArray.h"

#include <utility>

#include "mp4/DataExtensions.h"

namespace tarn {

ByteArrayError::ByteArrayError(Case kind, std::string description)
    : Error("ByteArrayError", -1, std::move(description)), kind_(kind) {}

ByteArrayError ByteArrayError::insufficientData(const std::string& detail) {
  const std::string words = "the data end before what they must hold";
  return {Case::insufficientData, detail.empty() ? words : words + ": " + detail};
}

ByteArrayError ByteArrayError::invalidOffset() {
  return {Case::invalidOffset, "the data are too short for version and flags"};
}

ByteView ByteArray::take(size_t count) {
  if (count > remaining()) throw ByteArrayError::insufficientData();
  if (count == 0) return {};
  ByteView taken = data.subspan(position, count);
  position += count;
  return taken;
}

uint32_t ByteArray::readUInt32() {
  return loadUInt32(take(4).first<4>());
}

uint64_t ByteArray::readUInt64() {
  return loadUInt64(take(8).first<8>());
}

Bytes ByteArray::readBytes(size_t count) {
  ByteView taken = take(count);
  return {taken.begin(), taken.end()};
}

std::string ByteArray::readUTF8Bytes(size_t count) {
  return decodeUTF8(take(count));
}

void ByteArray::skipVersionAndFlags() {
  if (data.size() < 4) throw ByteArrayError::invalidOffset();
  position = 4;
}

}  // namespace tarn
