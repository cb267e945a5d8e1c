#include <fmt/ranges.h>
#include <gmock/gmock.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

#include "corpus/Judge.h"
#include "corpus/Kinds.h"
#include "support/TarnProcess.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using Words = std::vector<std::string>;

/// The environment may ask for every n-th kind alone.
size_t stride() {
  const char* const asked = std::getenv("TARN_CORPUS_STRIDE");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return asked ? std::max(1UL, std::stoul(asked)) : 1;
}

bool areSame(const Path& one, const Path& other) {
  if (std::filesystem::file_size(one) != std::filesystem::file_size(other)) return false;
  std::ifstream a(one, std::ios::binary), b(other, std::ios::binary);
  std::vector<char> left(1 << 20), right(left.size());
  while (a.read(left.data(), ptrdiff_t(left.size())), a.gcount() > 0) {
    b.read(right.data(), a.gcount());
    if (!std::equal(left.begin(), left.begin() + a.gcount(), right.begin())) return false;
  }
  return true;
}

/// What is wrong with the repair of a file, and with what `inspect` says ahead of it.
Words wrongs(const Kind& kind) {
  const TempDirectory place;
  const Path home = place / "home/tarn", file = kind.make(place.path());
  const Path out = place / ("out" + file.extension().string()), again = place / ("again" + file.extension().string());
  const bool mustChange = kind.result == Kind::Result::changed;

  const auto forecast =
      nlohmann::json::parse(runTarn(home, {"inspect", "--json", file.string()}).output, nullptr, false);
  const auto deed = runTarn(home, {"repair", file.string(), "-o", out.string()});
  if (deed.exitCode != 0) return {"refused: " + deed.errors};
  const bool isChanged = !areSame(file, out);

  Words words;
  if (forecast.value("changesFile", !isChanged) != isChanged) words.push_back("inspect says the contrary");
  if (forecast["problems"].empty() != (kind.result == Kind::Result::same))
    words.push_back("problems: " + forecast["problems"].dump());
  if (isChanged != mustChange) words.push_back(isChanged ? "changed for nothing" : "left as it was");
  if (!isChanged) return words;

  const Path reference = kind.reference ? kind.reference(place.path()) : file;
  for (const std::string& word : worsened(reference, out, kind.allowed)) words.push_back(word);
  if (runTarn(home, {"repair", out.string(), "-o", again.string()}).exitCode != 0 || !areSame(out, again)) {
    words.push_back("a second repair is not the same");
  }
  return words;
}

class Corpus : public testing::TestWithParam<KindGroup> {
 protected:
  void expectGood() {
    for (size_t i = 0; i < GetParam().kinds.size(); i += stride()) {
      const Kind& kind = GetParam().kinds[i];
      EXPECT_THAT(wrongs(kind), testing::IsEmpty()) << kind.name;
    }
  }
};

class HealthyCorpus : public Corpus {};
class DamagedCorpus : public Corpus {};

TEST_P(HealthyCorpus, StaysAsItIs) {
  expectGood();
}

TEST_P(DamagedCorpus, LosesItsDamageAndNothingElse) {
  expectGood();
}

const auto nameOfGroup = [](const auto& group) { return group.param.name; };
INSTANTIATE_TEST_SUITE_P(, HealthyCorpus, testing::ValuesIn(healthyKinds()), nameOfGroup);
INSTANTIATE_TEST_SUITE_P(, DamagedCorpus, testing::ValuesIn(damagedKinds()), nameOfGroup);

}  // namespace
}  // namespace tarn::test
