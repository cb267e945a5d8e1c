#include "app/FailureReport.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>

#include "app/Output.h"
#include "inspect/FailureAdvice.h"
#include "platform/URL.h"

namespace tarn {
namespace {

void addWords(JSObject& object, const Engine::Outcome& failure) {
  object.set("error", withoutSecrets(*failure.failure));
  if (!failure.advice.empty()) object.set("advice", failure.advice);
  object.set("mayTryAgain", failure.mayTryAgain);
}

}  // namespace

Engine::Outcome outcomeOf(Engine& engine, int64_t id) {
  using State = Engine::HistoryEntry::State;
  Engine::Outcome outcome = engine.outcome(id);
  if (outcome.failure || outcome.assetId) return outcome;
  const auto history = engine.history();
  const auto entry = std::ranges::find(history, id, &Engine::HistoryEntry::id);
  if (entry == history.end() || entry->state == State::pending) return outcome;
  if (entry->state == State::saved) {
    outcome.assetId = entry->assetId;
    outcome.isPartly = entry->isPartly;
  } else {
    const bool isCancelled = entry->state == State::cancelled;
    outcome.failure = isCancelled ? "somebody cancelled the download" : entry->reason;
    outcome.advice = entry->advice;
    outcome.isRefused = entry->isRefused;
    outcome.mayTryAgain = entry->mayTryAgain && !isCancelled;
    outcome.maySaveAsItCame = entry->maySaveAsItCame;
  }
  return outcome;
}

Engine::Outcome failureOf(const std::exception_ptr& reason) {
  const RunOutcome outcome = RunOutcome::failed(0, RunOutcome::Where::start, reason);
  const FailureAdvice advice = adviceFor(outcome);
  Engine::Outcome failure{.failure = outcome.words};
  if (advice.mayTryAgain) failure.advice = advice.words;
  failure.mayTryAgain = advice.mayTryAgain;
  try {
    std::rethrow_exception(reason);
  } catch (const EngineRefused& refusal) {
    failure.advice = refusal.advice();
    failure.mayTryAgain = !refusal.advice().empty();
  } catch (...) {  // NOLINT(bugprone-empty-catch): the outcome has its words
  }
  return failure;
}

int exitCodeOf(const Engine::Outcome& failure) {
  if (failure.isRefused) return ExitCode::refused;
  return failure.mayTryAgain ? ExitCode::mayTryAgain : ExitCode::failed;
}

std::string sentencesOf(const Engine::Outcome& failure) {
  std::string words = failure.failure.value_or("the reason is in the log");
  if (!words.ends_with('.')) words += ".";
  return failure.advice.empty() ? words : words + " " + failure.advice;
}

void addTo(JSObject& object, const Engine::Outcome& outcome) {
  if (!outcome.failure) {
    object.set("result", outcome.isPartly ? "partly" : "saved");
    object.set("warnings", JSValue::Array(outcome.leftAlone.begin(), outcome.leftAlone.end()));
    return;
  }
  object.set("result", outcome.isRefused ? "refused" : "failed");
  addWords(object, outcome);
  object.set("maySaveAsItCame", outcome.maySaveAsItCame);
}

int reportFailure(const GlobalOptions& global, const std::exception_ptr& reason, const JSObject& about) {
  const Engine::Outcome failure = failureOf(reason);
  if (global.json) {
    JSObject object{{"result", "failed"}};
    for (const auto& [name, value] : about.members()) object.set(name, value);
    addWords(object, failure);
    printJSON(object);
  }
  printFailure(sentencesOf(failure));
  return exitCodeOf(failure);
}

int reportInterrupt(const GlobalOptions& global, const std::string& words) {
  if (global.json) printJSON({{"result", "interrupted"}});
  printFailure("Interrupted; " + words);
  return ExitCode::interrupted;
}

InterruptWatcher endAtInterrupt(const GlobalOptions& global) {
  return InterruptWatcher([&global]() -> bool { ::_exit(reportInterrupt(global, "nothing was changed.")); });
}

void printWarnings(const Engine::Outcome& saved, const std::string& name) {
  for (const std::string& words : saved.leftAlone) {
    if (saved.isPartly && &words == &saved.leftAlone.front()) {
      printFailure(fmt::format("A part of {} is missing: {}.", name, words));
    } else {
      printNote("Warning: " + words + ".");
    }
  }
}

}  // namespace tarn
