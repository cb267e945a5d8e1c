#include "support/ProbedMovie.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "platform/host/PosixFileManager.h"
#include "support/MediaMaker.h"

namespace tarn::test {

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

namespace {

NamedBox firstBox(ByteView file) {
  uint64_t size = readUInt32(file, 0).value();
  if (size == 1) size = readUInt64(file, 8).value();
  if (size == 0) size = file.size();
  return {std::string(textOf(file.subspan(4, 4))), file.first(size)};
}

}  // namespace

std::vector<NamedBox> topLevel(ByteView file) {
  std::vector<NamedBox> boxes;
  for (; !file.empty(); file = file.subspan(boxes.back().second.size())) boxes.push_back(firstBox(file));
  return boxes;
}

BoxTree moovOf(ByteView file) {
  const auto [type, box] = firstBox(file);
  return type == "moov" ? BoxTree(box) : moovOf(file.subspan(box.size()));
}

ProbedMovie::ProbedMovie(const Path& movie)
    : bytes(contentsOf(movie)), moov(moovOf(bytes)), shown(packetsOf(movie, true)) {}

}  // namespace tarn::test
