#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mp4/ByteArray.h"
#include "mp4/DataExtensions.h"
#include "remux/VisualSampleEntryBuilder.h"
#include "support/BoxBuilder.h"
#include "support/LogCapture.h"

namespace tarn {
namespace {

using namespace test;
using Builder = VisualSampleEntryBuilder;

const Bytes hvcC = box("hvcC", {Bytes(30, 1)});
const Bytes avcC = box("avcC", {Bytes(30, 2)});
const Bytes pasp = box("pasp", {Bytes(8, 3)});
const Bytes colr = box("colr", {Bytes(11, 4)});
const Bytes oldClap = box("clap", {Bytes(32, 5)});

Bytes protection(std::string_view format) {
  return box("sinf", {box("frma", {Bytes(format.begin(), format.end())}), box("schm", {Bytes(12)})});
}

/// An entry that states 1920x1080, with a `clap` that says so.
Bytes sized(std::string_view tag, const Bytes& children) {
  Bytes clap = box("clap", {values({1920, 1, 1080, 1, 0, 1, 0, 1})});
  Bytes entry = visualSampleEntry(tag, {children, clap});
  writeUInt32(entry, 0x07800438, 32);
  return entry;
}

TEST(EntryBuilder, ClonesAnEntryForAnotherConfiguration) {
  const PictureSize fullHD{1920, 1080};
  const Bytes odd =
      box("\xA9"
          "odd",
          {Bytes(4)});
  struct {
    const char* what;
    Bytes entry;
    std::optional<PictureSize> size;
    Bytes clone;
  } cases[] = {
      {"no size",
       visualSampleEntry("hev1", {pasp, box("hvcC", {Bytes(9)}), colr}),
       {},
       visualSampleEntry("hvc1", {pasp, colr, hvcC})},
      {"a size", visualSampleEntry("hev1", {pasp, box("hvcC", {Bytes(9)}), colr}), fullHD,
       sized("hvc1", joined({pasp, colr, hvcC}))},
      {"an old clap", visualSampleEntry("hev1", {oldClap, pasp}), fullHD, sized("hvc1", joined({pasp, hvcC}))},
      {"an old clap, no size",
       visualSampleEntry("hev1", {oldClap, pasp}),
       {},
       visualSampleEntry("hvc1", {oldClap, pasp, hvcC})},
      {"encrypted",
       visualSampleEntry("encv", {protection("hev1"), pasp}),
       {},
       visualSampleEntry("encv", {protection("hvc1"), pasp, hvcC})},
      {"sinf of a clear entry",
       visualSampleEntry("hev1", {protection("hev1")}),
       {},
       visualSampleEntry("hvc1", {protection("hev1"), hvcC})},
      {"children of any name",
       visualSampleEntry("hev1", {odd, box("hevC", {Bytes(4)}), avcC}),
       {},
       visualSampleEntry("hvc1", {odd, box("hevC", {Bytes(4)}), avcC, hvcC})},
      {"a last child of 8 bytes",
       visualSampleEntry("hev1", {box("free"), box("free")}),
       {},
       visualSampleEntry("hvc1", {box("free"), hvcC})},
      {"a child over the end",
       visualSampleEntry("hev1", {pasp, boxClaiming(99, "colr", {Bytes(20)})}),
       {},
       visualSampleEntry("hvc1", {pasp, hvcC})},
      {"a child without a size",
       visualSampleEntry("hev1", {pasp, boxClaiming(0, "free", {Bytes(4)}), colr}),
       {},
       visualSampleEntry("hvc1", {pasp, hvcC})},
      {"no children", visualSampleEntry("hvc1"), {}, visualSampleEntry("hvc1", {hvcC})},
      {"a size that no field holds", visualSampleEntry("hvc1", {oldClap}), PictureSize{65536, 16},
       visualSampleEntry("hvc1", {oldClap, hvcC})},
      {"a negative size", visualSampleEntry("hvc1"), PictureSize{16, -1}, visualSampleEntry("hvc1", {hvcC})},
  };
  LogCapture log;
  for (const auto& c : cases)
    EXPECT_EQ(Builder::cloneEntryWithNewHvcC(c.entry, hvcC, "hvc1", c.size), c.clone) << c.what;
  EXPECT_EQ(
      Builder::cloneEntryWithNewAvcC(visualSampleEntry("encv", {protection("avc3"), avcC, hvcC}), avcC, "avc1", {}),
      visualSampleEntry("encv", {protection("avc1"), hvcC, avcC}));
  for (const char* line :
       {"Cloning sample entry: 'hev1' → 'hvc1' (original size: 138)", "  Skipping old hvcC box (17 bytes)",
        "  Keeping 'pasp' box (16 bytes)", "  Keeping '' box (12 bytes)", "  Injected new hvcC box (38 bytes)",
        "  Injected clap box with 1920x1080 dimensions (40 bytes)", "  Skipping old clap box (40 bytes)",
        "  Replaced clap box with 1920x1080 dimensions (40 bytes)", "  Set sample entry dimensions to 1920x1080",
        "  Keeping sinf box (40 bytes, frma updated to 'hvc1')", "    Updated frma data_format to 'hvc1'",
        "Created new sample entry: 'encv' (180 bytes)",
        "AVC: Cloning sample entry: 'encv' → 'avc1' (original size: 202)", "  Skipping old avcC box (38 bytes)",
        "AVC: Created new sample entry: 'encv' (202 bytes)"}) {
    EXPECT_TRUE(log.contains(line)) << line;
  }
}

TEST(EntryBuilder, LeavesOutAChildOf100MegabytesAndMore) {
  LogCapture log;
  for (uint32_t size : {0x63FFFFFu, 0x6400000u}) {
    Bytes entry = visualSampleEntry("hev1", {pasp, box("free", {Bytes(size - 8)}), colr});
    size_t kept = size == 0x6400000 ? 0 : size + colr.size();
    EXPECT_EQ(Builder::cloneEntryWithNewHvcC(entry, hvcC, "hvc1", {}).size(), 86 + pasp.size() + kept + hvcC.size());
  }
}

TEST(EntryBuilder, RefusesWhatIsNoEntry) {
  const Bytes first = visualSampleEntry("hev1"), second = visualSampleEntry("hvc1", {pasp});
  const Bytes stsd = sampleDescriptionBox({first, second});
  EXPECT_EQ(Builder::extractSampleEntry(stsd, 0), first);
  EXPECT_EQ(Builder::extractSampleEntry(stsd, 1), second);
  struct {
    Bytes stsd;
    int64_t index;
    const char* words;
  } cases[] = {
      {Bytes(15), 0, "stsd data too small"},
      {stsd, 2, "Entry index 2 out of range (count: 2)"},
      {stsd, -1, "Entry index -1 out of range (count: 2)"},
      {sampleDescriptionBox({boxClaiming(0, "hev1"), first}), 1, "Entry 0 has a size of 0 bytes"},
      {sampleDescriptionBox({boxClaiming(1'000'000, "hev1"), first}), 1, "the data end"},
      {sampleDescriptionBox({first, boxClaiming(500, "hev1")}), 1, "the data end"},
  };
  for (const auto& c : cases) {
    EXPECT_THAT([&] { Builder::extractSampleEntry(c.stsd, c.index); },
                testing::ThrowsMessage<Error>(testing::HasSubstr(c.words)));
  }
  EXPECT_THAT([&] { Builder::cloneEntryWithNewHvcC(Bytes(85), hvcC, "hvc1", {}); },
              testing::ThrowsMessage<VisualSampleEntryBuilderError>("Sample entry too small: 85 bytes"));
}

}  // namespace
}  // namespace tarn
