#include "fragments/FragmentsStep.h"

#include <fmt/format.h>

#include <optional>
#include <string>
#include <vector>

#include "fragments/CutMovie.h"
#include "fragments/FragmentAssembly.h"
#include "fragments/FragmentReader.h"
#include "fragments/FragmentsError.h"
#include "fragments/PlainMovie.h"
#include "fragments/detail/ResultProof.h"
#include "pipeline/RunTempFile.h"
#include "platform/Log.h"
#include "presentation/Presentation.h"

namespace tarn {
namespace {

/// Of the whole step, the reading of the fragments.
constexpr double readingPart = 0.3;

void tellLoss(ProcessingRun& run, const LostEnd& loss) {
  run.warn(loss.words());
  run.outcome.isPartly = true;
}

/// Of each track. Behind the end of a movie that is cut there may be fragments that nobody knows of.
std::vector<MissingSamples> missingFrom(const FragmentedMovie& movie) {
  std::vector<MissingSamples> missing;
  for (const FragmentTrack& track : movie.tracks) {
    missing.push_back({.count = track.missing, .mayBeMore = movie.isCut});
  }
  return missing;
}

class Joining {
 public:
  explicit Joining(ProcessingRun& run) : run_(run) {}

  void join() {
    auto source = run_.files.open(run_.fileURL, OpenMode::reading);
    FragmentedMovie movie = readFragmentedMovie(*source, [this](double part) { tell(part * readingPart); });
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
    const RunTempFile result(run_, run_.files.temporaryDirectory() / (makeUUID() + ".mp4"));
    write(*source, result.path(), std::move(plain));
    source->close();
    requireSums(run_.files, result.path(), sums);
    run_.files.replaceItem(run_.fileURL, result.path());
    for (const std::string& note : notes) run_.warn(note);
    if (loss) tellLoss(run_, *loss);
  }

 private:
  void write(FileHandle& source, const Path& path, PlainMovie movie) {
    const auto target = run_.files.open(path, OpenMode::exclusive);
    writePlainMovie(source, *target, std::move(movie),
                    [this](double part) { tell(readingPart + part * (1 - readingPart)); });
    target->synchronize();
    target->close();
  }

  void tell(double part) {
    run_.token->throwIfCancelled();
    run_.reportProgress(part, "Joining fragments");
  }

  ProcessingRun& run_;
};

/// Keeps what is there of a plain movie that broke off.
class Keeping {
 public:
  explicit Keeping(ProcessingRun& run) : run_(run) {}

  void keep() {
    const auto source = run_.files.open(run_.fileURL, OpenMode::reading);
    auto movie = findCut(*source);
    if (!movie) return;
    const auto loss = movie->loss;
    const std::vector<TrackSums> sums = loss ? sumsOf(movie->moov, movie->tables) : std::vector<TrackSums>();
    logLine(loss ? loss->words() : "The size of the last mdat is wrong, and all samples are there");
    const RunTempFile result(run_, run_.files.temporaryDirectory() / (makeUUID() + ".mp4"));
    const auto target = run_.files.open(result.path(), OpenMode::exclusive);
    writeCutMovie(*source, *target, *std::move(movie), [this](double part) {
      run_.token->throwIfCancelled();
      run_.reportProgress(part, "Keeping what is there");
    });
    target->synchronize();
    target->close();
    source->close();
    if (loss) requireSums(run_.files, result.path(), sums);
    run_.files.replaceItem(run_.fileURL, result.path());
    if (loss) tellLoss(run_, *loss);
  }

 private:
  ProcessingRun& run_;
};

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
  try {
    if (isInPieces) {
      Joining(run).join();
    } else {
      Keeping(run).keep();
    }
  } catch (const Error& error) {
    if (endsRun(error)) throw;
    run.warn((isInPieces ? "The movie stays in fragments: " : "The movie stays cut off: ") + error.description());
  }
}

}  // namespace tarn
