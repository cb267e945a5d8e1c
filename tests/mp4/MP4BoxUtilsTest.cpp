#include "mp4/DataExtensions.h"
#include "mp4/MP4BoxUtils.h"
#include "support/BoxBuilder.h"
#include "support/FileTest.h"

namespace tarn {
namespace {

using namespace test;

class BoxSearch : public FileTest {};

TEST_F(BoxSearch, ReadsOnlyTheHeadersOfAWholeFile) {
  // Half a terabyte of media, which take no room on the disk.
  const uint64_t far = uint64_t{1} << 39;
  open(longBoxClaiming(far, "mdat"));
  auto file = files_.open(file_, OpenMode::updating);
  file->seek(far);
  file->write(box("moov"));
  EXPECT_EQ(MP4BoxUtils::findTopLevelBox(*file, "moov").value().offset, far);

  for (size_t ahead : {MP4BoxUtils::mostTopLevelHeaders - 1, MP4BoxUtils::mostTopLevelHeaders}) {
    Bytes boxes;
    for (size_t i = 0; i < ahead; ++i) ByteWriter(boxes).bytes(box("free"));
    ByteWriter(boxes).bytes(box("moov"));
    EXPECT_EQ(MP4BoxUtils::findTopLevelBox(*open(boxes), "moov").has_value(), ahead < MP4BoxUtils::mostTopLevelHeaders);
  }
}

}  // namespace
}  // namespace tarn
