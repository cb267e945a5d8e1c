#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "pipeline/ProcessingStage.h"
#include "platform/Bytes.h"
#include "platform/Clock.h"
#include "platform/FileManager.h"

namespace tarn {

/// How far one download's run has come: a plain value, stored as a checkpoint.
struct ProcessingState {
  int64_t downloadId = 0;
  std::string filename = {};              ///< under which the result is stored and saved
  std::optional<std::string> album = {};  ///< Photos album to save into
  Path fileURL = {};                      ///< absolute path of the video that the stages work on
  ProcessingStage stage = ProcessingStage::downloaded;
  std::vector<Path> tempFiles = {};  ///< made by the run and not yet disposed of; no duplicates
  std::optional<std::string> error = {};
  Date lastUpdated = {};  ///< last change of `stage`
  bool needsRemuxing = false;
  bool needsAudioTranscode = false;
  bool skipAVSync = false;
  bool areFlagsFinal = false;  ///< the three above were told from a file as the steps can work on it
  /// The three as the request has them, if a step has made the file that they were told from.
  std::optional<std::array<bool, 3>> askedFlags = {};
  std::optional<double> videoFirstPTS = {};  ///< seconds
  std::optional<std::string> lostEnd = {};   ///< which part of the video was cut away, for people, if one was
  std::optional<std::string> missing = {};   ///< what the movie lists and the file does not hold, for people
  std::vector<std::string> wrong = {};       ///< what the steps found wrong, for people: one sentence for each fault
  std::vector<std::string> done = {};        ///< what they did about it, likewise

  void removeTempFile(const Path& path);
  void addTempFile(const Path& path);

  /// Before a change of the flags, and when what they were told from is lost.
  void keepAskedFlags();
  void restoreAskedFlags();
};

using ProcessingStates = std::map<int64_t, ProcessingState>;

/// The stored document: UTF-8 JSON, one flat array in which ids and records alternate. Dates are seconds since
/// 2001-01-01 UTC, files are file URLs.
Bytes encodeProcessingStates(const ProcessingStates& states);

/// What a document holds: its records, and each part that is not a record, with the reason.
struct DecodedStates {
  struct Undecodable {
    std::string text;  ///< as it stands in the document
    std::string what;  ///< "Processing state <id>", or "The document"
    std::string reason;
  };
  ProcessingStates states = {};
  std::vector<Undecodable> rest = {};
};
DecodedStates decodeProcessingStates(ByteView document);

/// Texts as a JSON array. A document that is no such array decodes to one text: the document itself.
Bytes encodeTexts(const std::vector<std::string>& texts);
std::vector<std::string> decodeTexts(ByteView document);

}  // namespace tarn
