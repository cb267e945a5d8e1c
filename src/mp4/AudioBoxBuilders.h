#pragma once

#include <cstdint>
#include <initializer_list>

#include "platform/Bytes.h"

namespace tarn {

/// Whole boxes of a file with one AAC-LC track (ISO/IEC 14496-12; ISO/IEC 14496-14 for `mp4a` and `esds`), version 0.
/// Timescales are in ticks per second, durations in the movie's timescale, which is the track's. All throw an Error of
/// the domain "AudioBoxBuilders" where a value or a size does not fit its field.

/// The AudioSpecificConfig (ISO/IEC 14496-3 1.6.2.1) of AAC-LC, 2 bytes. A rate without a frequency index among 24000,
/// 44100 and 48000 Hz is told in the log and becomes 48000.
Bytes audioSpecificConfig(int64_t sampleRate, int channels = 2);

/// True if these boxes can say what a stream is: the rates above, 1 or 2 channels.
bool canBeDescribed(int64_t sampleRate, int channels);

Bytes buildEsdsBox(int64_t sampleRate, int channels = 2);
Bytes buildStsdBox(int64_t timescale, int64_t sampleRate, int channels = 2);
Bytes buildFtypBox();
Bytes buildSmhdBox();
Bytes buildDinfBox();
Bytes buildHdlrBox();
Bytes buildMinfBox(ByteView stbl);
Bytes buildMdhdBox(int64_t timescale, int64_t duration);
Bytes buildMdiaBox(ByteView minf, int64_t timescale, int64_t duration);
Bytes buildTkhdBox(int64_t duration);
Bytes buildTrakBox(ByteView mdia, int64_t duration);
Bytes buildMvhdBox(int64_t timescale, int64_t duration);

/// Containers of whole boxes: a sample table in the order of the children, a movie of one track.
Bytes buildStblBox(std::initializer_list<ByteView> children);
Bytes buildMoovBox(ByteView mvhd, ByteView trak);

}  // namespace tarn
