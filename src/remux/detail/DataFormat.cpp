#include "remux/detail/DataFormat.h"

#include <algorithm>

#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"

namespace tarn {

std::optional<std::string> replaceDataFormat(std::span<uint8_t> sinf, std::string_view format) {
  BufferBoxWalker walker(sinf, layout::boxHeaderSize, sinf.size(), boxwalk::protectionChildren);
  while (auto child = walker.next()) {
    if (child->type != "frma") continue;
    auto field = sinf.subspan(static_cast<size_t>(child->contentOffset()));
    if (field.size() < 4) return std::nullopt;
    std::string old = decodeUTF8(field.first<4>());
    std::ranges::copy(bytesOf(format).first<4>(), field.begin());
    return old;
  }
  return std::nullopt;
}

}  // namespace tarn
