#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cctype>
#include <cstdarg>
#include <cstdlib>
#include <memory>
#include <string_view>
#include <utility>

#include "indgen_file.h"
#include "indgen_file_internal.h"
#include "indgen_memory.h"
#include "indgen_path.h"
#include "indgen_string.h"
#include "indview.h"

// Reading text.
namespace kelvane {

namespace {

constexpr uint32_t kLineStep = 250;        // bytes by which a caller's buffer grows
constexpr uint32_t kFirstLineRoom = 1024;  // doubled before a line of gen_afgets is first read
constexpr size_t kCountBlock = 65536;      // bytes looked at together when lines are counted

// A caller's buffer that a line or a word is gathered in.
class Gatherer {
 public:
  Gatherer(char** buffer, int32_t* size) : buffer_(buffer), size_(size) {}

  bool is_empty() const { return length_ == 0; }

  void store(int c) {
    make_room(2);  // it and the terminator
    (*buffer_)[length_++] = static_cast<char>(c);
  }

  // Terminates the text and gives the buffer.
  char* finish() {
    make_room(1);
    (*buffer_)[length_] = '\0';
    return *buffer_;
  }

 private:
  void make_room(int32_t bytes) {
    if (*buffer_ == nullptr || *size_ - length_ < bytes) {
      const uint32_t size = static_cast<uint32_t>(*size_) + kLineStep;
      *buffer_ = static_cast<char*>(gen_allocate(*buffer_, 1, size));
      *size_ = static_cast<int32_t>(size);
    }
  }

  char** buffer_;
  int32_t* size_;
  int32_t length_ = 0;
};

// A buffer of our own for gen_getline.
struct LineBuffer {
  char* text = nullptr;
  int32_t size = 0;
  LineBuffer() = default;
  ~LineBuffer() { gen_free(text); }
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;
};

bool is_white(char c) {
  return std::isspace(static_cast<unsigned char>(c)) != 0;
}

}  // namespace

char* gen_getline(std::FILE* stream, char** buffer, int32_t* size) {
  Gatherer line(buffer, size);
  int c = std::getc(stream);
  while (c != EOF && c != '\n' && c != '\r') {
    line.store(c);
    c = std::getc(stream);
  }
  if (c == '\r') {
    c = std::getc(stream);
  }
  return line.is_empty() && c == EOF ? nullptr : line.finish();
}

char* gen_gettoken(std::FILE* stream, char** buffer, int32_t* size) {
  Gatherer word(buffer, size);
  int c = std::getc(stream);
  while (gen_isspace(c)) {
    c = std::getc(stream);
  }
  while (c != EOF && !gen_isspace(c)) {
    word.store(c);
    c = std::getc(stream);
  }
  return word.is_empty() ? nullptr : word.finish();
}

char* gen_afgets(std::FILE* stream) {
  if (stream == nullptr) {
    return nullptr;
  }
  gen_ptr<char> line(gen_alloc_array<char>(1));
  uint32_t capacity = kFirstLineRoom;
  uint32_t length = 0;
  for (;;) {
    capacity *= 2;
    char* const grown = static_cast<char*>(gen_allocate(line.get(), 1, capacity));
    static_cast<void>(line.release());
    line.reset(grown);
    // fgets reaches this byte only when the line fills the buffer.
    char& last = grown[capacity - 2];
    last = '\0';
    if (std::fgets(grown + length, static_cast<int>(capacity - length), stream) == nullptr ||
        last == '\0' || last == '\n') {
      return line.release();
    }
    length = capacity - 1;
  }
}

int32_t gen_count_lines_in_file(const char* name) {
  const file_ptr stream(gen_fopen(name, "r"));
  if (!stream) {
    return 0;
  }
  std::array<char, kCountBlock> block;
  int32_t lines = 0;
  char last = '\n';  // an empty file has no line begun
  while (const size_t length = std::fread(block.data(), 1, block.size(), stream.get())) {
    for (const char c : std::string_view(block.data(), length)) {
      lines += c == '\n' ? 1 : 0;
    }
    last = block[length - 1];
  }
  return last == '\n' ? lines : lines + 1;
}

ssize_t gen_getfile(const char* name, void* buffer, size_t length) {
  const FileDescriptor file(gen_open(name, O_RDONLY, 0));
  return file.is_open() ? ::read(file.get(), buffer, length) : file.get();
}

int32_t gen_readfile_into_buffer(const char* name, char** buffer, int32_t* size) {
  const int32_t expected = gen_filesize(name);
  if (expected < 0) {
    return -1;
  }
  const auto length = static_cast<size_t>(expected);
  // One byte more, so that an empty file has a block too.
  platform_ptr block(static_cast<char*>(std::malloc(length + 1)));
  const file_ptr stream(block ? gen_fopen(name, "r") : nullptr);
  if (!stream || std::fread(block.get(), 1, length, stream.get()) != length) {
    return -1;
  }
  *buffer = block.release();
  if (size != nullptr) {
    *size = expected;
  }
  return 0;
}

char* gen_getsinglelineasciifile(const char* root, const char* directory, const char* file,
                                 const char* fallback) {
  gen_ptr<char> name;
  if (directory != nullptr && file != nullptr) {
    name.reset(gen_dsconcat(root, directory, file));
  } else if (directory != nullptr || file != nullptr) {
    name.reset(gen_sconcat(root, directory != nullptr ? directory : file));
  } else {
    name.reset(gen_copy(root));
  }
  const file_ptr stream(name ? gen_fopen(name.get(), "r") : nullptr);
  if (stream) {
    LineBuffer line;
    if (gen_getline(stream.get(), &line.text, &line.size) != nullptr) {
      return std::exchange(line.text, nullptr);
    }
  }
  return gen_copy(fallback);
}

char** gen_get_words_from_file(const char* name, int32_t* count) {
  if (count != nullptr) {
    *count = 0;
  }
  if (name == nullptr || gen_filesize(name) < 0) {
    return nullptr;
  }
  char* contents = nullptr;
  int32_t size = 0;
  gen_readfile_into_buffer(name, &contents, &size);
  const platform_ptr owned(contents);
  StringList words;
  const std::string_view text(contents, static_cast<size_t>(size));
  size_t position = 0;
  while (position < text.size()) {
    const size_t start = position;
    while (position < text.size() && !is_white(text[position])) {
      ++position;
    }
    if (position > start) {
      words.add(text.substr(start, position - start));
    } else {
      ++position;
    }
  }
  if (count != nullptr) {
    *count = words.count();
  }
  return words.release();
}

int32_t gen_append_to_file(const char* name, const char* format, ...) {
  const file_ptr stream(gen_fopen(name, "a"));
  if (!stream) {
    return -1;
  }
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stream.get(), format, arguments);
  va_end(arguments);
  return 0;
}

}  // namespace kelvane
