#include "support/MediaMaker.h"

#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace tarn::test {
namespace {

/// For a shell: each word in quotes.
std::string commandLine(const std::vector<std::string>& command) {
  std::string line;
  for (const std::string& word : command) {
    line += '\'';
    for (char c : word) line += c == '\'' ? "'\\''" : std::string(1, c);
    line += "' ";
  }
  return line;
}

/// The lines that begin with a stream's number, without comments and complaints, from a column on; side data of a
/// sample, which follow its hash, are left out.
std::string hashLines(const std::string& text, int firstColumn = 0) {
  std::istringstream lines(text);
  std::string result;
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] < '0' || line[0] > '9') continue;
    line.resize(std::min(line.size(), line.find(", S=")));
    size_t begin = 0;
    for (int i = 0; i < firstColumn; ++i) begin = line.find(',', begin) + 1;
    result += line.substr(begin) + "\n";
  }
  return result;
}

/// What ffmpeg hashes of a file under these options.
std::string hashes(const Path& file, const std::string& options, int firstColumn = 0) {
  std::vector<std::string> command{"ffmpeg", "-v", "error", "-i", file};
  for (const std::string& word : words(options + " -f framemd5 -")) command.push_back(word);
  return hashLines(runProcess(command).output, firstColumn);
}

}  // namespace

std::vector<std::string> words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

ProcessResult runProcess(const std::vector<std::string>& command) {
  FILE* pipe = popen((commandLine(command) + "2>&1 </dev/null").c_str(), "r");
  if (!pipe) throw std::runtime_error("cannot start " + command.front());
  std::string output;
  std::array<char, 4096> buffer;
  for (size_t count; (count = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) output.append(buffer.data(), count);
  int status = pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

Path mediaCache() {
  Path cache = std::filesystem::temp_directory_path() / ("tarn-test-media-" + std::to_string(getuid()));
  std::filesystem::create_directories(cache);
  return cache;
}

Path madeByFFmpeg(const std::vector<std::string>& arguments, const std::string& ending) {
  const Path cache = mediaCache();
  Path file = cache / (std::to_string(std::hash<std::string>{}(commandLine(arguments))) + ending);
  if (std::filesystem::exists(file)) return file;

  // Another test may be making the same file: each makes its own, the last one stays.
  Path draft = cache / (std::to_string(getpid()) + ending);
  std::vector<std::string> command = {"ffmpeg", "-v", "error", "-y"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  command.push_back(draft);
  auto result = runProcess(command);
  if (result.exitCode != 0) throw std::runtime_error("ffmpeg: " + result.output);
  std::filesystem::rename(draft, file);
  return file;
}

Path encodedVideo(const VideoRecipe& recipe) {
  const bool isAVC = recipe.codec == "libx264";
  auto arguments = words("-f lavfi -i testsrc2=rate=25:size=" + recipe.size);
  // Sound, if there is any, is a second input and its own options.
  arguments.insert(arguments.end(), recipe.more.begin(), recipe.more.end());
  const std::string encoding =
      fmt::format("-t {} -c:v {} -pix_fmt {} -preset ultrafast {}{}{}", recipe.seconds, recipe.codec,
                  recipe.pixelFormat, isAVC ? "-x264-params bframes=2" : "-tag:v hev1 -x265-params log-level=none",
                  recipe.parameters.empty() ? "" : ":", recipe.parameters);
  for (const std::string& word : words(encoding)) arguments.push_back(word);
  return madeByFFmpeg(arguments);
}

Path concatenated(const std::vector<Path>& parts, const std::string& tag) {
  std::string list;
  for (const Path& part : parts) list += "file '" + part.string() + "'\n";
  const Path listFile = mediaCache() / (std::to_string(std::hash<std::string>{}(list)) + ".txt");
  std::ofstream(listFile) << list;
  return madeByFFmpeg({"-f", "concat", "-safe", "0", "-i", listFile, "-c", "copy", "-tag:v", tag});
}

Path joinedVideo(const std::vector<VideoRecipe>& parts) {
  std::vector<Path> files;
  for (const VideoRecipe& part : parts) files.push_back(encodedVideo(part));
  return concatenated(files, parts.front().codec == "libx264" ? "avc1" : "hev1");
}

std::string probeVideo(const Path& file, const std::string& entry) {
  const std::string said = runProcess({"ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
                                       "stream=" + entry, "-of", "csv=p=0", file})
                               .output;
  return said.substr(0, said.find('\n'));
}

std::string decoderComplaints(const Path& file) {
  return runProcess({"ffmpeg", "-v", "error", "-err_detect", "explode", "-i", file, "-f", "null", "-"}).output;
}

std::string frameHashes(const Path& file) {
  return hashes(file, "-map 0:v:0");
}

std::string pictureHashes(const Path& file) {
  return hashes(file, "-map 0:v:0 -autoscale 0", 4);
}

std::string sampleHashes(const Path& file) {
  return hashes(file, "-map 0 -c copy");
}

}  // namespace tarn::test
