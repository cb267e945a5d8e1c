#include "app/Terminal.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <charconv>
#include <clocale>
#include <cstdlib>
#include <cwchar>

#include "platform/UTF8.h"

namespace tarn {
namespace {

/// The system knows how wide a character is, in a locale of UTF-8 alone.
class WidthLocale {
 public:
  WidthLocale() : locale_(::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr)) {}
  ~WidthLocale() {
    if (locale_) ::freelocale(locale_);
  }
  WidthLocale(const WidthLocale&) = delete;
  WidthLocale& operator=(const WidthLocale&) = delete;

  size_t widthOf(uint32_t character) const {
    if (character < 0x80 || !locale_) return 1;
    const locale_t before = ::uselocale(locale_);
    const int width = ::wcwidth(static_cast<wchar_t>(character));
    ::uselocale(before);
    return width < 0 ? 1 : static_cast<size_t>(width);
  }

 private:
  locale_t locale_;
};

size_t widthOf(std::string_view character) {
  static const WidthLocale locale;
  return locale.widthOf(characterNumber(character));
}

/// The bytes of the start that takes at most so many columns.
size_t bytesWithin(std::string_view text, size_t columns) {
  size_t bytes = 0;
  size_t used = 0;
  while (bytes < text.size()) {
    const size_t length = std::max<size_t>(characterLength(text.substr(bytes)), 1);
    used += widthOf(text.substr(bytes, length));
    if (used > columns) break;
    bytes += length;
  }
  return bytes;
}

}  // namespace

size_t terminalColumns(int stream) {
  winsize size{};
  if (::ioctl(stream, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  constexpr size_t usual = 80;
  const char* const told = std::getenv("COLUMNS");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  if (!told) return usual;
  const std::string_view text(told);
  size_t columns = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), columns);
  return error == std::errc() && columns > 0 ? columns : usual;
}

size_t columnsOf(std::string_view text) {
  size_t columns = 0;
  while (!text.empty()) {
    const size_t length = std::max<size_t>(characterLength(text), 1);
    columns += widthOf(text.substr(0, length));
    text.remove_prefix(length);
  }
  return columns;
}

std::string cutToColumns(std::string_view text, size_t columns) {
  constexpr std::string_view dots = "...";
  if (bytesWithin(text, columns) == text.size()) return std::string(text);
  const std::string_view end = dots.substr(0, columns);
  return std::string(text.substr(0, bytesWithin(text, columns - end.size()))) + std::string(end);
}

}  // namespace tarn
