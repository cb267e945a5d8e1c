#include <algorithm>
#include <array>

#include "Fuzzing.h"
#include "app/RepairPlan.h"
#include "app/SaveList.h"
#include "app/TransferArguments.h"
#include "engine/HistoryEntry.h"
#include "platform/ContentDisposition.h"
#include "platform/DateText.h"
#include "platform/TransferRules.h"
#include "platform/URL.h"
#include "platform/host/RangeRules.h"
#include "platform/layers/LayeredFiles.h"
#include "platform/layers/detail/Recipe.h"

namespace tarn::fuzz {
namespace {

void recipe(ByteView document) {
  const auto read = decodeRecipe(document);
  if (!read) return;
  read->sideSize();
  const Bytes written = encodeRecipe(*read);
  const auto again = decodeRecipe(written);
  require(again && encodeRecipe(*again) == written);
}

/// A layered file takes up the stored recipe of an earlier process, whatever it says.
void storedRecipe(ByteView document) {
  Movie movie(Bytes(100, 7));
  writeFileAtomically(movie.files, "/home/side", Bytes(50, 8));
  writeFileAtomically(movie.files, "/home/recipe", document);
  finishes([&] {
    LayeredFiles layers(movie.files, "/home/side");
    const auto taken = layers.keepRecipe(movie.path, "/home/recipe");
    if (taken == LayeredFiles::TakenUp::recipe) layers.finish([] {});
  });
  if (movie.files.fileExists("/home/recipe")) movie.files.removeItem("/home/recipe");
  require(movie.files.fileExists(movie.path));
}

void lists(ByteView list) {
  const auto count = linesOf(textOf(list)).size();
  require(pathsInList(textOf(list), false).size() <= count);
  for (const Path& path : pathsInList(textOf(list), true)) require(!path.empty());
  const auto items = parseSaveList(textOf(list), "Trips", "list.txt");
  require(items.size() <= count);
  for (const SaveItem& item : items) require(URL::parse(encodedURL(item.url)).has_value());
}

/// Of cookies that are taken, each that is sent is one of them.
void cookies(ByteView file) {
  const TransferOptions options{.cookies = std::string(textOf(file))};
  const std::string sent = cookiesFor("http://a.example.org/clip.mp4", options.cookies);
  const auto all = cookieLines(options.cookies);
  if (whyRefused(options)) return;
  for (const std::string& line : cookieLines(sent)) require(std::ranges::find(all, line) != all.end());
  require(!whyRefused({.cookies = sent}));
}

void storedOptions(ByteView document) {
  const auto object = JSObject::parse(textOf(document));
  if (!object) return;
  const TransferOptions options = transferOptions(*object);
  require(transferOptions(objectOf(options)) == options);
  whyRefused(options);
  const std::string entry = jsonOf(historyEntryOf(*object)).json();
  require(jsonOf(historyEntryOf(*JSObject::parse(entry))).json() == entry);
}

void fields(ByteView field) {
  const std::string text(textOf(field));
  if (const auto name = filenameOfDisposition(text)) {
    require(!name->empty() && name->find_first_of(std::string_view("/\r\n\0", 4)) == std::string::npos);
  }
  if (const auto range = ContentRange::parse(text); range && range->span) {
    require(range->span->first <= range->span->last && (!range->total || range->span->last < *range->total));
  }
  require(dateOfText(dateText(dateOfText(text))) == dateOfText(text));
  const uint64_t rate = parseRate(text);
  require(rate >= 1 && rate <= 1'000'000'000'000'000);
}

void urls(ByteView given) {
  const std::string text(textOf(given));
  const std::string encoded = encodedURL(text);
  require(encodedURL(encoded) == encoded);
  if (const auto url = URL::parse(encoded)) {
    require(!url->host.empty() && !url->port.empty());
    require(shownURL(encoded).find('?') == std::string::npos);
    credentialsOf(encoded);
  }
  resolvedURL("http://127.0.0.1/a/b.mp4?c", text);
}

constexpr std::array parsers{&recipe, &storedRecipe, &lists, &cookies, &storedOptions, &fields, &urls};

}  // namespace

/// The first byte, a digit in the seeds, chooses among the parsers of what users, servers and earlier processes write.
void run(Input input) {
  const auto parse = parsers[static_cast<uint8_t>(input.number<uint8_t>() - '0') % parsers.size()];
  finishes([&] { parse(input.rest()); });
}

}  // namespace tarn::fuzz
