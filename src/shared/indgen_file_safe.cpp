#include <cerrno>
#include <cstring>

#include "exit_status.h"
#include "indgen_file.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_string.h"
#include "indview.h"

namespace kelvane {

namespace {

// How a report names a file.
class FileText {
 public:
  FileText(const char* name, const char* description) : text_(name) {
    if (description != nullptr) {
      const gen_ptr<char> opened(gen_concat3(description, " '", name));
      described_.reset(gen_concat(opened.get(), "'"));
      text_ = described_.get();
    }
  }
  const char* text() const { return text_ != nullptr ? text_ : "(null)"; }

 private:
  gen_ptr<char> described_;
  const char* text_;
};

const char* direction(const char* mode) {
  const char* const letter = std::strpbrk(mode, "awr");
  return letter != nullptr && *letter != 'r' ? "output" : "input";
}

void report_read_error(const char* name) {
  if (name != nullptr) {
    gen_perror("Error reading from '%s'", name);
  } else {
    gen_perror("Error reading from file");
  }
}

}  // namespace

std::FILE* gen_safe_fopen(const char* name, const char* description, const char* mode) {
  errno = 0;  // a null name fails without a reason
  std::FILE* const stream = gen_fopen(name, mode);
  if (stream == nullptr) {
    const int reason = errno;
    const FileText file(name, description);
    errno = reason;
    gen_perrorexit(kStatusFailure, "Unable to open %s for %s: ", file.text(), direction(mode));
  }
  return stream;
}

int32_t gen_safe_fclose(const char* name, const char* description, std::FILE* stream) {
  errno = 0;
  const int32_t result = std::fclose(stream);
  if (result != 0) {
    const int reason = errno;
    const FileText file(name, description);
    errno = reason;
    gen_perror("Error closing %s: ", file.text());
  }
  return result;
}

ssize_t gen_safe_fread(const char* name, void* buffer, size_t size, size_t count,
                       std::FILE* stream) {
  if (buffer == nullptr) {
    gen_error("internal: null buffer passed to gen_safe_fread");
    return -1;
  }
  errno = 0;  // the end of the file is no reason of the platform's
  const size_t items = std::fread(buffer, size, count, stream);
  if (items < 1) {
    report_read_error(name);
  }
  return static_cast<ssize_t>(items);
}

void* gen_safe_readbytes(const char* name, std::FILE* stream, void* buffer, uint32_t size) {
  gen_ptr<void> fresh;
  if (buffer == nullptr) {
    fresh.reset(gen_alloc(1, size));
    buffer = fresh.get();
  }
  errno = 0;
  if (std::fread(buffer, size, 1, stream) != 1) {
    report_read_error(name);
  }
  static_cast<void>(fresh.release());
  return buffer;
}

size_t gen_safe_fwrite(const char* name, const void* buffer, size_t size, size_t count,
                       std::FILE* stream) {
  errno = 0;
  const size_t items = std::fwrite(buffer, size, count, stream);
  if (items < count) {
    if (name != nullptr) {
      gen_perror("Error writing to '%s'", name);
    } else {
      gen_perror("Error writing to file");
    }
  }
  return items;
}

int32_t gen_safe_fseek(const char* name, std::FILE* stream, long offset, int whence) {
  const int32_t result = std::fseek(stream, offset, whence);
  if (result != 0) {
    if (name != nullptr) {
      gen_perrorexit(kStatusFailure, "seek failed to %ld in '%s'", offset, name);
    }
    gen_perrorexit(kStatusFailure, "seek failed to %ld in file", offset);
  }
  return result;
}

}  // namespace kelvane
