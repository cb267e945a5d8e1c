#include "fragments/FragmentsStep.h"

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fragments/CutMovie.h"
#include "fragments/FragmentAssembly.h"
#include "fragments/FragmentReader.h"
#include "fragments/FragmentsError.h"
#include "fragments/PlainMovie.h"
#include "fragments/detail/ResultProof.h"
#include "pipeline/RunTempFile.h"
#include "platform/FreedMemory.h"
#include "platform/Log.h"
#include "platform/ReadWatch.h"
#include "presentation/Presentation.h"

namespace tarn {
namespace {

/// Of the whole step, the reading of the fragments.
constexpr double readingPart = 0.3;

void tellLoss(ProcessingRun& run, const LostEnd& loss) {
  run.keepPart(loss.words());
  run.mended(loss.words(), "made a whole movie of what is there");
}

/// Of each track. After the end of a movie that is cut there may be fragments that nobody knows of.
std::vector<MissingSamples> missingFrom(const FragmentedMovie& movie) {
  std::vector<MissingSamples> missing;
  for (const FragmentTrack& track : movie.tracks) {
    missing.push_back({.count = track.missing, .mayBeMore = movie.isCut});
  }
  return missing;
}

void tellProgress(ProcessingRun& run, double part, const char* words) {
  run.token->throwIfCancelled();
  run.reportProgress(part, words);
}

/// Writes a new file and puts it in the place of the run's, once it is known to hold what `sums` say. `tell` tells of
/// it and is stored before that: a run that is cut off after the change finds nothing to do here.
void replaceFile(ProcessingRun& run, WatchedFiles& files, FileHandle& source,
                 const std::optional<std::vector<TrackSums>>& sums,
                 const std::function<void(FileHandle& target)>& write, const std::function<void()>& tell) {
  const RunTempFile result(run, files.temporaryDirectory() / (makeUUID() + ".mp4"));
  const auto target = files.open(result.path(), OpenMode::exclusive);
  write(*target);
  target->synchronize();
  target->close();
  source.close();
  if (sums) requireSums(files, result.path(), *sums);
  files.requireReadable();
  tell();
  run.saveState();
  files.replaceItem(run.fileURL, result.path());
}

/// Makes a plain movie of one in fragments.
void join(ProcessingRun& run, WatchedFiles& files) {
  const auto tell = [&run](double part) { tellProgress(run, part, "Joining fragments"); };
  const auto source = files.open(run.fileURL, OpenMode::reading);
  FragmentedMovie movie = readFragmentedMovie(*source, [&](double part) { tell(part * readingPart); });
  const std::vector<std::string> notes = movie.notes;
  std::vector<TrackSums> sums = sumsOf(movie);
  const std::vector<MissingSamples> missing = missingFrom(movie);
  const bool isCut = movie.isCut;
  PlainMovie plain = assemblePlainMovie(std::move(movie));
  std::optional<LostEnd> loss;
  if (isCut) {
    loss = cutToCommonEnd(plain.moov, plain.tables, missing);
    sums = sumsOf(plain.moov, plain.tables);
  }
  const auto write = [&](FileHandle& target) {
    writePlainMovie(*source, target, std::move(plain),
                    [&](double part) { tell(readingPart + part * (1 - readingPart)); });
  };
  const auto tellOfIt = [&] {
    for (const std::string& note : notes) run.warn(note);
    run.mended(std::string(inFragments), "joined the fragments to one plain movie");
    if (loss) tellLoss(run, *loss);
  };
  replaceFile(run, files, *source, std::move(sums), write, tellOfIt);
}

/// Keeps what is there of a plain movie that broke off.
void keepWhatIsThere(ProcessingRun& run, WatchedFiles& files) {
  const auto source = files.open(run.fileURL, OpenMode::reading);
  auto movie = findCut(*source);
  files.requireReadable();
  if (!movie) return;
  const auto loss = movie->loss;
  std::optional<std::vector<TrackSums>> sums;
  if (loss) sums = sumsOf(movie->moov, movie->tables);
  logLine(loss ? loss->words() : "The size of the last mdat is wrong, and all samples are there");
  const auto write = [&](FileHandle& target) {
    writeCutMovie(*source, target, *std::move(movie),
                  [&](double part) { tellProgress(run, part, "Keeping what is there"); });
  };
  replaceFile(run, files, *source, sums, write, [&] {
    if (loss) return tellLoss(run, *loss);
    run.mended("the file promises more media than it holds, though nothing is missing", "corrected the promised size");
  });
}

/// True for a failure that trying again may mend, or that must end the run.
bool endsRun(const Error& error) {
  return dynamic_cast<const CancellationError*>(&error) || dynamic_cast<const PosixError*>(&error) ||
         dynamic_cast<const FragmentsError*>(&error);
}

}  // namespace

void FragmentsStep::run(ProcessingRun& run) {
  run.token->throwIfCancelled();
  const bool isInPieces = isFragmented(run.files, run.fileURL);
  if (isInPieces) logLine("The movie is in fragments, and becomes a plain one");
  WatchedFiles files(run.files);
  try {
    isInPieces ? join(run, files) : keepWhatIsThere(run, files);
    if (isInPieces) giveBackFreedMemory();
  } catch (const Error& error) {
    // What cannot be read looks as if it were not there.
    files.requireReadable();
    if (endsRun(error)) throw;
    run.leave((isInPieces ? "The movie stays in fragments: " : "The movie stays cut off: ") + error.description());
  }
}

}  // namespace tarn
