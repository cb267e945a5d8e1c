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
  enum class Verdict {
    nothingToRepair,
    repairable,
    leftAlone,  ///< a repair leaves the file as it is, though something is wrong with it
    broken,     ///< media or tables are missing, or the repair fails
  };

  struct Track {
    uint32_t id = 0;
    std::string handler;     ///< of the `hdlr` (ISO/IEC 14496-12 8.4.3): "vide", "soun"; empty if it cannot be read
    std::string codec;       ///< tag of the first sample entry (8.5.2), as "hvc1"; empty if it cannot be read
    uint32_t timescale = 0;  ///< ticks a second
    int64_t duration = 0;    ///< of the media, in that timescale
    std::optional<uint32_t> samples = {};
    std::optional<int64_t> width = {};  ///< pixels; of a video track
    std::optional<int64_t> height = {};
    std::optional<uint16_t> channels = {};
    std::optional<uint32_t> rate = {};  ///< Hz; of an audio track
  };

  struct Problem {
    std::string words;      ///< for people, without a stop
    bool isMended = false;  ///< by a repair
  };

  std::filesystem::path file;  ///< absolute
  uint64_t size = 0;           ///< bytes
  Verdict verdict = Verdict::nothingToRepair;
  std::string verdictText;  ///< a line that begins with what the verdict says, without a stop
  std::vector<Track> tracks;
  std::vector<Problem> problems;
  bool changesFile = false;           ///< the repair's result differs from the file
  std::vector<std::string> warnings;  ///< those of a repair, in its words
  std::vector<std::string> harms;     ///< what a repair would harm; it then leaves the file as it is
  RepairSummary summary;              ///< what is wrong, and what a repair did about it on trial
  std::string brief;                  ///< verdict, problems and repair, for people: several lines, the verdict first
  std::string text;                   ///< the same, and all other facts behind it
  std::string json;                   ///< all as one JSON object, in one line (docs/json.md)
  std::string plot;                   ///< picture and sound before and after on one timeline, as an SVG document
};

/// Looks at a file and works out what a repair would do. Opens the file for reading alone, and writes nothing. A
/// damaged file is no failure: what cannot be read is told as a problem. Throws Error for what is no regular file, or
/// cannot be opened. May run on several threads at once.
TARN_API FileInspection inspectFile(const std::filesystem::path& file);

}  // namespace tarn
