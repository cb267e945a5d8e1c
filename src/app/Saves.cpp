#include "app/Saves.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <random>
#include <utility>

#include "api/FileNames.h"
#include "app/FailureReport.h"
#include "app/Output.h"
#include "platform/URL.h"

namespace tarn {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds pause{1000};

Engine::Outcome failureOf(std::string words, bool mayTryAgain = true) {
  Engine::Outcome outcome{.failure = std::move(words)};
  if (mayTryAgain) outcome.advice = "Run the same command again.";
  outcome.mayTryAgain = mayTryAgain;
  return outcome;
}

void printRetry(const std::string& key, const TransferState::Retry& retry) {
  const JSObject entry{{"number", retry.number},
                       {"most", retry.most},
                       {"seconds", std::chrono::duration<double>(retry.in).count()},
                       {"why", withoutSecrets(retry.why)}};
  printJSON({{"event", "transferRetry"}, {"data", JSObject{{key, entry}}}});
}

}  // namespace

Saves::Saves(const GlobalOptions& global, Engine& engine, const std::vector<SaveItem>& items, SaveOptions options)
    : global_(global), engine_(engine), items_(items), options_(std::move(options)) {}

int Saves::run() {
  try {
    size_t number = 0;
    for (const SaveItem& item : items_) {
      if (engine_.isInterrupted()) break;
      start({.item = item, .number = ++number, .filename = item.filename.value_or(defaultFilename(item.url))});
    }
    follow();
    if (!engine_.isInterrupted()) return exitCode();
  } catch (const EngineInterrupted&) {
    // An interrupt ends every wait.
  }
  printer_.hide();
  return reportInterrupt(global_);
}

/// Starts a download under an id of its own choice. If the engine ends before it answers, that tells whether the next
/// one knows the download.
void Saves::start(Save save) {
  for (;;) {
    int64_t id = freshId();
    try {
      id = engine_.save({.url = save.item.url,
                         .album = save.item.album,
                         .filename = save.item.filename,
                         .skipVideoFix = options_.skipVideoFix,
                         .skipAudioFix = options_.skipAudioFix,
                         .id = id,
                         .transfer = options_.transfer});
    } catch (const EngineRefused&) {
      return reportFailure(id, save, failureOf(std::current_exception()));
    } catch (const EngineLost&) {
      if (!download(id)) continue;
    }
    save.key = std::to_string(id);
    open_.insert_or_assign(id, std::move(save));
    return;
  }
}

/// No other command's: seconds, and after them a number at random.
int64_t Saves::freshId() {
  constexpr int64_t range = 1'000'000;
  for (;;) {
    const int64_t id = secondsSince1970(start_) * range + static_cast<int64_t>(std::random_device()()) % range;
    if (!open_.contains(id)) return id;
  }
}

/// Follows the downloads through their events, to the last end or an interrupt.
void Saves::follow() {
  const auto isGone = [](const auto& entry) { return entry.second.isGone; };
  auto nextLook = steady_clock::now() + pause;
  while (!open_.empty()) {
    const bool hasGone = std::ranges::any_of(open_, isGone);
    const auto event = engine_.nextEvent(hasGone ? std::chrono::milliseconds(0) : pause);
    if (engine_.isInterrupted()) return;
    if (event) {
      take(*event);
      if (steady_clock::now() < nextLook) continue;
    } else if (hasGone) {
      endTheGone();
      continue;
    }
    look();
    nextLook = steady_clock::now() + pause;
  }
}

void Saves::take(const Engine::Event& event) {
  if (event.name == Engine::changed) {
    hasOtherEngine_ = true;
    for (auto& [id, save] : open_) save.isGone = false;
    return;
  }
  const JSObject data = JSObject::parse(event.data).value_or(JSObject());
  if (event.name == "downloadProgress") showProgress(data);
  if (event.name == "downloadComplete") takeEnd(data);
}

void Saves::showProgress(const JSObject& entries) {
  for (auto& [id, save] : open_) {
    const auto* const entry = valueAt<JSObject>(entries, save.key);
    if (!entry) continue;
    if (global_.json) {
      printJSON({{"event", "downloadProgress"}, {"data", JSObject{{save.key, *entry}}}});
      continue;
    }
    auto line = save.progress.line(*entry);
    const bool isTransfer = valueAt<std::string>(*entry, "status", "") == "STATUS_RUNNING";
    if (isTransfer && save.state.retry) continue;
    if (isTransfer && save.state.isPaused) line = ProgressLine{"paused", "paused"};
    if (line) show(id, save, *line);
  }
}

void Saves::show(int64_t id, const Save& save, const ProgressLine& line) {
  if (global_.json) return;
  if (items_.size() > 1) printer_.setHead(fmt::format("{} of {} done", codes_.size(), items_.size()));
  printer_.show(line, items_.size() > 1 ? save.filename : "", id);
}

void Saves::takeEnd(const JSObject& data) {
  const auto id = valueAt<int64_t>(data, "id", 0);
  if (!open_.contains(id)) return;
  if (global_.json) printJSON({{"event", "downloadComplete"}, {"data", data}});
  Engine::Outcome outcome = outcomeOf(engine_, id);
  if (valueAt<std::string>(data, "status", "") == "STATUS_SUCCESSFUL") {
    outcome.failure.reset();
    outcome.assetId = valueAt<std::string>(data, "assetId", "");
  } else if (!outcome.failure) {
    outcome = failureOf("the reason is in the log", false);
  }
  end(id, outcome);
}

/// Looks for ends that no event tells: somebody has cancelled a download, or its engine has ended.
void Saves::look() {
  const auto downloads = engine_.downloads();
  const auto stored = hasOtherEngine_ ? engine_.storedWork() : Engine::StoredWork();
  lookAtTransfers();
  std::vector<std::pair<int64_t, std::string>> ended;
  for (auto& [id, save] : open_) {
    const auto found = std::ranges::find(downloads, id, &Engine::Download::id);
    save.isGone = found == downloads.end();
    if (save.isGone || !hasOtherEngine_) continue;
    if (hasEnded(id, found->status, stored)) ended.emplace_back(id, found->status);
  }
  for (const auto& [id, status] : ended) {
    engine_.cancel(id);
    const bool hasFailed = status == "STATUS_FAILED";
    Engine::Outcome outcome = hasFailed ? outcomeOf(engine_, id) : failureOf(VanishedWork::words(status));
    if (!outcome.failure) outcome = failureOf("the reason is in the log", false);
    end(id, outcome);
  }
}

/// Of a download that another engine has left.
bool Saves::hasEnded(int64_t id, const std::string& status, const Engine::StoredWork& stored) {
  if (vanished_.look(id, status, stored) == VanishedWork::State::vanished || status == "STATUS_FAILED") return true;
  const bool waitsForARun = status == "STATUS_SUCCESSFUL" || std::ranges::find(stored.runs, id) != stored.runs.end();
  if (waitsForARun && !stored.isProcessing) engine_.takeUpStoredRun();
  return false;
}

/// A transfer that waits sends no progress of its own.
void Saves::lookAtTransfers() {
  const auto transfers = engine_.transfers();
  for (auto& [id, save] : open_) {
    const auto found = transfers.find(id);
    const TransferState state = found == transfers.end() ? TransferState() : found->second;
    const bool isNews = state.retry && (!save.state.retry || save.state.retry->number != state.retry->number);
    save.state = state;
    if (isNews && global_.json) printRetry(save.key, *state.retry);
    if (state.retry) show(id, save, DownloadProgress::line(*state.retry));
  }
}

/// This download, while the engine has it.
std::optional<Engine::Download> Saves::download(int64_t id) {
  auto downloads = engine_.downloads();
  const auto found = std::ranges::find(downloads, id, &Engine::Download::id);
  return found == downloads.end() ? std::nullopt : std::optional(std::move(*found));
}

/// All events that came before the engine let go of these downloads have been taken.
void Saves::endTheGone() {
  std::vector<int64_t> gone;
  for (const auto& [id, save] : open_) {
    if (save.isGone) gone.push_back(id);
  }
  for (const int64_t id : gone) {
    Engine::Outcome outcome = outcomeOf(engine_, id);
    const bool isKnown = outcome.assetId || outcome.failure;
    if (!isKnown && hasOtherEngine_ && savedSinceStart(open_.at(id))) {
      outcome.assetId = "";
    } else if (!isKnown) {
      outcome = hasOtherEngine_ ? failureOf("its engine ended, and the next one does not know it")
                                : failureOf("somebody cancelled the download", false);
    }
    end(id, outcome);
  }
}

void Saves::end(int64_t id, const Engine::Outcome& outcome) {
  const auto node = open_.extract(id);
  const Save& save = node.mapped();
  printer_.remove(id);
  printer_.hide();
  engine_.waitUntilGone(id);
  if (outcome.failure) return reportFailure(id, save, outcome);
  const auto path = pathOf(save, outcome);
  if (!path) return reportFailure(id, save, failureOf("the saved file is not in its album any more"));
  reportSaved(id, save, outcome, *path);
}

/// An asset without an identifier is one that an engine has saved that ended before it told.
std::optional<std::filesystem::path> Saves::pathOf(const Save& save, const Engine::Outcome& outcome) {
  const std::string assetId = outcome.assetId.value_or("");
  return assetId.empty() ? savedSinceStart(save) : engine_.assetPath(assetId, save.item.album);
}

std::optional<std::filesystem::path> Saves::savedSinceStart(const Save& save) {
  return engine_.savedSince(start_, save.item.album, save.filename);
}

JSObject Saves::resultOf(int64_t id, const Save& save, const Engine::Outcome& outcome) const {
  JSObject result{{"result", ""},
                  {"id", id},
                  {"number", static_cast<int64_t>(save.number)},
                  {"url", withoutSecrets(encodedURL(save.item.url))},
                  {"album", save.item.album}};
  addTo(result, outcome);
  return result;
}

void Saves::reportSaved(int64_t id, const Save& save, const Engine::Outcome& outcome,
                        const std::filesystem::path& path) {
  codes_.push_back(outcome.isPartly ? ExitCode::partly : ExitCode::done);
  if (global_.json) {
    JSObject result = resultOf(id, save, outcome);
    result.set("path", path.string());
    return printJSON(result);
  }
  printWarnings(outcome, path.filename().string());
  printPath(path);
}

void Saves::reportFailure(int64_t id, const Save& save, const Engine::Outcome& failure) {
  codes_.push_back(exitCodeOf(failure));
  if (global_.json) printJSON(resultOf(id, save, failure));
  const std::string name =
      items_.size() > 1 ? fmt::format("Video {} of {}, from {},", save.number, items_.size(), encodedURL(save.item.url))
                        : "The video";
  printFailure(fmt::format("{} was not saved: {}", name, sentencesOf(failure)));
}

int Saves::exitCode() const {
  if (codes_.size() == 1) return codes_.front();
  const bool isDone = std::ranges::all_of(codes_, [](int code) { return code == ExitCode::done; });
  return isDone ? ExitCode::done : ExitCode::failed;
}

}  // namespace tarn
