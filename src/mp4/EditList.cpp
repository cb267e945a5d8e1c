#include "mp4/EditList.h"

#include <algorithm>

#include "mp4/BoxLayout.h"
#include "mp4/SampleTableBuilders.h"
#include "mp4/TableBox.h"

namespace tarn {
namespace {

__extension__ using UInt128 = unsigned __int128;

Error outOfRange() {
  return sampleTableError("elst reaches out of range");
}

int64_t inRange(int64_t time) {
  if (time > MediaEdit::latestTime || time < -MediaEdit::latestTime) throw outOfRange();
  return time;
}

/// To the nearest tick.
int64_t rescaled(uint64_t duration, uint32_t toScale, uint32_t fromScale) {
  UInt128 value = (static_cast<UInt128>(duration) * toScale + fromScale / 2) / fromScale;
  if (value > static_cast<UInt128>(MediaEdit::latestTime)) throw outOfRange();
  return static_cast<int64_t>(value);
}

}  // namespace

std::vector<EditListRow> readEditList(FileHandle& file, const MP4BoxInfo& trak) {
  auto edts = MP4BoxUtils::findChildBox(file, trak, "edts");
  auto elst = edts ? MP4BoxUtils::findChildBox(file, *edts, "elst") : std::nullopt;
  if (!elst) return {};
  TableBox box(file, *elst, TableBox::oneField);
  const auto& fields = layout::editRow(box.version() == 1);
  uint64_t count = box.field();
  auto bytes = box.entries<uint8_t>(count * fields.size);
  std::vector<EditListRow> rows;
  rows.reserve(count);
  for (const uint8_t* row = bytes.data(); rows.size() < count; row += fields.size) {
    rows.push_back({layout::load(row, fields.duration), layout::loadSigned(row, fields.mediaTime),
                    static_cast<int32_t>(layout::loadSigned(row, fields.mediaRate))});
  }
  return rows;
}

std::vector<MediaEdit> mediaEdits(const std::vector<EditListRow>& rows, uint32_t movieTimescale,
                                  uint32_t trackTimescale, int64_t mediaDuration) {
  // Without a list each time stands for itself, negative ones too.
  if (rows.empty()) return {{.presentationStart = -MediaEdit::latestTime, .mediaStart = -MediaEdit::latestTime}};
  if (movieTimescale == 0 || trackTimescale == 0) throw sampleTableError("elst without a timescale");
  std::vector<MediaEdit> edits;
  int64_t clock = 0;
  for (const EditListRow& row : rows) {
    int64_t length = rescaled(row.duration, trackTimescale, movieTimescale);
    if (!row.isEmpty()) {
      MediaEdit edit{.presentationStart = clock, .mediaStart = inRange(row.mediaTime)};
      if (row.duration == 0) {
        length = std::max<int64_t>(mediaDuration - row.mediaTime, 0);
      } else {
        edit.mediaEnd = inRange(row.mediaTime + length);
      }
      edits.push_back(edit);
    }
    clock = inRange(clock + inRange(length));
  }
  return edits;
}

}  // namespace tarn
