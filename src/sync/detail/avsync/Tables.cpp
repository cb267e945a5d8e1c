#include <algorithm>
#include <array>
#include <cstring>
#include <limits>

#include "mp4/TimeHeader.h"
#include "sync/MP4AVSync.h"
#include "sync/detail/avsync/Buffer.h"

using tarn::isBox;
using tarn::storeTableHeader;
using tarn::tableRows;
namespace layout = tarn::layout;

namespace {

constexpr uint32_t ctts = layout::fourCC("ctts");
constexpr uint32_t stts = layout::fourCC("stts");

struct EncoderDelay {
  const char* codec;
  int64_t samples;
};
constexpr std::array<EncoderDelay, 6> encoderDelays{
    {{"mp4a", 2112}, {".mp3", 529}, {"Opus", 312}, {"ac-3", 256}, {"ac3 ", 256}, {"ec-3", 256}}};

uint32_t timescaleOf(const uint8_t* buffer, int32_t length, uint32_t type, size_t minimum) {
  if (!isBox(buffer, length, type, minimum)) return 0;
  const auto clock = tarn::parseTimeHeader({buffer, static_cast<size_t>(length)}, tarn::LongHeader::isVersion1);
  return clock ? clock->timescale : 0;
}

/// A table box's size for so many 8-byte rows; -1 when it does not fit the result.
int32_t runTableSize(uint64_t rows) {
  constexpr uint64_t limit = std::numeric_limits<int32_t>::max();
  if (rows > (limit - layout::tableHeaderSize) / layout::runRowSize) return -1;
  return static_cast<int32_t>(layout::tableHeaderSize + rows * layout::runRowSize);
}

uint8_t* storeRun(uint8_t* row, uint32_t sampleCount, uint32_t value) {
  layout::store(row, layout::runSampleCount, sampleCount);
  layout::store(row, layout::runValue, value);
  return row + layout::runRowSize;
}

}  // namespace

int64_t avsync_parse_stts_first_dts(const uint8_t* /*buffer*/, int32_t /*length*/) {
  return 0;
}

void avsync_parse_ctts(const uint8_t* buffer, int32_t length, int64_t* first_offset, int64_t* min_offset) {
  int64_t first = 0;
  int64_t smallest = 0;
  auto table = tableRows(buffer, length, ctts, layout::runRowSize);
  for (size_t i = 0; i < table.size(); ++i) {
    int64_t offset = layout::loadSigned(table.row(i), layout::runValue);
    if (i == 0) first = smallest = offset;
    smallest = std::min(smallest, offset);
  }
  if (first_offset != nullptr) *first_offset = first;
  if (min_offset != nullptr) *min_offset = smallest;
}

uint32_t avsync_parse_mdhd_timescale(const uint8_t* buffer, int32_t length) {
  return timescaleOf(buffer, length, layout::fourCC("mdhd"), layout::timeHeader32.timescale.end());
}

uint32_t avsync_parse_mvhd_timescale(const uint8_t* buffer, int32_t length) {
  return timescaleOf(buffer, length, layout::fourCC("mvhd"), layout::timeHeader32.duration.end());
}

int64_t avsync_parse_sgpd_roll(const uint8_t* buffer, int32_t length) {
  if (!isBox(buffer, length, layout::fourCC("sgpd"), layout::groupDescriptionHeader(0).entryCount.end())) return 0;
  if (layout::load32(buffer, layout::groupingType) != layout::fourCC("roll")) return 0;
  auto holds = [&](const layout::Field& field) { return field.end() <= static_cast<size_t>(length); };

  auto version = layout::load32(buffer, layout::version);
  auto header = layout::groupDescriptionHeader(version);
  if (!holds(header.entryCount) || layout::load(buffer, header.entryCount) == 0) return 0;
  layout::Field rollDistance{header.entryCount.end(), 2};
  if (version != 0 && layout::load(buffer, header.defaultLength) == 0) {
    layout::Field descriptionLength{header.entryCount.end(), 4};
    if (!holds(descriptionLength)) return 0;
    rollDistance.offset = descriptionLength.end();
  }
  if (!holds(rollDistance)) return 0;
  return std::max<int64_t>(0, -layout::loadSigned(buffer, rollDistance));
}

int64_t avsync_get_default_encoder_delay(const char* codec) {
  if (codec == nullptr) return 0;
  for (const auto& entry : encoderDelays) {
    if (std::strncmp(codec, entry.codec, 4) == 0) return entry.samples;
  }
  return 0;
}

int32_t avsync_get_ctts_version(const uint8_t* buffer, int32_t length) {
  if (!isBox(buffer, length, ctts, layout::versionAndFlags.end())) return -1;
  return static_cast<int32_t>(layout::load(buffer, layout::version));
}

int32_t avsync_ctts_v1_size(const uint8_t* buffer, int32_t length) {
  if (!isBox(buffer, length, ctts, layout::tableHeaderSize)) return -1;
  return runTableSize(layout::load(buffer, layout::entryCount));
}

int32_t avsync_convert_ctts_v0_to_v1(const uint8_t* buffer, int32_t length, int64_t shift, uint8_t* out,
                                     int32_t capacity, AVSyncCttsConversionInfo* info) {
  int32_t size = avsync_ctts_v1_size(buffer, length);
  if (size < 0 || out == nullptr || size > capacity) return -1;
  uint32_t entryCount = layout::load32(buffer, layout::entryCount);
  if (info != nullptr) *info = {1, shift, entryCount, static_cast<uint32_t>(size)};

  storeTableHeader(out, static_cast<uint32_t>(size), ctts, 1, entryCount);
  auto table = tableRows(buffer, length, ctts, layout::runRowSize);
  uint8_t* place = out + layout::tableHeaderSize;
  for (size_t i = 0; i < table.size(); ++i) {
    uint32_t offset = layout::load32(table.row(i), layout::runValue) - static_cast<uint32_t>(shift);
    place = storeRun(place, layout::load32(table.row(i), layout::runSampleCount), offset);
  }
  return size;
}

int32_t avsync_split_stts_size(const uint8_t* buffer, int32_t length, uint32_t max_delta) {
  if (max_delta == 0 || !isBox(buffer, length, stts, layout::tableHeaderSize)) return -1;
  auto table = tableRows(buffer, length, stts, layout::runRowSize);
  uint64_t rows = 0;
  for (size_t i = 0; i < table.size(); ++i) {
    uint64_t samples = layout::load(table.row(i), layout::runSampleCount);
    uint64_t delta = layout::load(table.row(i), layout::runValue);
    rows += delta <= max_delta ? 1 : samples * ((delta + max_delta - 1) / max_delta);
    if (runTableSize(rows) < 0) return -1;  // before further rows could overflow the sum
  }
  return runTableSize(rows);
}

int32_t avsync_split_stts_entries(const uint8_t* buffer, int32_t length, uint32_t max_delta, uint8_t* out,
                                  int32_t capacity) {
  int32_t size = avsync_split_stts_size(buffer, length, max_delta);
  if (size < 0 || out == nullptr || size > capacity) return -1;
  auto rows = (static_cast<size_t>(size) - layout::tableHeaderSize) / layout::runRowSize;
  storeTableHeader(out, static_cast<uint32_t>(size), stts, 0, static_cast<uint32_t>(rows));

  auto table = tableRows(buffer, length, stts, layout::runRowSize);
  uint8_t* place = out + layout::tableHeaderSize;
  for (size_t i = 0; i < table.size(); ++i) {
    uint32_t samples = layout::load32(table.row(i), layout::runSampleCount);
    uint32_t delta = layout::load32(table.row(i), layout::runValue);
    if (delta <= max_delta) {
      place = storeRun(place, samples, delta);
      continue;
    }
    for (uint32_t sample = 0; sample < samples; ++sample) {
      uint32_t rest = delta;
      for (; rest > max_delta; rest -= max_delta) place = storeRun(place, 1, max_delta);
      place = storeRun(place, 1, rest);
    }
  }
  return size;
}
