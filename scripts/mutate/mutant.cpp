// What mutant.h needs, linked into each mutated program. With TARN_MUTANT_TRACE the bytes of the mutants that are
// reached are a file, which programs that a test starts share with it.
#include "mutant.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cstdlib>

namespace tarn_mutation {

constexpr int mostMutants = 1 << 20;
static unsigned char untold[mostMutants];
int chosen = 0;
unsigned char* reached = untold;

__attribute__((constructor(101))) static void start() {
  if (const char* number = std::getenv("TARN_MUTANT")) chosen = std::atoi(number);
  const char* trace = std::getenv("TARN_MUTANT_TRACE");
  if (trace == nullptr) return;
  const int file = open(trace, O_RDWR | O_CLOEXEC);
  if (file < 0) std::abort();
  void* shared = mmap(nullptr, mostMutants, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (shared == MAP_FAILED) std::abort();
  reached = static_cast<unsigned char*>(shared);
}

}  // namespace tarn_mutation
