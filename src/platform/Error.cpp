#include "platform/Error.h"

#include <system_error>

namespace tarn {

const char* Error::what() const noexcept {
  return description_.c_str();
}

PosixError::PosixError(int errnum, const std::string& what)
    : Error("NSPOSIXErrorDomain", errnum, what + ": " + std::generic_category().message(errnum)) {}

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
