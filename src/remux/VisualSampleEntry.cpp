#include "remux/VisualSampleEntry.h"

#include "mp4/BoxWalker.h"

namespace tarn {

std::optional<size_t> findDataFormat(ByteView sinf) {
  BufferBoxWalker walker(sinf, 8, sinf.size(), boxwalk::protectionChildren);
  while (auto child = walker.next()) {
    if (child->type != "frma") continue;
    size_t format = static_cast<size_t>(child->offset) + 8;
    return sinf.size() - format >= 4 ? std::optional(format) : std::nullopt;
  }
  return std::nullopt;
}

}  // namespace tarn
