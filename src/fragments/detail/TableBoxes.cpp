#include "fragments/detail/TableBoxes.h"

#include <algorithm>

namespace tarn {

MovieBox stssBox(const Runs<bool>& syncs) {
  Bytes numbers;
  ByteWriter writer(numbers);
  uint64_t number = 1;
  for (const auto& run : syncs) {
    for (uint64_t i = 0; run.value && i < run.count; ++i) writer.uint32(static_cast<uint32_t>(number + i));
    number += run.count;
  }
  Bytes contents;
  ByteWriter(contents).uint32(0).uint32(static_cast<uint32_t>(numbers.size() / layout::syncEntrySize)).bytes(numbers);
  return MovieBox::of("stss", std::move(contents));
}

MovieBox sdtpBox(const Runs<uint8_t>& dependencies) {
  Bytes contents;
  ByteWriter(contents).uint32(0);
  for (const auto& run : dependencies) contents.insert(contents.end(), run.count, run.value);
  return MovieBox::of("sdtp", std::move(contents));
}

MovieBox sizeBox(const Runs<uint32_t>& sizes, uint32_t compactBits) {
  const bool haveOneSize = sizes.runCount() == 1 && sizes.last() > 0;
  const bool fit = std::ranges::all_of(sizes, [&](const auto& run) { return run.value >> compactBits == 0; });
  const bool isCompact = compactBits > 0 && fit;
  const auto count = static_cast<uint32_t>(sizes.size());
  const std::string_view type = isCompact ? "stz2" : "stsz";
  Bytes contents;
  if (!haveOneSize) contents.reserve(3 * sizeof(uint32_t) + sizes.size() * sizeof(uint32_t));
  ByteWriter writer(contents);
  writer.uint32(0).uint32(isCompact ? compactBits : haveOneSize ? sizes.last() : 0).uint32(count);
  if (!isCompact && haveOneSize) return MovieBox::of(type, std::move(contents));
  bool isLowHalf = false;
  for (const auto& run : sizes) {
    for (uint32_t i = 0; i < run.count; ++i, isLowHalf = !isLowHalf) {
      if (!isCompact) {
        writer.uint32(run.value);
      } else if (compactBits == 16) {
        writer.uint16(static_cast<uint16_t>(run.value));
      } else if (compactBits == 8) {
        writer.uint8(static_cast<uint8_t>(run.value));
      } else if (isLowHalf) {
        contents.back() = static_cast<uint8_t>(contents.back() | run.value);
      } else {
        writer.uint8(static_cast<uint8_t>(run.value << 4));
      }
    }
  }
  return MovieBox::of(type, std::move(contents));
}

MovieBox chunkOffsetBox(const std::deque<uint64_t>& offsets, bool areLong) {
  Bytes contents;
  contents.reserve(2 * sizeof(uint32_t) + offsets.size() * (areLong ? sizeof(uint64_t) : sizeof(uint32_t)));
  ByteWriter writer(contents);
  writer.uint32(0).uint32(static_cast<uint32_t>(offsets.size()));
  for (const uint64_t offset : offsets) {
    areLong ? writer.uint64(offset) : writer.uint32(static_cast<uint32_t>(offset));
  }
  return MovieBox::of(areLong ? "co64" : "stco", std::move(contents));
}

}  // namespace tarn
