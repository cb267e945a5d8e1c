#pragma once

#include <tarn/tarn.h>

#include <exception>
#include <string>
#include <utility>

namespace tarn {

/// A failure of the operating system on files; the code is the errno.
class PosixError : public Error {
 public:
  PosixError(int errnum, const std::string& what);
};

/// True for a failure of the operating system that says: no room is left, or no more is allowed to this user.
bool isDiskFull(const Error& failure);

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
