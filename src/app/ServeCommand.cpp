#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <memory>

#include "api/OwnEngine.h"
#include "api/ServedPage.h"
#include "app/CommandEngine.h"
#include "app/Commands.h"
#include "app/Interrupt.h"
#include "app/Output.h"
#include "engine/Home.h"
#include "platform/host/PosixFileManager.h"
#include "serve/BridgeServer.h"
#include "serve/HomeToken.h"

namespace tarn {
namespace {

struct ServeOptions {
  uint16_t port = 0;                            ///< 0: any that is free
  std::optional<std::string> webFolder = {};    ///< a built page; else the program's own
  std::optional<std::string> addressFile = {};  ///< takes the address; else it is printed
};

/// Has stored runs taken up, whichever process left them, or whatever kept them from going on. The engine starts one
/// when the application comes to the foreground, which no page may do for long.
class StoredRuns {
 public:
  static constexpr std::chrono::milliseconds pause{3000};

  explicit StoredRuns(Host& host) : host_(host) {}

  void look() {
    const auto now = std::chrono::steady_clock::now();
    if (now - lastLook_ < pause) return;
    lastLook_ = now;
    if (!host_.isProcessing() && !host_.pendingRuns().empty()) host_.takeUpStoredRun();
  }

 private:
  Host& host_;
  std::chrono::steady_clock::time_point lastLook_ = std::chrono::steady_clock::now();
};

/// Tells the address, which is a secret: whoever knows it is let in. A file with it is there while the server is.
class ToldAddress {
 public:
  ToldAddress(const std::string& address, const std::optional<std::string>& file) : file_(file) {
    if (file_) {
      storeSecret(*file_, address + "\n");
    } else {
      printLine(address);
    }
  }
  ~ToldAddress() {
    if (file_) ::unlink(file_->c_str());
  }
  ToldAddress(const ToldAddress&) = delete;
  ToldAddress& operator=(const ToldAddress&) = delete;

 private:
  const std::optional<std::string> file_;
};

/// The page that stands beside this program: where both are installed, or where both were built.
Path ownPage() {
  const Path here = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  Path installed = (here / TARN_PAGE).lexically_normal();
  Path built = (here / "../web").lexically_normal();
  std::error_code ignored;
  return std::filesystem::exists(installed / "index.html", ignored) ? installed : built;
}

/// Tells of the page that another process serves in this home. Rethrows the failure if none does, or if the address
/// shall not be printed.
int tellOfOther(const Path& home, const ServeOptions& options) {
  const auto address = servedPage(home);
  if (!address || options.addressFile) throw;
  const bool isOtherwise = options.port != 0 || options.webFolder;
  printFailure(std::string("Another tarn serves this home already; this is the address of its page.") +
               (isOtherwise ? " --port and --web change nothing about it." : ""));
  printLine(*address);
  return ExitCode::done;
}

int serve(const GlobalOptions& global, const ServeOptions& options, const Path& home) {
  PosixFileManager files(home);
  OwnEngine engine(home, files, engineOptions(global));
  Host& host = engine.host();
  InProcessClient& client = engine.client();
  const InterruptWatcher watcher([&] {
    host.interrupt();
    client.interrupt();
    return true;
  });
  for (const std::string& words : host.storeProblems()) printFailure(words + ".");
  StoredRuns storedRuns(host);
  BridgeServer server(files, host.photos(), host.plugin(), host.hostPlugin(),
                      {.port = options.port,
                       .webFolder = options.webFolder ? Path(*options.webFolder) : ownPage(),
                       .token = homeToken(home),
                       .localFolder = home / "Local",
                       .logFile = host.logFile().value_or(Path())},
                      [&host](bool isActive) { host.setActive(isActive); });
  host.hostPlugin().setPage(server.entryAddress());
  const ToldAddress told(server.entryAddress(), options.addressFile);
  while (!client.isInterrupted()) {
    if (const auto event = client.nextEvent(StoredRuns::pause)) server.sendEvent(event->name, event->data);
    storedRuns.look();
  }
  printFailure("Interrupted; what has been done is kept. The next start goes on with it.");
  return ExitCode::interrupted;
}

int serveCommand(const GlobalOptions& global, const ServeOptions& options) {
  const Path home = homeDirectory(global.home);
  try {
    return serve(global, options, home);
  } catch (const HomeInUse&) {
    return tellOfOther(home, options);
  }
}

}  // namespace

void addServeCommand(CommandTable& table) {
  const auto options = std::make_shared<ServeOptions>();
  CLI::App* serve =
      table.app.add_subcommand("serve", "Show a page on this machine that drives it all; prints its address");
  serve->add_option("--port", options->port, "The port on 127.0.0.1 (else any that is free)");
  serve->add_option("--web", options->webFolder, "The folder of the built page")->type_name("DIR");
  serve
      ->add_option("--address-file", options->addressFile,
                   "Write the address, which lets its reader in, into this file for you alone, and print nothing")
      ->type_name("FILE");
  serve->excludes(table.app.get_option("--json"));
  serve->callback(
      [&table, options] { table.chosen = [&table, options] { return serveCommand(table.global, *options); }; });
}

}  // namespace tarn
