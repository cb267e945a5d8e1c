#pragma once

#include <tarn/export.h>

#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

/// What all of the library has in common. It needs C++20. Paths are those of the file system, texts are UTF-8.
namespace tarn {

/// The version of the library that is loaded, as "0.2.0"; a text that is always there. <tarn/version.h> has that of the
/// headers, as macros.
TARN_API const char* version() noexcept;

/// The root of every failure: a domain, a code within that domain, and a description for people. The code is -1 where a
/// failure has no number of its own; in the domain "NSPOSIXErrorDomain" it is an errno.
class TARN_API Error : public std::exception {
 public:
  /// What the three functions below return.
  Error(std::string domain, int code, std::string description)
      : domain_(std::move(domain)), code_(code), description_(std::move(description)) {}

  const std::string& domain() const { return domain_; }            ///< which part failed
  int code() const { return code_; }                               ///< its number within the domain, or -1
  const std::string& description() const { return description_; }  ///< for people, in English
  const char* what() const noexcept override;                      ///< the description; valid as long as this object

 private:
  std::string domain_;
  int code_;
  std::string description_;
};

/// Receives each line of the log, without its line end. Called from any thread, one call at a time. It must not call
/// the library.
using LogSink = std::function<void(std::string_view line)>;

/// Where the log of the whole process goes from now on, but while an Engine keeps it in its home; an empty sink drops
/// it, as the library does until this is called. URLs in the log are without their secrets. Thread-safe.
TARN_API void setLog(LogSink sink);

}  // namespace tarn
