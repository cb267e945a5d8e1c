/* The primitives are a C interface: this file holds them to that. */
#include <tarn/avsync.h>

int64_t roundTripFromC(int64_t emptyDuration, int64_t mediaTime);

/* Writes an edts with an empty edit and a media edit, reads it back, and returns the second entry's media time; -1 when
 * anything on the way is wrong. */
int64_t roundTripFromC(int64_t emptyDuration, int64_t mediaTime) {
  const AVSyncElstEntry written[2] = {{emptyDuration, -1, 0x10000}, {1000, mediaTime, 0x10000}};
  uint8_t edts[128];
  AVSyncElstEntry read[2];
  const int32_t size = avsync_write_edts_box(written, 2, edts, (int32_t)sizeof edts);
  if (size < 0 || avsync_elst_box_size(written, 2) != size - 8) return -1;
  if (avsync_parse_elst_box(edts + 8, size - 8, read, 2) != 2) return -1;
  if (read[0].media_time != -1 || read[0].duration != emptyDuration) return -1;
  return read[1].media_time;
}
