#include "run_sequence.h"

int main(int argc, char** argv) {
  return kelvane::run_sequence(argc, argv);
}
