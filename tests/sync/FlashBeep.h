#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/FileManager.h"

namespace tarn::test {

/// A clip made by ffmpeg: for 3 s, a white frame and a beep at each whole second, B-frames, AAC; audio late (positive)
/// or early (negative) by so many seconds. The arguments go to the muxer.
Path flashBeepClip(double audioLate, const std::vector<std::string>& muxerArguments = {}, bool audioFirst = false,
                   bool twoAudioTracks = false);

/// A longer one of so many seconds and channels; the arguments, which may damage the sound on its way, go to the muxer.
Path damagedFlashBeepClip(int seconds, int channels, const std::vector<std::string>& muxerArguments,
                          double audioLate = 0);

/// A flash, and how much later the beep that belongs to it is heard, both in seconds.
struct Beat {
  double flash;
  double beepAfter;
};
std::vector<Beat> beats(const Path& file);

/// What is heard of the first audio track from time 0 on, in mono at 48 kHz.
std::vector<int16_t> heardSamples(const Path& file);

/// Beep minus flash in seconds, at the second flash, as ffmpeg's decoders play the file's first video and audio track.
double beepAfterFlash(const Path& file);

/// A hash of the sample bytes of each track, edit lists disregarded.
std::string mediaHashes(const Path& file);

/// Rewrites a file whose `moov` is its last box: headers and edit lists in version 1.
void widenTimingBoxes(const Path& file);

/// Likewise: each `edts` goes to the end of its track.
void moveEditListsToTrackEnds(const Path& file);

}  // namespace tarn::test
