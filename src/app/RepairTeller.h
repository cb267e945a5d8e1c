#pragma once

#include <optional>

#include "app/Commands.h"
#include "app/RepairArguments.h"
#include "app/RepairResults.h"

namespace tarn {

/// Tells of each file as it is done, and at the end of all.
class RepairTeller {
 public:
  /// Both must outlive it; `files` is how many there are. Throws PosixError if the report cannot be written.
  RepairTeller(const GlobalOptions& global, const RepairArguments& given, size_t files);

  void tell(const RepairedFile& result);
  /// Returns the exit code of the command.
  int tellAll(bool wasInterrupted, double seconds) const;

 private:
  JSObject objectOf(const RepairedFile& result) const;
  void tellInJSON(const RepairedFile& result) const;
  void tellFailure(const RepairedFile& result) const;
  void tellResult(const RepairedFile& result) const;

  const GlobalOptions& global_;
  const RepairArguments& given_;
  const size_t files_;
  std::optional<RepairReportFile> report_;
  RepairTotals totals_;
  int code_ = ExitCode::done;  ///< of the last file
};

}  // namespace tarn
