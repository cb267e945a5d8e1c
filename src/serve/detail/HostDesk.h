#pragma once

#include <boost/asio/steady_timer.hpp>
#include <list>
#include <memory>
#include <optional>

#include "serve/detail/HostRoutes.h"
#include "serve/detail/ServerParts.h"
#include "serve/detail/Site.h"

namespace tarn {

/// Has the host's plug-in answer the requests of pages. Calls run on a thread of their own, one at a time. All else
/// happens on the server's thread.
class HostDesk {
 public:
  /// The plug-in must outlive the desk, and so must the context.
  HostDesk(CAPPlugin& host, FileManager& files, std::shared_ptr<Mailbox> mailbox, boost::asio::io_context& context)
      : host_(host), files_(files), mailbox_(std::move(mailbox)), context_(context) {}
  /// Waits for the call that runs, and drops the others.
  ~HostDesk();
  HostDesk(const HostDesk&) = delete;
  HostDesk& operator=(const HostDesk&) = delete;

  /// The plug-in's answer as one to a request: what it resolves with, or its words with status 409. A method that it
  /// does not have is a 404. Of a `path` in the answer to a question the file is sent.
  boost::asio::awaitable<SiteAnswer> answer(HostCall call);

  /// No call is waited for from now on.
  void stop();

 private:
  /// A call that somebody waits for.
  struct Wait {
    boost::asio::steady_timer* timer = nullptr;  ///< its end ends the waiting; null when nobody waits any more
    std::optional<CAPPluginCall::Answer> answer = {};
  };

  void run(HostCall call, const std::shared_ptr<Wait>& wait);
  SiteAnswer poster(const CAPPluginCall::Answer& answer) const;

  CAPPlugin& host_;
  FileManager& files_;
  const std::shared_ptr<Mailbox> mailbox_;
  boost::asio::io_context& context_;
  std::list<std::shared_ptr<Wait>> waits_;
  bool isStopped_ = false;
  boost::asio::thread_pool pool_{1};
};

}  // namespace tarn
