#pragma once

#include <tarn/summary.h>
#include <tarn/tarn.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace tarn {

/// What a file is, what is wrong with it, and what a repair would do.
struct FileInspection {
  /// What the inspection comes to.
  enum class Verdict {
    nothingToRepair,
    repairable,  ///< a repair mends something; what it cannot mend is among the problems
    leftAlone,   ///< a repair leaves the file as it is, though something is wrong with it
    broken,      ///< media or tables are missing, or the repair fails
  };

  /// A track of the movie. What is absent could not be read, or is not of this kind of track.
  struct Track {
    uint32_t id = 0;         ///< track_ID of the `tkhd` (8.3.2)
    std::string handler;     ///< of the `hdlr` (ISO/IEC 14496-12 8.4.3): "vide", "soun"; empty if it cannot be read
    std::string codec;       ///< tag of the first sample entry (8.5.2), as "hvc1"; empty if it cannot be read
    uint32_t timescale = 0;  ///< ticks a second
    int64_t duration = 0;    ///< of the media, in that timescale
    std::optional<uint32_t> samples = {};   ///< how many
    std::optional<int64_t> width = {};      ///< of a video track, in pixels
    std::optional<int64_t> height = {};     ///< likewise
    std::optional<uint16_t> channels = {};  ///< of an audio track
    std::optional<uint32_t> rate = {};      ///< of an audio track, in Hz
  };

  /// Something that is wrong with the file.
  struct Problem {
    std::string words;      ///< for people, without a stop
    bool isMended = false;  ///< by a repair
  };

  std::filesystem::path file;                  ///< absolute
  uint64_t size = 0;                           ///< bytes
  Verdict verdict = Verdict::nothingToRepair;  ///< what it comes to
  std::string verdictText;                     ///< a line that begins with what the verdict says, without a stop
  std::vector<Track> tracks;          ///< in the order of the file; empty for a file without a movie that can be read
  std::vector<Problem> problems;      ///< what is wrong with the file
  bool changesFile = false;           ///< the repair's result differs from the file
  std::vector<std::string> warnings;  ///< those of a repair, in its words
  std::vector<std::string> harms;     ///< what a repair would harm; it then leaves the file as it is
  RepairSummary summary;              ///< what is wrong, and what a repair did about it on trial
  std::string brief;                  ///< verdict, problems and repair, for people: several lines, the verdict first
  std::string text;                   ///< the same, followed by all other facts
  std::string json;                   ///< all as one JSON object, in one line (docs/json.md)
  std::string plot;                   ///< picture and sound before and after on one timeline, as an SVG document
};

/// Looks at a file and works out what a repair would do. Opens the file for reading alone, and writes nothing. A
/// damaged file is no failure: what cannot be read is told as a problem. Throws Error for what is no regular file, or
/// cannot be opened. May run on several threads at once.
TARN_API FileInspection inspectFile(const std::filesystem::path& file);

}  // namespace tarn
