// Any bytes identified: the stream stands where it stood, and the answer is one of those there are.
// The first byte chooses the name (its two highest bits) and how many bytes stand in front of the
// object (the others).
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "indelfio.h"
#include "indgen_message.h"
#include "indmagic.h"
#include "memory_file.h"

namespace {

void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

void identify(std::FILE* stream, long start, const char* name) {
  require(std::fseek(stream, start, SEEK_SET) == 0);
  const kelvane::file_magic* const found = kelvane::indmagic(stream, name);
  require(std::ftell(stream) == start);
  require(kelvane::errorcode == nullptr);
  if (found != nullptr) {
    require(found->file_class >= 1 && found->file_class <= 17);
    require(found->object_kind >= 0 && found->object_kind <= 5);
    require(found->machine == 0 ||
            std::strcmp(kelvane::machinename(found->machine), kelvane::machinename(0)) != 0);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) {
    return 0;
  }
  static const kelvane::MemoryFile file;
  kelvane::gen_exit = [](int32_t) { std::abort(); };  // it never ends the run
  kelvane::gen_domessage = [](uint32_t, const char*, va_list) {};
  constexpr std::array<const char*, 4> kNames = {nullptr, "x", "x.pro", "x.dbp"};
  require(file.put({data + 1, size - 1}));
  std::FILE* const stream = std::fopen(file.name().c_str(), "r");
  require(stream != nullptr);
  identify(stream, data[0] % 64, kNames[data[0] / 64]);
  std::fclose(stream);
  return 0;
}
