#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <set>
#include <string>

#include "app/RepairBatch.h"
#include "platform/JSObject.h"
#include "platform/host/Descriptor.h"

namespace tarn {

/// How a repair ended, in the words of the report, the table and the JSON lines.
enum class RepairEnd { repaired, unchanged, partly, refused, failed, interrupted, skipped };

RepairEnd endOf(const RepairedFile& result);
const char* wordOf(RepairEnd end);
int exitCodeOf(const RepairedFile& result);

/// One file as a JSON object: input, output, result, inputSize, outputSize (bytes), seconds, wrong and done
/// (sentences), note, warnings, and of a failure reason, advice, mayTryAgain.
JSObject reportObject(const RepairedFile& result);

/// The file that tells what became of each input: one object a line, appended as each is done. The last line about an
/// input counts, but `skipped` gives way to a line that tells how its result came about: of two processes that write
/// one report, one can find the result of the other before the other has told of it.
class RepairReportFile {
 public:
  /// Opens the file or makes it, and closes a last line that a killed process has left open. Throws PosixError, and
  /// UsageError for a file that is no report.
  explicit RepairReportFile(const Path& path);

  /// An earlier run, or one beside this one, has told that the result of this input is there. Throws PosixError.
  bool knowsResultOf(const Path& input);

  /// Of what reportObject() returns. Throws PosixError.
  void append(const JSObject& file);

 private:
  bool readOn();
  void write(const std::string& text);

  const Path path_;
  Descriptor file_;
  bool isFile_ = false;          ///< and no pipe, of which nothing can be read again
  off_t read_ = 0;               ///< the lines before it are known
  std::set<std::string> known_;  ///< inputs whose result is there
};

/// The numbers of a batch.
class RepairTotals {
 public:
  void add(const RepairedFile& result);

  size_t files() const;
  size_t of(RepairEnd end) const { return rows_[static_cast<size_t>(end)].files; }

  /// One row for each end that there was, each a line without its end.
  std::vector<std::string> table() const;
  JSObject object() const;

 private:
  struct Row {
    size_t files = 0;
    uint64_t before = 0;  ///< bytes
    uint64_t after = 0;
  };

  std::array<Row, 7> rows_ = {};
};

}  // namespace tarn
