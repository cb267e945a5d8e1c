#include <fmt/format.h>

#include <filesystem>
#include <fstream>

#include "download/TaskStore.h"
#include "download/TransferNote.h"
#include "pipeline/ProcessingState.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/MediaMaker.h"
#include "support/ParameterSetBuilder.h"

/// Writes what the fuzzers begin with: one directory for each, small inputs that are as they should be.
namespace tarn::test {
namespace {

class Seeds {
 public:
  explicit Seeds(Path directory) : directory_(std::move(directory)) {}

  void add(const std::string& fuzzer, const Bytes& seed) {
    const Path place = directory_ / fuzzer;
    std::filesystem::create_directories(place);
    std::ofstream(place / fmt::format("seed{:02}", count_++), std::ios::binary)
        .write(reinterpret_cast<const char*>(seed.data()), static_cast<std::streamsize>(seed.size()));
  }

 private:
  Path directory_;
  int count_ = 0;
};

Bytes bytes(std::string_view text) {
  return {text.begin(), text.end()};
}

/// Some pictures of 32 by 32, and sound where asked.
Bytes movie(const std::string& codec, const std::string& parameters, const std::string& more) {
  std::string arguments = "-f lavfi -i testsrc=size=32x32:rate=10:duration=1 ";
  if (more.find("-c:a") != std::string::npos) arguments += "-f lavfi -i sine=duration=1:sample_rate=48000 ";
  arguments += fmt::format("-c:v {} -preset ultrafast -pix_fmt yuv420p -{}-params {} {}", codec,
                           codec == "libx265" ? "x265" : "x264", parameters, more);
  const Path file = madeByFFmpeg(words(arguments));
  PosixFileManager files(file.parent_path());
  return readFile(files, file);
}

void movies(Seeds& seeds) {
  const std::string avc = "keyint=5:repeat-headers=1", hevc = "keyint=5:repeat-headers=1:log-level=none";
  const std::vector<Bytes> files{
      movie("libx264", avc, "-tag:v avc3"),
      movie("libx265", hevc, "-tag:v hev1"),
      movie("libx264", avc, "-c:a aac -b:a 16k -movflags +faststart"),
      movie("libx265", hevc, "-c:a aac -ac 1 -b:a 16k -use_editlist 0"),
  };
  for (const Bytes& file : files) {
    seeds.add("remux_fuzzer", file);
    seeds.add("sync_fuzzer", joined({Bytes{1}, file}));
    if (&file - files.data() >= 2) {  // those with sound
      seeds.add("audio_fuzzer", file);
      const auto size = static_cast<uint32_t>(file.size());
      seeds.add(
          "replacer_fuzzer",
          joined({Bytes{static_cast<uint8_t>(size >> 16), static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size)},
                  file, files[2]}));
    }
    const BoxEditor boxes(file);
    seeds.add("box_fuzzer", joined({Bytes{4}, boxes.get("moov")}));
    const Bytes table = boxes.get("moov/trak/mdia/minf/stbl");
    seeds.add("sample_table_fuzzer", Bytes(table.begin() + 8, table.end()));
    for (const char* box : {"moov/mvhd", "moov/trak/mdia/mdhd", "moov/trak/mdia/minf/stbl/stts"}) {
      seeds.add("avsync_fuzzer", joined({Bytes(52, 3), boxes.get(box)}));
    }
  }
}

void parameterSets(Seeds& seeds) {
  const Bytes hevc = HEVCSPS().bytes(), avc = AVCSPS().bytes();
  for (const Bytes& unit : {hevc, avc}) seeds.add("parameter_set_fuzzer", joined({Bytes{128}, unit, unit}));
  seeds.add("parameter_set_fuzzer", joined({Bytes{128}, sampleOf({hevcVPS(0, 1), hevc, hevcPPS(0, 1)})}));
  seeds.add("parameter_set_fuzzer", joined({Bytes{128}, sampleOf({avc, avc}, 2)}));
}

void documents(Seeds& seeds) {
  ProcessingState state;
  state.filename = "clip.mp4";
  state.fileURL = "/home/Documents/clip.mp4";
  state.tempFiles = {"/home/Documents/a.m4a"};
  state.stage = ProcessingStage::remuxed;
  seeds.add("document_fuzzer", encodeProcessingStates({{7, state}}));
  seeds.add("document_fuzzer", encodeDownloadTasks({{7, "http://127.0.0.1/a%20b.mp4", "Trips", "a.mp4", "x"}}));
  seeds.add("document_fuzzer", bytes(TransferNote{.id = 7, .skipVideoFix = true}.text()));
  seeds.add("document_fuzzer", bytes("http://127.0.0.1/a%20b.mp4?c"));
  seeds.add("bridge_fuzzer", bytes(R"(0{"url":"http://127.0.0.1/a.mp4","album":"Trips","filename":"a.mp4"})"
                                   "\n"
                                   R"(1{"id":1800000000})"
                                   "\n"
                                   R"(2{"limit":2,"more":[1.5,null,{"a":true}]})"));
}

}  // namespace
}  // namespace tarn::test

int main(int count, char** arguments) {
  if (count != 2) return 2;
  tarn::test::Seeds seeds(arguments[1]);
  tarn::test::movies(seeds);
  tarn::test::parameterSets(seeds);
  tarn::test::documents(seeds);
  return 0;
}
