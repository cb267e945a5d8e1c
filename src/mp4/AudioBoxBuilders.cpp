#include "mp4/AudioBoxBuilders.h"

#include <array>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"
#include "platform/Error.h"
#include "platform/Log.h"

namespace tarn {
namespace {

constexpr uint32_t bitRate = 128000;  // stated in the esds
constexpr std::array<uint32_t, 9> unityMatrix = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};

uint32_t fitting(int64_t value, std::string_view what) {
  if (value < 0 || value > std::numeric_limits<uint32_t>::max()) {
    throw Error("AudioBoxBuilders", -1, fmt::format("{} {} does not fit 32 bits", what, value));
  }
  return static_cast<uint32_t>(value);
}

bool isChannelConfiguration(int channels) {
  return channels == 1 || channels == 2;
}

uint8_t channelConfiguration(int channels) {
  if (!isChannelConfiguration(channels)) {
    throw Error("AudioBoxBuilders", -1, fmt::format("{} channels cannot be described", channels));
  }
  return static_cast<uint8_t>(channels);
}

Bytes boxOf(std::string_view type, std::initializer_list<ByteView> contents) {
  size_t size = layout::boxHeaderSize;
  for (ByteView part : contents) size += part.size();
  Bytes box;
  box.reserve(size);
  ByteWriter writer(box);
  writer.uint32(fitting(static_cast<int64_t>(size), "The box's size")).text(type);
  for (ByteView part : contents) writer.bytes(part);
  return box;
}

/// A full box of version 0 around what `write` appends.
template <typename Write>
Bytes fullBox(std::string_view type, uint32_t flags, Write&& write) {
  Bytes contents;
  ByteWriter writer(contents);
  writer.uint32(flags);
  write(writer);
  return boxOf(type, {contents});
}

void writeMatrix(ByteWriter& writer) {
  for (uint32_t value : unityMatrix) writer.uint32(value);
}

std::optional<uint8_t> frequencyIndex(int64_t sampleRate) {
  switch (sampleRate) {
    case 48000:
      return 3;
    case 44100:
      return 4;
    case 24000:
      return 6;
    default:
      return std::nullopt;
  }
}

}  // namespace

Bytes audioSpecificConfig(int64_t sampleRate, int channels) {
  const auto known = frequencyIndex(sampleRate);
  if (!known) log("WARNING: Unsupported sample rate {}, defaulting to 48kHz", sampleRate);
  const uint8_t index = known.value_or(3);
  // audioObjectType 2 in 5 bits, the index in 4, the channel configuration in 4, three flags of 0.
  return {static_cast<uint8_t>(0x10 | index >> 1),
          static_cast<uint8_t>(((index << 7) & 0xFF) | channelConfiguration(channels) << 3)};
}

bool canBeDescribed(int64_t sampleRate, int channels) {
  return frequencyIndex(sampleRate) && isChannelConfiguration(channels);
}

Bytes buildEsdsBox(int64_t sampleRate, int channels) {
  const Bytes config = audioSpecificConfig(sampleRate, channels);
  const auto length = static_cast<uint8_t>(config.size());
  return fullBox("esds", 0, [&](ByteWriter& writer) {
    writer.uint8(0x03).uint8(static_cast<uint8_t>(length + 23)).uint16(0).uint8(0);  // ES_Descriptor
    writer.uint8(0x04).uint8(static_cast<uint8_t>(length + 15)).uint8(0x40).uint8(0x15).zeros(3);
    writer.uint32(bitRate).uint32(bitRate);          // DecoderConfigDescriptor: maximum, average
    writer.uint8(0x05).uint8(length).bytes(config);  // DecoderSpecificInfo
    writer.uint8(0x06).uint8(1).uint8(2);            // SLConfigDescriptor
  });
}

Bytes buildStsdBox(int64_t timescale, int64_t sampleRate, int channels) {
  Bytes fields;
  ByteWriter(fields)
      .zeros(6)
      .uint16(1)  // data_reference_index
      .zeros(8)
      .uint16(channelConfiguration(channels))
      .uint16(16)  // samplesize
      .zeros(4)
      .uint32(fitting(timescale, "The timescale") << 16);
  const Bytes entry = boxOf("mp4a", {fields, buildEsdsBox(sampleRate, channels)});
  return fullBox("stsd", 0, [&](ByteWriter& writer) { writer.uint32(1).bytes(entry); });
}

Bytes buildFtypBox() {
  Bytes brands;
  ByteWriter(brands).text("M4A ").uint32(0).text("M4A ").text("isom").text("mp42");
  return boxOf("ftyp", {brands});
}

Bytes buildSmhdBox() {
  return fullBox("smhd", 0, [](ByteWriter& writer) { writer.zeros(4); });
}

Bytes buildDinfBox() {
  const Bytes url = fullBox("url ", 1, [](ByteWriter&) {});
  return boxOf("dinf", {fullBox("dref", 0, [&](ByteWriter& writer) { writer.uint32(1).bytes(url); })});
}

Bytes buildHdlrBox() {
  return fullBox("hdlr", 0,
                 [](ByteWriter& writer) { writer.uint32(0).text("soun").zeros(12).text("SoundHandler").zeros(1); });
}

Bytes buildMinfBox(ByteView stbl) {
  return boxOf("minf", {buildSmhdBox(), buildDinfBox(), stbl});
}

Bytes buildMdhdBox(int64_t timescale, int64_t duration) {
  return fullBox("mdhd", 0, [&](ByteWriter& writer) {
    writer.zeros(8).uint32(fitting(timescale, "The timescale")).uint32(fitting(duration, "The duration"));
    writer.uint16(0x55C4).zeros(2);  // language "und"
  });
}

Bytes buildMdiaBox(ByteView minf, int64_t timescale, int64_t duration) {
  return boxOf("mdia", {buildMdhdBox(timescale, duration), buildHdlrBox(), minf});
}

Bytes buildTkhdBox(int64_t duration) {
  constexpr uint32_t isEnabledAndInMovie = 3;
  return fullBox("tkhd", isEnabledAndInMovie, [&](ByteWriter& writer) {
    writer.zeros(8).uint32(1).zeros(4).uint32(fitting(duration, "The duration")).zeros(8);  // track_ID 1
    writer.zeros(4).uint16(0x0100).zeros(2);                                                // volume
    writeMatrix(writer);
    writer.zeros(8);
  });
}

Bytes buildTrakBox(ByteView mdia, int64_t duration) {
  return boxOf("trak", {buildTkhdBox(duration), mdia});
}

Bytes buildMvhdBox(int64_t timescale, int64_t duration) {
  return fullBox("mvhd", 0, [&](ByteWriter& writer) {
    writer.zeros(8).uint32(fitting(timescale, "The timescale")).uint32(fitting(duration, "The duration"));
    writer.uint32(0x00010000).uint16(0x0100).zeros(10);  // rate, volume
    writeMatrix(writer);
    writer.zeros(24).uint32(2);  // next_track_ID
  });
}

Bytes buildStblBox(std::initializer_list<ByteView> children) {
  return boxOf("stbl", children);
}

Bytes buildMoovBox(ByteView mvhd, ByteView trak) {
  return boxOf("moov", {mvhd, trak});
}

}  // namespace tarn
