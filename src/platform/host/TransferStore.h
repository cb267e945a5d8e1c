#pragma once

#include <tarn/transfer.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/FileManager.h"

namespace tarn {

/// What is kept of a transfer over a restart of the process, beside its partial file.
struct TransferRecord {
  int64_t taskIdentifier = 0;
  std::string session;  ///< identifier of the session that it belongs to
  std::string url;
  std::string taskDescription;
  TransferOptions options;
  int64_t optionsSince = 0;              ///< seconds since 1970 at which they were stored
  std::string validator;                 ///< version of the bytes in the partial file, for If-Range; empty: none
  std::optional<uint64_t> expectedSize;  ///< size of the whole file in bytes, once told
  std::string suggestedFilename;         ///< by the server; empty: none
  bool isPage = false;                   ///< the server called the bytes a web page
  bool isTakenAsItIs = false;            ///< the server names an unknown coding and sends the file as it is
  bool started = false;                  ///< it was resumed: the next process goes on with it
  bool complete = false;                 ///< the partial file is whole and on stable storage

  bool operator==(const TransferRecord&) const = default;
};

/// The records of all transfers, with the places of their files: `<taskIdentifier>.json`, and beside it
/// `<taskIdentifier>.part` with the bytes fetched so far. The directory is read at the first use, and what belongs to
/// no record is swept then. A record is written before its partial file is made and removed before it, so that a part
/// without a record is nobody's. Only its owner can read a record. Headers, cookies and the referrer are forgotten once
/// they are older than `keepsOptions`: at the first use, and whenever a record is made. Thread-safe.
class TransferStore {
 public:
  TransferStore(FileManager& files, Path directory, std::chrono::seconds keepsOptions);

  /// Makes a record, on stable storage. Its identifier is larger than any that was stored when this process began.
  /// Throws PosixError, and URLError for text that is not UTF-8.
  TransferRecord add(const std::string& session, const std::string& url, const std::string& taskDescription,
                     const TransferOptions& options);

  /// Replaces a record, on stable storage; description and options stay. One that has been removed stays removed.
  /// Throws PosixError.
  void save(const TransferRecord& record);

  /// Throws PosixError, and URLError for text that is not UTF-8.
  void setTaskDescription(int64_t taskIdentifier, const std::string& text);

  /// Takes the record away, so that no later process takes up the transfer. Failures are logged.
  void removeRecord(int64_t taskIdentifier);

  /// Takes the record away if it is still there, then the partial file, on stable storage. Failures are logged.
  void remove(int64_t taskIdentifier);

  /// The record, unless it has been removed.
  std::optional<TransferRecord> record(int64_t taskIdentifier);

  /// The records of a session, in the order of their identifiers. Throws PosixError when the directory cannot be read.
  std::vector<TransferRecord> records(const std::string& session);

  /// The descriptions of all transfers. Throws PosixError when the directory cannot be read.
  std::vector<std::string> taskDescriptions();

  Path partFile(int64_t taskIdentifier) const;

  /// The name under which the whole file is handed over.
  Path deliveryFile(int64_t taskIdentifier) const;

 private:
  Path recordFile(int64_t taskIdentifier) const;
  void load();
  void forgetOldOptions();
  void loadRecord(int64_t taskIdentifier);
  void write(const TransferRecord& record);

  FileManager& files_;
  const Path directory_;
  const std::chrono::seconds keepsOptions_;
  std::mutex mutex_;
  bool loaded_ = false;
  int64_t lastIdentifier_ = 0;
  std::map<int64_t, TransferRecord> records_;
};

}  // namespace tarn
