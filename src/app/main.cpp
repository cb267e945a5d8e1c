#include "app/CommandLine.h"
#include "app/Interrupt.h"

int main(int argc, char** argv) {
  tarn::blockInterrupts();
  return tarn::runCommandLine(argc, argv);
}
