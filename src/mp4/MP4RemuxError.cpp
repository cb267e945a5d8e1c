#include "mp4/MP4RemuxError.h"

#include <utility>

namespace tarn {

MP4RemuxError::MP4RemuxError(Case kind, int code, std::string description)
    : Error("MP4RemuxError", code, std::move(description)), kind_(kind) {}

MP4RemuxError MP4RemuxError::corruptedMP4(const std::string& text) {
  return {Case::corruptedMP4, -1, "Corrupted MP4 file: " + text};
}

MP4RemuxError MP4RemuxError::unsupportedFormat(const std::string& text) {
  return {Case::unsupportedFormat, -1, "Unsupported format: " + text};
}

MP4RemuxError MP4RemuxError::writeError(const std::string& text, int code) {
  return {Case::writeError, code, "Write error: " + text};
}

MP4RemuxError MP4RemuxError::ioError(const Error& underlying) {
  return {Case::ioError, underlying.code(), "I/O error: " + underlying.description()};
}

MP4RemuxError MP4RemuxError::fileNotFound() {
  return {Case::fileNotFound, -1, "File not found"};
}

}  // namespace tarn
