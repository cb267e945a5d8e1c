#include "engine/Repair.h"

#include <fmt/format.h>
#include <tarn/repair.h>

#include "api/detail/DefaultLog.h"
#include "inspect/FailureAdvice.h"

namespace tarn {
namespace {

Error unusable(const std::string& words) {
  return {"Repair", -1, words};
}

void requireFile(const Path& path, const Path& given) {
  std::error_code ignored;
  if (!std::filesystem::exists(path, ignored)) throw unusable(fmt::format("There is no file {}", given.string()));
  if (!std::filesystem::is_regular_file(path, ignored)) throw unusable(fmt::format("{} is not a file", given.string()));
}

/// The repair that is asked for, into no output yet. Throws Error if its input cannot be used.
RepairRequest requestFor(const Path& input, const RepairOptions& options) {
  RepairRequest request{.input = absolutePath(input),
                        .output = {},
                        .skipVideoFix = options.skipVideoFix,
                        .skipAudioFix = options.skipAudioFix,
                        .encoderWorkers = options.workers};
  requireFile(request.input, input);
  if (options.like) {
    request.like = absolutePath(*options.like);
    requireFile(*request.like, *options.like);
  }
  if (options.scratch) {
    request.scratch = absolutePath(*options.scratch);
    std::error_code ignored;
    if (!std::filesystem::is_directory(*request.scratch, ignored)) {
      throw unusable(fmt::format("There is no directory {}", options.scratch->string()));
    }
  }
  return request;
}

/// Throws Error if the output cannot be used.
void requireUsableOutput(const RepairRequest& request, const Path& given) {
  namespace fs = std::filesystem;
  std::error_code ignored;
  if (request.like && fs::equivalent(*request.like, request.output, ignored)) {
    throw unusable("The healthy movie and OUT are the same file; name another OUT");
  }
  if (!fs::is_directory(request.output.parent_path(), ignored)) {
    throw unusable(fmt::format("The directory of {} does not exist; make it first", given.string()));
  }
  if (!fs::exists(request.output, ignored)) return;
  if (fs::equivalent(request.input, request.output, ignored)) {
    throw unusable("IN and OUT are the same file; name another OUT, or use `--in-place`");
  }
  if (!fs::is_regular_file(request.output, ignored)) {
    throw unusable(fmt::format("{} stands in the way and is not a file; name another OUT", given.string()));
  }
}

RepairReport::Kind kindOf(const RepairResult& result) {
  using Kind = RepairReport::Kind;
  switch (result.outcome.kind) {
    case RunOutcome::Kind::saved:
      return result.isUnchanged ? Kind::unchanged : Kind::repaired;
    case RunOutcome::Kind::failed:
      return result.outcome.isRefused ? Kind::refused : Kind::failed;
    case RunOutcome::Kind::cancelled:
      break;
  }
  return Kind::cancelled;
}

RepairReport reportOf(const RepairRequest& request, RepairResult result) {
  const FailureAdvice advice = adviceFor(result.outcome);
  return {.kind = kindOf(result),
          .output = request.output,
          .inputSize = result.inputSize,
          .outputSize = result.outputSize,
          .failure = std::move(result.outcome.words),
          .advice = advice.words,
          .mayTryAgain = advice.mayTryAgain,
          .note = std::move(result.note),
          .warnings = std::move(result.outcome.leftAlone),
          .isPartly = result.outcome.isPartly,
          .summary = std::move(result.outcome.summary)};
}

RepairReport run(const RepairRequest& request, const RepairProgressSink& progress, std::stop_token cancel) {
  const auto token = std::make_shared<CancellationToken>();
  const std::stop_callback onCancel(std::move(cancel), [token] { token->cancel(); });
  try {
    return reportOf(request, repairFile(request, token, progress));
  } catch (const std::exception& failure) {
    return {.output = request.output, .failure = failure.what()};
  }
}

}  // namespace

RepairReport repairFile(const std::filesystem::path& input, const std::filesystem::path& output,
                        const RepairOptions& options, const RepairProgressSink& progress, std::stop_token cancel) {
  dropLogByDefault();
  RepairRequest request = requestFor(input, options);
  request.output = absolutePath(output);
  requireUsableOutput(request, output);
  return run(request, progress, std::move(cancel));
}

RepairReport repairInPlace(const std::filesystem::path& file, Original original, const RepairOptions& options,
                           const RepairProgressSink& progress, std::stop_token cancel) {
  dropLogByDefault();
  RepairRequest request = requestFor(file, options);
  request.output = request.input;
  request.keepsOriginal = original == Original::isKept;
  return run(request, progress, std::move(cancel));
}

}  // namespace tarn
