#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "patch_file.h"

// What a target's memory holds, built from a linked image: an ELF32 file of either byte order. The
// reader here knows what a verification needs and nothing else, and shares no code with the program
// that makes patches, so that a mistake of one is no mistake of the other.
//
// A section counts under the name that it has in memory:
//
//   in the image                 in memory
//   .romfl1 .romfl2 .romfl3      .rflow1 .rflow2 .rflow3
//   .UNCOMPRESSED*  .ROM*        the text behind that
//   .rom*                        "." and the text behind that
//   .cromt_*                     .text_*, compressed
//   .crom*                       "." and the text behind that, compressed
//   any other                    its own name, if it is allocated (SHF_ALLOC)
//
// Sections of one name in memory are one: the one that bears the name gives the address, the last
// of them the size, and the first or the last with contents what it holds.
namespace kelpatch {

// A region of memory that is seen at a second address, as the option -alias of kelvane names it.
struct Alias {
  uint32_t address;
  uint32_t mask;
};

// What the command line says of the images.
struct ImageOptions {
  std::vector<std::string> excluded;  // names in memory of sections that don't take part
  std::vector<Alias> aliases;
};

// The words of an exclude file, as the option -exclude of kelvane reads it: white space stands
// behind each, and a last one without any doesn't count.
std::vector<std::string> read_exclusions(const std::string& file_name);

struct MemorySection {
  std::string name;
  uint32_t address;
  uint32_t size;
  Bytes contents;  // expanded; bytes that are not there are 0
};

// Part of the memory.
struct Range {
  uint32_t address;
  uint32_t size;
};

class MemoryImage {
 public:
  // Reads the image. One that is damaged, or has sections that overlap, ends the run.
  MemoryImage(const std::string& name, const ImageOptions& options);

  const std::string& name() const { return name_; }
  const Bytes& file() const { return file_; }
  bool big_endian() const { return big_endian_; }
  // In ascending order of addresses.
  const std::vector<MemorySection>& sections() const { return sections_; }
  // The section of that name, or null.
  const MemorySection* find(const std::string& section) const;
  // The section that holds the address, or null.
  const MemorySection* holding(uint32_t address) const;
  // The symbol ".heap", which a patch may use as scratch space; of size 0 if there is none.
  Range heap() const { return heap_; }

 private:
  std::string name_;
  Bytes file_;
  bool big_endian_ = false;
  std::vector<MemorySection> sections_;
  std::map<std::string, size_t> places_;  // in `sections_`, by name
  Range heap_ = {0, 0};
};

// The memory of a target: all of its addresses, of which those that nothing was stored at hold 0.
class TargetMemory {
 public:
  void load(const MemorySection& section);
  void read(uint32_t address, uint8_t* bytes, uint32_t count) const;
  void write(uint32_t address, const uint8_t* bytes, uint32_t count);

 private:
  static constexpr uint32_t kPage = 4096;
  std::map<uint32_t, Bytes> pages_;  // by address / kPage
};

}  // namespace kelpatch
