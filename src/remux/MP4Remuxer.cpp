#include "remux/MP4Remuxer.h"

#include <utility>

#include "remux/detail/AtomicRewrite.h"
#include "remux/detail/ParentBoxSizes.h"
#include "remux/detail/SampleTableReplacement.h"

namespace tarn {

void MP4Remuxer::adjustChunkOffsets(std::span<uint8_t> moovData, const ChunkOffsetShift& shift) {
  tarn::adjustChunkOffsets(moovData, shift);
}

size_t MP4Remuxer::findStsdOffsetInTrak(ByteView moovData, size_t trakOffset) {
  return tarn::findStsdOffsetInTrak(moovData, trakOffset);
}

void MP4Remuxer::updateParentBoxSizes(std::span<uint8_t> moovData, int64_t sizeDelta, size_t videoTrakOffset) {
  tarn::updateParentBoxSizes(moovData, sizeDelta, videoTrakOffset);
}

MP4Remuxer::BoxRange MP4Remuxer::findStblBoxInMoov(ByteView moovData) {
  const BoxHeader stbl = tarn::findStblBoxInMoov(moovData);
  return {static_cast<size_t>(stbl.offset), static_cast<size_t>(stbl.size)};
}

Bytes MP4Remuxer::extractStsdBoxFromMoov(ByteView moovData) {
  return tarn::extractStsdBoxFromMoov(moovData);
}

Bytes MP4Remuxer::buildMoovWithMultipleEntries(ByteView originalMoov, const std::vector<Bytes>& newSampleEntries,
                                               ByteView newStscBox, ByteView newChunkOffsetBox) {
  return tarn::buildMoovWithMultipleEntries(originalMoov, newSampleEntries, newStscBox, newChunkOffsetBox);
}

Bytes MP4Remuxer::replaceBoxesInStbl(ByteView stblData, ByteView newStsd, ByteView newStsc, ByteView newChunkOffset) {
  return tarn::replaceBoxesInStbl(stblData, newStsd, newStsc, newChunkOffset);
}

void MP4Remuxer::updateParentBoxSizesForStbl(std::span<uint8_t> moovData, int64_t sizeDelta, size_t videoTrakOffset) {
  tarn::updateParentBoxSizesForStbl(moovData, sizeDelta, videoTrakOffset);
}

void MP4Remuxer::writeAtomicMP4(FileManager& files, const Path& sourceFileURL, const MP4BoxInfo& moovBox,
                                Bytes newMoovData, FileHandle& fileHandle, std::optional<RemuxTimings>& timings,
                                const RewriteCheck& check) {
  tarn::writeAtomicMP4(files, sourceFileURL, moovBox, std::move(newMoovData), fileHandle, timings, check);
}

}  // namespace tarn
