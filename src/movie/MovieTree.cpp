#include "movie/MovieTree.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "movie/MovieError.h"
#include "mp4/BoxLayout.h"
#include "mp4/BoxWalker.h"
#include "mp4/DataExtensions.h"

namespace tarn {
namespace {

using Case = MovieError::Case;

constexpr size_t mostBoxes = 65536;

/// Which boxes are taken apart, and in which parents. No box is in here twice, so the depth has an end.
constexpr std::pair<std::string_view, std::string_view> containers[] = {
    {"", "moov"}, {"moov", "trak"}, {"trak", "edts"}, {"trak", "mdia"}, {"mdia", "minf"}, {"minf", "stbl"}};

bool isContainer(std::string_view parent, std::string_view type) {
  return std::ranges::find(containers, std::pair(parent, type)) != std::end(containers);
}

void storeSize(uint8_t* head, size_t headSize, uint64_t size, std::string_view type) {
  if (headSize > layout::boxHeaderSize) return layout::store(head, layout::longBoxSize, size);
  if (size > std::numeric_limits<uint32_t>::max()) {
    throw MovieError(Case::doesNotFit, "The size of a " + std::string(type) + " does not fit its field");
  }
  layout::store(head, layout::boxSize, size);
}

/// The head of a box with the size that it has now, unless that reaches to the end anyway.
Bytes sizedHead(const MovieBox& box) {
  Bytes head = box.head;
  const bool isZero = layout::load(head.data(), layout::boxSize) == 0;
  if (!box.isCut && !isZero) storeSize(head.data(), head.size(), box.size(), box.type);
  return head;
}

class Parser {
 public:
  Parser(ByteView moov, const EditRules& rules) : moov_(moov), rules_(rules) {}

  /// `end` is that of the parent.
  MovieBox parse(std::string_view parent, const BoxHeader& header, uint64_t end) {
    if (++boxes_ > mostBoxes) throw MovieError(Case::damaged, "The moov holds too many boxes");
    const auto headSize = static_cast<size_t>(header.headerSize);
    MovieBox box;
    box.isCut = header.end() > end;
    box.offset = header.offset;
    box.oldSize = std::min(header.end(), end) - header.offset;
    const ByteView whole = moov_.subspan(header.offset, box.oldSize);
    box.type = textOf(whole.subspan(layout::boxType.offset, layout::boxType.width));
    box.head = copy(whole.first(headSize));
    if (!box.isCut) writeOutZero(box);
    uint64_t rest = headSize;
    if (!box.isCut && isContainer(parent, box.type)) rest = parseChildren(box, headSize) - header.offset;
    box.contents = copy(whole.subspan(rest));
    return box;
  }

 private:
  static Bytes copy(ByteView bytes) { return {bytes.begin(), bytes.end()}; }

  void writeOutZero(MovieBox& box) const {
    const bool isZero = layout::load(box.head.data(), layout::boxSize) == 0;
    if (isZero && rules_.zeroSize == EditRules::ZeroSize::isWrittenOut) {
      storeSize(box.head.data(), box.head.size(), box.oldSize, box.type);
    }
  }

  /// Returns where the last child ends.
  uint64_t parseChildren(MovieBox& parent, size_t headSize) {
    uint64_t begin = parent.offset + headSize;
    const uint64_t end = parent.offset + parent.oldSize;
    BufferBoxWalker walker(moov_, begin, end, boxwalk::openChildren);
    while (const auto child = walker.next()) {
      const bool isCut = child->end() > end;
      if (isCut && rules_.overrun == EditRules::Overrun::isHidden) {
        if (!isContainer(parent.type, child->type)) break;
        throw MovieError(Case::damaged, child->type + " reaches over its " + parent.type);
      }
      // A header that the end cuts off too is no child.
      if (child->offset + static_cast<uint64_t>(child->headerSize) > end) break;
      parent.children.push_back(parse(parent.type, *child, end));
      begin = std::min(child->end(), end);
    }
    return begin;
  }

  ByteView moov_;
  const EditRules& rules_;
  size_t boxes_ = 0;
};

}  // namespace

MovieBox MovieBox::parse(ByteView moov, const EditRules& rules) {
  BufferBoxWalker walker(moov, 0, moov.size(), boxwalk::openChildren);
  auto header = walker.next();
  const bool mayBeCut = rules.cutMoov == EditRules::CutMoov::isTaken;
  if (!header || header->size < moov.size() || (header->size > moov.size() && !mayBeCut)) {
    throw MovieError(Case::damaged, "moov has no size");
  }
  header->size = moov.size();
  MovieBox box = Parser(moov, rules).parse("", *header, moov.size());
  storeSize(box.head.data(), box.head.size(), box.oldSize, box.type);
  return box;
}

MovieBox MovieBox::of(ByteView box) {
  if (box.size() < layout::boxHeaderSize) throw MovieError(Case::damaged, "A box has no header");
  const auto head = box.first(layout::boxHeaderSize), contents = box.subspan(layout::boxHeaderSize);
  return {.type = std::string(textOf(head.subspan(layout::boxType.offset))),
          .head = {head.begin(), head.end()},
          .contents = {contents.begin(), contents.end()}};
}

MovieBox MovieBox::of(std::string_view type, Bytes contents) {
  MovieBox box{.type = std::string(type), .head = {}, .contents = std::move(contents)};
  ByteWriter(box.head).uint32(layout::boxHeaderSize).text(type);
  return box;
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

void MovieBox::writeTo(FileHandle& target) const {
  target.write(sizedHead(*this));
  for (const MovieBox& child : children) child.writeTo(target);
  target.write(contents);
}

Bytes MovieBox::plainBytes() const {
  Bytes bytes;
  bytes.reserve(layout::boxHeaderSize + contents.size());
  ByteWriter(bytes).uint32(0).text(type).bytes(contents);
  layout::store(bytes.data(), layout::boxSize, bytes.size());
  return bytes;
}

void MovieBox::appendTo(Bytes& target) const {
  const Bytes header = sizedHead(*this);
  target.insert(target.end(), header.begin(), header.end());
  for (const MovieBox& child : children) child.appendTo(target);
  target.insert(target.end(), contents.begin(), contents.end());
}

}  // namespace tarn
