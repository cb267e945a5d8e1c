#include "platform/DateText.h"

#include <fmt/chrono.h>

#include <ctime>

namespace tarn {

std::string dateText(Date date) {
  return fmt::format("{:%FT%TZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(date)));
}

Date dateOfText(const std::string& text) {
  std::tm parts{};
  const char* const end = ::strptime(text.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
  if (end != text.c_str() + text.size()) return {};
  const std::time_t seconds = ::timegm(&parts);
  constexpr auto latest = std::chrono::floor<std::chrono::seconds>(Date::max().time_since_epoch()).count();
  if (seconds < -latest || seconds > latest) return {};
  const Date date = std::chrono::system_clock::from_time_t(seconds);
  return dateText(date) == text ? date : Date{};  // timegm() takes February 31
}

}  // namespace tarn
