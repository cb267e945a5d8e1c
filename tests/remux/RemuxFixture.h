#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "platform/host/PosixFileManager.h"
#include "remux/MP4Remuxer.h"
#include "support/BoxEditor.h"
#include "support/LogCapture.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"

namespace tarn::test {

inline const VideoRecipe inBandHEVC{.codec = "libx265", .parameters = "repeat-headers=1:keyint=20"};
inline const VideoRecipe inBandAVC{.codec = "libx264", .parameters = "repeat-headers=1:keyint=20"};

/// A file in a directory of its own, to be damaged and repaired.
class RemuxTest : public testing::Test {
 protected:
  void write(const Bytes& bytes) { writeFileAtomically(files_, file_, bytes); }
  Bytes written() { return readFile(files_, file_); }

  void remuxHEVC(FileManager& files, const CancellationToken* token = nullptr) {
    MP4Remuxer::remuxHEVCWithParameterExtraction(files, file_, token, timings_);
  }
  void remuxAVC(FileManager& files, const CancellationToken* token = nullptr) {
    MP4Remuxer::remuxAVCWithParameterExtraction(files, file_, "avc3", token, timings_);
  }

  /// No file but the one under repair, and nothing in the temporary directory.
  void expectNothingLeftBehind() {
    EXPECT_TRUE(files_.contentsOfDirectory(files_.temporaryDirectory()).empty());
    EXPECT_EQ(files_.contentsOfDirectory(directory_.path()).size(), 2u);
  }

  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};
  Path file_ = directory_ / "clip.mp4";
  LogCapture log_;
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
