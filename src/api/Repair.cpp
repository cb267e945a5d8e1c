#include "engine/Repair.h"

#include <fmt/format.h>
#include <tarn/repair.h>

#include "api/detail/DefaultLog.h"

namespace tarn {
namespace {

Error unusable(const std::string& words) {
  return {"Repair", -1, words};
}

/// The repair that is asked for. Throws Error if its ends cannot be used.
RepairRequest checked(const Path& input, const Path& output, const RepairOptions& options) {
  namespace fs = std::filesystem;
  RepairRequest ends{.input = absolutePath(input),
                     .output = absolutePath(output),
                     .skipVideoFix = options.skipVideoFix,
                     .skipAudioFix = options.skipAudioFix};
  if (options.like) ends.like = absolutePath(*options.like);
  std::error_code ignored;
  if (!fs::exists(ends.input, ignored)) throw unusable(fmt::format("There is no file {}", input.string()));
  if (!fs::is_regular_file(ends.input, ignored)) throw unusable(fmt::format("{} is not a file", input.string()));
  if (ends.like && !fs::is_regular_file(*ends.like, ignored)) {
    throw unusable(fmt::format("There is no file {}", options.like->string()));
  }
  if (ends.like && fs::equivalent(*ends.like, ends.output, ignored)) {
    throw unusable("The healthy movie and OUT are the same file; name another OUT");
  }
  if (!fs::is_directory(ends.output.parent_path(), ignored)) {
    throw unusable(fmt::format("The directory of {} does not exist; make it first", output.string()));
  }
  if (!fs::exists(ends.output, ignored)) return ends;
  if (fs::equivalent(ends.input, ends.output, ignored)) {
    throw unusable("IN and OUT are the same file; name another OUT, since IN is never changed");
  }
  if (!fs::is_regular_file(ends.output, ignored)) {
    throw unusable(fmt::format("{} stands in the way and is not a file; name another OUT", output.string()));
  }
  return ends;
}

RepairReport::Kind kindOf(RunOutcome::Kind kind) {
  if (kind == RunOutcome::Kind::saved) return RepairReport::Kind::repaired;
  return kind == RunOutcome::Kind::failed ? RepairReport::Kind::failed : RepairReport::Kind::cancelled;
}

}  // namespace

RepairReport repairFile(const std::filesystem::path& input, const std::filesystem::path& output,
                        const RepairOptions& options,
                        const std::function<void(std::string_view stage, double done)>& progress,
                        std::stop_token cancel) {
  dropLogByDefault();
  const RepairRequest request = checked(input, output, options);
  const auto token = std::make_shared<CancellationToken>();
  const std::stop_callback onCancel(std::move(cancel), [token] { token->cancel(); });
  RepairReport report{.output = request.output, .failure = {}, .note = {}, .warnings = {}};
  try {
    RepairResult result = repairFile(request, token, progress);
    report.kind = kindOf(result.outcome.kind);
    report.failure = result.outcome.words;
    report.note = result.note;
    report.warnings = result.outcome.leftAlone;
    report.isPartly = result.outcome.isPartly;
  } catch (const std::exception& failure) {
    report.failure = failure.what();
  }
  return report;
}

}  // namespace tarn
