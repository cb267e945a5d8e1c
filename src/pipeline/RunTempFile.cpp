#include "pipeline/RunTempFile.h"

#include <exception>

#include "platform/Log.h"

namespace tarn {

RunTempFile::RunTempFile(ProcessingRun& run, const Path& path) : run_(run), hold_(run.names.hold(path)) {
  run_.state.addTempFile(path);
  run_.saveState();
}

RunTempFile::~RunTempFile() {
  removeIfExists(run_.files, path());
  if (run_.files.fileExists(path())) return;
  try {
    run_.state.removeTempFile(path());
    run_.saveState();
  } catch (const std::exception& failure) {
    log("Could not store that a temp file is gone: {}", failure.what());
  }
}

}  // namespace tarn
