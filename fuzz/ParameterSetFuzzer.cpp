#include <tarn/hevc.h>

#include "Fuzzing.h"
#include "parameters/AVCConfigurationBox.h"
#include "parameters/HEVCConfigurationBox.h"
#include "parameters/HEVCConfigurationSegment.h"
#include "parameters/NALUnitParser.h"

namespace tarn::fuzz {
namespace {

void buildBoxes(ByteView unit, ByteView second) {
  const std::vector<Bytes> units{Bytes(unit.begin(), unit.end()), Bytes(second.begin(), second.end())};
  HEVCConfigurationBox(units, units, units, units, 4, true).buildHvcCBox();
  AVCConfigurationBox(units, units, units, 4).buildAvcCBox();
}

/// One sync sample after another in a file of nothing else.
void scan(ByteView samples, uint8_t split) {
  Movie movie(samples);
  auto file = movie.open();
  const auto first = static_cast<uint32_t>(samples.size() * split / 256);
  const std::vector<SampleInfo> sync{{0, 0, first, true},
                                     {1, first, static_cast<uint32_t>(samples.size()) - first, true}};
  NALUnitParser::scanSamplesForParameterSets(*file, sync, NALUnitParser::detectNALLengthSize(*file, sync));
  NALUnitParser::scanSamplesForAVCParameterSets(*file, sync, NALUnitParser::detectAVCNALLengthSize(*file, sync));
  HEVCConfigurationSegmentDetector::detectSegments(*file, sync, 4, 2);
  AVCConfigurationSegmentDetector::detectSegments(*file, sync, 2, 2);
}

}  // namespace

void run(Input input) {
  const auto split = input.number<uint8_t>();
  const ByteView all = input.rest();
  const ByteView front = all.first(all.size() * split / 256);
  HEVCSPSInfo info;
  if (hevc_parse_sps(all.data(), all.size(), &info) == 0) {
    require(info.width >= 1 && info.width <= 16384 && info.height >= 1 && info.height <= 16384);
    require(info.bitDepthLuma >= 8 && info.bitDepthLuma <= 16 && info.chromaFormatIdc <= 3);
  }
  if (const auto shown = NALUnitParser::parseShownSize(all)) {
    const auto coded = NALUnitParser::parseSPSResolution(all);
    require(coded && shown->width >= 1 && shown->width <= coded->width);
    require(shown->height >= 1 && shown->height <= coded->height);
  }
  AVCConfigurationBox::parseSPSResolution(all);
  // Sets that cannot be written or read are refused.
  finishes([&] { readHvcC(all); });
  finishes([&] { readAvcC(all); });
  finishes([&] { buildBoxes(front, all.subspan(front.size())); });
  finishes([&] { scan(all, split); });
}

}  // namespace tarn::fuzz
