#pragma once

#include <gmock/gmock.h>

#include <optional>
#include <string>

#include "remux/MP4Remuxer.h"
#include "support/BoxEditor.h"
#include "support/FileTest.h"
#include "support/MediaMaker.h"

namespace tarn::test {

inline const VideoRecipe inBandHEVC{.codec = "libx265", .parameters = "repeat-headers=1:keyint=20"};
inline const VideoRecipe inBandAVC{.codec = "libx264", .parameters = "repeat-headers=1:keyint=20"};

/// A file in a directory of its own, to be damaged and repaired.
class RemuxTest : public FileTest {
 protected:
  void repair(bool isHEVC, FileManager& files, const CancellationToken* token = nullptr) {
    if (isHEVC) {
      MP4Remuxer::remuxHEVCWithParameterExtraction(files, file_, token, timings_);
    } else {
      MP4Remuxer::remuxAVCWithParameterExtraction(files, file_, "avc3", token, timings_);
    }
  }
  void repair(bool isHEVC) { repair(isHEVC, files_); }

  /// Repairs a file. It then has these samples and plays, and a second repair changes nothing.
  void expectRepaired(bool isHEVC, const Bytes& damaged, const std::string& samples) {
    write(damaged);
    repair(isHEVC);
    const Bytes repaired = written();
    EXPECT_EQ(sampleHashes(file_), samples);
    EXPECT_EQ(decoderComplaints(file_), "");
    EXPECT_EQ(probeVideo(file_, "codec_tag_string"), isHEVC ? "hvc1" : "avc1");
    repair(isHEVC);
    EXPECT_EQ(written(), repaired);
    expectNothingLeftBehind();
  }

  /// No file but the one under repair, and nothing in the temporary directory.
  void expectNothingLeftBehind() {
    EXPECT_TRUE(files_.contentsOfDirectory(files_.temporaryDirectory()).empty());
    EXPECT_EQ(files_.contentsOfDirectory(directory_.path()).size(), 2u);
  }

  std::optional<RemuxTimings> timings_;
};

/// The movie with the parameter sets taken out of its sample entry and the tag that says so; no offset changes.
inline Bytes withoutParameterSets(const Bytes& movie, bool isHEVC) {
  BoxEditor editor(movie);
  const std::string stsd = "moov/trak/mdia/minf/stbl/stsd/";
  if (isHEVC) {
    // The fixed 23 bytes of the record stay, without an array (ISO/IEC 14496-15 8.3.3).
    auto hvcC = editor.at(stsd + "hev1/hvcC");
    editor.bytes[hvcC.offset + 8 + 22] = 0;
    editor.setField(hvcC.offset, 31);
    editor.setField(hvcC.offset + 31, static_cast<uint32_t>(hvcC.size - 31));
    editor.setField(hvcC.offset + 35, 0x66726565);  // "free"
  } else {
    editor.rename(stsd + "avc1/avcC", "free");
    editor.rename(stsd + "avc1", "avc3");
  }
  return editor.bytes;
}

}  // namespace tarn::test
