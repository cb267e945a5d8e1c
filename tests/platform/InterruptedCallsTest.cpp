// Files on Linux are never interrupted on a local disk, but on a network or user-space file system they are. The calls
// below stand in front of the C library's in this program, and make the kernel as rude as it may be.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <map>
#include <string>

#include "platform/host/PosixFileManager.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

bool isRude = false;  ///< each call is interrupted before it works, and a transfer of bytes stops after a few of them
bool workIsNext = false;
std::map<std::string, int> interrupted;  ///< how often, by call

/// Every other call, beginning with the first.
bool interrupts(const char* call) {
  if (!isRude) return false;
  workIsNext = !workIsNext;
  if (!workIsNext) return false;
  ++interrupted[call];
  errno = EINTR;
  return true;
}

size_t part(size_t count) {
  return isRude ? std::min<size_t>(count, 1000) : count;
}

}  // namespace
}  // namespace tarn::test

using tarn::test::interrupts, tarn::test::part, tarn::test::isRude, tarn::test::interrupted;

extern "C" {

int open(const char* path, int flags, ...) {
  va_list more;
  va_start(more, flags);
  const int mode = (flags & O_CREAT) != 0 ? va_arg(more, int) : 0;
  va_end(more);
  return interrupts("open") ? -1 : static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}
ssize_t pread(int file, void* bytes, size_t count, off_t offset) {
  return interrupts("pread") ? -1 : syscall(SYS_pread64, file, bytes, part(count), offset);
}
ssize_t pwrite(int file, const void* bytes, size_t count, off_t offset) {
  return interrupts("pwrite") ? -1 : syscall(SYS_pwrite64, file, bytes, part(count), offset);
}
ssize_t copy_file_range(int from, off64_t* start, int to, off64_t* end, size_t count, unsigned flags) {
  return interrupts("copy_file_range") ? -1 : syscall(SYS_copy_file_range, from, start, to, end, part(count), flags);
}
int fsync(int file) {
  return interrupts("fsync") ? -1 : static_cast<int>(syscall(SYS_fsync, file));
}
int ftruncate(int file, off_t size) noexcept {
  return interrupts("ftruncate") ? -1 : static_cast<int>(syscall(SYS_ftruncate, file, size));
}
/// As Linux does it: interrupted or not, the descriptor is gone.
int close(int file) {
  const auto result = syscall(SYS_close, file);
  if (!isRude || result != 0) return static_cast<int>(result);
  ++interrupted["close"];
  errno = EINTR;
  return -1;
}
}

namespace tarn::test {
namespace {

using testing::Key;
using testing::UnorderedElementsAre;

TEST(PosixFileManager, goesOnAfterInterruptionsAndPartsOfATransfer) {
  Bytes bytes(9'500);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
  const TempDirectory home;
  PosixFileManager files(home.path());
  isRude = true;
  writeFileAtomically(files, home / "a", bytes);
  files.copyItem(home / "a", home / "b");
  const auto target = files.open(home / "b", OpenMode::updating);
  target->truncate(0);
  EXPECT_EQ(files.open(home / "a", OpenMode::reading)->copyRange(*target, bytes.size() + 1), bytes.size());
  target->synchronize();
  target->close();
  files.replaceItem(home / "a", home / "b");
  EXPECT_EQ(readFile(files, home / "a"), bytes);
  isRude = false;
  EXPECT_THAT(interrupted, UnorderedElementsAre(Key("open"), Key("pread"), Key("pwrite"), Key("copy_file_range"),
                                                Key("fsync"), Key("ftruncate"), Key("close")));
  EXPECT_GE(interrupted["pwrite"], 10);
  EXPECT_EQ(readFile(files, home / "a"), bytes);
  EXPECT_THAT(files.contentsOfDirectory(home.path()), UnorderedElementsAre("a"));
}

}  // namespace
}  // namespace tarn::test
