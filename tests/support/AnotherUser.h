#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

namespace tarn::test {

/// While it lives a test of root's works as an ordinary user.
class AnotherUser {
 public:
  static constexpr uid_t nobody = 65534;
  AnotherUser() : isOne_(::geteuid() == 0 && ::seteuid(nobody) == 0) {}
  ~AnotherUser() { EXPECT_TRUE(!isOne_ || ::seteuid(0) == 0) << "root is lost"; }
  AnotherUser(const AnotherUser&) = delete;
  AnotherUser& operator=(const AnotherUser&) = delete;

  bool isOne() const { return isOne_; }

 private:
  const bool isOne_;
};

}  // namespace tarn::test
