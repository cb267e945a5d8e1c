#include <gtest/gtest.h>

#include <utility>

#include "mp4/DataExtensions.h"
#include "reliability/WholeRun.h"
#include "support/Clip.h"
#include "support/DamagedMovies.h"
#include "support/LogCapture.h"
#include "support/MediaMaker.h"
#include "support/ProbedMovie.h"

namespace tarn::test {
namespace {

/// What a disturbed save must bring in the end.
enum class Result {
  repaired,  ///< the same bytes as an undisturbed one
  whole,     ///< the same samples: a step that failed and ended no run has left what it would have mended
};

/// A small recording for each road through the pipeline.
struct Recording {
  const char* name;
  const char* arguments;
  bool lacksSets = false;
  uint64_t readStride = 1;  ///< between the readings that fail: 1 if a run takes next to no time
};

void PrintTo(const Recording& recording, std::ostream* out) {
  *out << recording.name;
}

constexpr const char* input = "-f lavfi -i testsrc=size=64x48:rate=10:duration=1 ";
constexpr const char* options = " -pix_fmt yuv420p -preset ultrafast";

const Recording recordings[] = {
    {"Tag", "-c:v libx264 -tag:v avc3"},
    {"Remux", "-c:v libx265 -x265-params repeat-headers=1:log-level=none -tag:v hev1", true},
    {"Transcode", "-f lavfi -i sine=duration=0.1:sample_rate=48000 -c:v libx264 -c:a ac3", false, 4},
};

Bytes made(const Recording& recording) {
  const Bytes bytes = contentsOf(madeByFFmpeg(words(std::string(input) + recording.arguments + options)));
  return recording.lacksSets ? withoutParameterSets(bytes, true) : bytes;
}

/// The bytes of all samples of a movie's first video track, in order.
Bytes videoSamples(const Bytes& movie) {
  const Clip clip(movie);
  const auto source = clip.samples(AVMediaType::video);
  Bytes samples;
  while (const auto sample = source->next()) ByteWriter(samples).bytes(source->data(sample->sampleIndex));
  return samples;
}

class FaultSweep : public testing::TestWithParam<Recording> {
 protected:
  FaultSweep() : recording_(made(GetParam())), repaired_(undisturbed(recording_)) {}

  static Bytes undisturbed(const Bytes& recording) {
    WholeRun run(recording);
    run.save();
    return run.saved().value_or(Bytes{});
  }

  void expectSaved(WholeRun& run, Result result) {
    ASSERT_TRUE(run.saved());
    if (*run.saved() == repaired_) return;
    EXPECT_EQ(result, Result::whole);
    EXPECT_EQ(videoSamples(*run.saved()), videoSamples(repaired_));
  }

  /// Whatever happened before: the next process leaves the finished video in the album once and nothing else, or it
  /// leaves nothing, and then a new save does so. A run that was stored needs no new save.
  void expectNothingLost(WholeRun& run, Result result) {
    EXPECT_LE(run.successesTold(), run.assets()) << "a success that was told is one";
    const bool isStored = run.hasPendingWork();
    run.restart();
    if (isStored) {
      EXPECT_EQ(run.assetsInAlbum(), 1U) << "a stored run that the next process did not save";
    }
    size_t strays = 0;
    if (run.assetsInAlbum() == 0) {
      strays = run.assets();
      EXPECT_LE(strays, 1U) << "an asset whose way into the album failed";
      run.restart();
      EXPECT_EQ(run.leftovers(), "");
      const size_t told = run.successesTold();
      EXPECT_TRUE(run.save());
      EXPECT_EQ(run.successesTold(), told + 1);
    }
    EXPECT_EQ(run.assetsInAlbum(), 1U);
    EXPECT_EQ(run.assets(), strays + 1);
    expectSaved(run, result);
    run.restart();
    EXPECT_EQ(run.leftovers(), "");
  }

  /// Makes the Nth call fail, for every N of a whole run; returns how many points there were.
  template <typename Work>
  size_t sweep(uint64_t stride, Result result, Work&& workWithFault) {
    size_t points = 0;
    for (uint64_t call = 1;; call += stride, ++points) {
      SCOPED_TRACE("call " + std::to_string(call));
      WholeRun run(recording_);
      workWithFault(run, call);
      const bool isOver = !run.hasFired();
      run.disarm();
      if (isOver) return points;
      expectNothingLost(run, result);
      if (HasFailure()) return points;
    }
  }

  LogCapture log_;
  const Bytes recording_;
  const Bytes repaired_;
};

TEST_P(FaultSweep, EveryFileOperationMayFail) {
  using enum Fault::Effect;
  const uint64_t step = GetParam().readStride;
  const std::pair<Fault, uint64_t> ways[] = {
      {{.errnum = EIO, .among = changes}, 1},
      {{.errnum = EIO, .lasting = true, .among = changes}, 1},
      {{.errnum = ENOSPC, .effect = half, .among = changes}, 1},
      {{.errnum = ENOSPC, .lasting = true, .effect = half, .among = changes}, 1},
      {{.errnum = EIO, .effect = whole, .among = changes}, 1},
      {{.errnum = EIO, .among = looks}, step},
      {{.errnum = EIO, .lasting = true, .among = looks}, step},
  };
  size_t points = 0;
  for (const auto& [way, stride] : ways) {
    SCOPED_TRACE(way.errnum == EIO ? "EIO" : "ENOSPC");
    points += sweep(stride, Result::whole, [&, fault = way](WholeRun& run, uint64_t call) mutable {
      fault.call = call;
      run.files.arm(fault);
      run.save();
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
    points += sweep(1, Result::repaired, [&](WholeRun& run, uint64_t call) {
      Fault fault{.call = call, .lasting = true, .among = changes};
      fault.strike = [&run, cut, isOut = false]() mutable {
        if (!isOut) run.disk.losePower(cut);
        isOut = true;
      };
      run.files.arm(std::move(fault));
      run.save();
    });
    if (HasFailure()) return;
  }
  RecordProperty("cuts", std::to_string(points));
}

// The photo library's and the transfers' calls, and what the server and the network do; in one process, and where a
// second one takes a transfer up.
TEST_P(FaultSweep, EveryCallOfTheServicesMayFail) {
  size_t points = 0;
  for (bool isLasting : {false, true}) {
    SCOPED_TRACE(isLasting ? "from then on" : "once");
    points += sweep(1, Result::whole, [&](WholeRun& run, uint64_t call) {
      run.calls.arm(call, isLasting);
      run.save();
    });
    points += sweep(1, Result::whole, [&](WholeRun& run, uint64_t call) {
      run.dieInMidTransfer();
      run.calls.arm(call, isLasting);
      try {
        run.restart();
      } catch (const Error&) {
        // A process that cannot even begin.
      }
    });
    if (HasFailure()) return;
  }
  RecordProperty("faults", std::to_string(points));
  EXPECT_GT(points, 50U);
}

INSTANTIATE_TEST_SUITE_P(Recordings, FaultSweep, testing::ValuesIn(recordings),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace tarn::test
