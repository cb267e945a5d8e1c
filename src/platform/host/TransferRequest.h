#pragma once

#include <memory>
#include <optional>
#include <string>

#include "platform/URL.h"
#include "platform/host/RangeRules.h"
#include "platform/host/TransferStore.h"

namespace tarn {

/// What a transfer asks a server for, as libcurl's easy handle. It follows redirects itself, over http and https only:
/// libcurl would send the headers of the user to every host. Headers, cookies, the referrer and the URL's user name go
/// to the origin of the transfer's URL alone. Belongs to one thread.
class TransferRequest {
 public:
  /// `record` must outlive the request.
  TransferRequest(const TransferRecord& record, const std::string& userAgent);

  /// CURL*
  void* easy() const { return easy_.get(); }

  /// Asks for the bytes from there on. Comes before the first exchange.
  void ask(const ResumePoint& from);

  /// A field of the last response; empty if it was not sent.
  std::string header(const char* name) const;

  /// The field of the last response was sent twice, and not the same.
  bool contradicts(const char* name) const;

  /// Where the last response sends the request.
  std::optional<std::string> redirection() const;

  /// Turns the request there. False if it has been sent on too often.
  bool follow(const std::string& url);

 private:
  struct EasyDeleter {
    void operator()(void* easy) const;
  };
  struct ListDeleter {
    void operator()(void* list) const;
  };

  void aimAt(const std::string& url);
  void setHeaders(bool isAtHome);
  void setCookies(bool isAtHome);
  void setBuffer();

  const TransferRecord& record_;
  const std::optional<URL> home_;
  const std::optional<Credentials> credentials_;
  std::string range_;
  std::string ifRange_;
  bool hasCookies_ = false;  ///< libcurl has them now
  int redirects_ = 0;
  std::unique_ptr<void, ListDeleter> headers_;  ///< what libcurl was given
  std::unique_ptr<void, EasyDeleter> easy_;
};

}  // namespace tarn
