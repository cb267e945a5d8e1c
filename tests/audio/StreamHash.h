#pragma once

#include <string>

#include "support/MediaMaker.h"

namespace tarn::test {

/// Hash of all packets of one stream ("v:0", "a:0"), their times apart, as ffmpeg reads them without the edit list;
/// empty for a file that it cannot read.
inline std::string streamHash(const Path& file, const std::string& stream) {
  auto result = runProcess({"ffmpeg", "-v", "error", "-ignore_editlist", "1", "-i", file, "-map", "0:" + stream, "-c",
                            "copy", "-f", "streamhash", "-"});
  const size_t line = result.output.find("0," + stream.substr(0, 1) + ",");
  return result.exitCode == 0 && line != std::string::npos ? result.output.substr(line) : "";
}

}  // namespace tarn::test
