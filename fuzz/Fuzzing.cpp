#include "Fuzzing.h"

#include "mp4/MP4SampleTableParser.h"
#include "platform/Log.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  tarn::setLogSink([](std::string_view) {});
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tarn::fuzz::run(tarn::fuzz::Input({data, size}));
  return 0;
}

namespace tarn::fuzz {

Movie::Movie(ByteView content) {
  files.documentsDirectory(true);
  writeFileAtomically(files, path, content);
}

bool Movie::survives(const std::function<void()>& repair, std::initializer_list<MP4TrackType> kept) {
  const Bytes before = content();
  std::vector<MP4TrackType> readable(kept);
  std::erase_if(readable, [this](MP4TrackType type) { return !isReadable(type); });
  const bool isFinished = finishes(repair);
  require(isFinished || content() == before);
  require(files.contentsOfDirectory(path.parent_path()).size() == 1);
  require(files.contentsOfDirectory(files.temporaryDirectory()).empty());
  for (MP4TrackType type : readable) require(isReadable(type));
  return isFinished;
}

std::optional<MP4BoxInfo> Movie::sampleTable(FileHandle& file, MP4TrackType type) {
  const auto moov = MP4BoxUtils::findBox(file, "moov", UINT64_MAX);
  auto box = moov ? MP4BoxUtils::findTrack(file, *moov, type) : std::nullopt;
  for (const char* inner : {"mdia", "minf", "stbl"}) {
    if (box) box = MP4BoxUtils::findChildBox(file, *box, inner);
  }
  return box;
}

bool Movie::isReadable(MP4TrackType type) {
  auto file = open();
  bool isWhole = false;
  finishes([&] {
    const auto stbl = sampleTable(*file, type);
    if (!stbl) return;
    MP4SampleTableParser table;
    table.parseSampleTable(*file, *stbl);
    table.allSamples();
    isWhole = true;
  });
  return isWhole;
}

}  // namespace tarn::fuzz
