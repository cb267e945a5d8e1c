#pragma once

#include <optional>
#include <set>

#include "download/detail/DownloadRegistry.h"
#include "pipeline/NamesInTheMaking.h"
#include "pipeline/ProcessingGate.h"
#include "pipeline/ProcessingStateManager.h"
#include "platform/FileManager.h"

namespace tarn {

/// Deletes files in the Documents directory that nobody needs. Has no lock of its own; runs on any queue beside
/// anything else, since it only tries to hold names and never waits for one.
class DocumentsSweep {
 public:
  DocumentsSweep(FileManager& files, const DownloadRegistry& registry, ProcessingStateManager& store,
                 const ProcessingGate& gate, NamesInTheMaking& names)
      : files_(files), registry_(registry), store_(store), gate_(gate), names_(names) {}

  /// Deletes the videos (.mp4, .mov, .m4v) to which no task, no pending record and no run refers. The first failure is
  /// logged and ends the sweep. Deletes nothing while the records cannot be read.
  void cleanupOrphanedFiles();

  /// Deletes the video, the temp files and the recipe of a record that was taken away, whatever they are called, except
  /// those that somebody works on or that another download needs by now. Failures are ignored: a later sweep tries
  /// again.
  void deleteFilesOf(const ProcessingState& record);

 private:
  std::optional<NamesInTheMaking::Hold> holdIfUnused(const Path& file);
  std::optional<std::set<Path>> knownFiles() const;

  FileManager& files_;
  const DownloadRegistry& registry_;
  ProcessingStateManager& store_;
  const ProcessingGate& gate_;
  NamesInTheMaking& names_;
};

/// Deletes what the runs of a killed process have left: everything in the temporary directory, and in Documents the
/// temp files of steps that no pending record lists, and the recipes of no pending record. Call it only while nothing
/// else works in this home. Failures are logged.
void removeLeftovers(FileManager& files, ProcessingStateManager& store);

}  // namespace tarn
