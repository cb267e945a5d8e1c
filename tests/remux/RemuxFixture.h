#pragma once

#include <gmock/gmock.h>

#include <optional>
#include <string>

#include "mp4/DataExtensions.h"
#include "remux/MP4Remuxer.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/DamagedMovies.h"
#include "support/FileTest.h"
#include "support/MediaMaker.h"

namespace tarn::test {

/// The first track's sample entries with their sizes, its `stsc` rows, and its chunk offset table with the count.
inline std::string describe(const Bytes& movie) {
  const Bytes tables = BoxEditor(movie).get(sampleTable);
  auto field = [&](size_t at) { return *readUInt32(tables, at); };
  std::string text;
  for (size_t box = 8, end = 0; box < tables.size(); box = end) {
    end = box + field(box);
    std::string_view type = textOf(ByteView(tables).subspan(box + 4, 4));
    if (type == "stco" || type == "co64") text += fmt::format("{} {} ", type, field(box + 12));
    for (size_t p = box + 16; p < end && type == "stsd"; p += field(p)) {
      text += fmt::format("{} {}x{} ", textOf(ByteView(tables).subspan(p + 4, 4)), field(p + 32) >> 16,
                          field(p + 32) & 0xFFFF);
    }
    for (size_t p = box + 16; p < end && type == "stsc"; p += 12) {
      text += fmt::format("{}/{}/{} ", field(p), field(p + 4), field(p + 8));
    }
  }
  return text;
}

/// A file in a directory of its own, to be damaged and repaired.
class RemuxTest : public FileTest {
 protected:
  Bytes damagedVideo(bool isHEVC) {
    return withoutParameterSets(readFile(files_, encodedVideo(inBand(isHEVC))), isHEVC);
  }

  /// Of HEVC, without a plan.
  void repair(FileManager& files) { MP4Remuxer::remuxHEVCWithParameterExtraction(files, file_, nullptr, timings_); }
  void repair() { repair(files_); }

  /// No file but the one under repair, and nothing in the temporary directory.
  void expectNothingLeftBehind() {
    EXPECT_TRUE(files_.contentsOfDirectory(files_.temporaryDirectory()).empty());
    EXPECT_EQ(files_.contentsOfDirectory(directory_.path()).size(), 2u);
  }

  std::optional<RemuxTimings> timings_;
};

}  // namespace tarn::test
