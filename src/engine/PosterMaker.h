#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "platform/FileManager.h"

namespace tarn {

/// Keeps posters of assets, JPEGs of their first picture, in a directory of their own, `<assetId>.jpg`, for the owner
/// alone. What is not there yet is made by another program, one at a time, on a thread of its own. Thread-safe.
class PosterMaker {
 public:
  /// The path of the poster; nothing if none can be made.
  using Handler = std::function<void(const std::optional<Path>& poster)>;

  /// Without a program there are no posters but those that are there. `files` must outlive it. Nobody else may be
  /// making posters in the directory.
  PosterMaker(FileManager& files, Path directory, std::optional<Path> program);
  /// Ends the program in work. Requests that wait are answered with nothing.
  ~PosterMaker();
  PosterMaker(const PosterMaker&) = delete;
  PosterMaker& operator=(const PosterMaker&) = delete;

  /// Tells the poster of an asset: at once if it is there, or known that there is none, else later, on another thread.
  /// `video` is its file.
  void tell(const std::string& assetId, const Path& video, Handler handler);

  /// Removes the posters of all other assets.
  void keepOnly(const std::set<std::string>& assetIds);

 private:
  struct Request {
    std::string assetId;
    Path video;
    Handler handler;
  };

  Path place(const std::string& assetId) const { return directory_ / (assetId + ".jpg"); }
  void work(const std::stop_token& stop);
  std::optional<Path> make(const Request& request, const std::stop_token& stop);

  FileManager& files_;
  const Path directory_;
  const std::optional<Path> program_;

  std::mutex mutex_;
  std::condition_variable_any changed_;
  std::deque<Request> requests_;
  std::set<std::string> hasNone_;  ///< of these none could be made since this process began
  std::jthread worker_;            ///< begins with the first request
};

}  // namespace tarn
