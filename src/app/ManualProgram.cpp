#include <cstdio>
#include <exception>
#include <iostream>
#include <iterator>

#include "app/CommandLine.h"
#include "app/Manual.h"

/// Reads the frame of the manual page from standard input, and writes the page for scdoc to standard output.
int main() {
  try {
    const std::string frame(std::istreambuf_iterator<char>(std::cin), {});
    std::cout << tarn::manual(tarn::factsOf(tarn::CommandLine().app()), frame) << std::flush;
    return std::cout ? 0 : 1;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
}
