#include "indgfile.h"

#include <sys/mman.h>
#include <sys/stat.h>

#include <array>
#include <bit>
#include <cerrno>
#include <cstring>

#include "byte_order.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_string.h"
#include "indview.h"

namespace kelvane {

namespace {

constexpr std::array<uint8_t, 4> kSignature = {0x7F, 'Q', 'V', 'R'};
constexpr int32_t kFormatVersion = 1;
constexpr size_t kHeaderSize = 20;
constexpr uint8_t kRawBigEndian = 1;
constexpr uint8_t kRawLittleEndian = 2;
constexpr uint8_t kRawHostOrder =
    std::endian::native == std::endian::big ? kRawBigEndian : kRawLittleEndian;
constexpr uint32_t kNilSize = UINT32_MAX;
constexpr uint32_t kAddressMode32 = 2;

void* nil_mapping() {
  return reinterpret_cast<void*>(UINTPTR_MAX);
}

bool has_mapping(const GFile* handle) {
  return handle->mapping != nil_mapping();
}

// What both ways of opening are told.
struct Opening {
  bool writing;
  uint32_t file_type;
  uint32_t file_version;
  uint32_t address_mode;
  uint8_t descriptors;
  uint8_t raw_arrays;
};

// Writes the header; false if the stream refuses.
bool write_header(GFile* handle, const Opening& opening) {
  if (opening.descriptors != 0) {
    gen_warning("GFile desciptors not supported");
  }
  handle->format_version = kFormatVersion;
  handle->file_type = opening.file_type;
  handle->file_version = opening.file_version;
  handle->address_mode = opening.address_mode;
  handle->raw_arrays = opening.raw_arrays != 0 ? kRawHostOrder : uint8_t{0};
  for (const uint8_t byte : kSignature) {
    std::fputc(byte, handle->fp);
  }
  gf_put_4(handle, static_cast<uint32_t>(kFormatVersion));
  gf_put_4(handle, opening.file_type);
  gf_put_4(handle, opening.file_version);
  gf_put_1(handle, gadr_encoding_from_mode(static_cast<int32_t>(opening.address_mode)));
  gf_put_1(handle, 0);
  gf_put_1(handle, handle->raw_arrays);
  gf_put_1(handle, 0);
  return std::ferror(handle->fp) == 0;
}

// Reads the header; false if this is no file of the family.
bool read_header(GFile* handle) {
  std::array<uint8_t, kHeaderSize> header{};
  const size_t got = std::fread(header.data(), 1, header.size(), handle->fp);
  if (got != header.size() || std::ferror(handle->fp) != 0) {
    return false;
  }
  handle->format_version = static_cast<int32_t>(load_word(&header[4], ByteOrder::big));
  const uint8_t encoding = header[16];
  const uint8_t descriptors = header[17];
  const uint8_t mark = header[18];
  const uint8_t reserved = header[19];
  if (std::memcmp(header.data(), kSignature.data(), kSignature.size()) != 0 ||
      handle->format_version > kFormatVersion || reserved != 0) {
    return false;
  }
  if (descriptors != 0) {
    gen_error("GFile desciptors not supported");
    return false;
  }
  handle->file_type = load_word(&header[8], ByteOrder::big);
  handle->file_version = load_word(&header[12], ByteOrder::big);
  handle->address_mode = static_cast<uint32_t>(gadr_mode_from_encoding(encoding));
  handle->raw_arrays = mark;
  handle->swapped = mark != 0 && mark != kRawHostOrder ? 1 : 0;
  return true;
}

GFile* gf_init_and_open(GFile* handle, std::FILE* fp, const char* name, const Opening& opening) {
  gen_ptr<GFile> owned;
  if (handle == nullptr) {
    owned.reset(gen_alloc_array<GFile>(1));
    handle = owned.get();
  }
  *handle = GFile{};
  handle->allocated = owned != nullptr ? 1 : 0;
  file_ptr opened;
  if (fp != nullptr) {
    handle->base = static_cast<uint32_t>(std::ftell(fp));
  } else {
    opened.reset(gen_fopen(name, opening.writing ? "w" : "r"));
    if (opened == nullptr) {
      return nullptr;
    }
    fp = opened.get();
    handle->owns_file = 1;
  }
  handle->fp = fp;
  handle->writing = opening.writing ? 1 : 0;
  handle->mapping = nil_mapping();
  handle->mapping_size = kNilSize;
  if (!(opening.writing ? write_header(handle, opening) : read_header(handle))) {
    *handle = GFile{};
    return nullptr;
  }
  handle->name = gen_copy(name);
  static_cast<void>(opened.release());
  static_cast<void>(owned.release());
  return handle;
}

}  // namespace

GFile* gf_open_for_write(GFile* handle, std::FILE* fp, const char* name, uint32_t file_type,
                         uint32_t file_version, uint32_t address_mode, uint8_t descriptors,
                         uint8_t raw_arrays) {
  return gf_init_and_open(handle, fp, name,
                          {true, file_type, file_version, address_mode, descriptors, raw_arrays});
}

GFile* gf_open_for_read(GFile* handle, std::FILE* fp, const char* name) {
  return gf_init_and_open(handle, fp, name, {false, 0, 0, kAddressMode32, 0, 0});
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
    gf_close_memory_mapping(handle, nil_mapping(), kNilSize);
  }
  if (handle->allocated != 0) {
    gen_free(handle);
  }
  return 1;
}

void* gf_open_memory_mapping(GFile* handle, uint8_t unmap_on_close, void** address,
                             uint32_t* size) {
  handle->mapping = nil_mapping();
  handle->mapping_size = kNilSize;
  struct stat status = {};
  if (handle->writing == 0 && handle->fp != nullptr && handle->base == 0 &&
      ::fstat(::fileno(handle->fp), &status) == 0 && status.st_size > 0 &&
      static_cast<uint64_t>(status.st_size) < kNilSize) {
    void* const mapped = ::mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ,
                                MAP_SHARED | MAP_NORESERVE, ::fileno(handle->fp), 0);
    if (mapped != MAP_FAILED) {
      handle->mapping = mapped;
      handle->mapping_size = static_cast<uint32_t>(status.st_size);
    }
  }
  handle->unmap_on_close = unmap_on_close != 0 && has_mapping(handle) ? 1 : 0;
  if (address != nullptr) {
    *address = handle->mapping;
  }
  if (size != nullptr) {
    *size = handle->mapping_size;
  }
  return handle->mapping;
}

void gf_close_memory_mapping(GFile* handle, void* address, uint32_t size) {
  if (address == nil_mapping() && handle != nullptr) {
    address = handle->mapping;
    size = handle->mapping_size;
  }
  if (address == nil_mapping()) {
    return;
  }
  ::munmap(address, size);
  if (handle != nullptr && handle->mapping == address) {
    handle->mapping = nil_mapping();
    handle->mapping_size = kNilSize;
    handle->unmap_on_close = 0;
  }
}

void* gf_get_nil_file_memory_mapping_handle() {
  return nil_mapping();
}

bool gf_can_memory_map_array(const GFile* handle, uint32_t element_size) {
  if (handle == nullptr || !has_mapping(handle)) {
    return false;
  }
  if (element_size != 1 && element_size != 4) {
    gen_warning("GFile: [gf_can_map_hd_storage]: invalid array element size");
    return false;
  }
  if (handle->base % element_size != 0) {
    return false;
  }
  return element_size == 1 || (handle->raw_arrays != 0 && handle->swapped == 0);
}

int32_t gf_tell(GFile* handle, int32_t* position) {
  const long absolute = std::ftell(handle->fp);
  int32_t relative = -1;
  if (absolute < 0) {
    gf_set_got_error(handle, 1);
  } else {
    relative = static_cast<int32_t>(static_cast<uint32_t>(absolute) - handle->base);
  }
  if (position != nullptr) {
    *position = relative;
  }
  return relative;
}

void gf_seek(GFile* handle, uint32_t position) {
  const auto absolute = static_cast<long>(uint64_t{handle->base} + position);
  if (std::fseek(handle->fp, absolute, SEEK_SET) != 0) {
    gf_set_got_error(handle, 1);
  }
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

bool gf_got_error(const GFile* handle) {
  return handle->descriptor_error != 0 || handle->constval_error != 0 ||
         handle->alignpad_error != 0 || handle->mapping_error != 0 ||
         (handle->fp != nullptr && std::ferror(handle->fp) != 0);
}

bool gf_is_eof(const GFile* handle) {
  if (handle->fp == nullptr) {
    gen_warning("[gf_check_eof]: fp==NULL");
    return false;
  }
  if (handle->owns_file == 0) {
    gen_warning("[gf_check_eof]: fp==unowned");
    return false;
  }
  return std::feof(handle->fp) != 0;
}

}  // namespace kelvane
