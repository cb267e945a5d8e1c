#include "support/SyntheticMovie.h"

#include "mp4/DataExtensions.h"
#include "support/BoxBuilder.h"

namespace tarn::test {
namespace {

template <typename Rows>
Bytes runsBox(std::string_view type, const Rows& rows) {
  Bytes contents = values({0, static_cast<uint32_t>(rows.size())});
  for (const auto& [count, value] : rows) ByteWriter(contents).uint32(count).uint32(static_cast<uint32_t>(value));
  return box(type, {contents});
}

void appendTime(ByteWriter& writer, const SyntheticTrack& track, uint64_t time) {
  track.longTimes ? writer.uint64(time) : writer.uint32(static_cast<uint32_t>(time));
}

Bytes editBox(const SyntheticTrack& track) {
  Bytes contents = values({track.longTimes ? 1U << 24 : 0, static_cast<uint32_t>(track.edits.size())});
  ByteWriter writer(contents);
  for (const auto& [duration, mediaTime] : track.edits) {
    appendTime(writer, track, duration);
    appendTime(writer, track, static_cast<uint64_t>(mediaTime));
    writer.uint32(0x10000);
  }
  return track.edits.empty() ? Bytes() : box("edts", {box("elst", {contents})});
}

Bytes mediaHeader(const SyntheticTrack& track) {
  Bytes contents = values({track.longTimes ? 1U << 24 : 0});
  ByteWriter writer(contents);
  writer.zeros(track.longTimes ? 16 : 8).uint32(track.timescale);
  appendTime(writer, track, track.mediaDuration);
  writer.zeros(4);
  return box("mdhd", {contents});
}

/// Appends the track's samples to the media and gives its `trak`.
Bytes trackOf(const SyntheticTrack& track, Bytes& media) {
  Bytes sizes = values({0, 0, track.samples});
  Bytes chunks;
  for (uint32_t i = 0; i < track.samples; ++i) {
    if (i % track.samplesPerChunk == 0) ByteWriter(chunks).uint32(static_cast<uint32_t>(8 + media.size()));
    const Bytes sample = track.sample.empty() ? Bytes(i % 7 + 1, static_cast<uint8_t>(i)) : track.sample;
    ByteWriter(sizes).uint32(static_cast<uint32_t>(sample.size()));
    media.insert(media.end(), sample.begin(), sample.end());
  }
  auto chunkCount = static_cast<uint32_t>(chunks.size() / 4);
  Bytes stbl = box("stbl", {sampleDescriptionBox({track.sampleEntry}), runsBox("stts", track.stts),
                            track.ctts.empty() ? Bytes() : runsBox("ctts", track.ctts),
                            fullBox("stsc", {1, 1, track.samplesPerChunk, 1}), box("stsz", {sizes}),
                            box("stco", {values({0, chunkCount}), chunks})});
  const Bytes minf = box("minf", {track.handler == "soun" ? fullBox("smhd", {0}) : Bytes(), stbl});
  const Bytes tkhd = fullBox("tkhd", {0, 0, track.trackID, 0, 0});
  return box("trak", {tkhd, editBox(track), box("mdia", {mediaHeader(track), handlerBox(track.handler), minf})});
}

}  // namespace

Bytes audioSampleEntry(std::string_view type, uint32_t sampleRate, uint32_t channels, const Bytes& children) {
  return box(type, {values({0, 1, 0, 0, channels << 16 | 16, 0, sampleRate << 16}), children});
}

Bytes esdsBox(uint8_t objectTypeIndication, const Bytes& specificInfo) {
  auto length = static_cast<uint8_t>(specificInfo.size());
  Bytes config = {objectTypeIndication, 0x15, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  if (length > 0) config = joined({config, {5, length}, specificInfo});
  // The size in the long form that many writers use.
  Bytes descriptor = joined({{0, 1, 0, 4, 0x80, 0x80, 0x80, static_cast<uint8_t>(config.size())}, config});
  return box("esds", {values({0}), {3, static_cast<uint8_t>(descriptor.size())}, descriptor});
}

Bytes aacSampleEntry(uint32_t sampleRate, uint32_t channels, const Bytes& config) {
  return audioSampleEntry("mp4a", sampleRate, channels, esdsBox(0x40, config));
}

Bytes syntheticMovie(const std::vector<SyntheticTrack>& tracks, uint32_t movieTimescale) {
  Bytes media;
  Bytes movie = fullBox("mvhd", {0, 0, movieTimescale, 0});
  for (const SyntheticTrack& track : tracks) movie = joined({movie, trackOf(track, media)});
  return joined({box("mdat", {media}), box("moov", {movie})});
}

}  // namespace tarn::test
