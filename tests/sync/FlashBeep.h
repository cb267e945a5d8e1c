#pragma once

#include <string>
#include <vector>

#include "platform/FileManager.h"

namespace tarn::test {

/// A clip made by ffmpeg: for 3 s, a white frame and a beep at each whole second, B-frames, AAC; audio late (positive)
/// or early (negative) by so many seconds. The arguments go to the muxer.
Path flashBeepClip(double audioLate, const std::vector<std::string>& muxerArguments = {}, bool audioFirst = false,
                   bool twoAudioTracks = false);

/// Beep minus flash in seconds, at the second flash, as ffmpeg's decoders play the file's first video and audio track.
double beepAfterFlash(const Path& file);

/// A hash of the sample bytes of each track, edit lists disregarded.
std::string mediaHashes(const Path& file);

/// Rewrites a file whose `moov` is its last box: headers and edit lists in version 1.
void widenTimingBoxes(const Path& file);

/// Likewise: each `edts` goes to the end of its track.
void moveEditListsToTrackEnds(const Path& file);

}  // namespace tarn::test
