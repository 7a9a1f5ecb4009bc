// Any bytes as a library (or whatever they are) through the dispatcher, with hooks that look at all
// that they get. The run comes back or ends by the message operations; no hook is called more often
// than there are bytes.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "indgen_message.h"
#include "indmagic_internal.h"
#include "indobjio.h"
#include "indobjio_internal.h"
#include "memory_file.h"

namespace kelvane {
namespace {

struct EndOfRun {};

size_t hook_calls = 0;
size_t letters = 0;

void require(bool holds) {
  if (!holds) {
    std::abort();
  }
}

int32_t look_at(std::FILE* stream, std::FILE* second_stream, object_info* object) {
  ++hook_calls;
  require(stream != second_stream);
  require(static_cast<int32_t>(std::ftell(stream)) == object->member_offset);
  letters += std::strlen(object->display_name) + std::strlen(object->member_name);
  if (object->member_header != nullptr) {
    require(object->member_header->name == object->member_name);
    require(object->member_header->size >= 0);
  }
  return std::fgetc(stream);
}

int32_t look_at_table(std::FILE* stream, object_info* object) {
  require(object->member_header->is_table == 1);
  return look_at(stream, nullptr, object);
}

void walk(const char* name, int32_t shorten_names) {
  reset_indobjio();
  reset_indmagic();
  do_ELF_file_ptr = look_at;
  do_unknown_file_ptr = look_at;
  do_TOC_file_ptr = look_at_table;
  no_long_filenames_in_ar_header = shorten_names;
  try {
    do_any_file(name);
  } catch (const EndOfRun&) {
    // The message was dropped.
  }
}

}  // namespace
}  // namespace kelvane

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const kelvane::MemoryFile file;
  static const std::string name = file.name();
  kelvane::gen_exit = [](int32_t) { throw kelvane::EndOfRun(); };
  kelvane::gen_domessage = [](uint32_t, const char*, va_list) {};
  kelvane::require(file.put({data, size}));
  kelvane::hook_calls = 0;
  kelvane::walk(name.c_str(), 0);
  kelvane::walk(name.c_str(), 1);
  kelvane::require(kelvane::hook_calls <= 2 * size + 2);
  return 0;
}
