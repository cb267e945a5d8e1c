#include "fragments/detail/OtherTables.h"

#include <vector>

#include "mp4/BoxLayout.h"

namespace tarn {
namespace {

// All places count from the contents of a box: version and flags, then in two of them a number of entries.
constexpr layout::Field versionField{0, 1};
constexpr layout::Field countField{4, 4};

bool fitPriorities(Bytes& contents, uint64_t samples) {
  const uint64_t size = countField.offset + samples * sizeof(uint16_t);
  if (contents.size() < size) return false;
  contents.resize(size);
  return true;
}

/// Each byte is about two samples.
bool fitPadding(Bytes& contents, uint64_t samples) {
  const uint64_t size = countField.end() + (samples + 1) / 2;
  if (contents.size() < size || layout::load(contents.data(), countField) < samples) return false;
  contents.resize(size);
  layout::store(contents.data(), countField, samples);
  constexpr uint8_t firstOfTwo = 0xF0;
  if (samples % 2 != 0) contents.back() &= firstOfTwo;
  return true;
}

/// Drops the entries after the last sample. Returns false if none is left.
bool fitSubsamples(Bytes& contents, uint64_t samples) {
  constexpr layout::Field delta{0, 4}, subsamples{4, 2};
  if (contents.size() < countField.end()) return false;
  const size_t subsampleSize = (layout::load(contents.data(), versionField) == 0 ? 2 : 4) + 6;
  const uint64_t entries = layout::load(contents.data(), countField);
  uint64_t kept = 0, sample = 0;  // the latter counts from 1
  size_t end = countField.end();
  for (; kept < entries && contents.size() - end >= subsamples.end(); ++kept) {
    const uint8_t* entry = contents.data() + end;
    sample += layout::load(entry, delta);
    const size_t size = subsamples.end() + layout::load(entry, subsamples) * subsampleSize;
    if (sample > samples || size > contents.size() - end) break;
    end += size;
  }
  contents.resize(end);
  layout::store(contents.data(), countField, kept);
  return kept > 0;
}

}  // namespace

void fitOtherTables(MovieBox& stbl, uint64_t samples) {
  std::erase_if(stbl.children, [&](MovieBox& box) {
    if (box.type == "stdp") return !fitPriorities(box.contents, samples);
    if (box.type == "padb") return !fitPadding(box.contents, samples);
    return box.type == "subs" && !fitSubsamples(box.contents, samples);
  });
}

}  // namespace tarn
