#include <algorithm>

#include "Fuzzing.h"
#include "media/AACBlock.h"

namespace tarn::fuzz {

/// A sample rate and packets, one behind the other. A packet lies within the bytes, and is the same whatever stands
/// behind it.
void run(Input input) {
  constexpr uint32_t rates[] = {8000, 16000, 22050, 24000, 32000, 44100, 48000, 96000};
  const AACBlockReader reader(rates[input.number<uint8_t>() % std::size(rates)]);
  for (ByteView bytes = input.rest(); !bytes.empty();) {
    const auto block = reader.read(bytes.first(std::min(bytes.size(), AACBlockReader::longestBlock)));
    if (!block) return;
    require(block->size > 0 && block->size <= bytes.size() && !block->elements.empty());
    const auto alone = reader.read(bytes.first(block->size));
    require(alone && alone->size == block->size && alone->elements == block->elements);
    bytes = bytes.subspan(block->size);
  }
}

}  // namespace tarn::fuzz
