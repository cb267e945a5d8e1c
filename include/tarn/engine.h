#pragma once

#include <tarn/library.h>
#include <tarn/tarn.h>
#include <tarn/transfer.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace tarn {

class EngineSession;

/// The process that ran the engine has ended, and with it the answer of a call. Another engine has taken its place:
/// whether the call was carried out can be asked there.
class TARN_API EngineLost : public Error {
 public:
  /// The description says whose answer is missing.
  explicit EngineLost(std::string description) : Error("Engine", -1, std::move(description)) {}
};

/// An interrupt has come before the answer.
class TARN_API EngineInterrupted : public Error {
 public:
  /// It has one description: "interrupted".
  EngineInterrupted() : Error("Engine", -1, "interrupted") {}
};

/// The engine does not take a command; its words say why.
class TARN_API EngineRefused : public Error {
 public:
  /// The description says why.
  explicit EngineRefused(std::string description, std::string advice = "")
      : Error("Engine", -1, std::move(description)), advice_(std::move(advice)) {}

  /// If the same may work later, what to do first, as a sentence; else empty.
  const std::string& advice() const { return advice_; }

 private:
  std::string advice_;
};

/// Which home an Engine serves, and how.
struct EngineOptions {
  /// Where everything is kept; else TARN_HOME, else $XDG_DATA_HOME/tarn, else ~/.local/share/tarn. A home that is not
  /// there is made for its owner alone; in such a home all files of this process are (it sets the umask).
  std::optional<std::filesystem::path> home = {};
  /// How long a run may go on while no page is looking; without a limit if absent.
  std::optional<std::chrono::seconds> backgroundLimit = {};
  /// While this process has the engine, the log goes to log/tarn.log in the home; else it goes where setLog() says.
  bool keepsLog = true;
  /// Receives what goes wrong beside the work, in words for people. Called by the functions of the Engine, on the
  /// thread that calls them.
  std::function<void(const std::string& words)> warn = {};
};

/// A video to be fetched, repaired and put into an album.
struct SaveRequest {
  std::string url;                           ///< http or https
  std::string album;                         ///< it is made if there is none of this name
  std::optional<std::string> filename = {};  ///< in the album; else the last part of the URL
  bool skipVideoFix = false;                 ///< saves the file as it comes
  bool skipAudioFix = false;                 ///< leaves sound and timing as they come
  std::optional<int64_t> id = {};            ///< for the download, if it is free; else the engine chooses one
  TransferOptions transfer = {};             ///< what the server is told beside the URL
};

/// The download engine of a home. A home has one engine at a time: that of the process which came first. An Engine
/// joins it over a socket in the home, or becomes it and then serves the others. If the other process ends, it goes on
/// with the next one, or becomes the engine itself. Downloads are stored: whoever opens the home next goes on with
/// them.
///
/// An Engine belongs to one thread, but for interrupt(), isInterrupted() and isShared(). A process has at most one for
/// a home. Every function that asks the engine may throw EngineInterrupted, and Error if the home cannot be used.
class TARN_API Engine {
 public:
  /// A download that is not over; of one that is, until the engine lets go of it.
  struct Download {
    int64_t id = 0;        ///< as save() returned it
    std::string status;    ///< STATUS_PENDING, _RUNNING, _PROCESSING, _SUCCESSFUL, _FAILED, _CANCELLED
    std::string filename;  ///< in the album
    std::string json;      ///< all that is known of it: a DownloadEntry of web/plugin/README.md
  };

  /// What a page would hear: "downloadProgress", "downloadComplete", or `changed`.
  struct Event {
    std::string name;  ///< what has happened
    std::string data;  ///< one JSON object: web/plugin/README.md has each
  };
  /// The name of the event that no engine sends: from now on another one answers, which knows what was stored.
  static constexpr const char* changed = "engineChanged";

  /// How a download ended in the process of the engine: with a failure or an asset; neither is there if it has not.
  struct Outcome {
    std::optional<std::string> failure = {};  ///< in words
    std::optional<std::string> assetId = {};  ///< of the video in the library
    std::string advice = {};                  ///< of a failure: what to do about it, a sentence or nothing
    bool isRefused = false;        ///< of a failure: the file is not a video, and the words say what to do instead
    bool mayTryAgain = false;      ///< of a failure: the same again may work, now or later
    bool maySaveAsItCame = false;  ///< of a failure: a repair failed that the file can do without
    bool isPartly = false;         ///< saved, and a part of the video is missing, as `leftAlone` says
    std::vector<std::string> leftAlone = {};  ///< what was left as it was, or is lost, and why; each without a stop
  };

  /// What is stored in the home.
  struct StoredWork {
    std::vector<int64_t> runs;          ///< downloads that wait for a repair or are in one, oldest first
    std::vector<int64_t> records;       ///< downloads with a record of their repair, ended ones too
    std::vector<int64_t> transfers;     ///< downloads with a transfer
    bool hasTransfers = false;          ///< that go on by themselves: not only paused ones
    bool isProcessing = false;          ///< a repair is going on
    std::vector<std::string> problems;  ///< what is stored and cannot be used, in words
    std::vector<std::string> notices;   ///< what was put aside, or is missing without harm to any download, in words
  };

  /// One download as the history of the home tells of it.
  struct HistoryEntry {
    /// How far it is.
    enum class State { pending, saved, failed, cancelled };

    int64_t id = 0;                                      ///< as save() or retry() returned it
    State state = State::pending;                        ///< how far it is
    std::string filename = {};                           ///< in the album
    std::string album = {};                              ///< its title
    std::string url = {};                                ///< scheme, host and path: what else it had may be secret
    std::chrono::system_clock::time_point started = {};  ///< when it was asked for
    std::optional<std::chrono::system_clock::time_point> ended = {};  ///< none while it is pending
    std::string reason = {};                  ///< why it failed, or what a saved one lacks, in words without a stop
    std::string advice = {};                  ///< what somebody can do about a failure: a sentence, or nothing
    bool isRefused = false;                   ///< failed: the file is no video, and the reason says what to do instead
    bool mayTryAgain = false;                 ///< retry() is possible, and may help
    bool maySaveAsItCame = false;             ///< likewise without a repair
    bool isPartly = false;                    ///< saved, and a part of the video is missing
    std::string summary = {};                 ///< what was repaired, as JSON (docs/json.md); empty if nobody knows
    std::optional<uint64_t> size = {};        ///< of a saved video, in bytes
    std::optional<std::string> assetId = {};  ///< of a saved video
  };

  /// The answer of call().
  struct Answer {
    bool isResolved = false;  ///< or else it is rejected
    std::string data;         ///< of a resolved call, one JSON object
    std::string message;      ///< of a rejected one
  };

  /// Asks for nothing yet: see open() and openRunning(). Throws Error if there is no home.
  explicit Engine(EngineOptions options = {});
  /// Ends the engine if it is this process's: the active repair ends at its next check, and all stays stored.
  ~Engine();
  Engine(const Engine&) = delete;             ///< it has one owner
  Engine& operator=(const Engine&) = delete;  ///< likewise

  /// Joins the engine of the home or becomes it; waits up to 30 seconds for one that starts or leaves. Call it
  /// before the functions below. Returns also after an interrupt. Throws Error.
  void open();

  /// Joins the engine of the home if a process runs one. Returns whether it does; nothing is started or made else.
  bool openRunning();

  /// Begins a download, and returns its id. Throws EngineRefused for what is no URL, a name that no file can
  /// have and an album without a name, EngineLost.
  int64_t save(const SaveRequest& request);
  /// Ends a download and drops what it has fetched; does nothing to one that has ended or is not there.
  void cancel(int64_t id);
  /// Stops the transfer of a download and keeps what it has fetched, until resume(), over a restart too. The download
  /// leaves its place to others that wait; its status stays. Throws EngineRefused if it has no transfer.
  void pause(int64_t id);
  /// Lets a paused download go on, at once or when it is its turn. Throws EngineRefused if it is not paused.
  void resume(int64_t id);
  /// Where the transfers stand of the downloads that wait or download, by their ids.
  std::map<int64_t, TransferState> transfers();
  /// The downloads that the engine has at this moment.
  std::vector<Download> downloads();
  /// How a download ended, as far as the process of the engine has seen it.
  Outcome outcome(int64_t id);
  /// The path of an asset, in this album or in any; nothing if it is not there.
  std::optional<std::filesystem::path> assetPath(const std::string& assetId,
                                                 const std::optional<std::string>& album = std::nullopt);
  /// The path of the newest video that an album got under this name since then (whole seconds); nothing without one.
  std::optional<std::filesystem::path> savedSince(std::chrono::system_clock::time_point start, const std::string& album,
                                                  const std::string& filename);
  /// What the home holds for this and later processes.
  StoredWork storedWork();
  /// The albums, oldest first, without those that hold nothing; with a title only that one. Throws EngineRefused if
  /// they cannot be read, as does removedAssets().
  std::vector<LibraryAlbum> library(const std::optional<std::string>& album = std::nullopt);
  /// The videos that can be restored, the one removed last first.
  std::vector<LibraryAsset> removedAssets();
  /// Returns the video as it is now; nothing if it is removed or erased. Throws EngineRefused, with the reason.
  std::optional<LibraryAsset> changeAsset(const AssetChange& change);
  /// A JPEG of a video's first picture, no edge longer than 480 pixels; it goes with the video. Nothing if none can be
  /// made: only AVC and HEVC have one, and tarn-poster must be installed. One at a time, each ten seconds at most.
  std::optional<std::filesystem::path> poster(const std::string& assetId);

  /// The downloads of the home, the newest first: those that have not ended, and the 1,000 that ended last.
  std::vector<HistoryEntry> history(std::optional<int64_t> limit = std::nullopt);
  /// Removes a download that has ended from the history, or all of them; with it goes what was kept for a retry. Throws
  /// EngineRefused for one that has not ended, or is not there.
  void clearHistory(std::optional<int64_t> id = std::nullopt);
  /// Asks once more for a download that has failed or was cancelled, with the same album and name; `asItCame` without
  /// any repair. Returns the id of the new download, which replaces the old one in the history. Throws
  /// EngineRefused if it has not ended, was saved, or the history does not keep the request any more: that goes 30 days
  /// after it was made. Throws EngineLost.
  int64_t retry(int64_t id, bool asItCame = false);
  /// Has the engine go on with the next stored repair if none is active, and tell again what has ended.
  void takeUpStoredRun();
  /// Waits, ten seconds at most, until the engine has let go of a download that has ended.
  void waitUntilGone(int64_t id);

  /// Any command of the bridge that pages use (web/plugin/README.md), with its options as a JSON object. Throws
  /// EngineLost for one that may not run twice.
  Answer call(const std::string& method, const std::string& options = "{}");

  /// Waits for the next event. Returns nothing if none comes in time, or after an interrupt; without a limit of time it
  /// waits for as long as it takes.
  std::optional<Event> nextEvent(std::optional<std::chrono::milliseconds> timeout = std::nullopt);

  /// Ends all waits, now and later. Ends this process's engine too, but for one that other processes use: a second call
  /// ends that. Returns whether there is no engine left to wait for. From any thread.
  bool interrupt();
  /// True after interrupt(). From any thread.
  bool isInterrupted() const;
  /// True while other processes use this process's engine. From any thread.
  bool isShared() const;
  /// Returns when no other process uses this process's engine, or when that is ended. Takes no events from then on.
  void waitUntilUnused();

 private:
  std::unique_ptr<EngineSession> session_;
};

}  // namespace tarn
