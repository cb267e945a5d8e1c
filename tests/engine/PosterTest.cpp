#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <fstream>
#include <future>
#include <numeric>

#include "engine/PosterMaker.h"
#include "engine/PosterProgram.h"
#include "platform/Error.h"
#include "platform/host/PosixFileManager.h"
#include "poster/Confinement.h"
#include "support/MediaMaker.h"
#include "support/TarnProcess.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

namespace fs = std::filesystem;

class PosterTest : public testing::Test {
 protected:
  static constexpr auto promptly = [] { return false; };

  static std::optional<Bytes> poster(const Path& video) {
    return runPosterProgram(POSTER_PROGRAM, video, std::chrono::seconds(60), promptly);
  }

  Path put(const std::string& name, std::string_view content) {
    std::ofstream(place_ / name, std::ios::binary) << content;
    return place_ / name;
  }

  /// A program in the place of that for posters.
  Path putProgram(const std::string& script) {
    const Path program = put("program", "#!/bin/sh\n" + script + "\n");
    fs::permissions(program, fs::perms::owner_all);
    return program;
  }

  /// A picture as ffmpeg shows it, upright, in this size: a byte a pixel.
  static std::string pixels(const Path& file, const std::string& size) {
    return runProcess({"ffmpeg", "-v", "error", "-i", file, "-frames:v", "1", "-vf", "scale=" + size + ":flags=area",
                       "-f", "rawvideo", "-pix_fmt", "gray", "-"})
        .output;
  }

  TempDirectory place_;
};

/// The mean difference of two pictures, of 255.
double difference(const std::string& one, const std::string& other) {
  if (one.empty() || one.size() != other.size()) return 255;
  double sum = 0;
  for (size_t i = 0; i < one.size(); ++i) {
    sum += std::abs(static_cast<uint8_t>(one[i]) - static_cast<uint8_t>(other[i]));
  }
  return sum / static_cast<double>(one.size());
}

// ffmpeg is the judge: it shows the same picture, of the same size, turned and stretched as the file says.
TEST_F(PosterTest, IsTheFirstPictureAsPlayersShowIt) {
  const auto turned = [&](const Path& video, const std::string& degrees) {
    return madeByFFmpeg(words("-i " + video.string() + " -c copy -metadata:s:v rotate=" + degrees));
  };
  const Path avc = encodedVideo({.size = "640x360"});
  const auto hevc = [](const char* format) {
    return encodedVideo({.codec = "libx265", .pixelFormat = format, .size = "640x360", .more = words("-tag:v hvc1")});
  };
  const std::tuple<const char*, Path, std::string> rows[] = {
      {"AVC", avc, "480x270"},
      {"HEVC", hevc("yuv420p"), "480x270"},
      {"HEVC of 10 bits", hevc("yuv420p10le"), "480x270"},
      {"a quarter left", turned(avc, "90"), "270x480"},
      {"a quarter right", turned(avc, "270"), "270x480"},
      {"small", encodedVideo({.size = "192x144"}), "192x144"},
      {"wide pixels", encodedVideo({.size = "320x240", .more = words("-vf setsar=4/3")}), "427x240"},
      {"parameter sets in the samples",
       encodedVideo({.size = "640x360", .more = words("-tag:v avc3 -bsf:v dump_extra")}), "480x270"},
  };
  for (const auto& [name, video, size] : rows) {
    SCOPED_TRACE(name);
    const auto jpeg = poster(video);
    ASSERT_TRUE(jpeg);
    const Path file = put("poster.jpg", textOf(*jpeg));
    EXPECT_EQ(probeVideo(file, "width") + "x" + probeVideo(file, "height"), size);
    EXPECT_LT(difference(pixels(file, size), pixels(video, size)), 6);
  }
}

TEST_F(PosterTest, OfWhatHoldsNoPictureThereIsNone) {
  const std::string movie = contentOf(encodedVideo({.size = "640x360"}));
  const size_t media = movie.find("mdat") + 4;
  std::string noise = movie;
  for (size_t i = 0; i < noise.size(); ++i) noise[i] = static_cast<char>(i * 2654435761U >> 13);
  for (const std::string& content : {std::string(), noise, movie.substr(0, 300), movie.substr(0, media)}) {
    EXPECT_FALSE(poster(put("clip.mp4", content))) << content.size();
  }
  EXPECT_FALSE(poster(madeByFFmpeg(words("-f lavfi -i sine=duration=1 -c:a aac"))));
}

// A program that hangs is ended, with all that it holds.
TEST_F(PosterTest, AProgramThatHangsOrTalksTooMuchIsEnded) {
  const Path video = put("clip.mp4", "x");
  const auto run = [&](const std::string& script) {
    return runPosterProgram(putProgram(script), video, std::chrono::milliseconds(500), promptly);
  };
  EXPECT_FALSE(run("sleep 1000"));
  EXPECT_FALSE(run("yes"));
  EXPECT_FALSE(run("printf '\\377\\330 not whole'"));
  EXPECT_TRUE(run("printf '\\377\\330 whole \\377\\331'"));
  EXPECT_FALSE(runPosterProgram(POSTER_PROGRAM, video, std::chrono::seconds(60), [] { return true; }));
  EXPECT_THROW(runPosterProgram(place_ / "missing", video, std::chrono::seconds(1), promptly), Error);

  // What it has: no variable, no open file but three, no more.
  ::setenv("SECRET", "x", 1);
  run("(env; ls /proc/self/fd; pwd) > " + (place_ / "seen").string());
  const std::string seen = contentOf(place_ / "seen");
  for (const char* name : {"SECRET", "HOME", "0\n1\n2\n3\n4\n"}) EXPECT_EQ(seen.find(name), std::string::npos) << seen;
  EXPECT_NE(seen.find("0\n1\n2\n3\n"), std::string::npos) << "the fourth is the folder that is listed: " << seen;
}

// What a video could do with a decoder that it has taken over.
TEST_F(PosterTest, AConfinedProcessReadsWhatIsOpenAndNothingElse) {
  const int file = ::open(put("open", "x").c_str(), O_RDONLY | O_CLOEXEC);
  const pid_t child = ::fork();
  if (child == 0) {
    confineProcess();
    const auto isRefused = [](auto result) { return result == decltype(result)(-1) && errno == EPERM; };
    char byte = 0;
    char* const none[] = {nullptr};
    const bool results[] = {
        ::read(file, &byte, 1) == 1,
        isRefused(::open("/etc/passwd", O_RDONLY)),
        isRefused(::socket(AF_INET, SOCK_STREAM, 0)),
        isRefused(::syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0)),
        isRefused(::execve("/bin/true", none, none)),
        isRefused(::kill(::getppid(), 0)),
        isRefused(reinterpret_cast<intptr_t>(
            ::mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))),
        ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) != MAP_FAILED,
    };
    int refused = 0;
    while (refused < static_cast<int>(std::size(results)) && results[refused]) ++refused;
    ::_exit(refused);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  ::close(file);
  ASSERT_TRUE(WIFEXITED(status)) << status;
  EXPECT_EQ(WEXITSTATUS(status), 8) << "the number of the first that is otherwise";
}

TEST_F(PosterTest, PostersAreKeptForTheOwnerUntilTheirAssetsGo) {
  PosixFileManager files(place_.path());
  const Path program = putProgram("echo >> " + (place_ / "runs").string() +
                                  "\nif read line; then printf '\\377\\330 whole \\377\\331'; fi");
  PosterMaker maker(files, place_ / "Posters", program);
  const auto ask = [&](const std::string& id, const Path& video) {
    const auto answer = std::make_shared<std::promise<std::optional<Path>>>();
    maker.tell(id, video, [answer](const std::optional<Path>& poster) { answer->set_value(poster); });
    return answer->get_future();
  };
  const Path good = put("good.mp4", "a line\n"), bad = put("bad.mp4", "");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(ask("A", good).get(), place_ / "Posters/A.jpg");
    EXPECT_EQ(ask("B", bad).get(), std::nullopt);
  }
  auto first = ask("C", bad), second = ask("C", bad);
  EXPECT_EQ(first.get(), std::nullopt);
  EXPECT_EQ(second.get(), std::nullopt);
  EXPECT_EQ(contentOf(place_ / "runs"), "\n\n\n") << "once each";
  EXPECT_EQ(fs::status(place_ / "Posters/A.jpg").permissions(), fs::perms(0600));
  maker.keepOnly({"A"});
  EXPECT_TRUE(fs::exists(place_ / "Posters/A.jpg"));
  maker.keepOnly({"B"});
  EXPECT_FALSE(fs::exists(place_ / "Posters/A.jpg"));
}

}  // namespace
}  // namespace tarn::test
