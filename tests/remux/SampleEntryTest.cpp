#include <functional>

#include "mp4/ByteArray.h"
#include "mp4/DataExtensions.h"
#include "parameters/AVCConfigurationBox.h"
#include "remux/RemuxFixture.h"
#include "remux/VisualSampleEntryBuilder.h"
#include "support/ParameterSetBuilder.h"

namespace tarn {
namespace {

using namespace test;
using Builder = VisualSampleEntryBuilder;
using Children = std::initializer_list<Bytes>;

const Bytes hvcC = box("hvcC", {Bytes(30, 1)}), avcC = box("avcC", {Bytes(30, 2)});
const Bytes pasp = box("pasp", {Bytes(8, 3)}), colr = box("colr", {Bytes(11, 4)}), clap = box("clap", {Bytes(32, 5)});
const std::string corrupted = "Corrupted MP4 file: ", unsupported = "Unsupported format: ";
const std::string ends = ByteArrayError::insufficientData().description();

Bytes movieWithTable(const Bytes& stsd) {
  return box("moov", {box("mvhd", {Bytes(4)}), trackBox("soun", {sampleDescriptionBox({box("mp4a", {Bytes(30)})})}),
                      trackBox("vide", {stsd, fullBox("stco", {1, 9})}), box("udta", {Bytes(5)})});
}

Bytes movieWith(const Bytes& entry, const Bytes& behind = {}) {
  return movieWithTable(joined({box("stsd", {values({0, 2}), entry, behind})}));
}

Bytes protection(std::string_view format) {
  return box("sinf", {box("frma", {Bytes(format.begin(), format.end())}), box("schm", {Bytes(12)})});
}

Bytes hev1(Children children) {
  return visualSampleEntry("hev1", children);
}
Bytes hvc1(Children children) {
  return visualSampleEntry("hvc1", children);
}

class SampleEntry : public FileTest {};

TEST_F(SampleEntry, TagIsRepairedWhereThereIsARecord) {
  const Bytes whole = AVCConfigurationBox({AVCSPS{}.bytes()}, {{0x68, 0xCE, 0x3D}}, {}, 4).buildAvcCBox();
  const auto avc3 = [](Children children) { return movieWith(visualSampleEntry("avc3", children)); };
  const std::pair<Bytes, std::string> cases[] = {
      {movieWith(visualSampleEntry("avc1", {whole})), "done"},
      {avc3({box("avcC"), whole}), "done"},
      {avc3({box("avcC", {Bytes(31)})}), ""},
      {avc3({boxClaiming(500, "pasp", {Bytes(8)}), whole}), ""},
      {movieWith(hvc1({})), ""},
      {movieWith(boxClaiming(UINT32_MAX, "avc3", {Bytes(10)})), corrupted + "Sample entry too small"},
      {movieWith(visualSampleEntry("vp09")), unsupported + "Expected avc1 or avc3, found vp09"},
      {movieWithTable(box("stsd", {values({0, 1})})), ends},
  };
  for (const auto& [movie, outcome] : cases) {
    write(movie);
    bool isDone = false;
    const std::string failure = failureOf([&] { isDone = MP4Remuxer::remuxAVCTag(files_, file_, "avc3"); });
    EXPECT_EQ(isDone ? "done" : failure, outcome);
    EXPECT_TRUE(isDone || written() == movie) << outcome;
  }
}

TEST_F(SampleEntry, GetsTheNewBoxAndKeepsTheRest) {
  const Bytes second = hvc1({box("hvcC")}), free8 = box("free");
  const Bytes overrun = boxClaiming(99, "colr", {Bytes(20)}), noSize = boxClaiming(0, "pasp");
  const Bytes noName = box("\xA9xyz"), hevC = box("hevC", {Bytes(99)});
  // Into the first entry of a movie the box goes ahead of the others, into a copy behind them.
  struct {
    Bytes entry, injected, cloned;
  } cases[] = {
      {hev1({pasp, box("hvcC"), colr}), hvc1({hvcC, pasp, colr}), hvc1({pasp, colr, hvcC})},
      {hvc1({hevC, avcC}), hvc1({hvcC, avcC}), hvc1({hevC, avcC, hvcC})},
      {visualSampleEntry("encv", {protection("hev1"), box("hvcC"), pasp}),
       visualSampleEntry("encv", {hvcC, protection("hvc1"), pasp}),
       visualSampleEntry("encv", {protection("hvc1"), pasp, hvcC})},
      {hev1({protection("hev1")}), hvc1({hvcC, protection("hev1")}), hvc1({protection("hev1"), hvcC})},
      {hev1({pasp, overrun}), hvc1({hvcC, pasp}), hvc1({pasp, hvcC})},
      {hev1({noSize, colr}), hvc1({hvcC}), hvc1({hvcC})},
      {hev1({pasp, noName, colr}), hvc1({hvcC, pasp}), hvc1({pasp, noName, colr, hvcC})},
      {hev1({pasp, Bytes(7)}), hvc1({hvcC, pasp}), hvc1({pasp, hvcC})},
      {hev1({free8, free8}), hvc1({hvcC, free8, free8}), hvc1({free8, hvcC})},
  };
  for (const auto& [entry, injected, cloned] : cases) {
    EXPECT_EQ(MP4Remuxer::injectHvcCBoxIntoMoov(movieWith(entry, second), hvcC), movieWith(injected, second));
    EXPECT_EQ(Builder::cloneEntryWithNewHvcC(entry, hvcC, "hvc1", {}), cloned);
  }
  EXPECT_EQ(MP4Remuxer::injectAvcCBoxIntoMoov(movieWith(visualSampleEntry("avc3", {pasp, box("avcC")})), avcC),
            movieWith(visualSampleEntry("avc1", {avcC, pasp})));
  EXPECT_EQ(
      Builder::cloneEntryWithNewAvcC(visualSampleEntry("encv", {protection("avc3"), avcC, hvcC}), avcC, "avc1", {}),
      visualSampleEntry("encv", {protection("avc1"), hvcC, avcC}));
  // A child that is too large ends a copy.
  for (uint32_t size : {0x63FFFFFu, 0x6400000u}) {
    Bytes entry = hev1({pasp, box("free", {Bytes(size - 8)}), colr});
    size_t kept = size == 0x6400000 ? 0 : size + colr.size();
    EXPECT_EQ(Builder::cloneEntryWithNewHvcC(entry, hvcC, "hvc1", {}).size(), 86 + pasp.size() + kept + hvcC.size());
  }
}

TEST_F(SampleEntry, EachCopyStatesItsOwnPictureSize) {
  for (const Bytes& older : {Bytes(), clap}) {
    Bytes sized = hvc1({pasp, hvcC, box("clap", {values({1920, 1, 1080, 1, 0, 1, 0, 1})})});
    writeUInt32(sized, 1920 << 16 | 1080, 32);
    EXPECT_EQ(Builder::cloneEntryWithNewHvcC(hev1({older, pasp}), hvcC, "hvc1", PictureSize{1920, 1080}), sized);
  }
  for (PictureSize odd : {PictureSize{65536, 16}, {16, -1}}) {
    EXPECT_EQ(Builder::cloneEntryWithNewHvcC(hvc1({clap}), hvcC, "hvc1", odd), hvc1({clap, hvcC}));
  }
}

TEST_F(SampleEntry, IsRefusedWhereItCannotBeEdited) {
  const std::string notHEVC = "', not 'hev1', 'hvc1', or 'encv'. Cannot inject hvcC into this track.";
  const Bytes first = hev1({}), second = hvc1({pasp}), stsd = sampleDescriptionBox({first, second});
  const Bytes endless = boxClaiming(UINT32_MAX, "hev1", {Bytes(78)});
  auto inject = [](Bytes moov) { return [moov] { return MP4Remuxer::injectHvcCBoxIntoMoov(moov, hvcC); }; };
  auto extract = [](Bytes table, int64_t index) {
    return [table, index] { return Builder::extractSampleEntry(table, index); };
  };
  const std::pair<std::function<Bytes()>, std::string> cases[] = {
      {inject(box("moov")), corrupted + "No trak boxes found in moov"},
      {inject(movieWith(visualSampleEntry("avc1"))), unsupported + "Video track has codec 'avc1" + notHEVC},
      {inject(movieWith(box("hev1", {Bytes(77)}), Bytes(99))), corrupted + "Sample entry too small"},
      {inject(movieWith(endless)),
       corrupted + "Sample entry at 220 of the moov extends beyond stsd: its 4294967295 bytes end behind 306"},
      {inject(Bytes(7)), ByteArrayError::invalidOffset().description()},
      {extract(stsd, 2), "Entry index 2 out of range (count: 2)"},
      {extract(sampleDescriptionBox({boxClaiming(0, "hev1"), first}), 1), "Entry 0 has a size of 0 bytes"},
      {extract(sampleDescriptionBox({first, boxClaiming(500, "hev1")}), 1), ends},
      {[] { return Builder::cloneEntryWithNewHvcC(Bytes(85), hvcC, "hvc1", {}); }, "Sample entry too small: 85 bytes"},
  };
  for (const auto& [work, words] : cases) EXPECT_EQ(failureOf(work), words);
  EXPECT_EQ(Builder::extractSampleEntry(stsd, 1), second);
  // A protection box that does not name the codec stays as it is.
  for (const Bytes& odd : {Bytes(7), Bytes(8), box("sinf", {box("frma")}), box("sinf", {box("frma", {Bytes(3)})}),
                           box("sinf", {boxClaiming(7, "schm"), box("frma", {Bytes(4)})})}) {
    EXPECT_EQ(MP4Remuxer::updateFrmaInSinfData(odd, "hvc1"), odd);
  }
}

}  // namespace
}  // namespace tarn
