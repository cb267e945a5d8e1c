#pragma once

#include "audio/FastPathAudioBuilder.h"

namespace tarn {

/// The `moov` of an M4A with one AAC-LC stereo track, from whole boxes of its sample table. The movie's timescale is
/// the track's. Throws an Error if a value or a size does not fit its field.
Bytes buildAudioMoovBox(const FastPathAudioBuilder::BuildResult& buildResult, ByteView stsz, ByteView stts,
                        ByteView stsc, ByteView stco);

/// Writes the packets as an M4A: `ftyp`, `moov`, `mdat`. Throws FastPathError::validationFailed and Errors of the box
/// builders where the packets do not fit such a file, and failures of the file layer.
void writeFastPathAudioToM4A(FileManager& files, const FastPathAudioBuilder::BuildResult& buildResult,
                             const Path& outputURL);

}  // namespace tarn
