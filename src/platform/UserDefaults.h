#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "platform/Bytes.h"
#include "platform/FileManager.h"

namespace tarn {

/// A key-value store with whole-value replacement: one file for each key in a directory, replaced in one step, so that
/// a reader after a kill finds the old value or the new one. Keys are the system's own constants. Thread-safe.
class UserDefaults {
 public:
  /// The directory is made at the first write.
  UserDefaults(FileManager& files, Path directory) : files_(files), directory_(std::move(directory)) {}

  /// The stored value; nothing if there is none. Throws PosixError when there is one that cannot be read.
  std::optional<Bytes> data(const std::string& key);

  /// Stores a value on stable storage. Throws PosixError; the old value then stands.
  void setData(const std::string& key, ByteView value);

  /// The stored number; 0 if there is none, or it cannot be read or is not a number.
  int64_t integer(const std::string& key);
  void setInteger(const std::string& key, int64_t value);

  /// Removes the key; one that is not there is no failure. Throws PosixError.
  void removeObject(const std::string& key);

 private:
  FileManager& files_;
  Path directory_;
  std::mutex mutex_;
};

}  // namespace tarn
