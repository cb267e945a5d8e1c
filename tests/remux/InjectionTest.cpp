#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mp4/ByteArray.h"
#include "mp4/MP4RemuxError.h"
#include "remux/MP4Remuxer.h"
#include "support/BoxBuilder.h"
#include "support/LogCapture.h"

namespace tarn {
namespace {

using namespace test;

const Bytes hvcC = box("hvcC", {Bytes(30, 1)});
const Bytes avcC = box("avcC", {Bytes(30, 2)});
const Bytes pasp = box("pasp", {Bytes(8, 3)});
const Bytes colr = box("colr", {Bytes(11, 4)});

Bytes movieWith(const Bytes& entry, const Bytes& behind = {}) {
  return box("moov",
             {box("mvhd", {Bytes(4)}), trackBox("soun", {sampleDescriptionBox({box("mp4a", {Bytes(30)})})}),
              trackBox("vide", {joined({box("stsd", {values({0, 2}), entry, behind}), fullBox("stco", {1, 9})})}),
              box("udta", {Bytes(5)})});
}

Bytes protection(std::string_view format) {
  return box("sinf", {box("frma", {Bytes(format.begin(), format.end())}), box("schm", {Bytes(12)})});
}

TEST(Injection, PutsTheBoxFirstAndKeepsTheRest) {
  struct {
    const char* what;
    Bytes before, after;
  } cases[] = {
      {"no box", visualSampleEntry("hev1"), visualSampleEntry("hvc1", {hvcC})},
      {"order of the others", visualSampleEntry("hev1", {pasp, box("hvcC"), colr}),
       visualSampleEntry("hvc1", {hvcC, pasp, colr})},
      {"same size", visualSampleEntry("hvc1", {box("hvcC", {Bytes(30, 9)}), pasp}),
       visualSampleEntry("hvc1", {hvcC, pasp})},
      {"misspelt box, and smaller", visualSampleEntry("hvc1", {box("hevC", {Bytes(99)})}),
       visualSampleEntry("hvc1", {hvcC})},
      {"encrypted", visualSampleEntry("encv", {protection("hev1"), box("hvcC"), pasp}),
       visualSampleEntry("encv", {hvcC, protection("hvc1"), pasp})},
      {"sinf of a clear entry", visualSampleEntry("hev1", {protection("hev1")}),
       visualSampleEntry("hvc1", {hvcC, protection("hev1")})},
      {"child over the end", visualSampleEntry("hev1", {pasp, boxClaiming(99, "colr", {Bytes(4)})}),
       visualSampleEntry("hvc1", {hvcC, pasp})},
      {"child without a size", visualSampleEntry("hev1", {boxClaiming(0, "pasp"), colr}),
       visualSampleEntry("hvc1", {hvcC})},
      {"child without a name",
       visualSampleEntry("hev1", {pasp,
                                  box("\xA9"
                                      "abc"),
                                  colr}),
       visualSampleEntry("hvc1", {hvcC, pasp})},
      {"tail of 7 bytes", visualSampleEntry("hev1", {pasp, Bytes(7)}), visualSampleEntry("hvc1", {hvcC, pasp})},
  };
  LogCapture log;
  const Bytes second = visualSampleEntry("hvc1", {box("hvcC")});
  for (const auto& c : cases) {
    EXPECT_EQ(MP4Remuxer::injectHvcCBoxIntoMoov(movieWith(c.before, second), hvcC), movieWith(c.after, second))
        << c.what;
  }
  EXPECT_EQ(MP4Remuxer::injectAvcCBoxIntoMoov(movieWith(visualSampleEntry("avc3", {pasp, box("avcC")})), avcC),
            movieWith(visualSampleEntry("avc1", {avcC, pasp})));
  for (const char* line :
       {"Skipping old decoder config box: hvcC (8 bytes)", "Sample entry size unchanged, skipping parent box updates",
        "Keeping encv codec tag (encrypted video)", "    Updated frma data_format: hev1 → hvc1",
        "Child box extends beyond sample entry boundary, stopping", "Net size change: 38 bytes (old: 86, new: 124)",
        "AVC: Changed codec tag: avc3 → avc1", "AVC: Net size change: 30 bytes"}) {
    EXPECT_TRUE(log.contains(line)) << line;
  }
}

TEST(Injection, RefusesWhatItCannotEdit) {
  using Case = MP4RemuxError::Case;
  struct {
    const char* words;
    Bytes moov;
    Case error;
  } cases[] = {
      {"No trak boxes found in moov", box("moov", {box("mvhd")}), Case::corruptedMP4},
      {"No video track found in moov (checked 1 tracks)", box("moov", {trackBox("soun", {})}), Case::unsupportedFormat},
      {"minf not found in mdia", box("moov", {box("trak", {mediaBox("vide")})}), Case::corruptedMP4},
      {"stsd not found in stbl", box("moov", {trackBox("vide", {})}), Case::corruptedMP4},
      {"No sample entries in stsd", box("moov", {trackBox("vide", {box("stsd", {Bytes(24)})})}), Case::corruptedMP4},
      {"Video track has codec 'avc1', not 'hev1', 'hvc1', or 'encv'. Cannot inject hvcC into this track.",
       movieWith(visualSampleEntry("avc1")), Case::unsupportedFormat},
      {"Sample entry too small", movieWith(box("hev1", {Bytes(77)}), Bytes(99)), Case::corruptedMP4},
      {"Sample entry extends beyond stsd", movieWith(boxClaiming(UINT32_MAX, "hev1", {Bytes(78)})), Case::corruptedMP4},
  };
  LogCapture log;
  for (const auto& c : cases) {
    try {
      MP4Remuxer::injectHvcCBoxIntoMoov(c.moov, hvcC);
      ADD_FAILURE() << c.words;
    } catch (const MP4RemuxError& error) {
      EXPECT_EQ(error.kind(), c.error) << c.words;
      EXPECT_THAT(error.description(), testing::EndsWith(c.words));
    }
  }
  EXPECT_THROW(MP4Remuxer::injectHvcCBoxIntoMoov(Bytes(7), hvcC), ByteArrayError);
  EXPECT_THROW(MP4Remuxer::injectAvcCBoxIntoMoov(movieWith(visualSampleEntry("encv")), avcC), MP4RemuxError);
}

TEST(Injection, FrmaIsPatchedWhereItFits) {
  LogCapture log;
  EXPECT_EQ(MP4Remuxer::updateFrmaInSinfData(protection("abcd"), "hvc1"), protection("hvc1"));
  for (const Bytes& odd : {Bytes(7), Bytes(8), box("sinf", {box("frma")}), box("sinf", {box("frma", {Bytes(3)})}),
                           box("sinf", {boxClaiming(7, "schm"), box("frma", {Bytes(4)})})}) {
    EXPECT_EQ(MP4Remuxer::updateFrmaInSinfData(odd, "hvc1"), odd);
  }
}

}  // namespace
}  // namespace tarn
