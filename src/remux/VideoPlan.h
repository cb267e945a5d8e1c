#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "parameters/HEVCConfigurationSegment.h"
#include "platform/FileManager.h"

namespace tarn {

/// What the repair makes of a video track, decided from its sample entries and from the parameter sets that its sync
/// samples carry.
struct VideoPlan {
  enum class Kind {
    leavesAlone,  ///< the entries say all that a player needs
    changesTags,  ///< so they do, but for tags that leave the sets to the samples
    rebuilds,     ///< the only entry gets a new configuration box
    splits,       ///< the track gets a new entry for each configuration
    cannot,       ///< something is missing, and nowhere to be found
  };
  Kind kind = Kind::leavesAlone;
  std::string reason = {};                          ///< for people: what is wrong, or of leavesAlone why nothing is
  std::string remedy = {};                          ///< what following the plan does about it: "changed the tag to ..."
  bool hasWholeEntries = false;                     ///< each sample entry in use holds complete sets
  std::vector<std::string> losses = {};             ///< what the new entries do not take over, likewise
  std::vector<uint64_t> tagOffsets = {};            ///< of changesTags: where the tags are in the file
  std::string newTag = {};                          ///< likewise: what is written there
  int nalLengthSize = 4;                            ///< of rebuilds and splits, likewise below; in bytes
  std::vector<ConfigurationSegment> segments = {};  ///< each with complete sets; one for rebuilds
};

/// Makes the plan for the first video track. Returns nothing if its first sample entry has a tag other than "hev1",
/// "hvc1", "avc1" and "avc3". Reads the tables, and of each sync sample the front as far as the first slice. Throws
/// MP4RemuxError (fileNotFound, ioError; corruptedMP4 if there is no way to the sample entries), NALUnitParserError,
/// what the sample table parser throws, and PosixError.
std::optional<VideoPlan> planVideo(FileManager& files, const Path& path);

/// Does what a plan of the kind changesTags says, in the file itself, flushed. Throws MP4RemuxError::ioError and
/// PosixError.
void changeTags(FileManager& files, const Path& path, const VideoPlan& plan);

}  // namespace tarn
