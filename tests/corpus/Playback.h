#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/FileManager.h"

namespace tarn::test {

/// What ffmpeg and ffprobe make of a file.

/// A decoded picture of the first video track.
struct Picture {
  double time;       ///< in seconds, edit lists applied
  std::string look;  ///< size and checksum
};

/// Decoded audio of the first audio track, in one channel.
struct Audio {
  struct Frame {
    double time;  ///< in seconds
    size_t first;
    size_t count;
    double end(double framesPerSecond) const { return time + double(count) / framesPerSecond; }
  };
  double rate = 0;
  std::vector<Frame> frames;
  std::vector<int16_t> samples;
};

/// A packet with what ffprobe says of it.
struct ShownPacket {
  double time;
  std::string flags;  ///< "D" among them: a player decodes it and shows nothing
  std::string hash;
  uint64_t place;  ///< in the file
  uint64_t size;
};

/// Media of the first audio track that its edit list shows, in seconds.
struct ShownRange {
  double start, length, media;
};
constexpr double endless = 1e9;  ///< the length of a range that goes on to the end of the media, as its list says

struct Playback {
  std::vector<Picture> pictures;
  Audio stored;  ///< edit lists ignored
  std::vector<ShownRange> shown;
  std::map<int, std::vector<ShownPacket>> packets;  ///< by the number of the track
  std::vector<std::string> tracks;                  ///< kind, language and title of each
  std::string metadata;                             ///< title, place, chapters

  int firstTrack(const std::string& kind) const;  ///< -1 without one
  /// The moment of the first picture; 0 without video.
  double firstPicture() const { return pictures.empty() ? 0 : pictures.front().time; }
};
Playback playbackOf(const Path& file);
std::vector<Picture> decodedPictures(const Path& file);
Audio decodedAudio(const Path& file, bool takesEditLists);
std::vector<ShownRange> shownRangesOf(const Path& file);

/// Where the first audio track is heard: moments when a beep begins, and the cells of 5 ms in which there is any sound.
struct Heard {
  std::vector<double> beeps;
  std::set<int64_t> cells;
  std::vector<double> seams;  ///< where a gap begins or ends
};

/// As a player plays it, and as the sample tables and the edit list say: a packet begins when it is due, also inside an
/// overlap, of which the later one wins; nothing is heard in a gap (ISO/IEC 14496-12 8.6.1.2, 8.6.6).
Heard heardByPlayer(const Audio& played);
Heard heardByTables(const Playback& playback);

/// The largest step between two neighbouring samples around a moment.
int stepAround(const Audio& audio, double time);

/// Where the tables of the first audio track leave a gap or an overlap of more than 10 ms, or drift.
std::string unevenness(const Audio& audio);

}  // namespace tarn::test
