#include "Fuzzing.h"

#include "mp4/MP4SampleTableParser.h"
#include "parameters/NALUnitParser.h"
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

bool Movie::survives(const std::function<void()>& repair) {
  const Bytes before = content();
  const bool isFinished = finishes(repair);
  require(isFinished || content() == before);
  require(files.contentsOfDirectory(path.parent_path()).size() == 1);
  require(files.contentsOfDirectory(files.temporaryDirectory()).empty());
  return isFinished;
}

bool Movie::isReadable(MP4TrackType type) {
  bool isFound = false;
  const bool isWhole = finishes([&] {
    auto file = files.open(path, OpenMode::reading);
    const auto moov = MP4BoxUtils::findBox(*file, "moov", UINT64_MAX);
    auto box = moov ? MP4BoxUtils::findTrack(*file, *moov, type) : std::nullopt;
    for (const char* inner : {"mdia", "minf", "stbl"}) {
      if (box) box = MP4BoxUtils::findChildBox(*file, *box, inner);
    }
    if (!box) return;
    isFound = true;
    MP4SampleTableParser table;
    table.parseSampleTable(*file, *box);
    table.allSamples();
  });
  return isWhole && isFound;
}

}  // namespace tarn::fuzz
