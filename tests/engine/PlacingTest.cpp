#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <fstream>

#include "engine/KeptAttributes.h"
#include "engine/PrivateHome.h"
#include "platform/Error.h"
#include "support/AnotherUser.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

TEST(PlacingTest, AFileThatItsOwnerMayOnlyReadKeepsItsAttributesToo) {
  const TempDirectory place;
  if (::geteuid() == 0) {
    ASSERT_EQ(::chown(place.path().c_str(), AnotherUser::nobody, static_cast<gid_t>(-1)), 0);
  }
  const AnotherUser user;
  const Path source = place / "source", target = place / "target";
  std::ofstream(source) << "x";
  std::ofstream(target) << "y";
  if (::setxattr(source.c_str(), "user.place", "here", 4, 0) != 0) GTEST_SKIP() << "no extended attributes here";
  ASSERT_EQ(::chmod(source.c_str(), 0440), 0);
  EXPECT_EQ(keepAttributes(source, target), std::vector<std::string>());
  std::string value(4, '\0');
  EXPECT_EQ(::getxattr(target.c_str(), "user.place", value.data(), value.size()), 4);
  EXPECT_EQ(value, "here");
  struct stat facts {};
  ASSERT_EQ(::stat(target.c_str(), &facts), 0);
  EXPECT_EQ(facts.st_mode & 07777, 0440U);
}

TEST(PlacingTest, AHomeThatCannotBeOpenedLeavesNothing) {
#ifdef TARN_SANITIZED
  GTEST_SKIP() << "a sanitizer cannot check types without free descriptors";
#endif
  const TempDirectory place;
  {
    PrivateHome home(place.path());
    rlimit usual{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &usual), 0);
    const rlimit none{0, usual.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    EXPECT_THROW(home.make(), PosixError);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &usual), 0);
  }
  EXPECT_TRUE(std::filesystem::is_empty(place.path()));
}

}  // namespace
}  // namespace tarn::test
