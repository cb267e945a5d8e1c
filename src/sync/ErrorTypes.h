#pragma once

#include <string>

#include "platform/Error.h"

namespace tarn {

/// The failures of the A/V sync operations.
class AVSyncError : public Error {
 public:
  enum class Case {
    invalidEditList,
    cttsConversionFailed,
    trackNotFound,
    corruptedMP4,   ///< a box that must exist is missing
    analysisError,  ///< timing facts with which nothing can be worked out
    fixError,       ///< a file that cannot be rewritten
    ioError,        ///< an open, read or create failure
    analysisRequired,
    moovNotFound,
    fileNotFound,
  };

  static AVSyncError invalidEditList(const std::string& text);
  static AVSyncError cttsConversionFailed(const std::string& text);
  static AVSyncError trackNotFound(const std::string& text);
  static AVSyncError corruptedMP4(const std::string& text);
  static AVSyncError analysisError(const std::string& text);
  static AVSyncError fixError(const std::string& text);
  static AVSyncError ioError(const Error& underlying);
  static AVSyncError analysisRequired();
  static AVSyncError moovNotFound();
  static AVSyncError fileNotFound();

  /// An ioError of the domain "FileHandle" with these words.
  static AVSyncError fileHandleError(const std::string& words);

  Case kind() const { return kind_; }

 private:
  AVSyncError(Case kind, int code, std::string description);
  Case kind_;
};

/// The failures of the edit list stripper.
class MP4EditListStripperError : public Error {
 public:
  enum class Case {
    ioError,  ///< a read failed
    corruptedMP4,
    fileNotFound,
    cannotOpenFile,
    cannotCreateOutputFile,
    fragmentedMP4NotSupported,
  };

  static MP4EditListStripperError ioError(const Error& underlying);
  static MP4EditListStripperError corruptedMP4(const std::string& text);
  static MP4EditListStripperError fileNotFound();
  static MP4EditListStripperError cannotOpenFile();
  static MP4EditListStripperError cannotCreateOutputFile();
  static MP4EditListStripperError fragmentedMP4NotSupported();

  /// An ioError with these words.
  static MP4EditListStripperError readError(const std::string& words);

  Case kind() const { return kind_; }

 private:
  MP4EditListStripperError(Case kind, int code, std::string description);
  Case kind_;
};

}  // namespace tarn
