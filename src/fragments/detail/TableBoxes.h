#pragma once

#include <cstdint>
#include <deque>
#include <string_view>
#include <utility>

#include "fragments/Runs.h"
#include "movie/MovieTree.h"
#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"

namespace tarn {

// Boxes of a sample table (ISO/IEC 14496-12 8.6, 8.7) from runs.

/// An `stts` or `ctts`.
template <typename T>
MovieBox runBox(std::string_view type, uint8_t version, const Runs<T>& runs) {
  Bytes contents;
  contents.reserve(layout::tableHeaderSize + runs.runCount() * layout::runEntrySize);
  ByteWriter writer(contents);
  writer.uint32(static_cast<uint32_t>(layout::versionWord(version)));
  writer.uint32(static_cast<uint32_t>(runs.runCount()));
  for (const auto& run : runs) writer.uint32(run.count).uint32(static_cast<uint32_t>(run.value));
  return MovieBox::of(type, std::move(contents));
}

MovieBox stssBox(const Runs<bool>& syncs);
MovieBox sdtpBox(const Runs<uint8_t>& dependencies);
/// An `stz2` if `compactBits` is not 0 and they fit that many bits, else an `stsz`.
MovieBox sizeBox(const Runs<uint32_t>& sizes, uint32_t compactBits);
/// A `co64` if they are long, else an `stco`, which must be able to hold them.
MovieBox chunkOffsetBox(const std::deque<uint64_t>& offsets, bool areLong);

}  // namespace tarn
