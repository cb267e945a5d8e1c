#include "Fuzzing.h"
#include "mp4/DataExtensions.h"
#include "parameters/VideoCodec.h"
#include "remux/MP4Remuxer.h"

namespace tarn::fuzz {
namespace {

bool hasSeveralSampleEntries(Movie& movie) {
  auto file = movie.open();
  const auto stbl = Movie::sampleTable(*file, MP4TrackType::video);
  const auto stsd = stbl ? MP4BoxUtils::findChildBox(*file, *stbl, "stsd") : std::nullopt;
  if (!stsd) return false;
  file->seek(stsd->contentOffset() + 4);
  const Bytes count = file->read(4);
  return count.size() == 4 && loadUInt32(ByteView(count).first<4>()) > 1;
}

/// What the step of a run does.
void followPlan(Movie& movie) {
  const auto plan = planVideo(movie.files, movie.path);
  if (!plan) return;
  if (!plan->tagOffsets.empty()) changeTags(movie.files, movie.path, *plan);
  if (plan->segments.empty()) return;
  const bool isHEVC = codecOfTag(MP4Remuxer::detectHEVCTag(movie.files, movie.path).value_or("")) == &VideoCodec::hevc;
  std::optional<RemuxTimings> timings;
  isHEVC ? MP4Remuxer::remuxHEVCWithParameterExtraction(movie.files, movie.path, nullptr, timings, &*plan)
         : MP4Remuxer::remuxAVCWithParameterExtraction(movie.files, movie.path, "", nullptr, timings, &*plan);
}

}  // namespace

/// The input is a movie. What could be read can be read behind a finished repair, and a second repair changes nothing;
/// or, where an entry without a known picture size took on what the repaired first entry has, a third does not.
void run(Input input) {
  const ByteView content = input.rest();
  Movie movie(content), planned(content);
  planned.survives([&] { followPlan(planned); }, {MP4TrackType::video});
  std::optional<RemuxTimings> timings;
  const auto remux = [&](bool isHEVC) {
    const auto repair = [&] {
      isHEVC ? MP4Remuxer::remuxHEVCWithParameterExtraction(movie.files, movie.path, nullptr, timings)
             : MP4Remuxer::remuxAVCWithParameterExtraction(movie.files, movie.path, "avc3", nullptr, timings);
    };
    return movie.survives(repair, {MP4TrackType::video});
  };
  movie.survives([&] { MP4Remuxer::detectHEVCTag(movie.files, movie.path); });
  for (bool isHEVC : {true, false}) {
    if (!remux(isHEVC)) continue;
    const Bytes once = movie.content();
    require(remux(isHEVC));
    const Bytes twice = movie.content();
    if (twice == once) continue;
    require(hasSeveralSampleEntries(movie));
    require(remux(isHEVC) && movie.content() == twice);
  }
}

}  // namespace tarn::fuzz
