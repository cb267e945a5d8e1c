#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "serve/detail/ReplayRing.h"

namespace tarn {

/// A page's live socket, as the hub sees it.
class PageConnection {
 public:
  virtual ~PageConnection() = default;
  /// Sends a message after those that still wait. A page that is too slow in reading is cut off.
  virtual void send(PageText text) = 0;
  /// Cuts the page off.
  virtual void close() = 0;
};

/// What is known of one page across its connections: its commands, each of which is run once and answered once.
///
/// A page that has lost its connection sends every command that it has no answer to again. One that still runs is
/// answered when it is done; one whose answer went into a dead connection is answered again.
class PageSession {
 public:
  using Connection = std::shared_ptr<PageConnection>;

  /// Counts a connection in place of the last one, which is cut off.
  void connect(Connection connection);
  /// Forgets the connection if it is still the page's; false when it is not.
  bool disconnect(const PageConnection& connection);
  bool isConnected() const { return connection_ != nullptr; }
  bool isOn(const PageConnection& connection) const { return connection_.get() == &connection; }

  /// Sends a message to the page, if it is connected.
  void send(PageText text);

  enum class Admission {
    run,   ///< a new command, to be answered by answer()
    done,  ///< known already: it runs, or has been answered now
    full,  ///< too many commands run already
  };
  Admission admit(const std::string& id);

  /// Keeps the answer of a command that runs, and sends it if the page is connected.
  void answer(const std::string& id, PageText text);

  static constexpr size_t mostRunning = 256;
  static constexpr size_t mostAnswers = 1024;
  static constexpr size_t mostAnswerBytes = 1 << 20;

 private:
  struct Answer {
    PageText text;
    uint64_t sentOn = 0;  ///< the number of the connection; 0 when it has not been sent
  };

  void deliver(Answer& answer);
  void dropOldAnswers();

  Connection connection_;
  uint64_t connections_ = 0;
  std::set<std::string> running_;
  std::map<std::string, Answer> answers_;
  std::deque<std::string> answered_;  ///< the ids of the answers, oldest first
  size_t answerBytes_ = 0;
};

}  // namespace tarn
