#include "indgfile.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <string_view>

#include "byte_order.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_string.h"
#include "indgfile_internal.h"
#include "indview.h"

namespace kelvane {

namespace {

constexpr std::string_view kSignature = "\x7FQVR";
constexpr int32_t kFormatVersion = 1;
constexpr uint32_t kNilSize = UINT32_MAX;

// The raw array mark.
constexpr uint8_t kRawBig = 1;
constexpr uint8_t kRawLittle = 2;
constexpr uint8_t kRawHost = std::endian::native == std::endian::big ? kRawBig : kRawLittle;

bool is_nil(const void* mapping) {
  return mapping == gf_get_nil_file_memory_mapping_handle();
}

// Writes the header for what the handle holds. False if the stream is in its error state.
bool write_header(GFile* handle) {
  if (handle->descriptors != 0) {
    gen_warning("GFile desciptors not supported");
    handle->descriptors = 0;
  }
  const gf_header header =
      make_gf_header(handle->file_type, handle->file_version,
                     gadr_encoding_from_mode(handle->address_mode), handle->raw_arrays);
  std::fwrite(header.data(), 1, header.size(), handle->fp);
  return std::ferror(handle->fp) == 0;
}

// Reads the header into the handle. False if it isn't one that this library can read.
bool read_header(GFile* handle) {
  gf_header header{};
  if (std::fread(header.data(), header.size(), 1, handle->fp) != 1 ||
      std::ferror(handle->fp) != 0) {
    return false;
  }
  const auto same = [](char letter, uint8_t byte) { return static_cast<uint8_t>(letter) == byte; };
  if (!std::equal(kSignature.begin(), kSignature.end(), header.begin(), same)) {
    return false;
  }
  handle->format_version = static_cast<int32_t>(load_word(&header[4], ByteOrder::big));
  if (handle->format_version > kFormatVersion || header[19] != 0) {
    return false;
  }
  if (header[17] != 0) {
    gen_error("GFile desciptors not supported");
    return false;
  }
  handle->file_type = load_word(&header[8], ByteOrder::big);
  handle->file_version = load_word(&header[12], ByteOrder::big);
  handle->address_mode = gadr_mode_from_encoding(header[16]);
  handle->raw_arrays = header[18];
  const uint8_t order = handle->raw_arrays == kRawLittle ? kRawLittle : kRawBig;
  handle->swapped = handle->raw_arrays != 0 && order != kRawHost ? 1 : 0;
  return true;
}

// What opening for reading and for writing share. `header` holds the fields of the header that are
// to be written; reading overrides them.
GFile* gf_init_and_open(GFile* handle, std::FILE* fp, const char* name, const GFile& header) {
  gen_ptr<GFile> fresh;
  if (handle == nullptr) {
    fresh.reset(gen_alloc_array<GFile>(1));
    handle = fresh.get();
    if (handle == nullptr) {
      return nullptr;
    }
  }
  *handle = GFile{};
  file_ptr opened;
  if (fp == nullptr) {
    opened.reset(gen_fopen(name, header.writing != 0 ? "w" : "r"));
    fp = opened.get();
    if (fp == nullptr) {
      return nullptr;
    }
  }
  *handle = header;
  handle->fp = fp;
  handle->base = opened != nullptr ? 0 : static_cast<int32_t>(std::ftell(fp));
  if (!(header.writing != 0 ? write_header(handle) : read_header(handle))) {
    *handle = GFile{};
    return nullptr;
  }
  handle->name = gen_copy(name);
  handle->mapping = gf_get_nil_file_memory_mapping_handle();
  handle->mapping_size = kNilSize;
  handle->owns_file = opened != nullptr ? 1 : 0;
  handle->allocated = fresh != nullptr ? 1 : 0;
  static_cast<void>(opened.release());
  static_cast<void>(fresh.release());
  return handle;
}

}  // namespace

gf_header make_gf_header(uint32_t file_type, uint32_t file_version, uint8_t address_encoding,
                         uint8_t raw_arrays) {
  gf_header header{};
  std::copy(kSignature.begin(), kSignature.end(), header.begin());
  store_word(&header[4], kFormatVersion, ByteOrder::big);
  store_word(&header[8], file_type, ByteOrder::big);
  store_word(&header[12], file_version, ByteOrder::big);
  header[16] = address_encoding;
  header[18] = raw_arrays;
  return header;
}

GFile* gf_open_for_write(GFile* handle, std::FILE* fp, const char* name, uint32_t file_type,
                         uint32_t file_version, int32_t address_mode, uint8_t descriptors,
                         uint8_t raw_arrays) {
  GFile header{};
  header.format_version = kFormatVersion;
  header.file_type = file_type;
  header.file_version = file_version;
  header.address_mode = address_mode;
  header.raw_arrays = raw_arrays != 0 ? kRawHost : uint8_t{0};
  header.writing = 1;
  header.descriptors = descriptors;
  return gf_init_and_open(handle, fp, name, header);
}

GFile* gf_open_for_read(GFile* handle, std::FILE* fp, const char* name) {
  GFile header{};
  header.address_mode = 2;
  return gf_init_and_open(handle, fp, name, header);
}

int32_t gf_close(GFile* handle) {
  errno = 0;
  if (handle->owns_file != 0) {
    if (std::fclose(handle->fp) != 0) {
      gf_set_got_error(handle, 1);
    }
    handle->owns_file = 0;
  }
  handle->fp = nullptr;
  gen_free(handle->name);
  handle->name = nullptr;
  if (handle->unmap_on_close != 0) {
    gf_close_memory_mapping(handle, gf_get_nil_file_memory_mapping_handle(), kNilSize);
  }
  if (handle->allocated != 0) {
    gen_free(handle);
  }
  return 1;
}

int32_t gf_tell(GFile* handle, int32_t* position) {
  const long place = std::ftell(handle->fp);
  if (place == -1) {
    gf_set_got_error(handle, 1);
  }
  const int32_t from_base = place == -1 ? -1 : static_cast<int32_t>(place - handle->base);
  if (position != nullptr) {
    *position = from_base;
  }
  return from_base;
}

int32_t gf_seek(GFile* handle, int32_t position) {
  if (std::fseek(handle->fp, long{handle->base} + position, SEEK_SET) != 0) {
    gf_set_got_error(handle, 1);
    return -1;
  }
  return 0;
}

void* gf_get_nil_file_memory_mapping_handle() {
  return MAP_FAILED;  // all ones
}

void* gf_open_memory_mapping(GFile* handle, uint8_t unmap_on_close, void** address,
                             uint32_t* size) {
  void* mapping = gf_get_nil_file_memory_mapping_handle();
  uint32_t mapping_size = kNilSize;
  if (handle->writing == 0 && handle->fp != nullptr && handle->base == 0) {
    const int descriptor = ::fileno(handle->fp);
    struct stat status = {};
    if (descriptor != -1 && ::fstat(descriptor, &status) == 0 && status.st_size < kNilSize) {
      const auto length = static_cast<uint32_t>(status.st_size);
      mapping = ::mmap(nullptr, length, PROT_READ, MAP_SHARED | MAP_NORESERVE, descriptor, 0);
      mapping_size = is_nil(mapping) ? kNilSize : length;
    }
  }
  handle->mapping = mapping;
  handle->mapping_size = mapping_size;
  handle->unmap_on_close = unmap_on_close != 0 && !is_nil(mapping) ? 1 : 0;
  if (address != nullptr) {
    *address = mapping;
    if (size != nullptr) {
      *size = mapping_size;
    }
  }
  return mapping;
}

void gf_close_memory_mapping(GFile* handle, void* address, uint32_t size) {
  if (is_nil(address) && handle != nullptr) {
    address = handle->mapping;
    size = handle->mapping_size;
  }
  if (is_nil(address)) {
    return;
  }
  ::munmap(address, size);
  if (handle != nullptr && handle->mapping == address) {
    handle->mapping = gf_get_nil_file_memory_mapping_handle();
    handle->mapping_size = kNilSize;
    handle->unmap_on_close = 0;
  }
}

int32_t gf_can_memory_map_array(const GFile* handle, uint32_t element_size) {
  if (handle == nullptr || is_nil(handle->mapping)) {
    return 0;
  }
  if (element_size != 1 && element_size != 4) {
    gen_warning("GFile: [gf_can_map_hd_storage]: invalid array element size");
    return 0;
  }
  if (static_cast<uint32_t>(handle->base) % element_size != 0) {
    return 0;
  }
  if (element_size == 1) {
    return 1;
  }
  return handle->raw_arrays != 0 && handle->swapped == 0 ? 1 : 0;
}

void gf_set_got_error(GFile* handle, uint8_t use_errno) {
  if (handle->got_error != 0) {
    return;
  }
  handle->got_error = 1;
  const char* const name = handle->name != nullptr ? handle->name : "UNKNOWN";
  if (use_errno != 0) {
    gen_perror("Error while processing \"%s\"", name);
  } else {
    gen_error("Error while processing \"%s\"", name);
  }
}

void gf_set_descriptor_error(GFile* handle) {
  handle->descriptor_error = 1;
  gf_set_got_error(handle, 0);
}

void gf_set_constval_error(GFile* handle) {
  handle->constval_error = 1;
  gf_set_got_error(handle, 0);
}

void gf_set_alignpad_error(GFile* handle) {
  handle->alignpad_error = 1;
  gf_set_got_error(handle, 0);
}

void gf_set_file_memory_mapping_error(GFile* handle) {
  handle->mapping_error = 1;
  gf_set_got_error(handle, 0);
}

int32_t gf_got_error(const GFile* handle) {
  const bool flagged = handle->descriptor_error != 0 || handle->constval_error != 0 ||
                       handle->alignpad_error != 0 || handle->mapping_error != 0;
  const bool stream_error = handle->fp != nullptr && std::ferror(handle->fp) != 0;
  return flagged || stream_error ? 1 : 0;
}

int32_t gf_is_eof(const GFile* handle) {
  if (handle->fp == nullptr) {
    gen_warning("[gf_check_eof]: fp==NULL");
    return 0;
  }
  if (handle->owns_file == 0) {
    gen_warning("[gf_check_eof]: fp==unowned");
    return 0;
  }
  return std::feof(handle->fp) != 0 ? 1 : 0;
}

}  // namespace kelvane
