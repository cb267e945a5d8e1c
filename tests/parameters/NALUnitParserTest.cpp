#include "parameters/NALUnitParser.h"
#include "parameters/ParameterScan.h"
#include "parameters/detail/ParameterSetWalk.h"
#include "support/FaultyFileManager.h"
#include "support/FileTest.h"
#include "support/ParameterSetBuilder.h"

namespace tarn {
namespace {

using namespace test;

const Bytes vps = hevcVPS(0, 1), sps = HEVCSPS{}.bytes(), pps = hevcPPS(0, 1);
const Bytes sei = {0x4E, 1, 5, 0xFF}, slice = {0x26, 1, 0xAA, 0xBB};
const Bytes avcSPS = AVCSPS{}.bytes(), avcPPS = {0x68, 0xCE}, avcSlice = {0x65, 0x88, 0x84};

class NALUnits : public FileTest {
 protected:
  void addSample(uint64_t offset, size_t size) {
    samples_.push_back({.fileOffset = offset, .size = static_cast<uint32_t>(size), .isSyncSample = true});
  }

  /// Lays the samples one behind the other in a file and opens it.
  FileHandle& lay(const std::vector<Bytes>& contents) {
    Bytes all;
    samples_.clear();
    for (const Bytes& sample : contents) {
      addSample(all.size(), sample.size());
      all.insert(all.end(), sample.begin(), sample.end());
    }
    handle_ = open(all);
    return *handle_;
  }

  HEVCParameterSets scan(const std::vector<Bytes>& contents, int nalLengthSize = 4) {
    auto& file = lay(contents);
    return NALUnitParser::scanSamplesForParameterSets(file, samples_, nalLengthSize);
  }

  std::vector<SampleInfo> samples_;
  std::unique_ptr<FileHandle> handle_;
};

TEST_F(NALUnits, VoteOnTheLengthSize) {
  const Bytes four = sampleOf({vps, sps, pps, slice}), two = sampleOf({vps, sps, pps, slice}, 2);
  const Bytes avcFour = sampleOf({avcSPS, avcPPS, avcSlice}), avcTwo = sampleOf({avcSPS, avcPPS, avcSlice}, 2);
  const Bytes prefixNAL = sampleOf({{0x0E, 1, 2}, avcSlice});  // type 14 does not begin a picture
  auto hevc = NALUnitParser::detectNALLengthSize;
  auto avc = NALUnitParser::detectAVCNALLengthSize;
  const std::tuple<decltype(hevc), std::vector<Bytes>, int> cases[] = {
      {hevc, {four}, 4},
      {hevc, {two, four, two}, 2},
      {hevc, {two, four}, 4},
      {hevc, {sampleOf({slice}), {0, 0, 9}}, 4},
      {hevc, {}, 4},
      {avc, {avcFour}, 4},
      {avc, {avcTwo}, 2},
      {avc, {sampleOf({{9, 0xF0}, avcSPS, avcPPS, avcSlice}, 2)}, 2},
      {avc, {prefixNAL}, 4},
      {avc, {sampleOf({{0x0D, 1, 2}, avcSlice}, 2)}, 4},
      {avc, {sampleOf({{0x0C, 1, 2}, avcSlice}, 2)}, 2},
  };
  for (const auto& [detect, samples, size] : cases) {
    auto& file = lay(samples);
    file.seek(3);
    EXPECT_EQ(detect(file, samples_), size);
    EXPECT_EQ(file.offset(), 3u);
  }
  // Of a track three samples vote: neither the first alone, nor all.
  auto& file = lay({four, two, two, four, four});
  EXPECT_EQ(ParameterScan(VideoCodec::hevc, ParameterScan::Purpose::plan, samples_).detectNALLengthSize(file), 2);
}

TEST_F(NALUnits, AVCSetsAreFoundAfterSlicesAsFarAsTheSearchGoes) {
  const Bytes otherSPS = AVCSPS{.cropBottom = 4}.bytes();
  Bytes bigSlice(ParameterSetWalk::searchLimit - 4 - 4, 0x65);
  Bytes edgePPS = {0x68, 1};
  auto& file = lay({sampleOf({avcSPS, avcPPS, avcSlice, {0x68}, avcSPS}), sampleOf({{0x67, 0, 0, 3, 1}, otherSPS}),
                    sampleOf({bigSlice, edgePPS}), sampleOf({Bytes(bigSlice.size() + 4, 0x65), {0x68, 2}})});
  auto sets = NALUnitParser::scanSamplesForAVCParameterSets(file, samples_, 4);
  EXPECT_EQ(sets.ppsArray, (std::vector<Bytes>{avcPPS, {0x68}, edgePPS}));
  EXPECT_EQ(sets.spsArray, (std::vector<Bytes>{avcSPS, {0x67, 0, 0, 3, 1}, otherSPS}));
  EXPECT_EQ(sets.spsRbspArray[0], Bytes(avcSPS.begin() + 1, avcSPS.end()));
  EXPECT_EQ(sets.spsRbspArray[1], (Bytes{0, 0, 1}));
  EXPECT_EQ(sets.spsResolutions, (std::vector<PictureSize>{{1920, 1088}, {1920, 1080}}));
  EXPECT_TRUE(sets.hasResolutionChanges);
  EXPECT_TRUE(sets.requiresMultipleSampleEntries);  // all three SPS have the identifier 0
}

TEST_F(NALUnits, DamageEndsASampleAndNothingElse) {
  const Bytes good = sampleOf({vps, sps, pps, slice});
  Bytes cut = sampleOf({hevcPPS(3, 3)});
  cut.pop_back();
  auto sets = scan({{0, 0, 0, 0, 0x44, 1, 9},
                    {0x00, 0xA0, 0x00, 0x00, 0x44, 1, 9},  // a length of 10,485,760
                    {0, 0, 0, 1, 0x44, 1, 9},              // no room for the header
                    {0, 0, 0},
                    good,
                    cut});
  EXPECT_EQ(sets.ppsArray, std::vector<Bytes>{pps});
  EXPECT_EQ(sets.vpsArray, std::vector<Bytes>{vps});

  // What is behind a sample is not its own.
  lay({sampleOf({vps, sei}), sampleOf({sps, pps})});
  samples_.pop_back();
  EXPECT_EQ(NALUnitParser::scanSamplesForParameterSets(*handle_, samples_, 4).spsArray.size(), 0u);

  // The longest length there is, of an SEI and of a PPS; and an offset that no file reaches.
  Bytes longest(ParameterSetWalk::invalidLength - 1, 0x4E);
  EXPECT_EQ(scan({sampleOf({longest, pps})}).ppsArray.size(), 0u);  // behind the search limit
  longest[0] = 0x44;
  auto& file = lay({sampleOf({longest})});
  addSample(UINT64_MAX - 1, 100);
  EXPECT_EQ(NALUnitParser::scanSamplesForParameterSets(file, samples_, 4).ppsArray, std::vector<Bytes>{longest});
  EXPECT_EQ(scan({good}, 3).ppsArray.size(), 0u);
}

TEST_F(NALUnits, MemoryIsBoundedWhereSamplesOverlap) {
  // A sample begins every 5 bytes, and each reads as a PPS of half a megabyte whose length no other has.
  Bytes bytes;
  for (uint32_t i = 0; i < 200'000; ++i) {
    bytes.insert(bytes.end(), {0, 8, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i), 0x44});
  }
  auto& file = lay({bytes});
  samples_.clear();
  for (uint64_t i = 0; i < 60; ++i) addSample(5 * i, 10);
  EXPECT_THROW(NALUnitParser::scanSamplesForParameterSets(file, samples_, 4), NALUnitParserError);

  // Each sample begins one PPS of four bytes behind the one ahead, and carries some 30,000.
  bytes.clear();
  for (uint32_t i = 0; i < 40'000; ++i) {
    bytes.insert(bytes.end(), {0, 0, 0, 4, 0x44, 1, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)});
  }
  auto& small = lay({bytes});
  samples_.clear();
  for (uint64_t i = 0; i < 60; ++i) addSample(8 * i, ParameterSetWalk::searchLimit);
  EXPECT_THROW(NALUnitParser::scanSamplesForParameterSets(small, samples_, 4), NALUnitParserError);

  // Two samples in turn, each with other contents of the same large PPS: every change has a copy of the sets.
  Bytes one = hevcPPS(0, 0x80), other = hevcPPS(0, 0x88);
  for (Bytes* unit : {&one, &other}) unit->resize(65'535, 0x55);
  auto& turns = lay({sampleOf({sps, one}), sampleOf({sps, other})});
  for (size_t i = 2; i < 400; ++i) samples_.push_back(samples_[i % 2]);
  for (size_t i = 0; i < 400; ++i) samples_[i].index = static_cast<int64_t>(i);
  ParameterScan plan(VideoCodec::hevc, ParameterScan::Purpose::plan, samples_);
  plan.read(turns, 4);
  const ParameterSets none;
  const auto ofEntry = [&](const SampleInfo&) -> const ParameterSets& { return none; };
  EXPECT_EQ(failureOf([&] { plan.segments(400, ParameterScan::Side::both, ofEntry); }),
            "Too many configuration segments");
}

TEST_F(NALUnits, OfTenThousandSamplesOnlyTheBeginningsAreRead) {
  constexpr uint32_t sampleSize = 100'000;
  constexpr uint64_t sampleCount = 10'000;
  FaultyFileManager counting(files_);
  auto handle = counting.open(file_, OpenMode::creating);
  const Bytes front = sampleOf({vps, sps, pps, Bytes(5000, 0x4E), Bytes(90'000, 0x26)});
  for (uint64_t i = 0; i < sampleCount; ++i) {
    addSample(i * sampleSize, sampleSize);
    handle->seek(i * sampleSize);
    handle->write(ByteView(front).first(5100));
  }
  handle->truncate(sampleCount * sampleSize);
  counting.arm({.call = UINT64_MAX, .among = {FileOperation::read}});
  EXPECT_EQ(NALUnitParser::scanSamplesForParameterSets(*handle, samples_, 4).spsArray.size(), 1u);
  // One piece with the sets, one behind the SEI message of 5,000 bytes; no more of a gigabyte.
  EXPECT_EQ(counting.calls(), sampleCount * 2);
}

}  // namespace
}  // namespace tarn
