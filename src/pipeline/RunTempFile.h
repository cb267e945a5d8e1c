#pragma once

#include "pipeline/ProcessingStep.h"

namespace tarn {

/// A file that a run makes on the way. From before it is made its name is held and stands in the run's record, so that
/// no sweep takes it and a resume finds it. At the end of the scope the file is deleted, if it has no other name by
/// then, and the name leaves the record; that of a file that cannot be deleted stays, for the end of the run.
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
