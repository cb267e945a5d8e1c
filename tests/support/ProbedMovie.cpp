#include "support/ProbedMovie.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "platform/host/PosixFileManager.h"
#include "support/MediaMaker.h"

namespace tarn::test {
namespace {

ByteView moovOf(ByteView file) {
  const auto boxes = topLevel(file);
  return std::ranges::find(boxes, "moov", &std::pair<std::string, ByteView>::first)->second;
}

}  // namespace

Packets packetsOf(const Path& file, bool takesEditLists) {
  std::string text = runProcess({"ffprobe", "-v", "error", "-ignore_editlist", takesEditLists ? "0" : "1",
                                 "-show_data_hash", "md5", "-of", "csv=p=0", "-show_entries",
                                 "packet=codec_type,pts,pts_time,dts,size,pos,flags,data_hash", file})
                         .output;
  std::ranges::replace(text, ',', ' ');
  std::istringstream words(text);
  Packets packets;
  Packet packet;
  for (std::string kind; words >> kind >> packet.pts >> packet.seconds >> packet.dts >> packet.size >> packet.place >>
                         packet.flags >> packet.hash;) {
    packets[kind].push_back(packet);
  }
  if (!words.eof()) throw std::runtime_error("not packets: " + text);
  return packets;
}

Bytes contentsOf(const Path& file) {
  PosixFileManager files(file.parent_path());
  return readFile(files, file);
}

std::vector<std::pair<std::string, ByteView>> topLevel(ByteView file) {
  std::vector<std::pair<std::string, ByteView>> boxes;
  for (uint64_t size = 0; !file.empty(); file = file.subspan(size)) {
    size = readUInt32(file, 0).value();
    if (size == 1) size = readUInt64(file, 8).value();
    if (size == 0) size = file.size();
    boxes.emplace_back(textOf(file.subspan(4, 4)), file.first(size));
  }
  return boxes;
}

ProbedMovie::ProbedMovie(const Path& movie, const Path& readable)
    : file(movie),
      bytes(contentsOf(movie)),
      moov(moovOf(bytes)),
      media(packetsOf(readable, false)),
      shown(packetsOf(readable, true)) {}

Bytes ProbedMovie::edts(const std::string& handler) {
  BoxTree& track = *moov.track(handler);
  const auto list = track.child("edts");
  return list == track.children.end() ? Bytes() : list->bytes();
}

std::vector<std::pair<uint32_t, uint32_t>> ProbedMovie::rows(const std::string& handler) {
  std::vector<std::pair<uint32_t, uint32_t>> rows;
  const Bytes list = edts(handler);
  for (size_t at = 24; at < list.size(); at += 12) {
    rows.emplace_back(readUInt32(list, at).value(), readUInt32(list, at + 4).value());
  }
  return rows;
}

}  // namespace tarn::test
