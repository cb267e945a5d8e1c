#include <gtest/gtest.h>

#include <boost/multiprecision/cpp_int.hpp>
#include <cmath>
#include <limits>
#include <random>

#include "media/CMTime.h"

namespace tarn {
namespace {

using Rational = boost::multiprecision::cpp_rational;

constexpr int64_t most = std::numeric_limits<int64_t>::max();
constexpr int64_t least = std::numeric_limits<int64_t>::min();
constexpr int32_t finest = std::numeric_limits<int32_t>::max();
constexpr double infinity = std::numeric_limits<double>::infinity();

Rational exact(const CMTime& time) {
  return Rational(time.value, time.timescale);
}

TEST(CMTime, AgreesWithExactRationals) {
  std::mt19937_64 random(8);
  const int32_t timescales[] = {1, 600, 1000, 24000, 44100, 48000, 90000, 30001, 1'000'003, finest - 1, finest};
  const auto pick = [&] {
    return CMTime::make(static_cast<int64_t>(random()) >> (random() % 64),
                        timescales[random() % std::size(timescales)]);
  };
  int counts[2] = {};  // of exact results, of rounded ones
  for (int i = 0; i < 20'000; ++i) {
    const CMTime a = pick(), b = pick();
    const Rational exactA = exact(a), exactB = exact(b), sum = exactA + exactB, difference = exactA - exactB;
    ASSERT_EQ(compare(a, b), exactA.compare(exactB) <=> 0) << exactA << " " << exactB;
    for (const auto& [result, truth] : {std::pair(a + b, sum), {a - b, difference}}) {
      if (!result.isNumeric()) {
        ASSERT_GT(abs(truth), Rational(most));
        continue;
      }
      const bool isRounded = (result.flags & CMTime::hasBeenRoundedFlag) != 0;
      ++counts[isRounded];
      ASSERT_EQ(exact(result) != truth, isRounded);
      ASSERT_LE(abs(Rational(exact(result) - truth)) * 2 * result.timescale, 1);
    }
  }
  EXPECT_GT(counts[false], 10'000);
  EXPECT_GT(counts[true], 1'000);
}

TEST(CMTime, KeepsItsKindsApart) {
  const CMTime one = CMTime::make(1, 1);
  const CMTime infinite = CMTime::makeWithSeconds(infinity), negative = CMTime::makeWithSeconds(-infinity);
  EXPECT_EQ((CMTime::make(least, 1) - one).seconds(), -infinity);
  EXPECT_FALSE((infinite + negative).isValid());
  EXPECT_TRUE((infinite + CMTime::indefinite()).isIndefinite());
  EXPECT_FALSE((CMTime{1, 0, CMTime::validFlag, 0} + one).isValid()) << "a timescale of 0";
  EXPECT_FALSE(CMTime::makeWithSeconds(std::nan("")).isValid());
  EXPECT_EQ(CMTime::makeWithSeconds(-0.5, 1).value, -1);

  const CMTime ascending[] = {negative, CMTime::make(least, 1), CMTime::zero(),   CMTime::make(1, finest), one,
                              infinite, CMTime::indefinite(),   CMTime::invalid()};
  for (size_t i = 0; i < std::size(ascending); ++i) {
    for (size_t k = 0; k < std::size(ascending); ++k) EXPECT_EQ(compare(ascending[i], ascending[k]), i <=> k);
  }
}

}  // namespace
}  // namespace tarn
