// Runs a fuzz target over inputs kept in files, so that a corpus is an ordinary test:
//   NAME_replay FILE_OR_FOLDER ... [--damaged FILE_OR_FOLDER ...]
// Folders are walked with all below them, in the order of the names. What stands behind --damaged
// is run with each byte changed in eight ways and with each part of it from the start. Every input
// is handed over in memory of exactly its size, so that a sanitizer sees the first byte that is
// read beyond. The end is status 0 if the target came back from all of them, 2 if there was nothing
// to run or a file could not be read.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> inputs_in(const fs::path& place) {
  std::vector<fs::path> inputs;
  if (!fs::is_directory(place)) {
    inputs.push_back(place);
    return inputs;
  }
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(place)) {
    if (entry.is_regular_file()) {
      inputs.push_back(entry.path());
    }
  }
  std::sort(inputs.begin(), inputs.end());
  return inputs;
}

void run(const std::vector<char>& bytes, size_t size) {
  const auto exact = std::make_unique<uint8_t[]>(size);
  std::copy_n(bytes.begin(), size, exact.get());
  LLVMFuzzerTestOneInput(exact.get(), size);
}

void run_damaged(const std::vector<char>& whole) {
  for (size_t i = 0; i < whole.size(); ++i) {
    std::vector<char> bytes = whole;
    for (const int value :
         {0, 0x7F, 0x80, 0xFF, whole[i] ^ 1, whole[i] ^ 0x10, whole[i] ^ 0x80, ~whole[i]}) {
      bytes[i] = static_cast<char>(value);
      run(bytes, bytes.size());
    }
    run(whole, i);
  }
}

bool run_file(const fs::path& input, bool damaged) {
  std::ifstream stream(input, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
  if (!stream.is_open() || stream.bad()) {
    std::fprintf(stderr, "replay: cannot read '%s'\n", input.c_str());
    return false;
  }
  if (damaged) {
    run_damaged(bytes);
  } else {
    run(bytes, bytes.size());
  }
  return true;
}

int run_all(const std::vector<fs::path>& places) {
  size_t count = 0;
  bool damaged = false;
  for (const fs::path& place : places) {
    if (place == "--damaged") {
      damaged = true;
      continue;
    }
    for (const fs::path& input : inputs_in(place)) {
      // Named before it runs, so that the last line tells which one a crash belongs to.
      std::printf("%s\n", input.c_str());
      std::fflush(stdout);
      if (!run_file(input, damaged)) {
        return 2;
      }
      ++count;
    }
  }
  if (count == 0) {
    std::fprintf(stderr, "replay: no input to run\n");
    return 2;
  }
  std::printf("%zu inputs\n", count);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run_all({argv + 1, argv + argc});
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "replay: %s\n", failure.what());
    return 2;
  }
}
