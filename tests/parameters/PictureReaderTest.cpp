#include <algorithm>
#include <random>

#include "mp4/DataExtensions.h"
#include "mp4/MP4SampleTableParser.h"
#include "mp4/SampleTimes.h"
#include "parameters/NALUnitParser.h"
#include "parameters/PictureReader.h"
#include "support/FileTest.h"
#include "support/MediaMaker.h"
#include "support/ParameterSetBuilder.h"

namespace tarn {
namespace {

using namespace test;
using Role = StreamUnit::Role;

/// The units of a sample with length prefixes of 4 bytes.
std::vector<ByteView> unitsIn(ByteView sample) {
  std::vector<ByteView> units;
  while (sample.size() > 4) {
    const size_t length = readUInt32(sample, 0).value();
    units.push_back(sample.subspan(4, length));
    sample = sample.subspan(4 + length);
  }
  return units;
}

/// For the sets of the file's sample entry.
std::unique_ptr<PictureReader> readerFor(FileManager& files, const Path& path, bool isHEVC) {
  const VideoCodec& codec = isHEVC ? VideoCodec::hevc : VideoCodec::avc;
  const Bytes file = readFile(files, path);
  const size_t at = textOf(file).find(codec.configBox);
  const ByteView contents = ByteView(file).subspan(at + 4, readUInt32(file, at - 4).value() - 8);
  return PictureReader::make(codec, codec.readConfigBox(contents).sets);
}

class PictureReaderTest : public FileTest {
 protected:
  /// Holds what the reader says against the tables that the muxer wrote: each sample is one picture, the sync samples
  /// are those, and the order is that of the composition times. Returns the number of slices.
  size_t readAgainstTables(const Path& path, bool isHEVC) {
    const auto reader = readerFor(files_, path, isHEVC);
    const auto file = files_.open(path, OpenMode::reading);
    const auto stbl =
        NALUnitParser::findVideoTrackStbl(*file, MP4BoxUtils::findTopLevelBox(*file, "moov").value()).value();
    MP4SampleTableParser table;
    table.parseSampleTable(*file, stbl);
    const SampleTimes times(*file, stbl, table.sampleCount());
    std::vector<std::pair<PictureOrder, int64_t>> shown;
    size_t slices = 0;
    SampleTimes::Cursor time(times, 0);
    for (const SampleInfo& sample : table.allSamples()) {
      file->seek(sample.fileOffset);
      const Bytes bytes = file->read(sample.size);
      std::optional<PictureOrder> order;
      bool hasSlice = false;
      for (const ByteView bytesOfUnit : unitsIn(bytes)) {
        const auto unit = reader->read(bytesOfUnit.first(std::min(bytesOfUnit.size(), PictureReader::frontSize)));
        EXPECT_TRUE(unit) << "type " << int{bytesOfUnit[0]} << " in sample " << sample.index;
        if (!unit) return 0;
        EXPECT_TRUE(hasSlice ? unit->role != Role::ahead : unit->role != Role::behind);
        if (unit->role != Role::slice) continue;
        ++slices;
        EXPECT_EQ(unit->isSync, sample.isSyncSample) << sample.index;
        EXPECT_TRUE(hasSlice || unit->isFirst) << sample.index;
        hasSlice = true;
        if (!unit->isFirst) continue;
        const auto found = reader->order(*unit);
        EXPECT_NE(order.has_value(), found.has_value()) << "pictures in sample " << sample.index;
        if (found) order = found;
      }
      shown.emplace_back(order.value_or(PictureOrder{}), time.time().compositionTime);
      time.advance();
    }
    std::ranges::sort(shown, {}, &std::pair<PictureOrder, int64_t>::first);
    const bool isAscending =
        std::ranges::is_sorted(shown, std::ranges::less_equal(), &std::pair<PictureOrder, int64_t>::second);
    EXPECT_TRUE(isAscending);
    return slices;
  }
};

TEST_F(PictureReaderTest, OrderAndSyncAreThoseOfTheTablesThatTheMuxerWrote) {
  struct Row {
    VideoRecipe recipe;
    size_t slices;
  };
  const Row rows[] = {
      {{"libx264", "keyint=30:bframes=3:b-pyramid=normal:weightp=2:weightb=1"}, 50},
      {{"libx264", "bframes=0:ref=1:profile=baseline:keyint=250"}, 50},
      {{"libx264", "slices=4:keyint=9:min-keyint=9:bframes=2:aud=1:repeat-headers=1"}, 200},
      {{"libx264", "tff=1:bframes=2:keyint=20", "yuv420p", "192x160"}, 50},
      {{"libx264", "bframes=16:b-adapt=0:ref=16:keyint=250:deblock=2,-3", "yuv444p"}, 50},
      {{"libx264", "bframes=3:keyint=250", "yuv420p", "192x144", 12}, 300},
      {{"libx265", "keyint=25:bframes=4:b-pyramid=1:open-gop=1:repeat-headers=1"}, 50},
      {{"libx265", "keyint=10:min-keyint=10:bframes=2:open-gop=0:aud=1:hrd=1:vbv-maxrate=500:vbv-bufsize=500"}, 50},
      {{"libx265", "bframes=0:slices=3", "yuv420p10le", "192x288"}, 150},
      {{"libx265", "temporal-layers=1:bframes=3:b-adapt=0:keyint=250", "yuv444p", "192x144", 12}, 300},
  };
  for (const auto& [recipe, slices] : rows) {
    SCOPED_TRACE(recipe.codec + recipe.pixelFormat + recipe.parameters);
    EXPECT_EQ(readAgainstTables(encodedVideo(recipe), recipe.codec == "libx265"), slices);
  }
}

TEST_F(PictureReaderTest, BytesThatAreNoUnitAreNotTakenForOne) {
  for (const bool isHEVC : {false, true}) {
    const Path file = encodedVideo({.codec = isHEVC ? "libx265" : "libx264", .parameters = "keyint=25"});
    const auto reader = readerFor(files_, file, isHEVC);
    std::minstd_rand random(11);
    int slices = 0;
    for (int round = 0; round < 20000; ++round) {
      Bytes bytes(64 + random() % 64);
      for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random() >> 8);
      const auto unit = reader->read(ByteView(bytes).first(1 + random() % bytes.size()));
      slices += unit && unit->role == Role::slice ? 1 : 0;
    }
    EXPECT_LT(slices, isHEVC ? 20 : 200);
    EXPECT_FALSE(reader->read({}));
  }
}

/// An AVC PPS, and the front of a slice under it and AVCSPS: of an IDR picture, or of a reference that P slices make
/// up.
Bytes avcPPS(uint32_t sliceGroupsMinus1 = 0, uint32_t references = 1, bool weighsP = false) {
  BitBuilder pps;
  pps.bits(0x68, 8).ue(0).ue(0).bits(0, 2).ue(sliceGroupsMinus1).ue(references - 1).ue(0);
  pps.bits(weighsP, 1).bits(0, 2).se(0).se(0).se(0);
  return pps.bits(0b100, 3).bits(1, 1).bytes();  // the deblocking is told
}

struct AVCSlice {
  bool isIDR = false;
  uint32_t lsb = 0;
  uint32_t reorderings = 0, reordering = 0;
  int weights = 0;  ///< none of which is told
  std::vector<uint32_t> markings = {};
  int32_t quantizer = 0;
  uint32_t deblocking = 0;
  int32_t offset = 6;
  bool listsEnd = true;

  Bytes bytes() const {
    BitBuilder slice;
    slice.bits(isIDR ? 0x65 : 0x41, 8).ue(0).ue(isIDR ? 7 : 5).ue(0).bits(0, 4);
    if (isIDR) slice.ue(0);
    slice.bits(lsb, 6);
    if (!isIDR) slice.bits(0, 1).bits(reorderings > 0, 1);
    for (uint32_t i = 0; i < reorderings; ++i) slice.ue(reordering).ue(0);
    if (reorderings > 0 && listsEnd) slice.ue(3);
    if (weights > 0) slice.ue(0).ue(0).bits(0, 2 * weights);
    isIDR ? slice.bits(0, 2) : slice.bits(!markings.empty(), 1);
    for (const uint32_t marking : markings) marking == 5 ? slice.ue(5) : slice.ue(marking).ue(0);
    if (!markings.empty() && listsEnd) slice.ue(0);
    slice.se(quantizer).ue(deblocking);
    if (deblocking != 1) slice.se(offset).se(offset);
    return slice.bits(1, 1).bits(0x55, 8).bytes();
  }
};

TEST_F(PictureReaderTest, ASliceIsOneWhereItsHeaderSaysWhatTheStandardAllows) {
  ParameterSets sets;
  sets.spsArray = {AVCSPS{}.bytes()};
  sets.ppsArray = {avcPPS()};
  const auto reader = PictureReader::make(VideoCodec::avc, sets);
  const std::pair<AVCSlice, bool> cases[] = {
      {{.isIDR = true}, true},
      {{}, true},
      {{.deblocking = 1, .offset = 7}, true},
      {{.deblocking = 2}, true},
      {{.deblocking = 3}, false},
      {{.offset = 7}, false},
      {{.offset = -7}, false},
      {{.quantizer = 87}, true},
      {{.quantizer = 88}, false},
      {{.reorderings = 64}, true},
      {{.reorderings = 65, .listsEnd = false}, false},
      {{.reorderings = 1, .reordering = 4, .markings = {0}, .listsEnd = false}, false},
      {{.markings = std::vector<uint32_t>(64, 1)}, true},
      {{.markings = std::vector<uint32_t>(65, 1), .listsEnd = false}, false},
      {{.markings = {7}}, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(reader->read(c.first.bytes()).has_value(), c.second) << "case " << &c - cases;
  }
  // The ends of a sequence and of a stream have no contents.
  for (const uint8_t type : Bytes{10, 11}) EXPECT_TRUE(reader->read(Bytes{type}).value().role == Role::behind);
  // The count begins anew with an IDR picture, and behind one that says so itself.
  const auto orderOf = [&](const AVCSlice& slice) {
    return reader->order(reader->read(slice.bytes()).value()).value();
  };
  EXPECT_EQ(orderOf({.isIDR = true}), (PictureOrder{1, 0}));
  EXPECT_EQ(orderOf({.lsb = 20}), (PictureOrder{1, 20}));
  EXPECT_EQ(orderOf({.lsb = 40, .markings = {5}}), (PictureOrder{2, 0}));
  EXPECT_EQ(orderOf({.lsb = 4}), (PictureOrder{2, 4}));

  sets.ppsArray = {avcPPS(0, 2, true)};
  EXPECT_TRUE(PictureReader::make(VideoCodec::avc, sets)->read(AVCSlice{.weights = 2}.bytes()));
  sets.ppsArray = {avcPPS(1)};
  EXPECT_EQ(failureOf([&] { PictureReader::make(VideoCodec::avc, sets); }),
            "The pictures are divided into slice groups, which are not read");
}

TEST_F(PictureReaderTest, HEVCSetsAreReadUpToTheLargestThatTheStandardAllows) {
  ParameterSets sets;
  sets.ppsArray = {BitBuilder().bits(0x4401, 16).ue(0).ue(0).bits(0, 5).bits(1, 1).bits(0x55, 8).bytes()};
  const auto readerOf = [&](uint32_t width, uint32_t height, uint32_t orderBits, uint32_t log2OfBlock) {
    BitBuilder sps;
    sps.bits(0x4201, 16).bits(1, 8).bits(0, 64).bits(0, 32).ue(0).ue(1).ue(width).ue(height).bits(0, 1).ue(0).ue(0);
    sps.ue(orderBits - 4).bits(1, 1).ue(0).ue(0).ue(0).ue(0).ue(log2OfBlock - 3).bits(0x55, 8);
    sets.spsArray = {sps.bytes()};
    return PictureReader::make(VideoCodec::hevc, sets);
  };
  const struct {
    uint32_t width, height, orderBits, log2OfBlock;
    bool isRead;
  } cases[] = {{16384, 16384, 4, 6, true}, {16385, 64, 4, 6, false}, {64, 16385, 4, 6, false}, {0, 64, 4, 6, false},
               {64, 0, 4, 6, false},       {64, 64, 16, 3, true},    {64, 64, 17, 3, false},   {64, 64, 4, 7, false}};
  for (const auto& c : cases) {
    const std::string failure = failureOf([&] { readerOf(c.width, c.height, c.orderBits, c.log2OfBlock); });
    EXPECT_EQ(failure, c.isRead ? "" : "A sequence parameter set cannot be read") << "case " << &c - cases;
  }
  // The PPS announces no further bits of a slice; the flag behind their number does not count.
  const Bytes slice = BitBuilder().bits(0x0201, 16).bits(1, 1).ue(0).ue(2).bits(5, 4).bits(1, 1).bits(0x55, 8).bytes();
  const auto reader = readerOf(64, 64, 4, 6);
  EXPECT_EQ(reader->read(slice).value().orderLSB, 5u);
  for (const uint8_t type : Bytes{36, 37}) {  // the ends of a sequence and of a stream have no contents
    EXPECT_TRUE(reader->read(Bytes{static_cast<uint8_t>(type << 1), 1}).value().role == Role::behind);
  }
  Bytes ofAnotherLayer = slice;
  ofAnotherLayer[1] |= 1 << 3;
  EXPECT_FALSE(reader->read(ofAnotherLayer));
  // Units of the types from 48 on may stand there, those of the types before are nobody's yet.
  EXPECT_TRUE(reader->read(Bytes{48 << 1, 1, 0xFF}) && !reader->read(Bytes{47 << 1, 1, 0xFF}));
}

TEST_F(PictureReaderTest, SetsThatCannotBeReadAreRefused) {
  for (const VideoCodec* codec : {&VideoCodec::avc, &VideoCodec::hevc}) {
    EXPECT_EQ(failureOf([&] { PictureReader::make(*codec, {}); }), "There are no picture parameter sets");
    ParameterSets damaged;
    damaged.spsArray = {Bytes{0x67, 0x64, 0x00, 0x0A, 0xAC, 0xD9}};
    damaged.ppsArray = {Bytes{0x68, 0xEB, 0xE3, 0xCB, 0x22, 0xC0}};
    EXPECT_EQ(failureOf([&] { PictureReader::make(*codec, damaged); }), "A sequence parameter set cannot be read");
  }
  ParameterSets cropped, cut;  // to less than nothing, behind the bit depths
  cut.spsArray = {HEVCSPS{}.bytes()};
  cut.ppsArray = {hevcPPS(0, 0x80)};
  EXPECT_NE(failureOf([&] { PictureReader::make(VideoCodec::hevc, cut); }), "");
  cropped.spsArray = {AVCSPS{.widthInMbs = 1, .cropRight = 100}.bytes()};
  cropped.ppsArray = {avcPPS()};
  EXPECT_NE(failureOf([&] { PictureReader::make(VideoCodec::avc, cropped); }), "");
  const std::pair<AVCSPS, bool> limits[] = {{{.pictureOrderCountType = 1, .orderCycle = 255}, true},
                                            {{.pictureOrderCountType = 1, .orderCycle = 256}, false},
                                            {{.widthInMbs = 1024}, true},
                                            {{.widthInMbs = 1025}, false}};
  for (const auto& [sps, isRead] : limits) {
    ParameterSets sets;
    sets.spsArray = {sps.bytes()};
    const std::string failure = failureOf([&] { PictureReader::make(VideoCodec::avc, sets); });
    EXPECT_EQ(failure != "A sequence parameter set cannot be read", isRead) << failure;
  }
}

}  // namespace
}  // namespace tarn
