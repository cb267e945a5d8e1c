#include "kind/detail/MagicWords.h"

#include <magic.h>

#include <memory>
#include <string_view>

#include "platform/UTF8.h"

namespace tarn {
namespace {

constexpr size_t longestWords = 80;

struct Closer {
  void operator()(magic_set* magic) const { magic_close(magic); }
};

}  // namespace

std::string magicWords(ByteView head) {
  // Nothing is unpacked: what a stranger has compressed may be of any size.
  constexpr int flags = MAGIC_NO_CHECK_COMPRESS | MAGIC_NO_CHECK_TAR | MAGIC_NO_CHECK_ELF;
  const std::unique_ptr<magic_set, Closer> magic(magic_open(flags));
  if (!magic || magic_load(magic.get(), nullptr) != 0) return "";
  const char* words = magic_buffer(magic.get(), head.data(), head.size());
  if (!words || std::string_view(words) == "data") return "";
  return plainLine(words, longestWords);
}

}  // namespace tarn
