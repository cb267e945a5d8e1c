#include "pipeline/ProcessingState.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "platform/Error.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

/// Stored dates count from 2001-01-01 00:00:00 UTC.
constexpr std::chrono::seconds referenceDate{978307200};

double secondsSinceReferenceDate(Date date) {
  return std::chrono::duration<double>(date.time_since_epoch() - referenceDate).count();
}

Date dateFromReference(double seconds) {
  // The clock holds about 290 years to either side of 1970; a date beyond is damaged.
  constexpr double limit = 9e9;
  if (!(seconds > -limit && seconds < limit)) throw Error("ProcessingState", -1, "lastUpdated is out of range");
  return Date(std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(seconds) + referenceDate));
}

template <typename T>
void setIfPresent(Json& object, const char* key, const std::optional<T>& value) {
  if (value) object[key] = *value;
}

template <typename T>
std::optional<T> optionalValue(const Json& object, const char* key) {
  auto found = object.find(key);
  if (found == object.end() || found->is_null()) return std::nullopt;
  return found->get<T>();
}

Json encode(const ProcessingState& state) {
  Json object;
  object["downloadId"] = state.downloadId;
  object["filename"] = state.filename;
  setIfPresent(object, "album", state.album);
  object["fileURL"] = fileURLText(state.fileURL);
  object["stage"] = rawValue(state.stage);
  object["tempFiles"] = Json::array();
  for (const Path& file : state.tempFiles) object["tempFiles"].push_back(fileURLText(file));
  setIfPresent(object, "error", state.error);
  object["lastUpdated"] = secondsSinceReferenceDate(state.lastUpdated);
  object["needsRemuxing"] = state.needsRemuxing;
  object["needsAudioTranscode"] = state.needsAudioTranscode;
  object["skipAVSync"] = state.skipAVSync;
  if (state.areFlagsFinal) object["areFlagsFinal"] = true;
  setIfPresent(object, "askedFlags", state.askedFlags);
  setIfPresent(object, "videoFirstPTS", state.videoFirstPTS);
  setIfPresent(object, "lostEnd", state.lostEnd);
  setIfPresent(object, "missing", state.missing);
  if (!state.wrong.empty()) object["wrong"] = state.wrong;
  if (!state.done.empty()) object["done"] = state.done;
  return object;
}

/// A name that is not UTF-8 must not make the checkpoint unstorable: its bytes are replaced here. fileURL, which is
/// percent-encoded, keeps them.
std::string textOfJson(const Json& document) {
  return document.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Path decodePath(const Json& value) {
  auto path = pathFromFileURL(value.get<std::string>());
  if (!path) throw Error("ProcessingState", -1, "not a file URL: " + value.get<std::string>());
  return *path;
}

ProcessingState decode(const Json& object) {
  ProcessingState state;
  state.downloadId = object.at("downloadId").get_ref<const int64_t&>();
  state.filename = object.at("filename").get<std::string>();
  state.album = optionalValue<std::string>(object, "album");
  state.fileURL = decodePath(object.at("fileURL"));
  auto stage = processingStage(object.at("stage").get<std::string>());
  if (!stage) throw Error("ProcessingState", -1, "unknown stage: " + object.at("stage").get<std::string>());
  state.stage = *stage;
  const Json& tempFiles = object.at("tempFiles");
  if (!tempFiles.is_array()) throw Error("ProcessingState", -1, "tempFiles is not an array");
  for (const Json& file : tempFiles) state.addTempFile(decodePath(file));
  state.error = optionalValue<std::string>(object, "error");
  state.lastUpdated = dateFromReference(object.at("lastUpdated").get<double>());
  state.needsRemuxing = object.at("needsRemuxing").get<bool>();
  state.needsAudioTranscode = object.at("needsAudioTranscode").get<bool>();
  state.skipAVSync = object.at("skipAVSync").get<bool>();
  state.areFlagsFinal = optionalValue<bool>(object, "areFlagsFinal").value_or(false);
  state.askedFlags = optionalValue<std::array<bool, 3>>(object, "askedFlags");
  state.videoFirstPTS = optionalValue<double>(object, "videoFirstPTS");
  state.lostEnd = optionalValue<std::string>(object, "lostEnd");
  state.missing = optionalValue<std::string>(object, "missing");
  state.wrong = optionalValue<std::vector<std::string>>(object, "wrong").value_or(std::vector<std::string>());
  state.done = optionalValue<std::vector<std::string>>(object, "done").value_or(std::vector<std::string>());
  return state;
}

}  // namespace

void ProcessingState::removeTempFile(const Path& path) {
  std::erase(tempFiles, path);
}

void ProcessingState::addTempFile(const Path& path) {
  if (std::ranges::find(tempFiles, path) == tempFiles.end()) tempFiles.push_back(path);
}

void ProcessingState::keepAskedFlags() {
  askedFlags = {needsRemuxing, needsAudioTranscode, skipAVSync};
}

void ProcessingState::restoreAskedFlags() {
  if (!askedFlags) return;
  needsRemuxing = askedFlags->at(0);
  needsAudioTranscode = askedFlags->at(1);
  skipAVSync = askedFlags->at(2);
  askedFlags.reset();
  areFlagsFinal = false;
}

Bytes encodeProcessingStates(const ProcessingStates& states) {
  Json document = Json::array();
  for (const auto& [id, state] : states) {
    document.push_back(id);
    document.push_back(encode(state));
  }
  const std::string text = textOfJson(document);
  return Bytes(text.begin(), text.end());
}

DecodedStates decodeProcessingStates(ByteView document) {
  DecodedStates decoded;
  // No record is nested this deep. Writing out again what is would use up the stack.
  const auto isShallow = [](int depth, Json::parse_event_t, const Json&) { return depth < 16; };
  const Json json = Json::parse(document.begin(), document.end(), isShallow, false);
  if (!json.is_array() || json.size() % 2 != 0) {
    const std::string valid = textOfJson(Json(std::string(textOf(document))));
    decoded.rest.push_back({Json::parse(valid).get<std::string>(), "The document", "not an array of pairs"});
    return decoded;
  }
  for (size_t i = 0; i < json.size(); i += 2) {
    try {
      decoded.states.insert_or_assign(json[i].get_ref<const int64_t&>(), decode(json[i + 1]));
    } catch (const std::exception& error) {
      decoded.rest.push_back(
          {textOfJson(Json::array({json[i], json[i + 1]})), "Processing state " + textOfJson(json[i]), error.what()});
    }
  }
  return decoded;
}

Bytes encodeTexts(const std::vector<std::string>& texts) {
  const std::string text = textOfJson(Json(texts));
  return Bytes(text.begin(), text.end());
}

std::vector<std::string> decodeTexts(ByteView document) {
  try {
    return Json::parse(document.begin(), document.end()).get<std::vector<std::string>>();
  } catch (const Json::exception&) {
    return {std::string(textOf(document))};
  }
}

}  // namespace tarn
