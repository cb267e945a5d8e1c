#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cerrno>
#include <string>

#include "audio/AudioTranscoderError.h"
#include "inspect/FailureAdvice.h"
#include "mp4/MP4RemuxError.h"
#include "platform/PhotoAuthorization.h"
#include "platform/host/SQLite.h"

namespace tarn::test {
namespace {

using Where = RunOutcome::Where;

template <typename Failure>
std::string adviceFor(Where where, const Failure& failure) {
  const FailureAdvice advice = tarn::adviceFor(RunOutcome::failed(1, where, std::make_exception_ptr(failure)));
  return std::string(advice.mayTryAgain ? "again " : "") + (advice.maySaveAsItCame ? "as it came " : "") + advice.words;
}

const std::string full = "again The disk is full: make room, then try again.";

TEST(FailureAdvice, IsThatOfTheKindOnWhicheverWayTheFailureCame) {
  EXPECT_EQ(adviceFor(Where::transfer, PosixError(ENOSPC, "write")), full);
  EXPECT_EQ(adviceFor(Where::transfer, Error(PosixError(EDQUOT, "write"))), full)
      << "its type is lost, as in a transfer";
  EXPECT_EQ(adviceFor(Where::saving, SQLiteError(SQLITE_FULL, "insert")), full);
  EXPECT_EQ(adviceFor(Where::repair, MP4RemuxError::writeError("no room", ENOSPC)), full);
  RunOutcome noticed = RunOutcome::failed(1, Where::repair, std::make_exception_ptr(MP4RemuxError::writeError("copy")));
  noticed.isDiskFull = true;
  EXPECT_TRUE(adviceFor(noticed).mayTryAgain);

  EXPECT_EQ(adviceFor(Where::saving, PHPhotosError(PHPhotosError::invalidResource, "a page: log in")), "");
  const auto sound = adviceFor(Where::repair, AudioTranscoderError::assetReadFailed("no packet"));
  EXPECT_TRUE(sound.starts_with("as it came ") && sound.find("--skip-audio-fix") != std::string::npos) << sound;
  const auto video = adviceFor(Where::repair, MP4RemuxError::writeError("copy"));
  EXPECT_TRUE(video.starts_with("as it came ") && video.find("--skip-video-fix") != std::string::npos) << video;
  EXPECT_TRUE(adviceFor(Where::repair, PosixError(EFBIG, "write")).starts_with("as it came "));
  EXPECT_TRUE(adviceFor(Where::transfer, PosixError(EFBIG, "write")).starts_with("The file system "));
  EXPECT_EQ(adviceFor(Where::transfer, std::runtime_error("?")), "");
  EXPECT_TRUE(adviceFor(Where::start, Error("Home", EWOULDBLOCK, "in use")).starts_with("again "));
}

}  // namespace
}  // namespace tarn::test
