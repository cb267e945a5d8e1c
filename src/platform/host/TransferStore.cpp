#include "platform/host/TransferStore.h"

#include <charconv>
#include <nlohmann/json.hpp>

#include "platform/Clock.h"
#include "platform/Error.h"
#include "platform/Log.h"
#include "platform/TransferRules.h"

namespace tarn {
namespace {

using nlohmann::json;

constexpr std::string_view recordSuffix = ".json";
constexpr std::string_view partSuffix = ".part";
constexpr std::string_view deliverySuffix = ".delivery";

std::string encode(const TransferRecord& record) {
  json document = {
      {"session", record.session},     {"url", record.url},         {"taskDescription", record.taskDescription},
      {"validator", record.validator}, {"started", record.started}, {"complete", record.complete}};
  if (!record.suggestedFilename.empty()) document["suggestedFilename"] = record.suggestedFilename;
  if (record.isPage) document["isPage"] = true;
  if (record.isTakenAsItIs) document["isTakenAsItIs"] = true;
  if (record.expectedSize) document["expectedSize"] = *record.expectedSize;
  if (record.options != TransferOptions()) {
    document["options"] = json::parse(objectOf(record.options).json());
    document["optionsSince"] = record.optionsSince;
  }
  return document.dump();
}

TransferRecord decode(int64_t taskIdentifier, ByteView bytes) {
  const json document = json::parse(bytes.begin(), bytes.end());
  TransferRecord record;
  record.taskIdentifier = taskIdentifier;
  document.at("session").get_to(record.session);
  document.at("url").get_to(record.url);
  document.at("taskDescription").get_to(record.taskDescription);
  document.at("validator").get_to(record.validator);
  record.suggestedFilename = document.value("suggestedFilename", "");
  record.isTakenAsItIs = document.value("isTakenAsItIs", false);
  record.isPage = document.value("isPage", false);
  record.started = document.value("started", true);  // records of an older version were all started
  document.at("complete").get_to(record.complete);
  if (document.contains("options")) {
    record.options = transferOptions(JSObject::parse(document.at("options").dump()).value_or(JSObject()));
    record.optionsSince = document.value("optionsSince", int64_t{0});
  }
  if (document.contains("expectedSize")) record.expectedSize = document.at("expectedSize").get_ref<const uint64_t&>();
  return record;
}

/// The identifier of a record's name; nothing for the name of any other file.
std::optional<int64_t> identifierOfRecord(const std::string& name) {
  if (!name.ends_with(recordSuffix)) return std::nullopt;
  const std::string digits = name.substr(0, name.size() - recordSuffix.size());
  int64_t identifier = 0;
  const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), identifier);
  if (failure != std::errc() || identifier < 1 || digits != std::to_string(identifier)) return std::nullopt;
  return identifier;
}

}  // namespace

TransferStore::TransferStore(FileManager& files, Path directory, std::chrono::seconds keepsOptions)
    : files_(files), directory_(std::move(directory)), keepsOptions_(keepsOptions) {}

Path TransferStore::recordFile(int64_t taskIdentifier) const {
  return directory_ / fmt::format("{}{}", taskIdentifier, recordSuffix);
}

Path TransferStore::partFile(int64_t taskIdentifier) const {
  return directory_ / fmt::format("{}{}", taskIdentifier, partSuffix);
}

Path TransferStore::deliveryFile(int64_t taskIdentifier) const {
  return directory_ / fmt::format("{}{}", taskIdentifier, deliverySuffix);
}

TransferRecord TransferStore::add(const std::string& session, const std::string& url,
                                  const std::string& taskDescription, const TransferOptions& options) {
  std::lock_guard guard(mutex_);
  load();
  forgetOldOptions();
  files_.createDirectory(directory_);
  TransferRecord record;
  record.taskIdentifier = ++lastIdentifier_;
  record.session = session;
  record.url = url;
  record.taskDescription = taskDescription;
  record.options = options;
  record.optionsSince = secondsSince1970(std::chrono::system_clock::now());
  write(record);
  records_[record.taskIdentifier] = record;
  return record;
}

void TransferStore::save(const TransferRecord& record) {
  std::lock_guard guard(mutex_);
  const auto known = records_.find(record.taskIdentifier);
  if (known == records_.end()) return;
  TransferRecord next = record;
  next.taskDescription = known->second.taskDescription;
  next.options = known->second.options;
  write(next);
  known->second = std::move(next);
}

void TransferStore::setTaskDescription(int64_t taskIdentifier, const std::string& text) {
  std::lock_guard guard(mutex_);
  const auto known = records_.find(taskIdentifier);
  if (known == records_.end()) return;
  TransferRecord next = known->second;
  next.taskDescription = text;
  write(next);
  known->second = std::move(next);
}

void TransferStore::write(const TransferRecord& record) {
  try {
    writeFileAtomically(files_, recordFile(record.taskIdentifier), bytesOf(encode(record)));
  } catch (const json::exception& failure) {
    throw URLError(-1, fmt::format("the transfer cannot be recorded: {}", failure.what()));
  }
}

void TransferStore::removeRecord(int64_t taskIdentifier) {
  std::lock_guard guard(mutex_);
  if (records_.erase(taskIdentifier) == 0) return;
  if (!removeIfExists(files_, recordFile(taskIdentifier))) {
    log("Could not remove the record of transfer {}", taskIdentifier);
  }
}

void TransferStore::remove(int64_t taskIdentifier) {
  removeRecord(taskIdentifier);
  removeIfExists(files_, partFile(taskIdentifier));
  try {
    files_.synchronizeDirectory(directory_);
  } catch (const Error& failure) {
    log("Could not flush the removal of transfer {}: {}", taskIdentifier, failure.description());
  }
}

std::optional<TransferRecord> TransferStore::record(int64_t taskIdentifier) {
  std::lock_guard guard(mutex_);
  const auto known = records_.find(taskIdentifier);
  return known == records_.end() ? std::nullopt : std::optional(known->second);
}

std::vector<TransferRecord> TransferStore::records(const std::string& session) {
  std::lock_guard guard(mutex_);
  load();
  std::vector<TransferRecord> result;
  for (const auto& [identifier, record] : records_) {
    if (record.session == session) result.push_back(record);
  }
  return result;
}

std::vector<std::string> TransferStore::taskDescriptions() {
  std::lock_guard guard(mutex_);
  load();
  std::vector<std::string> result;
  for (const auto& [identifier, record] : records_) result.push_back(record.taskDescription);
  return result;
}

void TransferStore::load() {
  if (loaded_) return;
  std::vector<std::string> names;
  if (files_.fileExists(directory_)) names = files_.contentsOfDirectory(directory_);
  loaded_ = true;

  for (const auto& name : names) {
    if (const auto identifier = identifierOfRecord(name)) loadRecord(*identifier);
  }
  forgetOldOptions();
  for (const auto& name : names) {
    const auto identifier = identifierOfRecord(Path(name).stem().string() + std::string(recordSuffix));
    const bool isPart = name.ends_with(partSuffix) && identifier && records_.contains(*identifier);
    const bool isRecord = name.ends_with(recordSuffix) && identifier && records_.contains(*identifier);
    const auto facts = files_.attributes(directory_ / name);
    if (!isPart && !isRecord && facts && !facts->isDirectory) removeIfExists(files_, directory_ / name);
  }
}

/// A rate and the like are no secrets, and stay.
void TransferStore::forgetOldOptions() {
  const int64_t oldest = secondsSince1970(std::chrono::system_clock::now() - keepsOptions_);
  for (auto& [identifier, record] : records_) {
    if (record.optionsSince > oldest) continue;
    TransferRecord next = record;
    next.options.headers.clear();
    next.options.cookies.clear();
    next.options.referer.reset();
    if (next.options == record.options) continue;
    try {
      write(next);
      record = std::move(next);
      log("Transfer {} is so old that its headers and cookies are forgotten", identifier);
    } catch (const Error& failure) {
      log("Could not forget the headers of transfer {}: {}", identifier, failure.description());
    }
  }
}

void TransferStore::loadRecord(int64_t taskIdentifier) {
  lastIdentifier_ = std::max(lastIdentifier_, taskIdentifier);
  try {
    records_[taskIdentifier] = decode(taskIdentifier, readFile(files_, recordFile(taskIdentifier)));
  } catch (const std::exception& failure) {
    log("Dropping the unreadable record of transfer {}: {}", taskIdentifier, failure.what());
  }
}

}  // namespace tarn
