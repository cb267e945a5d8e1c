#pragma once

#include <exception>
#include <string>
#include <utility>

namespace tarn {

/// The root of every failure in the system: a domain, a code within that domain, and a description for the log. Each
/// worker derives a class of its own from it. The code is -1 where a failure has no number of its own.
class Error : public std::exception {
 public:
  Error(std::string domain, int code, std::string description)
      : domain_(std::move(domain)), code_(code), description_(std::move(description)) {}

  const std::string& domain() const { return domain_; }
  int code() const { return code_; }
  const std::string& description() const { return description_; }
  const char* what() const noexcept override { return description_.c_str(); }

 private:
  std::string domain_;
  int code_;
  std::string description_;
};

/// A failure of the operating system on files; the code is the errno.
class PosixError : public Error {
 public:
  PosixError(int errnum, const std::string& what);
};

/// A failure of the HTTP transfer. The code is the HTTP status for a status of 400 and above, else the transfer
/// library's number, or `URLError::cancelled`.
class URLError : public Error {
 public:
  static constexpr int cancelled = -999;
  URLError(int code, std::string description) : Error("NSURLErrorDomain", code, std::move(description)) {}
};

/// The text of whatever is in flight: an Error's description, a standard exception's what(), else "unknown error".
std::string describe(const std::exception_ptr& failure);

}  // namespace tarn
