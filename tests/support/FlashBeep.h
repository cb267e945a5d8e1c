#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/FileManager.h"

namespace tarn::test {

/// A clip made by ffmpeg: for so many seconds, a white frame and a beep at each whole second, B-frames, AAC of so many
/// channels; audio late (positive) or early (negative) by so many seconds. `tracks` names them in order, each mapped
/// from input 0 for the video and 1 for the audio. The arguments, which may damage the sound on its way, go to the
/// muxer.
Path damagedFlashBeepClip(int seconds, int channels, const std::vector<std::string>& muxerArguments,
                          double audioLate = 0, const std::string& tracks = "-map 0:v -map 1:a");

/// A short one, in one channel.
Path flashBeepClip(double audioLate, const std::vector<std::string>& muxerArguments = {},
                   const std::string& tracks = "-map 0:v -map 1:a");

/// A flash, and how much later the beep that belongs to it is heard, both in seconds, as ffmpeg's decoders play the
/// file's first video and audio track.
struct Beat {
  double flash;
  double beepAfter;
};
std::vector<Beat> beats(const Path& file);

/// What is heard of the first audio track from time 0 on, in mono at 48 kHz.
std::vector<int16_t> heardSamples(const Path& file);

/// A hash of the sample bytes of each track, edit lists disregarded.
std::string mediaHashes(const Path& file);

}  // namespace tarn::test
