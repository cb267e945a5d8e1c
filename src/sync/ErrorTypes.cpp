#include "sync/ErrorTypes.h"

#include <utility>

namespace tarn {

AVSyncError::AVSyncError(Case kind, int code, std::string description)
    : Error("AVSyncError", code, std::move(description)), kind_(kind) {}

AVSyncError AVSyncError::invalidEditList(const std::string& text) {
  return {Case::invalidEditList, -1, "Invalid edit list: " + text};
}

AVSyncError AVSyncError::cttsConversionFailed(const std::string& text) {
  return {Case::cttsConversionFailed, -1, "CTTS conversion failed: " + text};
}

AVSyncError AVSyncError::trackNotFound(const std::string& text) {
  return {Case::trackNotFound, -1, text + " track not found"};
}

AVSyncError AVSyncError::corruptedMP4(const std::string& text) {
  return {Case::corruptedMP4, -1, "Corrupted MP4: " + text};
}

AVSyncError AVSyncError::analysisError(const std::string& text) {
  return {Case::analysisError, -1, "Analysis error: " + text};
}

AVSyncError AVSyncError::fixError(const std::string& text) {
  return {Case::fixError, -1, "Fix error: " + text};
}

AVSyncError AVSyncError::ioError(const Error& underlying) {
  return {Case::ioError, underlying.code(), "I/O error: " + underlying.description()};
}

AVSyncError AVSyncError::analysisRequired() {
  return {Case::analysisRequired, -1, "A/V sync analysis required before fix"};
}

AVSyncError AVSyncError::moovNotFound() {
  return {Case::moovNotFound, -1, "moov box not found in file"};
}

AVSyncError AVSyncError::fileNotFound() {
  return {Case::fileNotFound, -1, "MP4 file not found"};
}

AVSyncError AVSyncError::fileHandleError(const std::string& words) {
  return ioError(Error("FileHandle", -1, words));
}

MP4EditListStripperError::MP4EditListStripperError(Case kind, int code, std::string description)
    : Error("MP4EditListStripperError", code, std::move(description)), kind_(kind) {}

MP4EditListStripperError MP4EditListStripperError::ioError(const Error& underlying) {
  return {Case::ioError, underlying.code(), "ioError: " + underlying.description()};
}

MP4EditListStripperError MP4EditListStripperError::corruptedMP4(const std::string& text) {
  return {Case::corruptedMP4, -1, "corruptedMP4: " + text};
}

MP4EditListStripperError MP4EditListStripperError::fileNotFound() {
  return {Case::fileNotFound, -1, "fileNotFound"};
}

MP4EditListStripperError MP4EditListStripperError::cannotOpenFile() {
  return {Case::cannotOpenFile, -1, "cannotOpenFile"};
}

MP4EditListStripperError MP4EditListStripperError::cannotCreateOutputFile() {
  return {Case::cannotCreateOutputFile, -1, "cannotCreateOutputFile"};
}

MP4EditListStripperError MP4EditListStripperError::fragmentedMP4NotSupported() {
  return {Case::fragmentedMP4NotSupported, -1, "fragmentedMP4NotSupported"};
}

MP4EditListStripperError MP4EditListStripperError::readError(const std::string& words) {
  return ioError(Error(words, -1, words));
}

}  // namespace tarn
