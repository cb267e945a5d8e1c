#include "remux/MP4Remuxer.h"

#include <utility>

#include "parameters/VideoCodec.h"
#include "remux/detail/AtomicRewrite.h"
#include "remux/detail/ParameterSetRemux.h"
#include "remux/detail/ParentBoxSizes.h"
#include "remux/detail/SampleEntryInjection.h"
#include "remux/detail/SampleTableReplacement.h"
#include "remux/detail/SeveralEntries.h"
#include "remux/detail/TagRepair.h"

namespace tarn {
namespace {

/// The record that a caller hands over, or a new one in its place.
RemuxTimings& filled(std::optional<RemuxTimings>& timings) {
  return timings ? *timings : timings.emplace();
}

}  // namespace

void MP4Remuxer::adjustChunkOffsets(std::span<uint8_t> moovData, const ChunkOffsetShift& shift) {
  tarn::adjustChunkOffsets(moovData, shift);
}

std::optional<std::string> MP4Remuxer::detectHEVCTag(FileManager& files, const Path& fileURL) {
  return tarn::detectHEVCTag(files, fileURL);
}

std::optional<std::string> MP4Remuxer::readVideoCodecFromStsd(FileHandle& file, const MP4BoxInfo& stsd) {
  return tarn::readVideoCodecFromStsd(file, stsd);
}

bool MP4Remuxer::remuxAVCTag(FileManager& files, const Path& fileURL, std::string_view /*codecTag*/) {
  return tarn::remuxAVCTag(files, fileURL);
}

void MP4Remuxer::remuxHEVCWithParameterExtraction(FileManager& files, const Path& fileURL,
                                                  const CancellationToken* cancellationToken,
                                                  std::optional<RemuxTimings>& timings, const VideoPlan* plan,
                                                  const RewriteCheck& check) {
  remuxWithParameterExtraction(files, fileURL, VideoCodec::hevc, cancellationToken, filled(timings), plan, check);
}

void MP4Remuxer::remuxAVCWithParameterExtraction(FileManager& files, const Path& fileURL, std::string_view /*codecTag*/,
                                                 const CancellationToken* cancellationToken,
                                                 std::optional<RemuxTimings>& timings, const VideoPlan* plan,
                                                 const RewriteCheck& check) {
  remuxWithParameterExtraction(files, fileURL, VideoCodec::avc, cancellationToken, filled(timings), plan, check);
}

Bytes MP4Remuxer::injectHvcCBoxIntoMoov(ByteView moovData, ByteView hvcCBox) {
  return injectConfigBoxIntoMoov(moovData, hvcCBox, VideoCodec::hevc);
}

Bytes MP4Remuxer::injectAvcCBoxIntoMoov(ByteView moovData, ByteView avcCBox) {
  return injectConfigBoxIntoMoov(moovData, avcCBox, VideoCodec::avc);
}

size_t MP4Remuxer::findStsdOffsetInTrak(ByteView moovData, size_t trakOffset) {
  return tarn::findStsdOffsetInTrak(moovData, trakOffset);
}

void MP4Remuxer::updateParentBoxSizes(std::span<uint8_t> moovData, int64_t sizeDelta, size_t videoTrakOffset) {
  tarn::updateParentBoxSizes(moovData, sizeDelta, videoTrakOffset);
}

Bytes MP4Remuxer::updateFrmaInSinfData(ByteView sinfData, std::string_view targetCodec) {
  return tarn::updateFrmaInSinfData(sinfData, targetCodec);
}

void MP4Remuxer::remuxWithMultipleSampleEntries(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                                                ByteView moovData, int nalLengthSize, FileHandle& fileHandle,
                                                std::optional<RemuxTimings>& timings,
                                                const std::vector<ConfigurationSegment>& segments,
                                                const RewriteCheck& check) {
  remuxWithSeveralEntries(files, fileURL, moovBox, moovData, nalLengthSize, fileHandle, filled(timings), segments,
                          nullptr, check, VideoCodec::hevc);
}

void MP4Remuxer::remuxAVCWithMultipleSampleEntries(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                                                   ByteView moovData, int nalLengthSize, FileHandle& fileHandle,
                                                   std::optional<RemuxTimings>& timings,
                                                   const std::vector<ConfigurationSegment>& segments,
                                                   const RewriteCheck& check) {
  remuxWithSeveralEntries(files, fileURL, moovBox, moovData, nalLengthSize, fileHandle, filled(timings), segments,
                          nullptr, check, VideoCodec::avc);
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
  RemuxTimings unread;
  tarn::writeAtomicMP4(files, sourceFileURL, moovBox, std::move(newMoovData), fileHandle, timings ? *timings : unread,
                       check);
}

}  // namespace tarn
