#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bytes.h"
#include "image_builder.h"

// Pairs of linked images, made from a seed: functions that call each other, data with addresses of
// them, a section with a ROM copy, a compressed one, one without contents and a swap region.
namespace kelvane {

// What a section holds in memory once the target has started.
struct LoadedSection {
  std::string name;
  uint32_t address;
  Bytes contents;
};

struct LinkedImage {
  Image image;
  std::vector<LoadedSection> sections;
  uint32_t heap_address = 0;
  uint32_t heap_size = 0;  // 0: there is none
};

// How the functions of the new image come from those of the old one.
enum class ProgramChange {
  moved,      // some stand elsewhere
  exchanged,  // some have changed places
  rotated,    // some have changed places in a cycle
  inserted,   // some are new
  removed,    // some are gone
  edited,     // some have other instructions
  mixed
};

inline constexpr ProgramChange kAllProgramChanges[] = {
    ProgramChange::moved,    ProgramChange::exchanged, ProgramChange::rotated,
    ProgramChange::inserted, ProgramChange::removed,   ProgramChange::edited,
    ProgramChange::mixed};

// How large a program is.
struct ProgramSize {
  uint32_t functions = 24;
  uint32_t largest = 160;             // bytes of a function
  bool alike = false;                 // all are that large, so that exchanging them shifts no other
  std::optional<uint32_t> heap = {};  // bytes of the swap region; any number where it isn't told
};

struct MemoryPair {
  LinkedImage old_image;
  LinkedImage new_image;
};

MemoryPair make_memory_pair(ProgramChange change, ByteOrder order, const ProgramSize& size,
                            Random& random);

}  // namespace kelvane
