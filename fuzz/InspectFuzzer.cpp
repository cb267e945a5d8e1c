#include <algorithm>

#include "Fuzzing.h"
#include "fragments/FragmentsStep.h"
#include "inspect/InspectionJSON.h"
#include "inspect/InspectionPlot.h"
#include "inspect/InspectionText.h"
#include "platform/JSObject.h"
#include "remux/RemuxStep.h"

namespace tarn::fuzz {
namespace {

/// The words of a step's failure; empty if it has none.
std::string failureOf(ProcessingStep& step, ProcessingRun& run) {
  try {
    step.run(run);
    return "";
  } catch (const std::exception& failure) {
    return failure.what();
  }
}

/// The steps do as the inspection says.
void keepPromise(Movie& movie, const Inspection& promise) {
  const SystemClock clock;
  NamesInTheMaking names;
  RunListener listener;
  ProcessingRun run(movie.files, clock, names, listener, {.fileURL = movie.path},
                    std::make_shared<CancellationToken>());
  FragmentsStep fragments;
  const Bytes before = movie.content();
  const std::string refusalAhead = failureOf(fragments, run);
  require(refusalAhead == (promise.fragments.kind == FragmentsForecast::Kind::refuses ? promise.fragments.reason : ""));
  if (!refusalAhead.empty()) return;
  const Bytes between = movie.content();
  require((between != before) == promise.fragments.changesFile());
  RemuxStep remux;
  const std::string refusal = failureOf(remux, run);
  require(refusal == (promise.remux.kind == RemuxForecast::Kind::refuses ? promise.remux.reason : ""));
  require((movie.content() != between) == promise.remux.changesFile);
}

}  // namespace

/// Whatever the file is, there is an answer, the file stays, each change mends a problem that has a name, and the steps
/// do as was said.
void run(Input input) {
  const ByteView content = input.rest();
  Movie movie(content);
  const Inspection promise = inspect(movie.files, movie.path);
  require(std::ranges::equal(movie.content(), content));
  require(JSObject::parse(inspectionJSON(promise)).has_value());
  require(!inspectionText(promise).empty());
  inspectionPlot(promise);
  require(promise.problems.empty() == (promise.verdict.kind == Verdict::Kind::nothingToRepair));
  require(promise.changesFile ==
          std::ranges::any_of(promise.problems, [&](const Problem& problem) { return isMended(problem, promise); }));
  if (promise.remux.kind != RemuxForecast::Kind::skipped) keepPromise(movie, promise);
}

}  // namespace tarn::fuzz
