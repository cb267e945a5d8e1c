#ifndef TARN_AVSYNC_H
#define TARN_AVSYNC_H

/**
 * @file
 * Reads, analyses and writes the timing boxes of an ISO base media file (ISO/IEC 14496-12): elst, edts, ctts, stts,
 * mdhd, mvhd, sgpd. Usable from C. Nothing here allocates, throws, logs or keeps state; all functions may run on any
 * thread at once on distinct buffers.
 *
 * A box buffer begins at the first byte of a box with an 8-byte header. The type is tested; the size field is not read:
 * the length that the caller gives, in bytes, is the only bound. Bad input is answered with the neutral result that
 * each function names, and outputs are then left as they are unless it says otherwise. Time values wrap at 64 bits.
 * Pointers may be null where an argument may be absent; a null for anything else counts as bad input.
 */

#include <tarn/export.h>

#ifdef __cplusplus
#include <cstdint>
extern "C" {
#else
#include <stdbool.h>
#include <stdint.h>
#endif

/** One entry of an edit list (8.6.6). */
typedef struct AVSyncElstEntry {
  int64_t duration;   /**< movie timescale */
  int64_t media_time; /**< track timescale; -1 for an empty edit */
  int32_t media_rate; /**< 16.16 fixed point; entries built here have 0x10000 */
} AVSyncElstEntry;

/** One track's timing facts. */
typedef struct AVSyncTrackTiming {
  int64_t first_dts;        /**< decode time of the first sample, track timescale */
  int64_t first_cts;        /**< composition offset of the first sample, track timescale */
  int64_t min_cts;          /**< smallest composition offset, track timescale */
  int64_t encoder_delay;    /**< priming samples at the head, track timescale */
  uint32_t timescale;       /**< of the mdhd: ticks a second */
  uint32_t movie_timescale; /**< of the mvhd: ticks a second */
  int64_t duration;         /**< of the media, track timescale */
} AVSyncTrackTiming;

/** The shorter form for a video track by itself. */
typedef struct AVSyncVideoTiming {
  int64_t first_dts;        /**< as in AVSyncTrackTiming, here and below */
  int64_t first_cts;        /**< composition offset of the first sample, track timescale */
  uint32_t timescale;       /**< of the mdhd: ticks a second */
  uint32_t movie_timescale; /**< of the mvhd: ticks a second */
  int64_t duration;         /**< of the media, track timescale */
} AVSyncVideoTiming;

/** How a video's edit list and its first picture agree. */
typedef struct AVSyncAnalysis {
  double offset_ms;        /**< elst_media_time - first_pts */
  bool needs_fix;          /**< the offset is more than 10 ms, either way */
  int64_t elst_media_time; /**< of the first entry that is not empty, else 0; track timescale */
  int64_t first_pts;       /**< first_dts + first_cts, track timescale */
} AVSyncAnalysis;

/** Where the edits of two tracks should start. */
typedef struct AVSyncCrossTrackAnalysis {
  double offset_ms;         /**< first video presentation time - audio encoder delay */
  int64_t video_delay;      /**< always 0 */
  int64_t audio_delay;      /**< always 0 */
  int64_t video_media_time; /**< where the video's edit should start, video timescale */
  int64_t audio_media_time; /**< where the audio's edit should start, audio timescale */
  bool video_needs_edit;    /**< the first or the smallest composition offset of the video asks for an edit */
  bool audio_needs_edit;    /**< audio_media_time is above 0 */
} AVSyncCrossTrackAnalysis;

/** An stts entry (8.6.1.2) whose delta stands out. */
typedef struct AVSyncGap {
  int64_t position;     /**< decode time at which the entry starts, track timescale */
  int64_t excess;       /**< delta - nominal delta, track timescale */
  int32_t sample_index; /**< of the entry's first sample, 0-based */
  uint8_t is_sync;      /**< 1 when that sample is listed in the stss */
} AVSyncGap;

/** What avsync_detect_gaps has found in all. */
typedef struct AVSyncGapSummary {
  int32_t gap_count;     /**< the gaps that were listed */
  int64_t nominal_delta; /**< the delta that most samples have, track timescale */
  int64_t total_excess;  /**< the sum of the listed gaps' excess, track timescale */
} AVSyncGapSummary;

/** What avsync_convert_ctts_v0_to_v1 has done. */
typedef struct AVSyncCttsConversionInfo {
  int32_t version;      /**< always 1 */
  int64_t shift;        /**< as given, track timescale */
  uint32_t entry_count; /**< as the table says */
  uint32_t box_size;    /**< bytes */
} AVSyncCttsConversionInfo;

/* ---- Rescaling and analysis ---- */

/** (value * to_scale + from_scale / 2) / from_scale in 128 bits, truncating towards zero: halves are rounded up, not
 * away from zero. 0 for a value or from_scale of 0. */
TARN_API int64_t avsync_rescale(int64_t value, int64_t to_scale, int64_t from_scale);

/** How far a video's edit list is from its first presentation time. Zeros without a video. */
TARN_API AVSyncAnalysis avsync_analyze(const AVSyncVideoTiming* video, const AVSyncElstEntry* entries, int32_t count);

/** Where the edits of two tracks should start. Zeros when a track is absent or movie_timescale is 0; the records' own
 * movie timescales are not read. */
TARN_API AVSyncCrossTrackAnalysis avsync_analyze_cross_track(const AVSyncTrackTiming* video,
                                                             const AVSyncTrackTiming* audio, uint32_t movie_timescale);

/** Lists up to max_gaps stts entries with a delta above `threshold` (track timescale), or, for a threshold below 1,
 * above twice the nominal delta: the one that most samples have, among the first 16 that occur. stss and summary may be
 * absent. Returns the number of gaps; bad input gives 0 and a zeroed summary. */
TARN_API int32_t avsync_detect_gaps(const uint8_t* stts, int32_t stts_length, const uint8_t* stss, int32_t stss_length,
                                    int64_t threshold, AVSyncGap* gaps, int32_t max_gaps, AVSyncGapSummary* summary);

/* ---- Building edit lists: each returns the number of entries written, 0 when it cannot ---- */

/** At most two entries: with allow_empty_edit a positive first presentation time becomes an empty edit. */
TARN_API int32_t avsync_build_video_elst(const AVSyncVideoTiming* video, AVSyncElstEntry* entries,
                                         int32_t allow_empty_edit);

/** An empty edit of empty_duration (movie timescale), if that is above 0, and the media from media_time (track
 * timescale) on; a media_time below -1 is more empty time. max_entries must be at least 2. */
TARN_API int32_t avsync_build_track_elst(const AVSyncTrackTiming* track, int64_t empty_duration, int64_t media_time,
                                         AVSyncElstEntry* entries, int32_t max_entries);

/** Cuts a track at its gaps: one entry for each run between them. gaps may be absent: then as above, without empty
 * time. */
TARN_API int32_t avsync_build_multi_edit_elst(const AVSyncGap* gaps, int32_t gap_count, const AVSyncTrackTiming* track,
                                              int64_t media_time, AVSyncElstEntry* entries, int32_t max_entries);

/* ---- Writing boxes: the writers return the box's size in bytes, or -1. Version 1 when any entry needs it ---- */

/** The size that avsync_write_elst_box needs; 0 for no entries. */
TARN_API int32_t avsync_elst_box_size(const AVSyncElstEntry* entries, int32_t count);
/** Writes the elst of `count` entries, at least one. */
TARN_API int32_t avsync_write_elst_box(const AVSyncElstEntry* entries, int32_t count, uint8_t* out, int32_t capacity);
/** An edts that holds the elst. */
TARN_API int32_t avsync_write_edts_box(const AVSyncElstEntry* entries, int32_t count, uint8_t* out, int32_t capacity);

/* ---- Reading boxes ---- */

/** Reads the entries that are whole within the length, at most max_entries; 0 when invalid. */
TARN_API int32_t avsync_parse_elst_box(const uint8_t* buffer, int32_t length, AVSyncElstEntry* entries,
                                       int32_t max_entries);

/** A track's first decode time: always 0. */
TARN_API int64_t avsync_parse_stts_first_dts(const uint8_t* buffer, int32_t length);

/** The first and the smallest composition offset (8.6.1.3), signed in either version, track timescale; both 0 when
 * invalid. Each output may be absent. */
TARN_API void avsync_parse_ctts(const uint8_t* buffer, int32_t length, int64_t* first_offset, int64_t* min_offset);

/** Ticks per second of a track; 0 when invalid. */
TARN_API uint32_t avsync_parse_mdhd_timescale(const uint8_t* buffer, int32_t length);
/** Likewise, of the movie. */
TARN_API uint32_t avsync_parse_mvhd_timescale(const uint8_t* buffer, int32_t length);

/** Priming samples from the first roll distance of an sgpd of type "roll" (10.1), when that is negative; else 0. */
TARN_API int64_t avsync_parse_sgpd_roll(const uint8_t* buffer, int32_t length);

/** Usual encoder delay, in samples, by the sample entry's four-character code; 0 for an unknown or absent one. */
TARN_API int64_t avsync_get_default_encoder_delay(const char* codec);

/** The version byte; -1 when invalid. */
TARN_API int32_t avsync_get_ctts_version(const uint8_t* buffer, int32_t length);

/** The size of the box's version-1 form; -1 when invalid or not below 2 GiB. */
TARN_API int32_t avsync_ctts_v1_size(const uint8_t* buffer, int32_t length);

/* ---- Converting boxes ---- */

/** A version-1 ctts with every offset less `shift`, in 32 bits. Returns the size that the entry count asks for, -1 when
 * invalid or above the capacity; info, which may be absent, is filled for a valid conversion. Entries that the input
 * does not hold are left as they are in `out`. */
TARN_API int32_t avsync_convert_ctts_v0_to_v1(const uint8_t* buffer, int32_t length, int64_t shift, uint8_t* out,
                                              int32_t capacity, AVSyncCttsConversionInfo* info);

/** The size in bytes of the table that avsync_split_stts_entries writes; -1 when invalid or not below 2 GiB. */
TARN_API int32_t avsync_split_stts_size(const uint8_t* buffer, int32_t length, uint32_t max_delta);
/** An stts in which no delta is above max_delta (track timescale, at least 1): the samples of an entry above it become
 * entries of one sample each, as many as it takes, and the sum of all deltas stays. Returns the size in bytes, -1 when
 * invalid, above the capacity, or not below 2 GiB. */
TARN_API int32_t avsync_split_stts_entries(const uint8_t* buffer, int32_t length, uint32_t max_delta, uint8_t* out,
                                           int32_t capacity);

#ifdef __cplusplus
}
#endif

#endif
