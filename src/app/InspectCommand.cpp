#include <fmt/format.h>

#include "app/Commands.h"
#include "app/Output.h"
#include "engine/Home.h"
#include "inspect/InspectionJSON.h"
#include "inspect/InspectionText.h"
#include "platform/host/PosixFileManager.h"

namespace tarn {

int inspectCommand(const GlobalOptions& global, const std::string& file) {
  const QuietLog quiet(global.verbose);
  std::error_code ignored;
  if (!std::filesystem::is_regular_file(file, ignored)) {
    printFailure(fmt::format("{} is not a file that can be inspected; give the path of a video.", file));
    return ExitCode::failed;
  }
  const Path path = std::filesystem::absolute(file);
  PosixFileManager files(path.parent_path());  // of which nothing is used but that it opens files
  const Inspection inspection = inspect(files, path);
  printLine(global.json ? inspectionJSON(inspection) : inspectionText(inspection));
  return ExitCode::done;
}

}  // namespace tarn
