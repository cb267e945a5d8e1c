#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <limits>
#include <numeric>

#include "platform/Error.h"
#include "platform/FileManager.h"
#include "platform/SHA256.h"
#include "platform/host/PosixFileManager.h"
#include "platform/memory/InMemoryFileManager.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr size_t everything = std::numeric_limits<size_t>::max();

template <typename Work>
int errnoOf(Work work) {
  try {
    work();
    return 0;
  } catch (const PosixError& error) {
    return error.code();
  }
}

Bytes pattern(size_t size) {
  Bytes bytes(size);
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(i * 7 + i / 251);
  return bytes;
}

/// The same promises, kept by the host (true) and by its twin in memory.
class FileManagerContract : public testing::TestWithParam<bool> {
 protected:
  std::unique_ptr<FileManager> make() const {
    if (GetParam()) return std::make_unique<PosixFileManager>(home_);
    return std::make_unique<InMemoryFileManager>(home_);
  }

  void put(const Path& path, std::string_view text) { files_->open(path, OpenMode::creating)->write(bytesOf(text)); }
  std::string text(const Path& path) { return std::string(textOf(readFile(*files_, path))); }

  const TempDirectory directory_;
  const Path home_ = GetParam() ? directory_.path() : Path("/home");
  const std::unique_ptr<FileManager> files_ = make();
  const Path a_ = home_ / "a", b_ = home_ / "b", c_ = home_ / "c", missing_ = home_ / "missing";
};

INSTANTIATE_TEST_SUITE_P(Files, FileManagerContract, testing::Bool());

TEST_P(FileManagerContract, opensByMode) {
  using enum OpenMode;
  files_->open(a_, exclusive)->write(bytesOf("one"));
  files_->open(a_, updating)->write(bytesOf("O"));
  EXPECT_EQ(text(a_), "One");
  files_->open(a_, creating)->close();
  EXPECT_EQ(text(a_), "");
  EXPECT_EQ(errnoOf([&] { files_->open(a_, reading)->write(bytesOf("x")); }), EBADF);

  const Path withNul = home_ / std::string("a\0b", 3);
  const std::tuple<Path, OpenMode, int> rows[] = {{missing_, reading, ENOENT},
                                                  {missing_, updating, ENOENT},
                                                  {a_, exclusive, EEXIST},
                                                  {home_, reading, EISDIR},
                                                  {a_ / "b", creating, ENOTDIR},
                                                  {withNul, creating, EINVAL},
                                                  {missing_ / "b", creating, ENOENT},
                                                  {home_ / std::string(300, 'n'), creating, ENAMETOOLONG}};
  for (const auto& [path, mode, errnum] : rows) {
    EXPECT_EQ(errnoOf([&, at = path, how = mode] { files_->open(at, how); }), errnum) << path;
  }
  EXPECT_FALSE(files_->fileExists(withNul));
}

TEST_P(FileManagerContract, readsWritesAndSeeks) {
  const auto handle = files_->open(a_, OpenMode::creating);
  handle->write(bytesOf("hello"));
  handle->seek(8);
  handle->write(bytesOf("!"));
  EXPECT_EQ(handle->seekToEnd(), 9u);
  EXPECT_THAT(handle->read(10), IsEmpty());
  handle->seek(3);
  EXPECT_EQ(textOf(handle->read(everything)), std::string_view("lo\0\0\0!", 6));
  EXPECT_EQ(handle->offset(), 9u);

  for (const uint64_t far : {uint64_t{1} << 40, (uint64_t{1} << 63) - 1, ~uint64_t{0}}) {
    handle->seek(far);
    EXPECT_THAT(handle->read(1 << 20), IsEmpty()) << far;
  }
  EXPECT_EQ(errnoOf([&] { handle->write(bytesOf("x")); }), EFBIG);

  handle->seek(1);
  handle->truncate(3);
  handle->truncate(4);
  EXPECT_EQ(textOf(handle->read(10)), std::string_view("el\0", 3));

  handle->close();
  handle->close();
  EXPECT_EQ(errnoOf([&] { handle->read(1); }), EBADF);
}

TEST_P(FileManagerContract, copiesRangesAcrossPieces) {
  const Bytes bytes = pattern(25'000'001);  // two whole pieces and a rest
  const auto source = files_->open(a_, OpenMode::creating);
  source->write(bytes);
  const auto target = files_->open(b_, OpenMode::creating);
  target->write(bytesOf("head"));

  source->seek(1);
  EXPECT_EQ(source->copyRange(*target, 10'485'761), 10'485'761u);
  EXPECT_EQ(source->copyRange(*target, everything), bytes.size() - 10'485'762);
  EXPECT_EQ(source->copyRange(*target, 1), 0u);
  target->seek(4);
  EXPECT_EQ(sha256(target->read(bytes.size())), sha256(ByteView(bytes).subspan(1)));
}

TEST_P(FileManagerContract, movesCopiesAndLinks) {
  put(a_, "A");
  put(b_, "B");
  for (const auto operation : {&FileManager::moveItem, &FileManager::copyItem, &FileManager::linkItem}) {
    EXPECT_EQ(errnoOf([&] { ((*files_).*operation)(a_, b_); }), EEXIST);
    EXPECT_EQ(errnoOf([&] { ((*files_).*operation)(missing_, c_); }), ENOENT);
    EXPECT_EQ(errnoOf([&] { ((*files_).*operation)(a_, missing_ / "c"); }), ENOENT);
  }
  EXPECT_THAT(files_->contentsOfDirectory(home_), UnorderedElementsAre("a", "b"));
  EXPECT_EQ(text(b_), "B");

  files_->moveItem(a_, c_);
  files_->linkItem(c_, home_ / "link");
  files_->copyItem(c_, home_ / "copy");
  EXPECT_EQ(files_->attributes(c_), files_->attributes(home_ / "link"));
  put(home_ / "link", "DD");  // through one name of two
  EXPECT_EQ(text(c_) + text(home_ / "copy"), "DDA");
  EXPECT_EQ(files_->attributes(c_)->size, 2u);
  EXPECT_FALSE(files_->attributes(a_));
}

TEST_P(FileManagerContract, replacesInOneStep) {
  put(a_, "old");
  put(b_, "new");
  const auto reader = files_->open(a_, OpenMode::reading);
  files_->replaceItem(a_, b_);
  EXPECT_EQ(text(a_), "new");
  EXPECT_EQ(textOf(reader->read(10)), "old");
  EXPECT_THAT(files_->contentsOfDirectory(home_), UnorderedElementsAre("a"));

  files_->replaceItem(c_, a_);
  files_->createDirectory(home_ / "d");
  EXPECT_EQ(errnoOf([&] { files_->replaceItem(c_, missing_); }), ENOENT);
  EXPECT_EQ(errnoOf([&] { files_->replaceItem(home_ / "d", c_); }), EISDIR);
  EXPECT_EQ(text(c_), "new");
}

TEST_P(FileManagerContract, makesListsAndRemovesDirectories) {
  EXPECT_EQ(errnoOf([&] { files_->documentsDirectory(false); }), ENOENT);
  EXPECT_EQ(files_->documentsDirectory(true), home_ / "Documents");
  EXPECT_TRUE(files_->attributes(files_->temporaryDirectory())->isDirectory);

  files_->createDirectory(a_ / "y" / "");
  files_->createDirectory(a_ / "y");
  put(a_ / "y/file", "1");
  EXPECT_EQ(errnoOf([&] { files_->createDirectory(a_ / "y/file"); }), EEXIST);
  EXPECT_EQ(errnoOf([&] { files_->createDirectory(a_ / "y/file/z"); }), EEXIST);
  EXPECT_THAT(files_->contentsOfDirectory(a_), UnorderedElementsAre("y"));
  EXPECT_EQ(errnoOf([&] { files_->contentsOfDirectory(missing_); }), ENOENT);
  EXPECT_EQ(errnoOf([&] { files_->moveItem(a_, a_ / "y/inside"); }), EINVAL);

  files_->removeItem(a_);
  EXPECT_FALSE(files_->fileExists(a_));
  EXPECT_EQ(errnoOf([&] { files_->removeItem(a_); }), ENOENT);
  EXPECT_FALSE(removeIfExists(*files_, a_));
  EXPECT_GT(files_->freeSpace(missing_ / "there").value_or(0), 0u);
}

/// A second file system; what needs one is skipped on a host without.
class AcrossFileSystems : public testing::Test {
 protected:
  void SetUp() override {
    const auto here = files_.attributes(home_.path()), there = files_.attributes("/dev/shm");
    if (!there || here->device == there->device) GTEST_SKIP() << "there is no second file system";
    other_.emplace("/dev/shm");
    files_.open(source_, OpenMode::creating)->write(bytes_);
  }

  TempDirectory home_;
  std::optional<TempDirectory> other_;
  PosixFileManager files_{home_.path()};
  const Path source_ = home_ / "a";
  const Bytes bytes_ = pattern(11'000'000);
};

TEST_F(AcrossFileSystems, movesReplacesAndRefusesToLink) {
  const Path away = *other_ / "b";
  EXPECT_EQ(errnoOf([&] { files_.linkItem(source_, away); }), EXDEV);
  files_.moveItem(source_, away);
  EXPECT_EQ(readFile(files_, away), bytes_);
  EXPECT_THAT(files_.contentsOfDirectory(home_.path()), IsEmpty());

  files_.open(source_, OpenMode::creating)->write(bytesOf("old"));
  EXPECT_EQ(errnoOf([&] { files_.moveItem(away, source_); }), EEXIST);
  EXPECT_EQ(readFile(files_, away), bytes_);
  files_.replaceItem(source_, away);
  EXPECT_EQ(readFile(files_, source_), bytes_);
  EXPECT_THAT(files_.contentsOfDirectory(home_.path()), UnorderedElementsAre("a"));
  EXPECT_THAT(files_.contentsOfDirectory(other_->path()), IsEmpty());
}

TEST_F(AcrossFileSystems, leaveNothingBehindWhenTheTargetRunsFull) {
  const Path target = *other_ / "b";
  files_.open(target, OpenMode::creating)->write(bytesOf("old"));
  rlimit unlimited{};
  ::getrlimit(RLIMIT_FSIZE, &unlimited);
  const rlimit limit{.rlim_cur = 1'000'000, .rlim_max = unlimited.rlim_max};
  std::signal(SIGXFSZ, SIG_IGN);
  ::setrlimit(RLIMIT_FSIZE, &limit);  // from now on longer files stop short, then fail
  EXPECT_EQ(errnoOf([&] { files_.replaceItem(target, source_); }), EFBIG);
  EXPECT_EQ(errnoOf([&] { files_.moveItem(source_, *other_ / "c"); }), EFBIG);
  EXPECT_EQ(errnoOf([&] { files_.copyItem(source_, home_ / "c"); }), EFBIG);
  EXPECT_EQ(errnoOf([&] { writeFileAtomically(files_, target, bytes_); }), EFBIG);
  ::setrlimit(RLIMIT_FSIZE, &unlimited);
  EXPECT_EQ(textOf(readFile(files_, target)), "old");
  EXPECT_EQ(readFile(files_, source_), bytes_);
  EXPECT_THAT(files_.contentsOfDirectory(home_.path()), UnorderedElementsAre("a"));
  EXPECT_THAT(files_.contentsOfDirectory(other_->path()), UnorderedElementsAre("b"));
}

TEST(PosixFileManager, refusesAPipeWithoutWaiting) {
  const TempDirectory home;
  ASSERT_EQ(::mkfifo((home / "pipe").c_str(), 0600), 0);
  PosixFileManager files(home.path());
  EXPECT_EQ(errnoOf([&] { files.open(home / "pipe", OpenMode::reading); }), ESPIPE);
}

TEST(FileURLs, carryAnyNameThereAndBack) {
  EXPECT_EQ(fileURLText("/a b/ü?#%.mp4"), "file:///a%20b/%C3%BC%3F%23%25.mp4");
  Bytes every(255);
  std::iota(every.begin(), every.end(), uint8_t{1});
  const Path odd("/" + std::string(textOf(every)));
  EXPECT_EQ(pathFromFileURL(fileURLText(odd)), odd);
  for (const char* text : {"", "/a", "http:///a", "file:/a", "file://a", "file://host/a", "file:///a%2", "file:///%zz",
                           "file:///a?b", "file:///a#b", "file:///a%00b"}) {
    EXPECT_FALSE(pathFromFileURL(text)) << text;
  }
}

}  // namespace
}  // namespace tarn::test
