#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>
#include <limits>
#include <numeric>
#include <set>

#include "platform/Error.h"
#include "platform/FileManager.h"
#include "platform/SHA256.h"
#include "platform/host/PosixFileManager.h"
#include "platform/memory/InMemoryFileManager.h"
#include "support/FaultyFileManager.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using test::TempDirectory;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

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

/// The same promises, kept by the host and by its twin in memory.
class FileManagerContract : public testing::TestWithParam<const char*> {
 protected:
  FileManagerContract() : home_(std::string_view(GetParam()) == "host" ? directory_.path() : Path("/home")) {
    if (home_ == directory_.path()) {
      files_ = std::make_unique<PosixFileManager>(home_);
    } else {
      files_ = std::make_unique<InMemoryFileManager>(home_);
    }
  }

  void put(const Path& path, std::string_view text) {
    const auto handle = files_->open(path, OpenMode::creating);
    handle->write(bytesOf(text));
    handle->close();
  }
  std::string text(const Path& path) { return std::string(textOf(readFile(*files_, path))); }

  TempDirectory directory_;
  Path home_;
  std::unique_ptr<FileManager> files_;
};

INSTANTIATE_TEST_SUITE_P(Files, FileManagerContract, testing::Values("host", "memory"),
                         [](const auto& instance) { return std::string(instance.param); });

TEST_P(FileManagerContract, opensByMode) {
  const Path path = home_ / "a";
  EXPECT_EQ(errnoOf([&] { files_->open(path, OpenMode::reading); }), ENOENT);
  EXPECT_EQ(errnoOf([&] { files_->open(path, OpenMode::updating); }), ENOENT);
  files_->open(path, OpenMode::exclusive)->write(bytesOf("one"));
  EXPECT_EQ(errnoOf([&] { files_->open(path, OpenMode::exclusive); }), EEXIST);
  files_->open(path, OpenMode::updating)->write(bytesOf("O"));
  EXPECT_EQ(text(path), "One");
  files_->open(path, OpenMode::creating)->close();
  EXPECT_EQ(text(path), "");
  EXPECT_EQ(errnoOf([&] { files_->open(path, OpenMode::reading)->write(bytesOf("x")); }), EBADF);

  EXPECT_EQ(errnoOf([&] { files_->open(home_, OpenMode::reading); }), EISDIR);
  EXPECT_EQ(errnoOf([&] { files_->open(path / "b", OpenMode::creating); }), ENOTDIR);
  EXPECT_EQ(errnoOf([&] { files_->open(home_ / "no" / "b", OpenMode::creating); }), ENOENT);
  EXPECT_EQ(errnoOf([&] { files_->open(home_ / std::string(300, 'n'), OpenMode::creating); }), ENAMETOOLONG);
  EXPECT_EQ(errnoOf([&] { files_->open(home_ / std::string("a\0b", 3), OpenMode::creating); }), EINVAL);
  EXPECT_FALSE(files_->fileExists(home_ / std::string("a\0b", 3)));
}

TEST_P(FileManagerContract, readsWritesAndSeeks) {
  const auto handle = files_->open(home_ / "a", OpenMode::creating);
  handle->write(bytesOf("hello"));
  handle->seek(8);
  handle->write(bytesOf("!"));
  EXPECT_EQ(handle->seekToEnd(), 9u);
  EXPECT_THAT(handle->read(10), IsEmpty());
  handle->seek(3);
  EXPECT_EQ(textOf(handle->read(std::numeric_limits<size_t>::max())), std::string_view("lo\0\0\0!", 6));
  EXPECT_EQ(handle->offset(), 9u);

  for (const uint64_t far : {uint64_t{1} << 40, (uint64_t{1} << 63) - 1, ~uint64_t{0}}) {
    handle->seek(far);
    EXPECT_THAT(handle->read(1 << 20), IsEmpty()) << far;
  }
  EXPECT_EQ(errnoOf([&] { handle->write(bytesOf("x")); }), EFBIG);

  handle->seek(1);
  handle->truncate(3);
  EXPECT_EQ(handle->offset(), 1u);
  handle->truncate(4);
  EXPECT_EQ(textOf(handle->read(10)), std::string_view("el\0", 3));

  handle->close();
  handle->close();
  EXPECT_EQ(errnoOf([&] { handle->read(1); }), EBADF);
  EXPECT_EQ(errnoOf([&] { handle->seek(0); }), EBADF);
  EXPECT_EQ(errnoOf([&] { handle->synchronize(); }), EBADF);
}

TEST_P(FileManagerContract, copiesRangesAcrossPieces) {
  const Bytes bytes = pattern(25'000'001);  // two whole pieces and a rest
  const auto source = files_->open(home_ / "a", OpenMode::creating);
  source->write(bytes);
  const auto target = files_->open(home_ / "b", OpenMode::creating);
  target->write(bytesOf("head"));

  source->seek(1);
  EXPECT_EQ(source->copyRange(*target, 10'485'761), 10'485'761u);
  EXPECT_EQ(source->offset(), 10'485'762u);
  EXPECT_EQ(source->copyRange(*target, std::numeric_limits<uint64_t>::max()), bytes.size() - 10'485'762);
  EXPECT_EQ(source->copyRange(*target, 1), 0u);
  EXPECT_EQ(target->offset(), bytes.size() + 3);
  target->seek(4);
  EXPECT_EQ(sha256(target->read(bytes.size())), sha256(ByteView(bytes).subspan(1)));
}

TEST_P(FileManagerContract, movesCopiesAndLinks) {
  put(home_ / "a", "A");
  put(home_ / "b", "B");
  for (const auto operation : {&FileManager::moveItem, &FileManager::copyItem, &FileManager::linkItem}) {
    EXPECT_EQ(errnoOf([&] { ((*files_).*operation)(home_ / "a", home_ / "b"); }), EEXIST);
    EXPECT_EQ(errnoOf([&] { ((*files_).*operation)(home_ / "no", home_ / "c"); }), ENOENT);
    EXPECT_EQ(errnoOf([&] { ((*files_).*operation)(home_ / "a", home_ / "no" / "c"); }), ENOENT);
  }
  EXPECT_THAT(files_->contentsOfDirectory(home_), UnorderedElementsAre("a", "b"));
  EXPECT_EQ(text(home_ / "b"), "B");

  const auto before = files_->attributes(home_ / "a");
  files_->moveItem(home_ / "a", home_ / "c");
  files_->linkItem(home_ / "c", home_ / "d");
  files_->copyItem(home_ / "c", home_ / "e");
  const auto linked = files_->attributes(home_ / "d");
  EXPECT_EQ(linked->inode, before->inode);
  EXPECT_EQ(linked, files_->attributes(home_ / "c"));
  EXPECT_NE(files_->attributes(home_ / "e")->inode, before->inode);

  put(home_ / "d", "DD");  // through one name of two
  EXPECT_EQ(text(home_ / "c"), "DD");
  EXPECT_EQ(text(home_ / "e"), "A");
  EXPECT_EQ(files_->attributes(home_ / "c")->size, 2u);
  EXPECT_FALSE(files_->attributes(home_ / "a"));
}

TEST_P(FileManagerContract, replacesInOneStep) {
  put(home_ / "old", "old");
  put(home_ / "new", "new");
  const auto reader = files_->open(home_ / "old", OpenMode::reading);
  const auto inode = files_->attributes(home_ / "new")->inode;
  files_->replaceItem(home_ / "old", home_ / "new");
  EXPECT_EQ(text(home_ / "old"), "new");
  EXPECT_EQ(files_->attributes(home_ / "old")->inode, inode);
  EXPECT_EQ(textOf(reader->read(10)), "old");
  EXPECT_THAT(files_->contentsOfDirectory(home_), UnorderedElementsAre("old"));

  files_->replaceItem(home_ / "fresh", home_ / "old");
  EXPECT_EQ(text(home_ / "fresh"), "new");
  files_->createDirectory(home_ / "d");
  EXPECT_EQ(errnoOf([&] { files_->replaceItem(home_ / "fresh", home_ / "no"); }), ENOENT);
  EXPECT_EQ(errnoOf([&] { files_->replaceItem(home_ / "d", home_ / "fresh"); }), EISDIR);
  EXPECT_EQ(errnoOf([&] { files_->replaceItem(home_ / "no" / "x", home_ / "fresh"); }), ENOENT);
  EXPECT_EQ(text(home_ / "fresh"), "new");
}

TEST_P(FileManagerContract, makesListsAndRemovesDirectories) {
  EXPECT_EQ(errnoOf([&] { files_->documentsDirectory(false); }), ENOENT);
  EXPECT_EQ(files_->documentsDirectory(true), home_ / "Documents");
  EXPECT_EQ(files_->documentsDirectory(false), home_ / "Documents");
  EXPECT_EQ(files_->temporaryDirectory(), home_ / "tmp");
  EXPECT_TRUE(files_->attributes(home_ / "tmp")->isDirectory);

  files_->createDirectory(home_ / "x" / "y" / "");
  files_->createDirectory(home_ / "x" / "y");
  put(home_ / "x" / "y" / "file", "1");
  EXPECT_EQ(errnoOf([&] { files_->createDirectory(home_ / "x" / "y" / "file"); }), EEXIST);
  EXPECT_EQ(errnoOf([&] { files_->createDirectory(home_ / "x" / "y" / "file" / "z"); }), EEXIST);
  EXPECT_THAT(files_->contentsOfDirectory(home_ / "x"), UnorderedElementsAre("y"));
  EXPECT_EQ(errnoOf([&] { files_->contentsOfDirectory(home_ / "no"); }), ENOENT);
  EXPECT_EQ(errnoOf([&] { files_->moveItem(home_ / "x", home_ / "x" / "y" / "inside"); }), EINVAL);

  files_->removeItem(home_ / "x");
  EXPECT_FALSE(files_->fileExists(home_ / "x"));
  EXPECT_EQ(errnoOf([&] { files_->removeItem(home_ / "x"); }), ENOENT);
  EXPECT_FALSE(removeIfExists(*files_, home_ / "x"));
  EXPECT_GT(files_->freeSpace(home_ / "not" / "there").value_or(0), 0u);
}

TEST(InMemoryFileManager, runsFullAndTellsChangesApart) {
  InMemoryFileManager files;
  files.open("/home/a", OpenMode::creating)->write(pattern(100));
  files.setFreeSpace(10);
  const auto handle = files.open("/home/a", OpenMode::updating);
  const auto before = files.attributes("/home/a");
  handle->seek(95);
  EXPECT_EQ(errnoOf([&] { handle->write(pattern(20)); }), ENOSPC);
  EXPECT_EQ(files.attributes("/home/a")->size, 110u);  // what fits is written
  EXPECT_EQ(files.freeSpace("/home"), 0u);
  EXPECT_EQ(errnoOf([&] { files.copyItem("/home/a", "/home/b"); }), ENOSPC);
  EXPECT_FALSE(files.fileExists("/home/b"));
  handle->seek(0);
  handle->write(pattern(110));  // needs no room
  EXPECT_GT(files.attributes("/home/a")->modificationTime, before->modificationTime);

  const auto written = files.attributes("/home/a");
  files.linkItem("/home/a", "/home/c");
  EXPECT_GT(files.attributes("/home/a")->changeTime, written->changeTime);
  EXPECT_EQ(files.attributes("/home/a")->modificationTime, written->modificationTime);
  files.removeItem("/home/a");
  EXPECT_EQ(files.freeSpace("/home"), 0u);  // the second name still holds the bytes
  files.removeItem("/home/c");
  EXPECT_EQ(files.freeSpace("/home"), 110u);
}

/// A second file system; what needs one is skipped on a host without.
class AcrossFileSystems : public testing::Test {
 protected:
  void SetUp() override {
    struct stat here {
    }, there{};
    if (::stat(home_.path().c_str(), &here) != 0 || ::stat("/dev/shm", &there) != 0 || here.st_dev == there.st_dev) {
      GTEST_SKIP() << "there is no second file system";
    }
    other_.emplace("/dev/shm");
    files_.open(home_.path() / "a", OpenMode::creating)->write(bytes_);
  }

  TempDirectory home_;
  std::optional<TempDirectory> other_;
  PosixFileManager files_{home_.path()};
  const Bytes bytes_ = pattern(11'000'000);
};

TEST_F(AcrossFileSystems, movesReplacesAndRefusesToLink) {
  const Path away = other_->path() / "b";
  EXPECT_EQ(errnoOf([&] { files_.linkItem(home_.path() / "a", away); }), EXDEV);
  files_.moveItem(home_.path() / "a", away);
  EXPECT_EQ(readFile(files_, away), bytes_);
  EXPECT_THAT(files_.contentsOfDirectory(home_.path()), IsEmpty());

  files_.open(home_.path() / "a", OpenMode::creating)->write(bytesOf("old"));
  EXPECT_EQ(errnoOf([&] { files_.moveItem(away, home_.path() / "a"); }), EEXIST);
  EXPECT_EQ(readFile(files_, away), bytes_);
  files_.replaceItem(home_.path() / "a", away);
  EXPECT_EQ(readFile(files_, home_.path() / "a"), bytes_);
  EXPECT_THAT(files_.contentsOfDirectory(home_.path()), UnorderedElementsAre("a"));
  EXPECT_THAT(files_.contentsOfDirectory(other_->path()), IsEmpty());
}

/// Files above this size cannot be written until the end of the scope: writes stop short, then fail with EFBIG.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit{.rlim_cur = bytes, .rlim_max = before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  void (*handler_)(int);
  rlimit before_{};
};

TEST_F(AcrossFileSystems, leaveNothingBehindWhenTheTargetRunsFull) {
  const Path source = home_.path() / "a";
  const Path target = other_->path() / "b";
  files_.open(target, OpenMode::creating)->write(bytesOf("old"));
  {
    const FileSizeLimit limit(1'000'000);
    EXPECT_EQ(errnoOf([&] { files_.replaceItem(target, source); }), EFBIG);
    EXPECT_EQ(errnoOf([&] { files_.moveItem(source, other_->path() / "c"); }), EFBIG);
    EXPECT_EQ(errnoOf([&] { files_.copyItem(source, home_.path() / "c"); }), EFBIG);
    EXPECT_EQ(errnoOf([&] { writeFileAtomically(files_, target, bytes_); }), EFBIG);
  }
  EXPECT_EQ(textOf(readFile(files_, target)), "old");
  EXPECT_EQ(readFile(files_, source), bytes_);
  EXPECT_THAT(files_.contentsOfDirectory(home_.path()), UnorderedElementsAre("a"));
  EXPECT_THAT(files_.contentsOfDirectory(other_->path()), UnorderedElementsAre("b"));
}

TEST(PosixFileManager, refusesAPipeWithoutWaiting) {
  const TempDirectory home;
  ASSERT_EQ(::mkfifo((home.path() / "pipe").c_str(), 0600), 0);
  PosixFileManager files(home.path());
  EXPECT_EQ(errnoOf([&] { files.open(home.path() / "pipe", OpenMode::reading); }), ESPIPE);
}

TEST(PosixFileManager, copiesBetweenHandlesOfDifferentKinds) {
  const TempDirectory home;
  PosixFileManager host(home.path());
  InMemoryFileManager memory;
  test::FaultyFileManager wrapped(host);
  const Bytes bytes = pattern(3'000'000);
  memory.open("/home/a", OpenMode::creating)->write(bytes);
  memory.open("/home/a", OpenMode::reading)
      ->copyRange(*host.open(home.path() / "a", OpenMode::creating), bytes.size() + 1);
  wrapped.open(home.path() / "a", OpenMode::reading)
      ->copyRange(*wrapped.open(home.path() / "b", OpenMode::creating), bytes.size());
  host.open(home.path() / "b", OpenMode::reading)->copyRange(*memory.open("/home/b", OpenMode::creating), bytes.size());
  EXPECT_EQ(readFile(memory, "/home/b"), bytes);
}

TEST(Names, areFreshUUIDsOfVersionFour) {
  std::set<std::string> seen;
  for (int i = 0; i < 200; ++i) {
    const std::string uuid = makeUUID();
    EXPECT_THAT(uuid, testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}"));
    seen.insert(uuid);
  }
  EXPECT_EQ(seen.size(), 200u);
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
}  // namespace tarn
