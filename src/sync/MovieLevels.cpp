#include "sync/MovieLevels.h"

#include <algorithm>

#include "mp4/DataExtensions.h"
#include "mp4/TimingBoxLayout.h"

namespace tarn {

BufferBoxWalker childWalker(ByteView data, const BoxHeader& parent) {
  return {data, static_cast<size_t>(parent.offset) + layout::boxHeaderSize, static_cast<size_t>(parent.end()),
          boxwalk::movieBuffer};
}

BoxHeader wholeBox(ByteView data, std::string_view type) {
  return {.offset = 0, .size = data.size(), .type = std::string(type)};
}

std::optional<BoxHeader> findChild(ByteView data, const BoxHeader& parent,
                                   std::initializer_list<std::string_view> types) {
  auto walker = childWalker(data, parent);
  while (auto child = walker.next()) {
    if (std::ranges::find(types, child->type) != types.end()) return child;
  }
  return std::nullopt;
}

std::vector<BoxHeader> childrenOfType(ByteView data, const BoxHeader& parent, std::string_view type) {
  std::vector<BoxHeader> children;
  auto walker = childWalker(data, parent);
  while (auto child = walker.next()) {
    if (child->type == type && child->end() <= data.size()) children.push_back(*std::move(child));
  }
  return children;
}

std::optional<std::string> findHandlerType(ByteView data, const BoxHeader& trak) {
  auto mdia = findChild(data, trak, {"mdia"});
  auto hdlr = mdia ? findChild(data, *mdia, {"hdlr"}) : std::nullopt;
  if (!hdlr || data.size() - hdlr->offset < layout::handlerType.end()) return std::nullopt;
  return decodeASCII(data.subspan(hdlr->offset + layout::handlerType.offset, layout::handlerType.width));
}

}  // namespace tarn
