// Makes the dense update that the emulated board and the document's example take:
// board_bundle OLD NEW BUNDLE [PAGE-SIZE].
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "bytes.h"
#include "dense_bundle.h"

namespace {

kelvane::Bytes contents_of(const char* name) {
  std::ifstream file(name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fputs("usage: board_bundle OLD NEW BUNDLE [PAGE-SIZE]\n", stderr);
    return 2;
  }
  const kelvane::Bytes old_image = contents_of(argv[1]);
  const kelvane::Bytes new_image = contents_of(argv[2]);
  kelvane::dense_request request;
  request.images = {old_image, new_image};
  request.geometry = {argc > 4 ? static_cast<uint32_t>(std::strtoul(argv[4], nullptr, 10)) : 1024,
                      2, 2};
  request.map_limit = 64;  // what both have room for
  const auto bundle = kelvane::dense_bundle(request, 8).bytes;
  std::ofstream file(argv[3], std::ios::binary);
  file.write(reinterpret_cast<const char*>(bundle.data()),
             static_cast<std::streamsize>(bundle.size()));
  return file.flush() ? 0 : 1;
}
