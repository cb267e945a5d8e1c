// Repairs a file and prints what came of it: repair IN OUT
#include <tarn/inspect.h>
#include <tarn/repair.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s IN OUT\n", argv[0]);
    return 2;
  }
  try {
    std::printf("libtarn %s\n%s\n", tarn::version(), tarn::inspectFile(argv[1]).verdictText.c_str());
    const auto showProgress = [](std::string_view stage, double done) {
      std::fprintf(stderr, "%3.0f %% %s\n", done * 100, std::string(stage).c_str());
    };
    const tarn::RepairReport report = tarn::repairFile(argv[1], argv[2], {}, showProgress);
    if (!report.isThere()) {
      std::fprintf(stderr, "not repaired: %s\n", report.failure.c_str());
      return 1;
    }
    for (const std::string& warning : report.warnings) std::printf("warning: %s\n", warning.c_str());
    std::printf("%s: %s\n", report.output.c_str(), tarn::inspectFile(argv[2]).verdictText.c_str());
    return 0;
  } catch (const tarn::Error& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
}
