#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <random>

#include "media/AACBlock.h"
#include "media/AudioSpecificConfig.h"
#include "media/DecodeCheck.h"
#include "support/Clip.h"
#include "support/FailureOf.h"
#include "support/MediaMaker.h"

namespace tarn::test {
namespace {

/// Holds what the reader says of each packet of a file against the file's own table of sizes; returns the elements of
/// the channels, which must be the same in all.
std::string elementsOf(const Path& file) {
  const Clip clip(file);
  const AVAssetTrack track = clip.asset.withoutEditList(clip.track());
  const auto config = parseAudioSpecificConfig(track.formatDescriptions.at(0)->magicCookie).value();
  const AACBlockReader reader(config.sampleRate);
  const auto samples = clip.asset.compressedSamples(track);
  std::string elements;
  for (int64_t i = 0; const auto sample = samples->next(); ++i) {
    Bytes packet = samples->data(i);
    const size_t size = packet.size();
    EXPECT_FALSE(reader.read(ByteView(packet).first(size - 1))) << "packet " << i << " read from a part";
    packet.insert(packet.end(), {0xE0, 0x21, 0x55, 0xFF, 0x00});  // what comes next does not matter
    const auto block = reader.read(packet);
    EXPECT_TRUE(block && block->size == size) << "packet " << i << " of " << size;
    if (!block) return "unread";
    const std::string found = fmt::format("{:02x}", fmt::join(block->elements, " "));
    if (elements.empty()) elements = found;
    EXPECT_EQ(found, elements) << "packet " << i;
  }
  return elements;
}

TEST(AACBlock, PacketsEndWhereTheTableOfSizesSaysSo) {
  // Noise uses all codebooks and, loud, the escapes; clicks bring short windows and noise shaping.
  constexpr auto loud = "anoisesrc=c=white:a=0.9:d=3";
  constexpr auto soft = "anoisesrc=c=pink:a=0.2:d=3";
  constexpr auto clicks = "aevalsrc='0.9*sin(2*PI*700*t)*lt(mod(t,0.13),0.004)+0.1*sin(2*PI*97*t)':d=3";
  constexpr struct {
    const char* sound;
    const char* encoding;
    const char* elements;
  } rows[] = {
      {loud, "-ar 48000 -ac 2 -b:a 320k", "10"},
      {loud, "-ar 44100 -ac 1 -b:a 24k", "00"},
      {loud, "-ar 96000 -ac 2 -b:a 500k", "10"},
      {loud, "-ar 64000 -ac 2", "10"},
      {loud, "-ar 16000 -ac 2", "10"},
      {soft, "-ar 32000 -ac 2 -b:a 64k -aac_coder fast", "10"},
      {soft, "-ar 24000 -ac 1", "00"},
      {soft, "-ar 8000 -ac 1", "00"},
      {soft, "-ar 11025 -ac 2", "10"},
      {clicks, "-ar 48000 -ac 2 -b:a 128k -aac_coder twoloop", "10"},
      {clicks, "-ar 48000 -ac 2 -b:a 40k", "10"},
      {clicks, "-ar 22050 -ac 1 -b:a 96k", "00"},
      {clicks, "-ar 48000 -ac 6 -b:a 400k", "00 10 11 30"},
      {clicks, "-ar 44100 -ac 4 -b:a 300k", "00 10 01"},
      {"sine=f=440:d=3", "-ar 44100 -ac 2 -aac_is 1 -aac_pns 1 -b:a 32k", "10"},
      {"anullsrc=d=3", "-ar 48000 -ac 2 -t 2", "10"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(fmt::format("{} {}", row.sound, row.encoding));
    auto arguments = words(fmt::format("-f lavfi -i {} -c:a aac {}", row.sound, row.encoding));
    EXPECT_EQ(elementsOf(madeByFFmpeg(arguments, ".m4a")), row.elements);
  }
}

TEST(AACBlock, BytesThatAreNoPacketAreNotTakenForOne) {
  const AACBlockReader reader(48000);
  std::minstd_rand random(7);
  int taken = 0;
  for (int round = 0; round < 20000; ++round) {
    Bytes bytes(1500);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random() >> 8);
    const auto block = reader.read(bytes);
    EXPECT_TRUE(!block || block->size <= bytes.size());
    taken += block && block->size > 100 ? 1 : 0;
  }
  EXPECT_LT(taken, 20);
  EXPECT_FALSE(reader.read({}));
  EXPECT_FALSE(reader.read(Bytes{0xE0}));  // the end, without a channel
  EXPECT_NE(failureOf([] { AACBlockReader(0); }), "");
}

TEST(DecodeCheck, ASampleThatHoldsMoreThanItsFrameIsNotKnownToBeGood) {
  const Clip clip(madeByFFmpeg(words("-f lavfi -i sine=d=1 -c:a aac"), ".m4a"));
  DecodeCheck check(DecodeCheck::Codec::aac, clip.track().formatDescriptions.at(0)->magicCookie);
  const auto samples = clip.samples();
  for (int64_t i = 0; i < 5; ++i) {
    ASSERT_TRUE(samples->next());
    Bytes sample = samples->data(i);
    if (i == 4) sample.insert(sample.end(), 200, 0xFF);
    EXPECT_EQ(check.take(sample, i), i < 4);
  }
  EXPECT_FALSE(check.finish());
  EXPECT_EQ(check.goodSamples(), 4U);
}

}  // namespace
}  // namespace tarn::test
