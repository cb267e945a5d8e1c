#include <algorithm>

#include "Fuzzing.h"
#include "parameters/PictureReader.h"

namespace tarn::fuzz {

/// A codec, the contents of a configuration box behind their length, and units behind theirs. A front that is a unit is
/// so whatever stands behind it.
void run(Input input) {
  const VideoCodec& codec = input.number<uint8_t>() % 2 == 0 ? VideoCodec::avc : VideoCodec::hevc;
  const ByteView box = input.take(input.number<uint16_t>());
  finishes([&] {
    const auto reader = PictureReader::make(codec, codec.readConfigBox(box).sets);
    std::optional<PictureOrder> last;
    for (ByteView unit = input.take(input.number<uint16_t>()); !unit.empty();
         unit = input.take(input.number<uint16_t>())) {
      const auto read = reader->read(unit.first(std::min(unit.size(), PictureReader::frontSize)));
      if (!read || read->role != StreamUnit::Role::slice || !read->isFirst) continue;
      const auto order = reader->order(*read);
      require(!order || !last || order->sequence >= last->sequence);
      if (order) last = order;
    }
  });
}

}  // namespace tarn::fuzz
