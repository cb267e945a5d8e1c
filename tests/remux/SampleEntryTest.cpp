#include <gmock/gmock.h>

#include "mp4/ByteArray.h"
#include "mp4/DataExtensions.h"
#include "mp4/MP4RemuxError.h"
#include "remux/MP4Remuxer.h"
#include "remux/VisualSampleEntryBuilder.h"
#include "support/BoxBuilder.h"
#include "support/FileTest.h"

namespace tarn {
namespace {

using namespace test;
using Builder = VisualSampleEntryBuilder;

const Bytes hvcC = box("hvcC", {Bytes(30, 1)}), avcC = box("avcC", {Bytes(30, 2)});
const Bytes pasp = box("pasp", {Bytes(8, 3)}), colr = box("colr", {Bytes(11, 4)}), clap = box("clap", {Bytes(32, 5)});

Bytes movieWith(const Bytes& entry, const Bytes& behind = {}) {
  return box("moov",
             {box("mvhd", {Bytes(4)}), trackBox("soun", {sampleDescriptionBox({box("mp4a", {Bytes(30)})})}),
              trackBox("vide", {joined({box("stsd", {values({0, 2}), entry, behind}), fullBox("stco", {1, 9})})}),
              box("udta", {Bytes(5)})});
}

Bytes protection(std::string_view format) {
  return box("sinf", {box("frma", {Bytes(format.begin(), format.end())}), box("schm", {Bytes(12)})});
}

using Children = std::initializer_list<Bytes>;
Bytes hev1(Children children) {
  return visualSampleEntry("hev1", children);
}
Bytes hvc1(Children children) {
  return visualSampleEntry("hvc1", children);
}

TEST(SampleEntry, GetsTheNewBoxAndKeepsTheRest) {
  const Bytes second = hvc1({box("hvcC")}), free8 = box("free"), old = box("hvcC", {Bytes(30, 9)});
  const Bytes overrun = boxClaiming(99, "colr", {Bytes(20)}), noSize = boxClaiming(0, "pasp");
  const Bytes noName = box("\xA9xyz"), hevC = box("hevC", {Bytes(99)});
  // Into the first entry of a movie the box goes ahead of the others, into a copy behind them.
  struct {
    Bytes entry, injected, cloned;
  } cases[] = {
      {hev1({}), hvc1({hvcC}), hvc1({hvcC})},
      {hev1({pasp, box("hvcC"), colr}), hvc1({hvcC, pasp, colr}), hvc1({pasp, colr, hvcC})},
      {hvc1({old, pasp}), hvc1({hvcC, pasp}), hvc1({pasp, hvcC})},
      {hvc1({hevC, avcC}), hvc1({hvcC, avcC}), hvc1({hevC, avcC, hvcC})},
      {visualSampleEntry("encv", {protection("hev1"), box("hvcC"), pasp}),
       visualSampleEntry("encv", {hvcC, protection("hvc1"), pasp}),
       visualSampleEntry("encv", {protection("hvc1"), pasp, hvcC})},
      {hev1({protection("hev1")}), hvc1({hvcC, protection("hev1")}), hvc1({protection("hev1"), hvcC})},
      {hev1({clap, pasp}), hvc1({hvcC, clap, pasp}), hvc1({clap, pasp, hvcC})},
      {hev1({pasp, overrun}), hvc1({hvcC, pasp}), hvc1({pasp, hvcC})},
      {hev1({noSize, colr}), hvc1({hvcC}), hvc1({hvcC})},
      {hev1({pasp, noName, colr}), hvc1({hvcC, pasp}), hvc1({pasp, noName, colr, hvcC})},
      {hev1({pasp, Bytes(7)}), hvc1({hvcC, pasp}), hvc1({pasp, hvcC})},
      {hev1({free8, free8}), hvc1({hvcC, free8, free8}), hvc1({free8, hvcC})},
  };
  LogCapture log;
  for (const auto& [entry, injected, cloned] : cases) {
    EXPECT_EQ(MP4Remuxer::injectHvcCBoxIntoMoov(movieWith(entry, second), hvcC), movieWith(injected, second));
    EXPECT_EQ(Builder::cloneEntryWithNewHvcC(entry, hvcC, "hvc1", {}), cloned);
  }
  EXPECT_EQ(MP4Remuxer::injectAvcCBoxIntoMoov(movieWith(visualSampleEntry("avc3", {pasp, box("avcC")})), avcC),
            movieWith(visualSampleEntry("avc1", {avcC, pasp})));
  EXPECT_EQ(
      Builder::cloneEntryWithNewAvcC(visualSampleEntry("encv", {protection("avc3"), avcC, hvcC}), avcC, "avc1", {}),
      visualSampleEntry("encv", {protection("avc1"), hvcC, avcC}));
  EXPECT_THAT(
      log.missing(
          {"Skipping old decoder config box: hvcC (8 bytes)", "Keeping encv codec tag (encrypted video)",
           "Sample entry size unchanged, skipping parent box updates", "AVC: Net size change: 30 bytes",
           "    Updated frma data_format: hev1 → hvc1", "AVC: Changed codec tag: avc3 → avc1",
           "Child box extends beyond sample entry boundary, stopping", "Net size change: 38 bytes (old: 86, new: 124)",
           "Cloning sample entry: 'hev1' → 'hvc1' (original size: 129)", "  Skipping old hvcC box (38 bytes)",
           "  Keeping 'pasp' box (16 bytes)", "  Keeping '' box (8 bytes)", "  Injected new hvcC box (38 bytes)",
           "  Keeping sinf box (40 bytes, frma updated to 'hvc1')", "    Updated frma data_format to 'hvc1'",
           "Created new sample entry: 'encv' (180 bytes)", "AVC: Created new sample entry: 'encv' (202 bytes)"}),
      testing::IsEmpty());
}

TEST(SampleEntry, OfACopyStatesItsOwnPictureSize) {
  LogCapture log;
  for (const Bytes& older : {Bytes(), clap}) {
    Bytes sized = hvc1({pasp, hvcC, box("clap", {values({1920, 1, 1080, 1, 0, 1, 0, 1})})});
    writeUInt32(sized, 1920 << 16 | 1080, 32);
    EXPECT_EQ(Builder::cloneEntryWithNewHvcC(hev1({older, pasp}), hvcC, "hvc1", PictureSize{1920, 1080}), sized);
  }
  for (PictureSize odd : {PictureSize{65536, 16}, {16, -1}}) {
    EXPECT_EQ(Builder::cloneEntryWithNewHvcC(hvc1({clap}), hvcC, "hvc1", odd), hvc1({clap, hvcC}));
  }
  EXPECT_THAT(log.missing({"  Injected clap box with 1920x1080 dimensions (40 bytes)",
                           "  Replaced clap box with 1920x1080 dimensions (40 bytes)",
                           "  Set sample entry dimensions to 1920x1080", "  Skipping old clap box (40 bytes)"}),
              testing::IsEmpty());
}

TEST(SampleEntry, OfACopyLeavesOutAChildOf100MegabytesAndMore) {
  LogCapture log;
  for (uint32_t size : {0x63FFFFFu, 0x6400000u}) {
    Bytes entry = hev1({pasp, box("free", {Bytes(size - 8)}), colr});
    size_t kept = size == 0x6400000 ? 0 : size + colr.size();
    EXPECT_EQ(Builder::cloneEntryWithNewHvcC(entry, hvcC, "hvc1", {}).size(), 86 + pasp.size() + kept + hvcC.size());
  }
}

TEST(SampleEntry, IsRefusedWhereItCannotBeEdited) {
  const std::string corrupted = "Corrupted MP4 file: ", unsupported = "Unsupported format: ";
  const std::pair<Bytes, std::string> cases[] = {
      {box("moov", {box("mvhd")}), corrupted + "No trak boxes found in moov"},
      {box("moov", {trackBox("soun", {})}), unsupported + "No video track found in moov (checked 1 tracks)"},
      {box("moov", {box("trak", {mediaBox("vide")})}), corrupted + "minf not found in mdia"},
      {box("moov", {trackBox("vide", {})}), corrupted + "stsd not found in stbl"},
      {box("moov", {trackBox("vide", {box("stsd", {Bytes(24)})})}), corrupted + "No sample entries in stsd"},
      {movieWith(visualSampleEntry("avc1")),
       unsupported +
           "Video track has codec 'avc1', not 'hev1', 'hvc1', or 'encv'. Cannot inject hvcC into this track."},
      {movieWith(box("hev1", {Bytes(77)}), Bytes(99)), corrupted + "Sample entry too small"},
      {movieWith(boxClaiming(UINT32_MAX, "hev1", {Bytes(78)})), corrupted + "Sample entry extends beyond stsd"},
      {Bytes(7), ByteArrayError::invalidOffset().description()},
  };
  LogCapture log;
  for (const auto& [moov, words] : cases) {
    EXPECT_EQ(failureOf([&] { MP4Remuxer::injectHvcCBoxIntoMoov(moov, hvcC); }), words);
  }
  EXPECT_THROW(MP4Remuxer::injectAvcCBoxIntoMoov(movieWith(visualSampleEntry("encv")), avcC), MP4RemuxError);
}

TEST(SampleEntry, IsTakenByItsNumber) {
  const Bytes first = hev1({}), second = hvc1({pasp}), stsd = sampleDescriptionBox({first, second});
  EXPECT_EQ(Builder::extractSampleEntry(stsd, 0), first);
  EXPECT_EQ(Builder::extractSampleEntry(stsd, 1), second);
  const std::string ends = ByteArrayError::insufficientData().description();
  const std::tuple<Bytes, int64_t, std::string> cases[] = {
      {Bytes(15), 0, "stsd data too small"},
      {stsd, 2, "Entry index 2 out of range (count: 2)"},
      {stsd, -1, "Entry index -1 out of range (count: 2)"},
      {sampleDescriptionBox({boxClaiming(0, "hev1"), first}), 1, "Entry 0 has a size of 0 bytes"},
      {sampleDescriptionBox({boxClaiming(1'000'000, "hev1"), first}), 1, ends},
      {sampleDescriptionBox({first, boxClaiming(500, "hev1")}), 1, ends},
  };
  for (const auto& [box, index, words] : cases) {
    EXPECT_EQ(failureOf([&box = box, index = index] { Builder::extractSampleEntry(box, index); }), words);
  }
  EXPECT_EQ(failureOf([] { Builder::cloneEntryWithNewHvcC(Bytes(85), hvcC, "hvc1", {}); }),
            "Sample entry too small: 85 bytes");
}

TEST(Protection, IsPatchedWhereItNamesTheCodec) {
  LogCapture log;
  EXPECT_EQ(MP4Remuxer::updateFrmaInSinfData(protection("abcd"), "hvc1"), protection("hvc1"));
  for (const Bytes& odd : {Bytes(7), Bytes(8), box("sinf", {box("frma")}), box("sinf", {box("frma", {Bytes(3)})}),
                           box("sinf", {boxClaiming(7, "schm"), box("frma", {Bytes(4)})})}) {
    EXPECT_EQ(MP4Remuxer::updateFrmaInSinfData(odd, "hvc1"), odd);
  }
}

}  // namespace
}  // namespace tarn
