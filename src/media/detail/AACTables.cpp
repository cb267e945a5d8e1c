#include "media/detail/AACTables.h"

namespace tarn {
namespace {

constexpr AACCode spectralCodes[] = {
    {{1, 0, 0, 0, 8, 0, 24, 0, 24, 8, 16}},
    {{0, 0, 1, 1, 7, 24, 15, 19, 14}},
    {{1, 0, 0, 4, 2, 6, 3, 5, 15, 15, 8, 9, 3, 3, 5, 2},
     "011112222232343311223232331221224334323244332333223243344233333344442233434443233"},
    {{0, 0, 0, 10, 6, 0, 9, 21, 8, 14, 11, 2},
     "433331202222121144443333333333332222222222221111444444333333333433344422222243333"},
    {{1, 0, 0, 4, 4, 0, 4, 12, 12, 12, 18, 10, 4}},
    {{0, 0, 0, 9, 0, 16, 13, 8, 23, 8, 4}},
    {{1, 0, 2, 1, 0, 4, 5, 10, 14, 15, 8, 4}, "0112221122211222222221122212122222222211222222222222112222222222"},
    {{0, 0, 1, 5, 7, 10, 14, 15, 8, 4}, "2212120112222222221122222222221212222222121222222222221212222112"},
    {{1, 0, 2, 1, 0, 4, 3, 8, 11, 20, 31, 38, 32, 14, 4},
     "0112221122211222222221122222221212222222212222222212221222212222112222222222222122212222222222222222"
     "222212212222222122222222222222212212222122222222222222222222222222222"},
    {{0, 0, 0, 3, 8, 14, 17, 25, 31, 41, 22, 8},
     "2222112222211222202211222222222222121222222222222121222222222222222222122222122222222222222222121222"
     "222212222221222222222222222221212122222222222222212122212221222222122"},
    {{0, 0, 0, 2, 6, 7, 16, 59, 55, 95, 43, 6},
     "02c11222222121222222211222222222222222bbbbb2b121b2bbbb22222bb22bbb22b2bbb2b22bb2221bb222212bb22b2b22"
     "22222b221222222122222222222222122222222222a222222a21222222222222222222222222222222122222222222222222"
     "21222222222222222222222222222112222222222222222222222222212212122212222211222212212112112"},
};

/// Each bit sequence begins with a word, and only one (Kraft's sum is 1); each word is told of.
constexpr bool isComplete(const AACCode& code) {
  size_t words = 0;
  uint32_t sum = 0;
  for (size_t i = 0; i < code.wordsOfLength.size(); ++i) {
    words += code.wordsOfLength[i];
    sum += uint32_t{code.wordsOfLength[i]} << (18 - i);
  }
  return sum == 1U << 19 && (code.behind.empty() || code.behind.size() == words);
}

constexpr bool areComplete() {
  for (const AACCode& code : spectralCodes) {
    if (!isComplete(code)) return false;
  }
  return true;
}
static_assert(areComplete());

constexpr AACBandRun long96[] = {{4, 14}, {8, 5}, {12, 5}, {16, 2}, {24, 1}, {28, 1}, {36, 1}, {44, 1}, {64, 11}};
constexpr AACBandRun long64[] = {{4, 14}, {8, 4}, {12, 3}, {16, 3}, {20, 1}, {24, 2}, {28, 1}, {36, 1}, {40, 18}};
constexpr AACBandRun long48[] = {{4, 10}, {8, 7}, {12, 4}, {16, 2}, {20, 2}, {24, 2}, {28, 2}, {32, 19}, {96, 1}};
constexpr AACBandRun long32[] = {{4, 10}, {8, 7}, {12, 4}, {16, 2}, {20, 2}, {24, 2}, {28, 2}, {32, 22}};
constexpr AACBandRun long24[] = {{4, 11}, {8, 10}, {12, 4}, {16, 3}, {20, 2}, {24, 2}, {28, 2},
                                 {32, 1}, {36, 2}, {40, 1}, {44, 1}, {48, 1}, {52, 2}, {64, 5}};
constexpr AACBandRun long16[] = {{8, 11}, {12, 9}, {16, 4}, {20, 3}, {24, 2}, {28, 2}, {32, 1}, {36, 1},
                                 {40, 2}, {44, 1}, {48, 1}, {52, 1}, {56, 1}, {60, 1}, {64, 3}};
constexpr AACBandRun long8[] = {{12, 13}, {16, 7}, {20, 4}, {24, 3}, {28, 2}, {32, 1}, {36, 2}, {40, 1},
                                {44, 1},  {48, 1}, {52, 1}, {56, 1}, {60, 1}, {64, 1}, {80, 1}};
constexpr AACBandRun short96[] = {{4, 6}, {8, 3}, {16, 1}, {28, 1}, {36, 1}};
constexpr AACBandRun short48[] = {{4, 5}, {8, 3}, {12, 3}, {16, 3}};
constexpr AACBandRun short24[] = {{4, 7}, {8, 3}, {12, 2}, {16, 2}, {20, 1}};
constexpr AACBandRun short16[] = {{4, 8}, {8, 2}, {12, 2}, {16, 1}, {20, 2}};
constexpr AACBandRun short8[] = {{4, 7}, {8, 4}, {12, 1}, {16, 1}, {20, 2}};

/// A rate that has no bands of its own has those of the nearest one (ISO/IEC 14496-3 table 4.82).
constexpr struct {
  uint32_t lowestRate;
  AACBandLayout bands;
} layouts[] = {
    {75132, {long96, short96}}, {55426, {long64, short96}}, {37566, {long48, short48}}, {27713, {long32, short48}},
    {18783, {long24, short24}}, {9391, {long16, short16}},  {1, {long8, short8}},
};

}  // namespace

constinit const AACCode scaleFactorCode{{1, 0, 1, 3, 2, 4, 3, 5, 4, 6, 6, 6, 5, 8, 4, 7, 3, 7, 46}};

constinit const std::array<int16_t, 121> scaleFactorSteps = {
    0,   -1,  1,   -2,  2,   -3,  3,   -4,  4,   -5,  5,   6,   -6,  7,   -7,  8,   -8,  9,   -9,  10,  -10,
    -11, 11,  12,  -12, 13,  -13, 14,  -14, 16,  15,  17,  18,  -15, -17, -16, 19,  -18, -19, 20,  -20, 21,
    -21, 22,  -22, 23,  -23, -25, 25,  -27, -24, -26, 24,  -28, 27,  29,  -30, -29, 26,  -31, -34, -33, -32,
    -36, 28,  -35, -38, -37, 30,  -39, -41, -57, -59, -58, -60, 38,  39,  40,  41,  42,  57,  37,  31,  32,
    33,  34,  35,  36,  44,  51,  52,  53,  54,  55,  56,  50,  45,  46,  47,  48,  49,  58,  -54, -52, -51,
    -50, -55, 43,  60,  59,  -56, -53, -45, -44, -42, -40, -43, -49, -48, -46, -47};

const AACCode& spectralCode(unsigned codebook) {
  return spectralCodes[codebook - 1];
}

const AACBandLayout* bandsOf(uint32_t sampleRate) {
  for (const auto& layout : layouts) {
    if (sampleRate >= layout.lowestRate) return &layout.bands;
  }
  return nullptr;
}

}  // namespace tarn
