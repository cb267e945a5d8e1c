#ifndef TARN_HEVC_H
#define TARN_HEVC_H

/**
 * @file
 * The sequence parameter set of HEVC. Usable from C. Nothing here allocates, throws, logs or keeps state; both
 * functions may run on any thread at once.
 */

#include <stddef.h>
#include <stdint.h>
#include <tarn/export.h>

#ifdef __cplusplus
extern "C" {
#endif

/// What an HEVC sequence parameter set says about its stream (ITU-T H.265 7.4.3.2, 7.4.4).
struct HEVCSPSInfo {
  uint32_t width;             ///< pic_width_in_luma_samples; the conformance window is not applied
  uint32_t height;            ///< pic_height_in_luma_samples, likewise
  uint8_t chromaFormatIdc;    ///< 0 to 3; 0 also for separately coded colour planes
  uint8_t bitDepthLuma;       ///< 8 to 16 bits
  uint8_t bitDepthChroma;     ///< 8 to 16 bits
  uint8_t generalProfileIdc;  ///< for a signalled 0, the lowest profile above 0 with which the stream is compatible
  uint8_t generalLevelIdc;    ///< 30 times the level
  uint8_t generalTierFlag;    ///< 1 for the High tier
  uint8_t maxSubLayers;       ///< temporal sub-layers, 1 to 8
  uint8_t temporalIdNesting;  ///< sps_temporal_id_nesting_flag
};

/// Reads a sequence parameter set as far as the bit depths (ITU-T H.265 7.3.2.2). `data` is a whole NAL unit of `size`
/// bytes with its 2-byte header, which is not looked at, and without emulation prevention bytes. Returns 0, or -1 for
/// null pointers, fewer than 3 bytes and any set that cannot be read, is outside 1 to 16384 in width or height, or has
/// a chroma format above 3 or more than 16 bits; `info` must not be used then. Reentrant; allocates nothing.
TARN_API int32_t hevc_parse_sps(const uint8_t* data, size_t size, struct HEVCSPSInfo* info);

/// The size of the pictures that are shown, in luma samples: the conformance window of such a set, whose offsets count
/// in units of the chroma format, is cut out of the coded picture (ITU-T H.265 7.4.3.2.1, table 6-1). Returns 0, or -1
/// for null pointers, for a set that hevc_parse_sps refuses and for a window that leaves nothing; the results must not
/// be used then.
TARN_API int32_t hevc_parse_sps_shown_size(const uint8_t* data, size_t size, uint32_t* width, uint32_t* height);

#ifdef __cplusplus
}
#endif

#endif
