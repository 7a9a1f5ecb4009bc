#include "load.h"

#include <sys/stat.h>

#include <algorithm>

#include "bd_checksum.h"
#include "exit_status.h"
#include "indelfio.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indobjio.h"
#include "indview.h"
#include "section_list.h"

namespace kelvane {

namespace {

constexpr size_t kPiece = 1024;           // bytes of one read
constexpr size_t kStreamBuffer = 262144;  // bytes that the stream reads ahead

bool is_directory(std::FILE* stream) {
  struct stat status = {};
  return ::fstat(::fileno(stream), &status) == 0 && S_ISDIR(status.st_mode);
}

// Reads up to `size` bytes; fewer if the file has become shorter meanwhile.
int32_t read_pieces(std::FILE* stream, uint8_t* bytes, size_t size) {
  size_t total = 0;
  while (std::feof(stream) == 0 && total < size) {
    const size_t got = std::fread(bytes + total, 1, std::min(kPiece, size - total), stream);
    if (got == 0) {
      break;
    }
    total += got;
  }
  return static_cast<int32_t>(total);
}

void release_sections(sym_addr* first, const sym_addr* end) {
  for (const sym_addr* record = first; record != end; ++record) {
    gen_free(record->name);
  }
  gen_free(first);
}

// The section list of a file while it is loaded: made empty, and gone again if the load ends the
// run.
class OpenSectionList {
 public:
  explicit OpenSectionList(file_data* record) { start_section_list(record); }
  ~OpenSectionList() {
    release_sections(sym_addr_list, sym_addrp);
    close();
  }
  OpenSectionList(const OpenSectionList&) = delete;
  OpenSectionList& operator=(const OpenSectionList&) = delete;

  void hand_over(file_data* record) {
    record->sections = sym_addr_list;
    record->sections_end = sym_addrp;
    close();
  }

 private:
  static void close() {
    sym_addr_list = nullptr;
    sym_addrp = nullptr;
    current_data = nullptr;
  }
};

}  // namespace

int64_t file_size(std::FILE* stream) {
  if (std::fseek(stream, 0, SEEK_END) != 0) {
    return -1;
  }
  const int64_t size = std::ftell(stream);
  return std::fseek(stream, 0, SEEK_SET) == 0 ? size : -1;
}

int32_t read_file(uint8_t** out_bytes, const char* name) {
  const gen_ptr<char> stream_buffer(gen_alloc_array<char>(kStreamBuffer));
  const file_ptr stream(gen_fopen(name, "r"));
  if (stream == nullptr) {
    gen_perror("unable to open input file '%s'", name);
    return -1;
  }
  std::setvbuf(stream.get(), stream_buffer.get(), _IOFBF, kStreamBuffer);
  if (is_directory(stream.get())) {
    gen_error("could not load '%s': %s", name, "it is a directory");
    return -1;
  }
  const int64_t size = file_size(stream.get());
  if (size < 0) {
    gen_error("could not load '%s': %s", name, "its size cannot be found");
    return -1;
  }
  if (size > INT32_MAX) {
    gen_error("could not load '%s': %s", name, "it has more than 2147483647 bytes");
    return -1;
  }
  gen_ptr<uint8_t> bytes(gen_alloc_array<uint8_t>(static_cast<uint32_t>(size)));
  if (bytes == nullptr) {
    gen_error("could not allocate %i bytes for file '%s'", static_cast<int32_t>(size), name);
    return -1;
  }
  const int32_t total = read_pieces(stream.get(), bytes.get(), static_cast<size_t>(size));
  if (std::ferror(stream.get()) != 0) {
    gen_perror("error while reading input file '%s'", name);
    return -1;
  }
  *out_bytes = bytes.release();
  return total;
}

int32_t load_file(file_data* record, const char* name) {
  record->name = name;
  record->size = read_file(&record->bytes, name);
  if (record->size < 0) {
    return 0;
  }
  record->checksum = 0;
  bd_checksum(record->bytes, static_cast<uint32_t>(record->size), &record->checksum);
  record->crt1 = 0;
  OpenSectionList list(record);
  do_any_file(name);
  record->big_endian = endian == 1 ? 1 : 0;
  list.hand_over(record);
  return 1;
}

void release_file(file_data* record) {
  gen_free(record->bytes);
  release_sections(record->sections, record->sections_end);
  *record = {};
}

void check_byte_orders(const file_data* first, const file_data* second) {
  if (first->big_endian != second->big_endian) {
    gen_errorexit(kStatusFailure, "files have different endianness\n");
  }
}

}  // namespace kelvane
