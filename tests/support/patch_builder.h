#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelvane {

// Makes patches by hand, command by command, for tests of those who read them. It writes what it is
// told, sound or not.
class PatchBuilder {
 public:
  enum class Order { kLittle, kBig };

  struct Block {
    uint32_t source;
    uint32_t size;
    uint32_t shift;
  };
  struct Store {
    uint32_t address;
    std::string data;
  };
  struct Fill {
    uint32_t address;
    uint16_t size;
    uint8_t value;
  };
  struct Region {
    uint32_t start;
    uint32_t end;
  };
  // Words that grow by `value`; `map` 0 stands for the default one.
  struct Class {
    uint32_t value;
    std::vector<uint32_t> addresses;
    uint32_t map = 0;
  };
  using Stores = std::vector<Store>;

  explicit PatchBuilder(Order order) : order_(order) {}

  // Append fields, and commands made of them. Each gives the builder.
  PatchBuilder& byte(uint32_t value);
  PatchBuilder& half(uint32_t value);
  PatchBuilder& word(uint32_t value);
  PatchBuilder& bytes(std::string_view data);
  PatchBuilder& move(const std::vector<Block>& blocks);
  // `code` 1, 2 or 5; for 5 the data are compressed already.
  PatchBuilder& substitute(uint32_t code, const Stores& absolute,
                           const std::vector<Stores>& relative = {});
  PatchBuilder& fill(const std::vector<Fill>& fills);
  PatchBuilder& checksum(const std::vector<Region>& regions, uint32_t sum);
  PatchBuilder& increments(const std::vector<Class>& classes);

  // What has been appended, and whole patches that hold it.
  const std::string& commands() const { return bytes_; }
  std::string version0(std::string_view old_file, std::string_view new_file) const;
  std::string version1(std::string_view old_file, std::string_view new_file) const;
  std::string version1_memory(uint32_t old_crt1, uint32_t new_crt1) const;

 private:
  std::string file_fields(std::string_view old_file, std::string_view new_file) const;

  Order order_;
  std::string bytes_;
};

// The checksum of the format: rotate left by 7, add the byte.
uint32_t patch_checksum(std::string_view bytes, uint32_t sum = 0);

// Bytes from their hexadecimal digits; blanks between them are left out.
std::string from_hex(std::string_view digits);

}  // namespace kelvane
