#include "inspect/InspectionJSON.h"

#include <algorithm>
#include <limits>

#include "inspect/SummaryJSON.h"

namespace tarn {
namespace {

JSValue number(uint64_t value) {
  if (value > uint64_t{std::numeric_limits<int64_t>::max()}) return static_cast<double>(value);
  return static_cast<int64_t>(value);
}

template <typename T>
JSValue orNull(const std::optional<T>& value) {
  return value ? JSValue(*value) : JSValue();
}

template <typename T, typename ToJSON>
JSValue::Array arrayOf(const std::vector<T>& elements, ToJSON toJSON) {
  JSValue::Array array;
  for (const T& element : elements) array.emplace_back(toJSON(element));
  return array;
}

JSValue::Array texts(const std::vector<std::string>& lines) {
  return arrayOf(lines, [](const std::string& line) { return JSValue(line); });
}

JSObject pictureJSON(const PictureSize& size) {
  return {{"width", size.width}, {"height", size.height}};
}

JSObject boxJSON(const TopLevelBox& box) {
  return {{"type", box.type},
          {"offset", number(box.offset)},
          {"size", number(box.size)},
          {"missingBytes", number(box.missingBytes)}};
}

JSObject trackJSON(const TrackFacts& track) {
  JSObject object{{"id", int64_t{track.id}},
                  {"handler", track.handler},
                  {"codec", track.codec},
                  {"timescale", int64_t{track.timescale}},
                  {"duration", track.duration}};
  if (track.samples) object.set("samples", int64_t{*track.samples});
  if (track.picture) object.set("picture", pictureJSON(*track.picture));
  if (track.channels) object.set("channels", int64_t{*track.channels});
  if (track.rate) object.set("rate", int64_t{*track.rate});
  return object;
}

JSObject configurationJSON(const ConfigurationFacts& facts) {
  return {{"type", facts.type},
          {"size", number(facts.size)},
          {"vps", number(facts.vps)},
          {"sps", number(facts.sps)},
          {"pps", number(facts.pps)},
          {"complete", facts.isComplete},
          {"problem", orNull(facts.problem)}};
}

JSObject entryJSON(const SampleEntryFacts& entry) {
  JSObject object{{"tag", entry.tag},
                  {"size", number(entry.size)},
                  {"picture", pictureJSON(entry.picture)},
                  {"samples", arrayOf(entry.ranges,
                                      [](const SampleRange& range) {
                                        return JSValue::Array{range.first, range.last};
                                      })},
                  {"strayBytes", number(entry.strayBytes)}};
  if (entry.configuration) object.set("configuration", configurationJSON(*entry.configuration));
  return object;
}

JSObject bitstreamJSON(const BitstreamFacts& facts) {
  const auto sizes = [](const std::vector<size_t>& units) {
    return arrayOf(units, [](size_t size) { return number(size); });
  };
  return {{"syncSamples", number(facts.syncSamples)},
          {"nalLengthSize", facts.nalLengthSize},
          {"vps", sizes(facts.vps)},
          {"sps", sizes(facts.sps)},
          {"pps", sizes(facts.pps)},
          {"pictures", arrayOf(facts.pictures, pictureJSON)},
          {"reusesIdentifiers", facts.reusesIdentifiers},
          {"changesPictureSize", facts.changesPictureSize},
          {"problem", orNull(facts.problem)}};
}

JSObject videoJSON(const VideoFacts& video, const std::vector<IncompleteTrack>& incomplete) {
  const auto lacking = std::ranges::find(incomplete, "vide", &IncompleteTrack::handler);
  JSObject object{{"entries", arrayOf(video.entries, entryJSON)},
                  {"missingSamples", int64_t{lacking == incomplete.end() ? 0 : lacking->missing}},
                  {"problem", orNull(video.problem)}};
  if (video.bitstream) object.set("bitstream", bitstreamJSON(*video.bitstream));
  return object;
}

JSValue::Array rowsJSON(const std::vector<EditListEntry>& rows) {
  return arrayOf(rows, [](const EditListEntry& row) {
    return JSObject{{"duration", row.duration}, {"mediaTime", row.mediaTime}, {"mediaRate", int64_t{row.mediaRate}}};
  });
}

JSObject syncJSON(const OriginalSyncInfo& sync) {
  return {{"movieTimescale", int64_t{sync.movieTimescale}},      {"videoTimescale", int64_t{sync.videoTrackTimescale}},
          {"audioTimescale", int64_t{sync.audioTrackTimescale}}, {"videoEdits", rowsJSON(sync.videoEditList)},
          {"audioEdits", rowsJSON(sync.audioEditList)},          {"firstCompositionOffset", sync.videoFirstCts},
          {"offsetMilliseconds", sync.syncOffsetSeconds * 1000}};
}

const char* kindText(Verdict::Kind kind) {
  switch (kind) {
    case Verdict::Kind::nothingToRepair:
      return "nothingToRepair";
    case Verdict::Kind::repairable:
      return "repairable";
    case Verdict::Kind::leftAlone:
      return "leftAlone";
    case Verdict::Kind::broken:
      return "broken";
  }
  return "";
}

const char* kindText(FragmentsForecast::Kind kind) {
  switch (kind) {
    case FragmentsForecast::Kind::nothing:
      return "nothing";
    case FragmentsForecast::Kind::joins:
      return "joins";
    case FragmentsForecast::Kind::keepsPart:
      return "keepsPart";
    case FragmentsForecast::Kind::correctsSize:
      return "correctsSize";
    case FragmentsForecast::Kind::leavesAlone:
      return "leavesAlone";
    case FragmentsForecast::Kind::refuses:
      return "refuses";
  }
  return "";
}

const char* kindText(RemuxForecast::Kind kind) {
  switch (kind) {
    case RemuxForecast::Kind::skipped:
      return "skipped";
    case RemuxForecast::Kind::leavesAlone:
      return "leavesAlone";
    case RemuxForecast::Kind::changesTag:
      return "changesTag";
    case RemuxForecast::Kind::rebuilds:
      return "rebuilds";
    case RemuxForecast::Kind::splits:
      return "splits";
    case RemuxForecast::Kind::refuses:
      return "refuses";
  }
  return "";
}

const char* kindText(SyncForecast::Kind kind) {
  switch (kind) {
    case SyncForecast::Kind::notReached:
      return "notReached";
    case SyncForecast::Kind::nothing:
      return "nothing";
    case SyncForecast::Kind::writes:
      return "writes";
    case SyncForecast::Kind::fails:
      return "fails";
  }
  return "";
}

const char* kindText(AudioForecast::Kind kind) {
  switch (kind) {
    case AudioForecast::Kind::notReached:
      return "notReached";
    case AudioForecast::Kind::skipped:
      return "skipped";
    case AudioForecast::Kind::noSound:
      return "noSound";
    case AudioForecast::Kind::leavesAlone:
      return "leavesAlone";
    case AudioForecast::Kind::leavesToEditList:
      return "leavesToEditList";
    case AudioForecast::Kind::takesFastPath:
      return "takesFastPath";
    case AudioForecast::Kind::transcodes:
      return "transcodes";
    case AudioForecast::Kind::leavesExtremeDrift:
      return "leavesExtremeDrift";
  }
  return "";
}

const char* kindText(RepairDecision::Kind kind) {
  switch (kind) {
    case RepairDecision::Kind::skip:
      return "skip";
    case RepairDecision::Kind::editListOnly:
      return "editListOnly";
    case RepairDecision::Kind::fastPath:
      return "fastPath";
    case RepairDecision::Kind::fullNormalize:
      return "fullNormalize";
  }
  return "";
}

JSObject placeJSON(const SoundPlace& place) {
  return {{"atMilliseconds", place.atSeconds * 1000}, {"lengthMilliseconds", place.milliseconds}};
}

JSObject audioJSON(const AudioForecast& forecast) {
  JSObject object{{"does", kindText(forecast.kind)}, {"reason", forecast.reason}};
  if (!forecast.findings) return object;
  const AudioAnalysisResult& analysis = forecast.findings->analysis;
  const AudioConfigCheck& config = forecast.findings->config;
  object.set("decision", kindText(forecast.findings->decision.kind));
  object.set("classification", std::string(text(analysis.gapType)));
  object.set("aacType", std::string(text(analysis.aacType)));
  object.set("objectType", config.aacObjectType);
  object.set("rate", config.sampleRate);
  object.set("channels", config.channelCount);
  object.set("packetsUsable", config.matchesPassthroughTarget);
  object.set("initialOffsetMilliseconds", analysis.initialOffsetMs);
  object.set("driftMilliseconds", analysis.timelineDriftMs);
  object.set("gapCount", analysis.internalGapCount);
  object.set("gaps", arrayOf(forecast.gaps, placeJSON));
  object.set("overlapCount", analysis.overlapCount);
  object.set("overlaps", arrayOf(forecast.overlaps, placeJSON));
  return object;
}

JSObject syncFixJSON(const SyncForecast& forecast) {
  JSObject object{{"does", kindText(forecast.kind)}, {"reason", forecast.reason}};
  if (forecast.kind != SyncForecast::Kind::writes) return object;
  object.set("tracks", arrayOf(forecast.order.tracks, [](const SyncFixOrder::Track& track) {
               return JSObject{{"id", int64_t{track.trackID}},
                               {"reason", track.list.reason},
                               {"edits", rowsJSON(track.list.entries)}};
             }));
  return object;
}

}  // namespace

std::string inspectionJSON(const Inspection& inspection) {
  JSObject object{{"schema", 1},
                  {"result", "inspected"},
                  {"verdict", inspection.verdict.text},
                  {"verdictKind", kindText(inspection.verdict.kind)},
                  {"file", inspection.file.string()},
                  {"size", number(inspection.size)},
                  {"boxes", arrayOf(inspection.boxes, boxJSON)},
                  {"boxesProblem", orNull(inspection.boxesProblem)},
                  {"tracks", arrayOf(inspection.tracks, trackJSON)}};
  if (inspection.video) object.set("video", videoJSON(*inspection.video, inspection.incomplete));
  if (inspection.sync) object.set("sync", syncJSON(*inspection.sync));
  if (inspection.syncProblem) object.set("syncProblem", *inspection.syncProblem);
  object.set("problems", arrayOf(inspection.problems, [&](const Problem& problem) {
               return JSObject{{"words", problem.words}, {"mended", isMended(problem, inspection)}};
             }));
  object.set("fragments",
             JSObject{{"does", kindText(inspection.fragments.kind)}, {"reason", inspection.fragments.reason}});
  object.set("remux", JSObject{{"does", kindText(inspection.remux.kind)},
                               {"reason", inspection.remux.reason},
                               {"changesFile", inspection.remux.changesFile},
                               {"entries", arrayOf(inspection.remux.entries, entryJSON)},
                               {"losses", texts(inspection.remux.losses)}});
  object.set("audio", audioJSON(inspection.audio));
  object.set("syncFix", syncFixJSON(inspection.syncFix));
  object.set("warnings", texts(inspection.warnings));
  object.set("comparable", inspection.isComparable);
  object.set("harms", texts(inspection.harms));
  object.set("changesFile", inspection.changesFile);
  object.set("summary", summaryJSON(inspection.summary));
  return object.json();
}

}  // namespace tarn
