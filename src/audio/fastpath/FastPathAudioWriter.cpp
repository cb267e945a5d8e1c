#include "audio/fastpath/FastPathAudioWriter.h"

#include <limits>

#include "mp4/AudioBoxBuilders.h"
#include "mp4/BoxLayout.h"
#include "mp4/DataExtensions.h"
#include "platform/Log.h"

namespace tarn {
namespace {

Bytes moovFor(const FastPathAudioBuilder::BuildResult& buildResult, uint64_t mdatOffset) {
  const auto tables = FastPathAudioBuilder::buildSampleTableBoxes(buildResult, mdatOffset);
  return buildAudioMoovBox(buildResult, tables.stsz, tables.stts, tables.stsc, tables.stco);
}

/// All that comes before the packets. The `moov` is as long wherever they are, as long as 32 bits can name the
/// place.
Bytes boxesAhead(const FastPathAudioBuilder::BuildResult& buildResult) {
  Bytes boxes = buildFtypBox();
  const size_t moovSize = moovFor(buildResult, boxes.size()).size();
  const uint64_t mdatOffset = boxes.size() + moovSize;
  const uint64_t mdatSize = layout::boxHeaderSize + buildResult.audioData.size();
  if (mdatOffset + mdatSize > std::numeric_limits<uint32_t>::max()) {
    throw FastPathError::validationFailed("The audio does not fit a file of 4 GiB");
  }
  const Bytes moov = moovFor(buildResult, mdatOffset);
  ByteWriter(boxes).bytes(moov).uint32(static_cast<uint32_t>(mdatSize)).text("mdat");
  return boxes;
}

}  // namespace

Bytes buildAudioMoovBox(const FastPathAudioBuilder::BuildResult& buildResult, ByteView stsz, ByteView stts,
                        ByteView stsc, ByteView stco) {
  const int64_t timescale = buildResult.timescale, duration = buildResult.durationTicks;
  const Bytes stbl = buildStblBox({buildStsdBox(timescale, buildResult.sampleRate), stts, stsc, stsz, stco});
  const Bytes mdia = buildMdiaBox(buildMinfBox(stbl), timescale, duration);
  return buildMoovBox(buildMvhdBox(timescale, duration), buildTrakBox(mdia, duration));
}

void writeFastPathAudioToM4A(FileManager& files, const FastPathAudioBuilder::BuildResult& buildResult,
                             const Path& outputURL) {
  const Bytes ahead = boxesAhead(buildResult);
  const auto file = files.open(outputURL, OpenMode::creating);
  file->write(ahead);
  file->write(buildResult.audioData);
  file->close();
  log("FastPath: Wrote M4A file ({} bytes)", ahead.size() + buildResult.audioData.size());
}

}  // namespace tarn
