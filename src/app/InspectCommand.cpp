#include <tarn/inspect.h>

#include "app/Commands.h"
#include "app/Output.h"

namespace tarn {

int inspectCommand(const GlobalOptions& global, const std::string& file) {
  const FileInspection inspection = inspectFile(file);
  printLine(global.json ? inspection.json : inspection.text);
  return ExitCode::done;
}

}  // namespace tarn
