#include <algorithm>
#include <array>

#include "Fuzzing.h"
#include "movie/MoovCheck.h"
#include "movie/MovieError.h"
#include "movie/MovieTree.h"
#include "mp4/BoxWalker.h"

namespace tarn::fuzz {
namespace {

constexpr std::array policies{&boxwalk::topLevel,       &boxwalk::children,
                              &boxwalk::tracks,         &boxwalk::buffer,
                              &boxwalk::bufferDeep,     &boxwalk::sampleEntryChildren,
                              &boxwalk::openChildren,   &boxwalk::tableChildren,
                              &boxwalk::clonedChildren, &boxwalk::protectionChildren,
                              &boxwalk::topLevelScan,   &boxwalk::movieBuffer};

/// A walk comes to its end: each header has eight bytes of its own, and a buffer is walked once for each level.
template <typename Walker>
void walk(Walker&& walker, size_t size) {
  size_t headers = 0;
  while (auto header = walker.next()) {
    require(header->offset <= size && header->offset + header->size >= header->offset);
    require(++headers <= size);
  }
}

/// Written again, a `moov` is what it was, but for the sizes that the rules write out.
void tree(ByteView moov, const EditRules& rules) {
  try {
    if (moov.size() >= 8) requireEditable(moov, 0, rules);
    const Bytes written = MovieBox::parse(moov, rules).bytes();
    require(written.size() == moov.size());
    const size_t head = std::min<size_t>(16, moov.size());
    if (rules.zeroSize != EditRules::ZeroSize::stays) return;
    require(std::ranges::equal(ByteView(written).subspan(head), moov.subspan(head)));
  } catch (const MovieError&) {
    // Damage that the rules do not let through.
  }
}

}  // namespace

void run(Input input) {
  const BoxWalkPolicy& policy = *policies[input.number<uint8_t>() % policies.size()];
  const ByteView boxes = input.rest();
  Movie movie(boxes);
  auto file = movie.open();
  walk(FileBoxWalker(*file, 0, boxes.size(), policy), boxes.size());
  walk(BufferBoxWalker(boxes, 0, boxes.size(), policy), boxes.size());
  for (bool isRecursive : {false, true}) MP4BoxUtils::findBoxOffsets(boxes, "stsd", 0, std::nullopt, isRecursive);
  MP4BoxUtils::findTrakOffset(boxes, MP4TrackType::video);
  for (const EditRules* rules : {&edit::remuxing, &edit::syncing, &edit::stripping, &edit::replacing}) {
    tree(boxes, *rules);
  }
}

}  // namespace tarn::fuzz
