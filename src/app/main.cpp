#include "app/CommandLine.h"
#include "app/Interrupt.h"
#include "platform/FreedMemory.h"

int main(int argc, char** argv) {
  tarn::blockInterrupts();
  tarn::giveBackLargeBlocks();
  return tarn::runCommandLine(argc, argv);
}
