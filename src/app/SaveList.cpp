#include "app/SaveList.h"

#include <fmt/format.h>

#include "api/FileNames.h"
#include "app/Commands.h"
#include "app/TransferArguments.h"
#include "platform/URL.h"
#include "platform/UTF8.h"

namespace tarn {
namespace {

constexpr size_t mostFields = 3;

std::vector<std::string_view> fieldsOf(std::string_view line) {
  std::vector<std::string_view> fields;
  for (;;) {
    const size_t tab = line.find('\t');
    fields.push_back(line.substr(0, tab));
    if (tab == std::string_view::npos) return fields;
    line.remove_prefix(tab + 1);
  }
}

}  // namespace

void checkItem(const SaveItem& item, const std::string& place) {
  if (!URL::parse(encodedURL(item.url))) throw UsageError(place + "\"" + item.url + "\" is no http or https URL.");
  if (const auto why = whyNoAlbum(item.album)) throw UsageError(place + *why);
  if (!item.filename) return;
  if (const auto why = whyNoFilename(*item.filename)) throw UsageError(place + *why);
}

std::vector<SaveItem> parseSaveList(std::string_view text, const std::string& album, const std::string& name) {
  constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
  if (text.starts_with(byteOrderMark)) text.remove_prefix(byteOrderMark.size());
  std::vector<SaveItem> items;
  size_t number = 0;
  for (const std::string_view line : linesOf(text)) {
    ++number;
    if (line.find_first_not_of(" \t") == std::string_view::npos || line.starts_with('#')) continue;
    const std::string place = fmt::format("Line {} of {}: ", number, name);
    if (!isUTF8(line)) throw UsageError(place + "it is no UTF-8 text.");
    const auto fields = fieldsOf(line);
    if (fields.size() > mostFields) throw UsageError(place + "it has more than URL, album and name, parted by tabs.");
    SaveItem item{.url = std::string(fields[0]), .album = album};
    if (fields.size() > 1 && !fields[1].empty()) item.album = fields[1];
    if (fields.size() > 2 && !fields[2].empty()) item.filename = fields[2];
    checkItem(item, place);
    items.push_back(std::move(item));
  }
  return items;
}

}  // namespace tarn
