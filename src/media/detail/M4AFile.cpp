#include "media/detail/M4AFile.h"

#include <algorithm>
#include <array>

#include "media/detail/AACEncoder.h"
#include "mp4/AudioBoxBuilders.h"
#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"
#include "mp4/SampleTableBuilders.h"

namespace tarn {
namespace {

constexpr size_t packetsPerChunk = 47;          // about a second
constexpr size_t writePiece = size_t{1} << 20;  // bytes
constexpr size_t flushPiece = size_t{8} << 20;  // bytes

/// The entries of the `stts`: packets of 1024 frames, of which the last is as short as the frames ask for. Where a
/// shortage could be spread evenly over all packets, it would be by whoever makes one entry of the table: then the last
/// packet stays whole.
std::vector<TimeToSampleEntry> packetDurations(uint32_t packets, int64_t frames) {
  if (packets == 0) return {};
  constexpr auto whole = static_cast<uint32_t>(framesPerAACPacket);
  const int64_t missing = int64_t{packets} * whole - frames;
  if (missing % packets == 0) return {{packets, whole}};
  return {{packets - 1, whole}, {1, whole - static_cast<uint32_t>(missing)}};
}

std::vector<SampleToChunkEntry> chunkRuns(uint32_t packets) {
  constexpr auto full = static_cast<uint32_t>(packetsPerChunk);
  std::vector<SampleToChunkEntry> runs;
  if (packets >= full) runs.push_back({1, full, 1});
  if (packets % full != 0) runs.push_back({packets / full + 1, packets % full, 1});
  return runs;
}

}  // namespace

M4AFile::M4AFile(FileManager& files, const Path& path)
    : file_(files.open(path, OpenMode::exclusive)), name_(files, path) {
  Bytes head = buildFtypBox();
  ByteWriter(head).uint32(1).text("mdat").uint64(0);  // its size comes at the end
  file_->write(head);
  mediaStart_ = position_ = head.size();
}

void M4AFile::append(const std::vector<Bytes>& packets) {
  Bytes piece;
  piece.reserve(writePiece);
  for (const Bytes& packet : packets) {
    if (packetSizes_.size() % packetsPerChunk == 0) chunkOffsets_.push_back(position_);
    packetSizes_.push_back(static_cast<uint32_t>(packet.size()));
    position_ += packet.size();
    piece.insert(piece.end(), packet.begin(), packet.end());
    if (piece.size() < writePiece) continue;
    file_->write(piece);
    piece.clear();
  }
  file_->write(piece);
  if (position_ - flushed_ < flushPiece) return;
  file_->synchronize();
  flushed_ = position_;
}

Bytes M4AFile::buildMoov(const AACOutputSettings& settings, int64_t frames) const {
  const auto packets = static_cast<uint32_t>(packetSizes_.size());
  const std::vector<TimeToSampleEntry> durations = packetDurations(packets, frames);
  int64_t duration = 0;
  for (const TimeToSampleEntry& entry : durations) duration += int64_t{entry.sampleCount} * entry.sampleDelta;
  const int64_t timescale = settings.sampleRate;
  const Bytes stbl =
      buildStblBox({buildStsdBox(timescale, settings.sampleRate, settings.channels), buildSttsBox(durations),
                    buildStscBox(chunkRuns(packets)), buildStszBox(packetSizes_), buildChunkOffsetBox(chunkOffsets_)});
  const Bytes trak = buildTrakBox(buildMdiaBox(buildMinfBox(stbl), timescale, duration), duration);
  return buildMoovBox(buildMvhdBox(timescale, duration), trak);
}

void M4AFile::finish(const AACOutputSettings& settings, int64_t frames) {
  file_->write(buildMoov(settings, frames));
  file_->seek(mediaStart_ - layout::longBoxSize.width);
  file_->write(bigEndianBytes(position_ - mediaStart_ + layout::longBoxHeaderSize));
  file_->synchronize();
  file_->close();
}

}  // namespace tarn
