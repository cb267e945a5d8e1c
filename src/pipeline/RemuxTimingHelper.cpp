#include "pipeline/RemuxTimingHelper.h"

#include <string_view>

#include "platform/Log.h"

namespace tarn {
namespace {

constexpr std::string_view topBorder = "╔═══════════════════════════════════════════════════════════╗";
constexpr std::string_view heavyRule = "╠═══════════════════════════════════════════════════════════╣";
constexpr std::string_view lightRule = "╠───────────────────────────────────────────────────────────╣";
constexpr std::string_view bottomBorder = "╚═══════════════════════════════════════════════════════════╝";

void printDetail(std::string_view label, double seconds) {
  log("║   - {:<25}{:8.3f}s                    ║", label, seconds);
}

void printSubDetail(std::string_view label, double seconds) {
  log("║       {:<23}{:8.3f}s                    ║", label, seconds);
}

template <typename Timings>
void printStep(std::string_view label, double total, const Timings& timings) {
  if (total > 0) {
    log("║ {:<38} {:8.3f}s          ║", label, total);
    timings.printSubTimings();
  } else {
    log("║ {:<44}skipped       ║", label);
  }
}

}  // namespace

void RemuxTimings::printSubTimings() const {
  printDetail("Parameter extraction:", parameterExtraction);
  printDetail("Read moov box:", readMoov);
  if (isMultipleSampleEntries) {
    printDetail("Parse sample table:", parseSampleTable);
    printDetail("Detect segments:", detectSegments);
    printDetail("Build sample entries:", buildSampleEntries);
    printDetail("Rebuild sample tables:", rebuildSampleTables);
    printDetail("Build new moov:", buildNewMoov);
  } else {
    printDetail("Build hvcC box:", buildHvcC);
    printDetail("Inject hvcC into moov:", injectHvcC);
  }
  printDetail("Write atomic MP4:", writeAtomicMP4);
  printSubDetail("Find box layout:", findBoxLayout);
  printSubDetail("Adjust offsets:", adjustChunkOffsets);
  printSubDetail("Write other boxes:", writeOtherBoxes);
  printSubDetail("Write moov:", writeMoov);
  printSubDetail("Write mdat:", writeMdat);
  printSubDetail("Sync & replace:", syncAndReplace);
}

void AudioTranscodeTimings::printSubTimings() const {
  printDetail("Pass 1 (gap detection):", pass1GapDetection);
  printDetail("Pass 2 (transcode):", pass2Transcode);
  printDetail("Track replacement:", trackReplacement);
}

void AVSyncTimings::printSubTimings() const {
  printDetail("Read moov:", readMoov);
  printDetail("Analyze sync:", analyzeSync);
  printDetail("Build edit lists:", buildEditLists);
  printDetail("Convert CTTS:", convertCtts);
  printDetail("Write moov:", writeMoov);
}

void ProcessingTimings::printSummary() const {
  logLine("");
  logLine(topBorder);
  logLine("║         VIDEO PROCESSING TIMING SUMMARY                   ║");
  logLine(heavyRule);
  printStep("HEVC REMUXING:", hevcRemuxTotal, hevcRemuxing);
  logLine(lightRule);
  printStep("AUDIO TRANSCODING:", audioTranscodeTotal, audioTranscoding);
  logLine(lightRule);
  printStep("A/V SYNC FIX:", avSyncFixTotal, avSyncFix);
  logLine(heavyRule);
  log("║ GRAND TOTAL:                           {:8.3f}s          ║",
      hevcRemuxTotal + audioTranscodeTotal + avSyncFixTotal);
  logLine(bottomBorder);
  logLine("");
}

}  // namespace tarn
