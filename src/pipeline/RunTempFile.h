#pragma once

#include "pipeline/ProcessingStep.h"

namespace tarn {

/// A file that a run makes on the way. Its name is held and stands in the run's record before the file is made, so that
/// no sweep deletes it and a resume finds it. At the end of the scope the file is deleted, unless it was moved away,
/// and its name leaves the record. The name of a file that cannot be deleted stays: the end of the run tries again.
class RunTempFile {
 public:
  RunTempFile(ProcessingRun& run, const Path& path);
  ~RunTempFile();
  RunTempFile(const RunTempFile&) = delete;
  RunTempFile& operator=(const RunTempFile&) = delete;

  const Path& path() const { return hold_.path(); }

 private:
  ProcessingRun& run_;
  NamesInTheMaking::Hold hold_;
};

}  // namespace tarn
