#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "serve/detail/PageMessage.h"
#include "serve/detail/PagePresence.h"
#include "serve/detail/PageSession.h"
#include "serve/detail/ReplayRing.h"

namespace tarn {

/// What a page says of itself when it connects.
struct PageGreeting {
  std::string page;       ///< the page's own identifier
  std::string epoch;      ///< of the last hello that it got; empty on its first connection
  uint64_t lastSeen = 0;  ///< number of the last event that it got
};

/// Where all pages meet: gives each the events, those that it has missed too, takes their commands, and keeps the
/// answers until a page can get them. One thread.
class PageHub {
 public:
  using Connection = PageSession::Connection;
  using Time = PagePresence::Time;
  /// Runs a command of a page; its answer comes back through answer(), later.
  using Call = std::function<void(const std::string& page, PageCommand command)>;

  static constexpr size_t ringCapacity = 256;
  static constexpr size_t mostPages = 64;

  /// `plugin` is the name of the plug-in whose events are sent; `epoch` names this hub among all others.
  PageHub(std::string plugin, std::string epoch, Time start, Call call);

  /// A page has connected: it is greeted and gets what it has missed.
  void connect(const PageGreeting& greeting, Connection connection);
  void disconnect(const std::string& page, const PageConnection& connection, Time now);

  /// Drops a page that does not come back, with the answers kept for it.
  void forget(const std::string& page);

  /// A message of a page. One that comes on a connection that has been replaced is dropped.
  void receive(const std::string& page, const PageConnection& connection, std::string_view text);

  void answer(const std::string& page, const std::string& id, const CAPPluginCall::Answer& answer);
  void sendEvent(const std::string& event, const JSObject& data) { sendEventOf(plugin_, event, data); }
  /// The same of another plug-in.
  void sendEventOf(const std::string& plugin, const std::string& event, const JSObject& data);

  PagePresence& presence() { return presence_; }

 private:
  PageSession& session(const std::string& page);
  void run(const std::string& page, PageSession& session, PageCommand command);

  const std::string plugin_;
  const std::string epoch_;
  const Call call_;
  ReplayRing ring_{ringCapacity};
  PagePresence presence_;
  std::map<std::string, PageSession> sessions_;
  std::deque<std::string> sessionOrder_;  ///< pages by their last connection, the newest last
};

}  // namespace tarn
