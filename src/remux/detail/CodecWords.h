#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "mp4/MP4RemuxError.h"
#include "parameters/VideoCodec.h"

namespace tarn {

/// The log and error words of the remux that differ between the codecs.
struct CodecWords {
  std::string_view prefix;      ///< of its log lines
  std::string_view donePrefix;  ///< of the line that ends a remux, and of a few others
  bool logsDetails;  ///< tells of each step over a sample entry's children, of the template and the new tables
  std::string_view startText, diskCheckEnd, diskAdvice, extractText, recordName;
  std::string_view severalEntriesText, severalEntriesHeading, severalEntriesDone;
  MP4RemuxError (*noVideoTrack)(size_t tracks);
  MP4RemuxError (*wrongTag)(const std::string& tag);
};

const CodecWords& wordsFor(const VideoCodec& codec);

}  // namespace tarn
