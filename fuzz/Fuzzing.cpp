#include "Fuzzing.h"

#include "mp4/MP4SampleTableParser.h"
#include "parameters/NALUnitParser.h"
#include "platform/Error.h"
#include "platform/Log.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  tarn::setLogSink([](std::string_view) {});
  return 0;
}

namespace tarn::fuzz {

Movie::Movie(ByteView content) {
  files.documentsDirectory(true);
  writeFileAtomically(files, path, content);
}

size_t Movie::entries() {
  return files.contentsOfDirectory(path.parent_path()).size() +
         files.contentsOfDirectory(files.temporaryDirectory()).size();
}

bool Movie::survives(const std::function<void()>& repair) {
  const Bytes before = content();
  bool isFinished = false;
  try {
    repair();
    isFinished = true;
  } catch (const Error&) {
    require(content() == before);
  }
  require(entries() == 1);
  return isFinished;
}

bool Movie::isReadable(MP4TrackType type) {
  try {
    auto file = files.open(path, OpenMode::reading);
    auto moov = MP4BoxUtils::findBox(*file, "moov", UINT64_MAX);
    auto trak = moov ? MP4BoxUtils::findTrack(*file, *moov, type) : std::nullopt;
    auto mdia = trak ? MP4BoxUtils::findChildBox(*file, *trak, "mdia") : std::nullopt;
    auto minf = mdia ? MP4BoxUtils::findChildBox(*file, *mdia, "minf") : std::nullopt;
    auto stbl = minf ? MP4BoxUtils::findChildBox(*file, *minf, "stbl") : std::nullopt;
    if (!stbl) return false;
    MP4SampleTableParser table;
    table.parseSampleTable(*file, *stbl);
    table.allSamples();
    return true;
  } catch (const Error&) {
    return false;
  }
}

}  // namespace tarn::fuzz
