#include <new>

#include "indgen_memory.h"
#include "run_sequence.h"

int main(int argc, char** argv) {
  // Memory that a container asks for ends the run as all other memory does.
  std::set_new_handler([] { kelvane::gen_out_of_memory(0); });
  return kelvane::run_sequence(argc, argv);
}
