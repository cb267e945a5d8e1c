#pragma once

#include <chrono>

namespace tarn {

/// Measures one stretch of time. Not thread-safe.
class TimingHelper {
 public:
  void start() { startTime_ = std::chrono::steady_clock::now(); }
  /// Seconds since start().
  double stop() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - startTime_).count(); }

 private:
  std::chrono::steady_clock::time_point startTime_ = std::chrono::steady_clock::now();
};

/// Where the time of a remux went, in seconds. The workers fill it; nothing but the report reads it.
struct RemuxTimings {
  double parameterExtraction = 0;
  double readMoov = 0;
  double buildHvcC = 0;
  double injectHvcC = 0;
  double writeAtomicMP4 = 0;
  double findBoxLayout = 0;
  double adjustChunkOffsets = 0;
  double writeOtherBoxes = 0;
  double writeMoov = 0;
  double writeMdat = 0;
  double syncAndReplace = 0;
  double parseSampleTable = 0;
  double detectSegments = 0;
  double buildSampleEntries = 0;
  double rebuildSampleTables = 0;
  double buildNewMoov = 0;
  bool isMultipleSampleEntries = false;  ///< chooses the lines of the report

  void printSubTimings() const;
};

struct AudioTranscodeTimings {
  double pass1GapDetection = 0;
  double pass2Transcode = 0;
  double trackReplacement = 0;

  void printSubTimings() const;
};

struct AVSyncTimings {
  double readMoov = 0;
  double analyzeSync = 0;
  double buildEditLists = 0;
  double convertCtts = 0;
  double writeMoov = 0;

  void printSubTimings() const;
};

/// The times of one run, in seconds. A step that did not run has a total of 0 and is reported as skipped.
class ProcessingTimings {
 public:
  RemuxTimings hevcRemuxing;
  AudioTranscodeTimings audioTranscoding;
  AVSyncTimings avSyncFix;
  double hevcRemuxTotal = 0;  ///< HEVC and AVC alike
  double audioTranscodeTotal = 0;
  double avSyncFixTotal = 0;

  /// Writes the report to the log, one line at a time.
  void printSummary() const;
};

}  // namespace tarn
