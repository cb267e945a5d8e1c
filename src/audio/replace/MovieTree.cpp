#include "audio/replace/MovieTree.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "audio/AudioTrackReplacerError.h"
#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"

namespace tarn {
namespace {

constexpr size_t mostBoxes = 65536;

/// Which boxes are taken apart, and in which parents. No box is in here twice, so the depth has an end.
constexpr std::pair<std::string_view, std::string_view> containers[] = {
    {"", "moov"}, {"moov", "trak"}, {"trak", "edts"}, {"trak", "mdia"}, {"mdia", "minf"}, {"minf", "stbl"}};

bool isContainer(std::string_view parent, std::string_view type) {
  return std::ranges::find(containers, std::pair(parent, type)) != std::end(containers);
}

class Parser {
 public:
  explicit Parser(ByteView moov) : moov_(moov) {}

  MovieBox parse(std::string_view parent, const BoxHeader& header) {
    if (++boxes_ > mostBoxes) throw AudioTrackReplacerError::corruptedMP4("The moov holds too many boxes");
    const auto headerSize = static_cast<size_t>(header.headerSize);
    const ByteView whole = moov_.subspan(header.offset, header.size);
    MovieBox box;
    box.type = textOf(whole.subspan(layout::boxType.offset, layout::boxType.width));
    box.head = copy(whole.first(headerSize));
    uint64_t rest = header.offset + headerSize;
    if (isContainer(parent, box.type)) rest = parseChildren(box, rest, header.end());
    box.contents = copy(moov_.subspan(rest, header.end() - rest));
    return box;
  }

 private:
  static Bytes copy(ByteView bytes) { return {bytes.begin(), bytes.end()}; }

  /// Returns where the last child ends.
  uint64_t parseChildren(MovieBox& parent, uint64_t begin, uint64_t end) {
    BufferBoxWalker walker(moov_, begin, end, boxwalk::openChildren);
    while (const auto child = walker.next()) {
      if (child->end() > end) {
        if (!isContainer(parent.type, child->type)) break;
        throw AudioTrackReplacerError::corruptedMP4(child->type + " reaches over its " + parent.type);
      }
      parent.children.push_back(parse(parent.type, *child));
      begin = child->end();
    }
    return begin;
  }

  ByteView moov_;
  size_t boxes_ = 0;
};

}  // namespace

MovieBox MovieBox::parse(ByteView moov) {
  BufferBoxWalker walker(moov, 0, moov.size(), boxwalk::openChildren);
  const auto header = walker.next();
  if (!header || header->size != moov.size()) throw AudioTrackReplacerError::corruptedMP4("moov has no size");
  return Parser(moov).parse("", *header);
}

const MovieBox* MovieBox::find(std::initializer_list<std::string_view> path) const {
  const MovieBox* box = this;
  for (std::string_view step : path) {
    const auto child = std::ranges::find(box->children, step, &MovieBox::type);
    if (child == box->children.end()) return nullptr;
    box = &*child;
  }
  return box;
}

MovieBox* MovieBox::find(std::initializer_list<std::string_view> path) {
  return const_cast<MovieBox*>(std::as_const(*this).find(path));
}

void MovieBox::put(MovieBox child) {
  MovieBox* old = find({child.type});
  if (old) {
    *old = std::move(child);
  } else {
    children.push_back(std::move(child));
  }
}

void MovieBox::removeAll(std::string_view childType) {
  std::erase_if(children, [&](const MovieBox& child) { return child.type == childType; });
}

uint64_t MovieBox::contentSize() const {
  uint64_t size = contents.size();
  for (const MovieBox& child : children) size += child.size();
  return size;
}

Bytes MovieBox::bytes() const {
  Bytes target;
  target.reserve(size());
  appendTo(target);
  return target;
}

void MovieBox::appendTo(Bytes& target) const {
  const size_t begin = target.size();
  target.insert(target.end(), head.begin(), head.end());
  for (const MovieBox& child : children) child.appendTo(target);
  target.insert(target.end(), contents.begin(), contents.end());
  const uint64_t size = target.size() - begin;
  if (head.size() > layout::boxHeaderSize) return layout::store(target.data() + begin, {8, 8}, size);
  if (size > std::numeric_limits<uint32_t>::max()) {
    throw AudioTrackReplacerError::corruptedMP4("The size of a " + type + " does not fit its field");
  }
  layout::store(target.data() + begin, layout::boxSize, size);
}

}  // namespace tarn
