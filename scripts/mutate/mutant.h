// Included ahead of each mutated source. TARN_MUTANT in the environment chooses the one mutant that lives.
#pragma once

namespace tarn_mutation {
extern int chosen;              // 0: none
extern unsigned char* reached;  // one byte for each mutant
}  // namespace tarn_mutation

inline bool tarn_mutant(int number) {
  tarn_mutation::reached[number] = 1;
  return tarn_mutation::chosen == number;
}
