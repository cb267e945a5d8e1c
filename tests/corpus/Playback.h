#pragma once

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/MediaMaker.h"
#include "support/PCM.h"
#include "support/ProbedMovie.h"
#include "support/TempDirectory.h"

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

  /// -1 without one.
  int firstTrack(const std::string& kind) const {
    const auto found = std::ranges::find_if(tracks, [&](const std::string& track) { return track.starts_with(kind); });
    return found == tracks.end() ? -1 : static_cast<int>(found - tracks.begin());
  }
  /// The moment of the first picture; 0 without video.
  double firstPicture() const { return pictures.empty() ? 0 : pictures.front().time; }
};
constexpr int cellsPerSecond = 200;
constexpr int loud = 11000, audible = 600;

/// The word behind a key in a line of ffmpeg's log.
inline std::string wordBehind(const std::string& line, const std::string& key) {
  const size_t at = line.find(key);
  if (at == std::string::npos) throw std::runtime_error("no " + key + " in " + line);
  return words(line.substr(at + key.size())).front();
}

inline std::vector<std::string> columns(const std::string& line) {
  std::vector<std::string> found;
  std::istringstream stream(line);
  for (std::string column; std::getline(stream, column, ',');) found.push_back(column);
  return found;
}

/// Tracks, packets and metadata.
inline void probe(const Path& file, Playback& playback) {
  const char* const entries =
      "packet=stream_index,pts_time,size,pos,flags,data_hash:stream=codec_type:stream_tags=language,title:"
      "format_tags=title,location:chapter=start_time,end_time:chapter_tags=title";
  const auto probed = runProcess({"ffprobe", "-v", "error", "-show_data_hash", "md5", "-show_chapters", "-show_entries",
                                  entries, "-of", "csv", file});
  std::istringstream lines(probed.output);
  for (std::string line; std::getline(lines, line);) {
    const auto column = columns(line);
    if (column.front() == "packet") {
      // Side data, on lines of their own, may stand ahead of the hash.
      for (std::string more; line.find("MD5:") == std::string::npos && std::getline(lines, more);) line += more;
      const double time = column[2] == "N/A" ? 0 : std::stod(column[2]);
      const uint64_t place = column[4] == "N/A" ? 0 : std::stoull(column[4]);
      playback.packets[std::stoi(column[1])].push_back(
          {time, column[5], line.substr(line.find("MD5:"), 36), place, std::stoull(column[3])});
    } else if (column.front() == "stream") {
      playback.tracks.push_back(line.substr(7, line.find(",side_data") - 7));
    } else if (column.front() == "chapter" || column.front() == "format") {
      playback.metadata += line + "\n";
    }
  }
}

/// Where the first audio track is heard: moments when a beep begins, and the cells of 5 ms in which there is any sound.
struct Heard {
  std::vector<double> beeps;
  std::set<int64_t> cells;
  std::vector<double> seams;  ///< where a gap begins or ends
};

/// Calls back for each moment of movie time that a moment of an audio frame is heard at.
using Placing = std::function<void(double time, const std::function<void(double)>&)>;

inline Heard heard(const Audio& audio, const Placing& place) {
  Heard result;
  double lastLoud = -1e9, nextFrame = std::numeric_limits<double>::max();
  int64_t lastAudible = INT64_MIN;
  std::vector<double> ends(audio.frames.size());
  for (size_t i = ends.size(); i-- > 0;) {
    ends[i] = std::min(audio.frames[i].end(audio.rate), nextFrame);
    nextFrame = std::min(nextFrame, audio.frames[i].time);
  }
  for (size_t i = 0; i < audio.frames.size(); ++i) {
    const auto& frame = audio.frames[i];
    for (size_t k = 0; k < frame.count; ++k) {
      const int level = std::abs(audio.samples[frame.first + k]);
      const double time = frame.time + double(k) / audio.rate;
      if (level < audible || time > ends[i] + 0.001) continue;
      const auto millisecond = static_cast<int64_t>(time * 1000);
      if (millisecond != lastAudible) {
        place(time, [&](double t) { result.cells.insert(static_cast<int64_t>(std::floor(t * cellsPerSecond))); });
      }
      lastAudible = millisecond;
      if (level < loud) continue;
      if (time > lastLoud + 0.3) place(time, [&](double t) { result.beeps.push_back(t); });
      lastLoud = time;
    }
    if (i > 0 && std::abs(frame.time - audio.frames[i - 1].end(audio.rate)) > 0.01) {
      for (double seam : {audio.frames[i - 1].end(audio.rate), frame.time}) {
        place(seam, [&](double t) { result.seams.push_back(t); });
      }
    }
  }
  std::ranges::sort(result.beeps);
  return result;
}

inline std::vector<ShownRange> shownRangesOf(const Path& file) {
  BoxTree moov = moovOf(contentsOf(file));
  BoxTree& track = *moov.track("soun");
  const double movieScale = readUInt32(moov.at("mvhd").fields, 12).value();
  const double scale = readUInt32(track.at("mdia/mdhd").fields, 12).value();
  if (track.child("edts") == track.children.end()) return {{0, std::numeric_limits<double>::max(), 0}};
  const Bytes& fields = track.at("edts/elst").fields;
  std::vector<ShownRange> ranges;
  double start = 0;
  for (size_t at = 8; at < fields.size(); at += 12) {
    const uint32_t ticks = readUInt32(fields, at).value();
    const double length = ticks > 0 ? ticks / movieScale : endless;
    const auto media = static_cast<int32_t>(readUInt32(fields, at + 4).value());
    if (media != -1) ranges.push_back({start, length, media / scale});
    start += length;
  }
  return ranges;
}

inline Audio decodedAudio(const Path& file, bool takesEditLists) {
  const TempDirectory directory;
  const Path pcm = directory / "pcm";
  const auto log = runProcess(words(fmt::format(
      "ffmpeg -v info -nostats -err_detect explode -copyts -ignore_editlist {} -i {} -map 0:a:0 -af ashowinfo "
      "-f s16le -ac 1 {}",
      takesEditLists ? 0 : 1, file.string(), pcm.string())));
  Audio audio;
  std::istringstream lines(log.output);
  size_t first = 0;
  for (std::string line; std::getline(lines, line);) {
    if (line.find("nb_samples:") == std::string::npos || line.find(" pts_time:") == std::string::npos) continue;
    const size_t count = std::stoul(wordBehind(line, "nb_samples:"));
    audio.rate = std::stod(wordBehind(line, "rate:"));
    audio.frames.push_back({std::stod(wordBehind(line, " pts_time:")), first, count});
    first += count;
  }
  const Bytes bytes = std::filesystem::exists(pcm) ? contentsOf(pcm) : Bytes();
  audio.samples = samplesIn(bytes.data(), bytes.size());
  if (audio.samples.size() != first) throw std::runtime_error("frames and samples differ: " + log.output);
  return audio;
}

inline std::vector<Picture> decodedPictures(const Path& file) {
  const auto log = runProcess(
      words(fmt::format("ffmpeg -v info -nostats -err_detect explode -copyts -i {} -map 0:v:0 -autoscale 0 -vf "
                        "format=gray,showinfo -vsync passthrough -f null -",
                        file.string())));
  std::vector<Picture> pictures;
  std::istringstream lines(log.output);
  for (std::string line; std::getline(lines, line);) {
    if (line.find(" plane_checksum:") == std::string::npos) continue;
    pictures.push_back(
        {std::stod(wordBehind(line, " pts_time:")), wordBehind(line, " s:") + " " + wordBehind(line, " checksum:")});
  }
  return pictures;
}

inline Playback playbackOf(const Path& file) {
  Playback playback;
  probe(file, playback);
  if (playback.firstTrack("video") >= 0) playback.pictures = decodedPictures(file);
  if (playback.firstTrack("audio") >= 0) {
    playback.stored = decodedAudio(file, false);
    playback.shown = shownRangesOf(file);
  }
  return playback;
}

/// As a player plays it, and as the sample tables and the edit list say: a packet begins when it is due, also inside an
/// overlap, of which the later one wins; nothing is heard in a gap (ISO/IEC 14496-12 8.6.1.2, 8.6.6).
inline Heard heardByPlayer(const Audio& played) {
  return heard(played, [](double time, const auto& at) { at(time); });
}

inline Heard heardByTables(const Playback& playback) {
  return heard(playback.stored, [&](double time, const auto& at) {
    for (const ShownRange& range : playback.shown) {
      if (time >= range.media - 1e-9 && time < range.media + range.length) at(range.start + time - range.media);
    }
  });
}

/// The largest step between two neighbouring samples around a moment.
inline int stepAround(const Audio& audio, double time) {
  int largest = 0;
  for (const auto& frame : audio.frames) {
    if (frame.end(audio.rate) < time - 0.02 || frame.time > time + 0.02) continue;
    const size_t begin = std::max<size_t>(frame.first, 1);
    for (size_t i = begin; i < frame.first + frame.count; ++i) {
      largest = std::max(largest, std::abs(audio.samples[i] - audio.samples[i - 1]));
    }
  }
  return largest;
}

/// Where the tables of the first audio track leave a gap or an overlap of more than 10 ms, or drift.
inline std::string unevenness(const Audio& audio) {
  double drift = 0;
  for (size_t i = 1; i < audio.frames.size(); ++i) {
    const double step = audio.frames[i].time - audio.frames[i - 1].end(audio.rate);
    if (std::abs(step) > 0.01) {
      return fmt::format("{} of {:.0f} ms at {:.2f} s", step > 0 ? "a gap" : "an overlap", std::abs(step) * 1000,
                         audio.frames[i].time);
    }
    drift += step;
  }
  return std::abs(drift) > 0.003 ? fmt::format("a drift of {:.1f} ms", drift * 1000) : "";
}

}  // namespace tarn::test
