#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "download/DownloadListener.h"
#include "engine/HistoryTable.h"
#include "platform/Clock.h"

namespace tarn {

/// The downloads of a home, those that have ended too: `history.sqlite`, for its owner alone. It keeps the full request
/// of each beside it, so that it can be tried again, until the video is saved, the row is cleared or 30 days are over.
/// It keeps the `most` that ended last, and all that have not ended. Thread-safe.
///
/// It never stops the engine: what cannot be written is logged and missing here alone. A damaged file is put aside, and
/// a new one begins.
class History : public DownloadListener {
 public:
  static constexpr size_t most = 1000;
  static constexpr std::chrono::days longest{30};

  History(FileManager& files, const Clock& clock, const Path& home);

  /// The rows of a home that another process may be changing, the newest first. Throws Error when they cannot be
  /// read.
  static std::vector<HistoryEntry> read(const Path& home);

  /// What is wrong with the history, in words for people without a stop.
  std::optional<std::string> problem() const;

  void began(int64_t id, const DownloadRequest& request) noexcept override;
  void ended(const RunOutcome& outcome) noexcept override;

  /// What the engine knows of its downloads once it has started.
  struct Known {
    std::vector<std::pair<int64_t, DownloadRequest>> underWay;
    std::vector<int64_t> saved;  ///< which nobody was told yet
  };
  /// Takes up downloads that are under way and have no row, and ends the rows of those that are not known any more.
  void settle(const Known& known) noexcept;

  /// The newest first; all without a limit. Nothing while the history cannot be used.
  std::vector<HistoryEntry> entries(const std::optional<int64_t>& limit = std::nullopt);
  std::optional<HistoryEntry> entry(int64_t id);
  /// What was asked for, if the history still keeps it.
  std::optional<DownloadRequest> request(int64_t id);

  /// Removes what has ended: one row, or all with what was put aside. False if that cannot be written.
  bool clear(const std::optional<int64_t>& id);

 private:
  template <typename Work>
  bool use(Work&& work) noexcept;
  void open() noexcept;
  void putAside();
  void removeOld(bool inAnyCase);

  FileManager& files_;
  const Clock& clock_;
  const Path path_;
  const Path aside_;
  mutable std::mutex mutex_;
  std::optional<HistoryTable> table_;  ///< none while the history cannot be used
  std::optional<std::string> problem_;
};

}  // namespace tarn
