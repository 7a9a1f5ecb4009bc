#include "patch_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

namespace kelpatch {

std::string formatted_list(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int size = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  std::string text(static_cast<size_t>(std::max(size, 0)) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), format, arguments);
  text.pop_back();
  return text;
}

namespace {

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { ::close(number_); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int number() const { return number_; }

 private:
  int number_;
};

int no_read(void* /*context*/, uint32_t /*address*/, uint8_t* /*bytes*/, uint32_t /*count*/) {
  return 1;
}

// Where the header of version 0 tells the sizes of the files.
constexpr size_t kV0OldSize = 8;
constexpr size_t kV0NewSize = 12;

// The word there; 0 if the file ends ahead of it.
uint32_t word_at(const Bytes& bytes, size_t position, bool big_endian) {
  uint32_t word = 0;
  for (size_t i = 0; i < 4 && position + 4 <= bytes.size(); ++i) {
    word = word << 8U | bytes[position + (big_endian ? i : 3 - i)];
  }
  return word;
}

}  // namespace

std::string formatted(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string text = formatted_list(format, arguments);
  va_end(arguments);
  return text;
}

void fatal(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = formatted_list(format, arguments);
  va_end(arguments);
  throw Failure{kTrouble, "fatal: " + text};
}

void fatal_errno(const char* format, ...) {
  const int error = errno;
  va_list arguments;
  va_start(arguments, format);
  const std::string text = formatted_list(format, arguments);
  va_end(arguments);
  throw Failure{kTrouble, "fatal: " + text + ": " + std::strerror(error)};
}

void mismatch(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = formatted_list(format, arguments);
  va_end(arguments);
  throw Failure{kMismatch, "error: " + text};
}

Bytes read_input(const std::string& name) {
  const int number = ::open(name.c_str(), O_RDONLY | O_CLOEXEC);
  if (number < 0) {
    fatal_errno("unable to open input file '%s'", name.c_str());
  }
  const Descriptor file(number);
  size_t room = 65536;
  struct stat status = {};
  if (::fstat(number, &status) == 0 && S_ISREG(status.st_mode)) {
    if (status.st_size > off_t{kLargestFile}) {
      fatal("input file '%s' has more than %u bytes", name.c_str(), kLargestFile);
    }
    // A byte more than there is shows the end without growing.
    room = static_cast<size_t>(status.st_size) + 1;
  }
  // The end is where a read finds it: a pipe has no size, and a file may grow meanwhile.
  Bytes bytes(room);
  size_t filled = 0;
  for (;;) {
    if (filled == bytes.size()) {
      bytes.resize(std::min(2 * filled, size_t{kLargestFile} + 1));
    }
    const ssize_t count = ::read(file.number(), bytes.data() + filled, bytes.size() - filled);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      fatal_errno("error reading input file '%s'", name.c_str());
    }
    filled += static_cast<size_t>(count);
    if (filled > kLargestFile) {
      fatal("input file '%s' has more than %u bytes", name.c_str(), kLargestFile);
    }
    if (count == 0) {
      bytes.resize(filled);
      return bytes;
    }
  }
}

uint32_t usual_max_size(uint32_t old_size) {
  constexpr uint32_t kTimes = 16;
  constexpr uint32_t kAtLeast = 16 * 1024 * 1024;
  return old_size > kLargestFile / kTimes ? kLargestFile : std::max(old_size * kTimes, kAtLeast);
}

void require_told(const std::string& name, const Bytes& bytes, const std::string& patch_name,
                  const ToldFile& told) {
  const auto size = static_cast<uint32_t>(bytes.size());
  if (size != told.size) {
    mismatch("'%s' is not the %s of '%s': it has %" PRIu32 " bytes, not %" PRIu32, name.c_str(),
             told.what, patch_name.c_str(), size, told.size);
  }
  const uint32_t sum = told.sum(0, bytes.data(), size);
  if (sum != told.checksum) {
    mismatch("'%s' is not the %s of '%s': its checksum is 0x%08" PRIx32 ", not 0x%08" PRIx32,
             name.c_str(), told.what, patch_name.c_str(), sum, told.checksum);
  }
}

PatchFile::PatchFile(const std::string& name, ByteOrder order, const KnownSizes& known, bool memory)
    : PatchFile(name, read_input(name), order, known, memory) {}

PatchFile::PatchFile(const std::string& name, Bytes bytes, ByteOrder order, const KnownSizes& known,
                     bool memory)
    : name_(name), bytes_(std::move(bytes)) {
  uint32_t flags = order == ByteOrder::kBig ? KELVANE_V0_BIG_ENDIAN : KELVANE_V0_LITTLE_ENDIAN;
  if (order == ByteOrder::kFound) {
    const Rank little = rank(KELVANE_V0_LITTLE_ENDIAN, known);
    const Rank big = rank(KELVANE_V0_BIG_ENDIAN, known);
    if (big.merits != little.merits ? big.merits > little.merits
                                    : big.longer_file < little.longer_file) {
      flags = KELVANE_V0_BIG_ENDIAN;
    }
  }
  open(flags | (memory ? KELVANE_V0_MEMORY_MODE : 0U));
}

PatchFile::PatchFile(const std::string& name, Bytes bytes) : name_(name), bytes_(std::move(bytes)) {
  open(0);
}

void PatchFile::open(uint32_t flags) {
  // An empty vector has no data, and an empty patch is too short, not absent.
  const uint8_t nothing = 0;
  const int code =
      kelvane_apply_open(&applier_, bytes_.empty() ? &nothing : bytes_.data(), size(), flags);
  if (code != KELVANE_APPLY_OK) {
    fatal("patch file '%s' is damaged at offset %u: %s", name_.c_str(), applier_.error_position,
          kelvane_apply_text(code));
  }
  kelvane_apply_info(&applier_, &info_);
}

PatchFile::Rank PatchFile::rank(uint32_t flags, const KnownSizes& known) {
  const bool sound =
      kelvane_apply_open(&applier_, bytes_.data(), size(), flags) == KELVANE_APPLY_OK;
  // The sizes count where the commands are damaged, too.
  const bool big_endian = (flags & KELVANE_V0_BIG_ENDIAN) != 0;
  info_.old_size = word_at(bytes_, kV0OldSize, big_endian);
  info_.new_size = word_at(bytes_, kV0NewSize, big_endian);
  if (sound) {
    kelvane_apply_info(&applier_, &info_);
  }
  uint32_t merits = 0;
  merits += known.old_file == info_.old_size ? 4U : 0U;
  merits += known.new_file == info_.new_size ? 4U : 0U;
  merits += sound ? 2U : 0U;
  merits += sound && check_files() == KELVANE_APPLY_OK ? 1U : 0U;
  return {merits, std::max(info_.old_size, info_.new_size)};
}

int PatchFile::check_files() {
  const kelvane_region room = {0, std::max(info().old_size, info().new_size)};
  const kelvane_memory memory = {nullptr, no_read, nullptr, &room, 1, KELVANE_SIZE_UNKNOWN, 0};
  return kelvane_apply_check(&applier_, &memory);
}

}  // namespace kelpatch
