#pragma once

#include <algorithm>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "mp4/DataExtensions.h"
#include "support/BoxBuilder.h"

namespace tarn::test {

/// A well-formed box with a 32-bit size and what is in it, to be changed and put together again. It has a walk of its
/// own, down to the children of the sample entries.
struct BoxTree {
  std::string type;
  Bytes fields = {};  ///< what stands ahead of the children
  std::vector<BoxTree> children = {};

  explicit BoxTree(ByteView box) : type(textOf(box.subspan(4, 4))) {
    static const std::map<std::string, size_t> fieldSizes = {{"moov", 0},  {"trak", 0},  {"mdia", 0},  {"minf", 0},
                                                             {"stbl", 0},  {"edts", 0},  {"stsd", 8},  {"avc1", 78},
                                                             {"avc3", 78}, {"hvc1", 78}, {"hev1", 78}, {"mp4a", 28}};
    const auto container = fieldSizes.find(type);
    size_t at = container == fieldSizes.end() ? box.size() : 8 + container->second;
    fields.assign(box.begin() + 8, box.begin() + static_cast<ptrdiff_t>(at));
    for (; at < box.size(); at += readUInt32(box, at).value()) {
      children.emplace_back(box.subspan(at, readUInt32(box, at).value()));
    }
  }

  Bytes bytes() const {
    Bytes contents = fields;
    for (const BoxTree& child : children) contents = joined({contents, child.bytes()});
    return box(type, {contents});
  }

  std::vector<BoxTree>::iterator child(const std::string& childType) {
    return std::ranges::find(children, childType, &BoxTree::type);
  }

  /// The first box at the end of a path of types, "mdia/minf/stbl". Throws when there is none.
  BoxTree& at(const std::string& path) {
    const auto found = child(path.substr(0, 4));
    if (found == children.end()) throw std::runtime_error("no " + path + " in " + type);
    return path.size() == 4 ? *found : found->at(path.substr(5));
  }

  /// Of a `moov`: the first track with this handler; null without one.
  BoxTree* track(const std::string& handler) {
    const auto found = std::ranges::find_if(children, [&](BoxTree& track) {
      return track.type == "trak" && textOf(ByteView(track.at("mdia/hdlr").fields).subspan(8, 4)) == handler;
    });
    return found == children.end() ? nullptr : &*found;
  }
};

}  // namespace tarn::test
