#include <gtest/gtest.h>

#include "platform/host/PosixFileManager.h"
#include "reliability/WholeRun.h"
#include "support/LogCapture.h"
#include "support/MediaMaker.h"

namespace tarn::test {
namespace {

/// A small recording for each road through the pipeline.
struct Recording {
  const char* name;
  const char* arguments;
  uint64_t stride = 1;  ///< between the calls that fail: 1 where a run takes no time to speak of
};

void PrintTo(const Recording& recording, std::ostream* out) {
  *out << recording.name;
}

constexpr const char* input = "-f lavfi -i testsrc=size=64x48:rate=10:duration=1 ";
constexpr const char* options = " -pix_fmt yuv420p -preset ultrafast";

const Recording recordings[] = {
    {"Tag", "-c:v libx264 -tag:v avc3"},
    {"Remux", "-c:v libx265 -x265-params repeat-headers=1:log-level=none -tag:v hev1"},
    {"Transcode", "-f lavfi -i sine=duration=1:sample_rate=48000 -c:v libx264 -c:a aac -ac 1", 29},
};

Bytes made(const Recording& recording) {
  const Path file = madeByFFmpeg(words(std::string(input) + recording.arguments + options));
  PosixFileManager files(file.parent_path());
  return readFile(files, file);
}

class FaultSweep : public testing::TestWithParam<Recording> {
 protected:
  FaultSweep() : recording_(made(GetParam())), repaired_(undisturbed(recording_)) {}

  static Bytes undisturbed(const Bytes& recording) {
    WholeRun run(recording);
    run.save();
    return run.saved().value_or(Bytes{});
  }

  /// The failure of some steps ends no run: what they would have mended is then left as it was, with all its samples.
  bool isWhole(const std::optional<Bytes>& saved) {
    return saved && (*saved == repaired_ || videoSamples(*saved) == videoSamples(repaired_));
  }

  /// Whatever happened before: the next process leaves the finished video in the album once and nothing else, or it
  /// leaves nothing, and then a new save does so.
  void expectNothingLost(WholeRun& run) {
    run.restart();
    if (run.assetsInAlbum() == 0) {
      EXPECT_LE(run.assets(), 1U) << "an asset whose way into the album failed";
      run.restart();
      EXPECT_EQ(run.leftovers(), "");
      EXPECT_TRUE(run.save());
    }
    EXPECT_EQ(run.assetsInAlbum(), 1U);
    EXPECT_TRUE(isWhole(run.saved()));
    run.restart();
    EXPECT_EQ(run.leftovers(), "");
  }

  /// Makes the Nth call fail, for every N of a whole run; returns how many points there were.
  template <typename Arm>
  size_t sweep(Arm&& arm) {
    size_t points = 0;
    for (uint64_t call = 1;; call += GetParam().stride, ++points) {
      SCOPED_TRACE("call " + std::to_string(call));
      WholeRun run(recording_);
      arm(run, call);
      run.save();
      const bool isOver = !run.files.fired();
      run.files.disarm();
      if (isOver) return points;
      expectNothingLost(run);
      if (HasFailure()) return points;
    }
  }

  LogCapture log_;
  const Bytes recording_;
  const Bytes repaired_;
};

TEST_P(FaultSweep, EveryFileOperationMayFail) {
  using enum Fault::Effect;
  struct Way {
    int errnum;
    bool isLasting;
    Fault::Effect effect;
  };
  size_t points = 0;
  for (const Way& way : {Way{EIO, false, none}, Way{EIO, true, none}, Way{ENOSPC, false, half}, Way{ENOSPC, true, half},
                         Way{EIO, false, whole}}) {
    SCOPED_TRACE(way.errnum == EIO ? "EIO" : "ENOSPC");
    points += sweep([&](WholeRun& run, uint64_t call) {
      run.files.arm({.call = call, .errnum = way.errnum, .lasting = way.isLasting, .effect = way.effect});
    });
    if (HasFailure()) return;
  }
  RecordProperty("faults", std::to_string(points));
  EXPECT_GT(points, 50U);
}

TEST_P(FaultSweep, ThePowerMayGo) {
  size_t points = 0;
  for (PowerCut cut : {PowerCut::losesNames, PowerCut::keepsNames}) {
    SCOPED_TRACE(cut == PowerCut::keepsNames ? "names kept" : "names lost");
    points += sweep([&](WholeRun& run, uint64_t call) {
      run.files.arm({.call = call, .lasting = true, .strike = [&run, cut, isOut = false]() mutable {
                       if (!isOut) run.disk.losePower(cut);
                       isOut = true;
                     }});
    });
    if (HasFailure()) return;
  }
  RecordProperty("cuts", std::to_string(points));
}

TEST_P(FaultSweep, TheLibraryMayFail) {
  for (size_t change = 1; change <= 3; ++change) {
    WholeRun run(recording_);
    run.photos().setFailures({.failingChange = change});
    run.save();
    run.photos().setFailures({});
    expectNothingLost(run);
  }
}

INSTANTIATE_TEST_SUITE_P(Recordings, FaultSweep, testing::ValuesIn(recordings),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace tarn::test
