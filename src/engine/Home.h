#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/Error.h"
#include "platform/FileManager.h"
#include "platform/Log.h"
#include "platform/host/Descriptor.h"

namespace tarn {

/// The directory in which `tarn` keeps everything: `given`, else TARN_HOME, else $XDG_DATA_HOME/tarn, else
/// ~/.local/share/tarn. Absolute. Throws Error when none of these can be told.
Path homeDirectory(const std::optional<std::string>& given);

/// Whether it is the one that is used unless the user names another: $XDG_DATA_HOME/tarn, else ~/.local/share/tarn.
bool isDefaultHome(const Path& home);

/// Another process owns the home.
class HomeInUse : public Error {
 public:
  explicit HomeInUse(const Path& home);
};

/// The one process that owns a home. The lock goes with the process, however it ends.
class HomeLock {
 public:
  /// Makes the home when it is missing, for its owner alone; in such a home this process then makes all files for the
  /// owner alone. Throws HomeInUse when another process owns it, PosixError when it cannot be had.
  explicit HomeLock(const Path& home);

 private:
  Descriptor lock_;
};

/// Where the log of a home belongs: `log/tarn.log` in it. That of the home which is taken when none is named belongs
/// where programs keep such things: $XDG_STATE_HOME/tarn/tarn.log, else ~/.local/state/tarn/tarn.log.
Path logFileOf(const Path& home);

/// Sends the log to the file, which its owner alone may read, until it is destroyed. A log that has grown beyond 16 MiB
/// is put aside as tarn.log.1 first. Throws PosixError.
class LogFile : public LogDetour {
 public:
  explicit LogFile(const Path& file);

  /// The log of a home; in the home where the place of logs cannot be used.
  static std::unique_ptr<LogFile> ofHome(const Path& home);

  const Path& path() const { return path_; }

 private:
  const Path path_;
};

}  // namespace tarn
