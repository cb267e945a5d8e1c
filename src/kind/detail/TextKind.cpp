#include "kind/detail/TextKind.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <string>

#include "platform/UTF8.h"

namespace tarn {
namespace {

using What = Kind::What;

constexpr size_t longestTitle = 60;
constexpr const char* theVideoItself = Kind::adviseVideoItself;

void skipBlanks(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\r\n"), text.size()));
}

/// Passes over what may stand before the first element of a page or of XML: blanks, declarations, comments.
std::string_view behindProlog(std::string_view text) {
  for (;;) {
    skipBlanks(text);
    std::string_view end;
    if (text.starts_with("<?")) {
      end = "?>";
    } else if (text.starts_with("<!--")) {
      end = "-->";
    } else {
      return text;
    }
    const size_t place = text.find(end);
    if (place == text.npos) return {};
    text.remove_prefix(place + end.size());
  }
}

/// The name of the element that the lowered text begins with, without a prefix; empty when there is none.
std::string_view elementName(std::string_view text) {
  if (!text.starts_with('<')) return {};
  text.remove_prefix(1);
  text = text.substr(0, text.find_first_of(" \t\r\n/>"));
  const size_t colon = text.find(':');
  return colon == text.npos ? text : text.substr(colon + 1);
}

/// Puts what a reference names ("&amp;", "&#39;") at the end of a text; true if it is one.
bool appendReference(std::string& text, std::string_view name) {
  struct Named {
    std::string_view name;
    char character;
  };
  constexpr std::array named{Named{"amp", '&'},  Named{"lt", '<'},    Named{"gt", '>'},
                             Named{"quot", '"'}, Named{"apos", '\''}, Named{"nbsp", ' '}};
  if (const auto found = std::ranges::find(named, name, &Named::name); found != named.end()) {
    text += found->character;
    return true;
  }
  if (!name.starts_with('#')) return false;
  name.remove_prefix(1);
  const bool isHex = name.starts_with('x') || name.starts_with('X');
  if (isHex) name.remove_prefix(1);
  uint32_t number = 0;
  const auto [end, failure] = std::from_chars(name.data(), name.data() + name.size(), number, isHex ? 16 : 10);
  if (failure != std::errc() || end != name.data() + name.size()) return false;
  appendCharacter(text, number);
  return true;
}

std::string withoutReferences(std::string_view text) {
  constexpr size_t longestReference = 10;
  std::string result;
  while (!text.empty()) {
    const size_t end = text.front() == '&' ? text.substr(0, longestReference).find(';') : text.npos;
    if (end != text.npos && appendReference(result, text.substr(1, end - 1))) {
      text.remove_prefix(end + 1);
      continue;
    }
    result += text.front();
    text.remove_prefix(1);
  }
  return result;
}

/// The title of a page on one line; `lower` is the page in small letters.
std::string titleOf(std::string_view page, std::string_view lower) {
  const size_t tag = lower.find("<title");
  if (tag == lower.npos) return "";
  const size_t start = lower.find('>', tag);
  if (start == lower.npos) return "";
  const size_t end = std::min(lower.find("</title", start), lower.size());
  return plainLine(withoutReferences(page.substr(start + 1, end - start - 1)), longestTitle);
}

bool asksForLogin(std::string_view lowerPage, const std::string& title) {
  constexpr std::array titles{"sign in", "signin", "log in", "login", "log on", "anmelden", "password"};
  constexpr std::array fields{"type=\"password\"", "type='password'", "type=password"};
  const std::string lowerTitle = lowered(title);
  return std::ranges::any_of(titles, [&](const char* words) { return lowerTitle.find(words) != lowerTitle.npos; }) ||
         std::ranges::any_of(fields, [&](const char* words) { return lowerPage.find(words) != lowerPage.npos; });
}

Kind pageKind(std::string_view page, std::string_view lower) {
  const std::string title = titleOf(page, lower);
  const std::string words = title.empty() ? "a web page" : fmt::format("a web page (\"{}\")", title);
  return {What::webPage, words, asksForLogin(lower, title) ? "the address needs a login" : theVideoItself};
}

bool beginsPage(std::string_view lower, std::string_view element) {
  constexpr std::array elements{"html", "head", "body", "title", "script", "meta", "link", "style", "div", "h1", "p"};
  return lower.starts_with("<!doctype html") || std::ranges::find(elements, element) != elements.end();
}

bool isJSON(std::string_view text) {
  const bool isObject = text.starts_with('{');
  if (!isObject && !text.starts_with('[')) return false;
  text.remove_prefix(1);
  skipBlanks(text);
  const std::string_view next = isObject ? "\"}" : "{[\"]0123456789";
  return !text.empty() && next.find(text.front()) != next.npos;
}

}  // namespace

std::optional<Kind> textKind(std::string_view head) {
  if (head.starts_with("\xEF\xBB\xBF")) head.remove_prefix(3);
  skipBlanks(head);
  if (head.starts_with("#EXTM3U")) return Kind{What::playlist, "a playlist", theVideoItself};
  if (isJSON(head)) return Kind{What::unknown, "JSON text", theVideoItself};
  if (!head.starts_with('<')) return std::nullopt;

  const std::string lowerHead = lowered(head);
  const std::string_view lower = behindProlog(lowerHead);
  const std::string_view element = elementName(lower);
  if (element == "mpd" || element == "smoothstreamingmedia") {
    return Kind{What::playlist, "a playlist (of a stream)", theVideoItself};
  }
  if (element == "svg" || lower.starts_with("<!doctype svg")) {
    return Kind{What::picture, "an SVG picture", theVideoItself};
  }
  if (beginsPage(lower, element)) return pageKind(head, lowerHead);
  if (lowerHead.starts_with("<?xml")) return Kind{What::unknown, "an XML document", theVideoItself};
  return std::nullopt;
}

}  // namespace tarn
