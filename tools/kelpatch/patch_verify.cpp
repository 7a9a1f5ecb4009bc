#include "patch_verify.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace kelpatch {
namespace {

int read_bytes(void* context, uint32_t address, uint8_t* bytes, uint32_t count) {
  const Bytes& memory = *static_cast<const Bytes*>(context);
  std::copy_n(memory.begin() + address, count, bytes);
  return 0;
}

int write_bytes(void* context, uint32_t address, const uint8_t* bytes, uint32_t count) {
  Bytes& memory = *static_cast<Bytes*>(context);
  std::copy_n(bytes, count, memory.begin() + address);
  return 0;
}

uint32_t size_of(const Bytes& bytes) {
  return static_cast<uint32_t>(bytes.size());
}

// Ends the run unless `bytes`, the `which` file, have the size and the checksum that the patch
// states for it.
void compare_with_header(const char* which, const std::string& name, const Bytes& bytes,
                         const std::string& patch_name, uint32_t size, uint32_t checksum) {
  if (size_of(bytes) != size) {
    mismatch("'%s' is not the %s file of '%s': it has %" PRIu32 " bytes, not %" PRIu32,
             name.c_str(), which, patch_name.c_str(), size_of(bytes), size);
  }
  const uint32_t sum = kelvane_apply_checksum(0, bytes.data(), size_of(bytes));
  if (sum != checksum) {
    mismatch("'%s' is not the %s file of '%s': its checksum is 0x%08" PRIx32 ", not 0x%08" PRIx32,
             name.c_str(), which, patch_name.c_str(), sum, checksum);
  }
}

void require_file_mode(PatchFile& patch) {
  if (patch.info().memory_mode != 0) {
    fatal("'%s' is a patch for target memory, and only a patch for a file can be applied here",
          patch.name().c_str());
  }
  if (std::max(patch.info().old_size, patch.info().new_size) > kLargestFile) {
    fatal("'%s' is for a file of more than %u bytes", patch.name().c_str(), kLargestFile);
  }
  if (!patch.fits_files()) {
    fatal("'%s' changes the address 0x%" PRIx32 " (at offset %" PRIu32
          "), outside the old and the new file%s",
          patch.name().c_str(), patch.applier()->error_address, patch.applier()->error_position,
          patch.info().version == 0 ? ": it may be for target memory or have another byte order"
                                    : "");
  }
}

// The bytes of the new file.
Bytes result_of(PatchFile& patch, const std::string& old_name, Bytes contents) {
  const kelvane_patch_info& info = patch.info();
  compare_with_header("old", old_name, contents, patch.name(), info.old_size, info.old_checksum);
  contents.resize(std::max(info.old_size, info.new_size));
  const kelvane_region room = {0, size_of(contents)};
  const kelvane_memory memory = {&contents, read_bytes, write_bytes, &room, 1, info.old_size};
  // All addresses lie inside and a vector can't fail, so only the last verification is left to.
  const int code = kelvane_apply_run(patch.applier(), &memory, KELVANE_SKIP_OLD);
  contents.resize(info.new_size);
  if (code != KELVANE_APPLY_OK) {
    mismatch("the result of '%s' has the checksum 0x%08" PRIx32 ", not 0x%08" PRIx32,
             patch.name().c_str(), kelvane_apply_checksum(0, contents.data(), size_of(contents)),
             info.new_checksum);
  }
  return contents;
}

// The name of a file that `name` stands for: a link is followed, so that it stays a link.
std::string without_links(const std::string& name) {
  const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(name.c_str(), nullptr),
                                                             std::free);
  return resolved ? resolved.get() : name;
}

// A new file under a name of its own, beside the one that it is to become. It is removed unless it
// is kept.
class OutputFile {
 public:
  explicit OutputFile(const std::string& name)
      : shown_name_(name), name_(without_links(name)), temporary_name_(name_ + ".XXXXXX") {
    struct stat status = {};
    const bool exists = ::stat(name_.c_str(), &status) == 0;
    if (exists && !S_ISREG(status.st_mode)) {
      fatal("output file '%s' exists and is not a regular file", name.c_str());
    }
    file_ = ::mkstemp(temporary_name_.data());
    if (file_ < 0) {
      fatal_errno("unable to open output file '%s'", name.c_str());
    }
    const mode_t mask = ::umask(0);
    ::umask(mask);
    ::fchmod(file_, exists ? status.st_mode & 0777U : 0666U & ~mask);
  }
  ~OutputFile() {
    if (file_ >= 0) {
      ::close(file_);
    }
    if (!kept_) {
      ::unlink(temporary_name_.c_str());
    }
  }
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  void write(const Bytes& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t count = ::write(file_, bytes.data() + done, bytes.size() - done);
      if (count < 0 && errno != EINTR) {
        fail();
      }
      done += static_cast<size_t>(std::max(count, ssize_t{0}));
    }
  }

  // Gives the file its name, in place of what had it.
  void keep() {
    if (::fsync(file_) != 0 && errno != EINVAL && errno != EROFS) {
      fail();
    }
    if (::close(std::exchange(file_, -1)) != 0 ||
        std::rename(temporary_name_.c_str(), name_.c_str()) != 0) {
      fail();
    }
    kept_ = true;
  }

 private:
  [[noreturn]] void fail() const {
    fatal_errno("error writing output file '%s'", shown_name_.c_str());
  }

  std::string shown_name_;
  std::string name_;
  std::string temporary_name_;
  int file_ = -1;
  bool kept_ = false;
};

bool is_same_file(const std::string& first, const std::string& second) {
  struct stat one = {};
  struct stat other = {};
  return ::stat(first.c_str(), &one) == 0 && ::stat(second.c_str(), &other) == 0 &&
         one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

}  // namespace

void apply_patch(const std::string& old_name, const std::string& patch_name,
                 const std::string& new_name, ByteOrder order) {
  if (is_same_file(new_name, old_name) || is_same_file(new_name, patch_name)) {
    fatal("output file '%s' is also an input file", new_name.c_str());
  }
  Bytes old_file = read_input(old_name);
  PatchFile patch(patch_name, order, {size_of(old_file), {}});
  require_file_mode(patch);
  const Bytes new_file = result_of(patch, old_name, std::move(old_file));
  OutputFile output(new_name);
  output.write(new_file);
  output.keep();
}

void verify_patch(const std::string& old_name, const std::string& new_name,
                  const std::string& patch_name, ByteOrder order) {
  Bytes old_file = read_input(old_name);
  const Bytes new_file = read_input(new_name);
  PatchFile patch(patch_name, order, {size_of(old_file), size_of(new_file)});
  require_file_mode(patch);
  const Bytes result = result_of(patch, old_name, std::move(old_file));
  compare_with_header("new", new_name, new_file, patch_name, patch.info().new_size,
                      patch.info().new_checksum);
  // Equal checksums are not equal bytes.
  const auto place = std::mismatch(result.begin(), result.end(), new_file.begin()).first;
  if (place != result.end()) {
    mismatch("'%s' differs from the result of '%s' at offset %td", new_name.c_str(),
             patch_name.c_str(), place - result.begin());
  }
}

}  // namespace kelpatch
