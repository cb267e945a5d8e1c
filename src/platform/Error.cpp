#include "platform/Error.h"

#include <cerrno>
#include <system_error>

namespace tarn {
namespace {

constexpr const char* posixDomain = "NSPOSIXErrorDomain";

}  // namespace

const char* Error::what() const noexcept {
  return description_.c_str();
}

PosixError::PosixError(int errnum, const std::string& what)
    : Error(posixDomain, errnum, what + ": " + std::generic_category().message(errnum)) {}

bool isDiskFull(const Error& failure) {
  const bool saysSo = failure.code() == ENOSPC || failure.code() == EDQUOT;
  return failure.domain() == posixDomain && saysSo;
}

std::string describe(const std::exception_ptr& failure) {
  try {
    std::rethrow_exception(failure);
  } catch (const std::exception& error) {
    return error.what();
  } catch (...) {
    return "unknown error";
  }
}

}  // namespace tarn
