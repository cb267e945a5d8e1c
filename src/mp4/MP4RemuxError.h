#pragma once

#include <string>

#include "platform/Error.h"

namespace tarn {

/// The failures of the video remuxer.
class MP4RemuxError : public Error {
 public:
  enum class Case {
    corruptedMP4,       ///< a box that must exist is missing or damaged
    unsupportedFormat,  ///< the track's codec is not one that this path repairs
    writeError,         ///< disk space or output failure
    ioError,            ///< a read or open failure
    fileNotFound,
  };

  static MP4RemuxError corruptedMP4(const std::string& text);
  static MP4RemuxError unsupportedFormat(const std::string& text);
  static MP4RemuxError writeError(const std::string& text, int code = -1);
  static MP4RemuxError ioError(const Error& underlying);
  static MP4RemuxError fileNotFound();

  Case kind() const { return kind_; }

 private:
  MP4RemuxError(Case kind, int code, std::string description);
  Case kind_;
};

}  // namespace tarn
