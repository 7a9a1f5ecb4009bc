#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "memory_image.h"

namespace kelpatch {

// Builds the memory that a target has with the image OLD, carries out the patch in it, in place and
// with the swap region as scratch space, and compares it with what the image NEW has there. Ends
// the run with status 1 and words on what differs first: the patch was made for another memory, a
// section of NEW has no partner in OLD or comes out wrong, a checksum leaves a section out or
// differs; with status 2 for a damaged file, and for a patch that reaches outside the sections and
// the swap region.
void verify_memory(const std::string& old_name, const std::string& new_name,
                   const std::string& patch_name, const ImageOptions& options);

// Opens a patch for the memory of an image. Ends the run if it is damaged, one for a file, or of
// another byte order.
PatchFile open_memory_patch(const std::string& name, const MemoryImage& image);

// What the command line says of the outcome of apply.
struct MemoryOutput {
  std::string name;
  // Of the first byte of one image; without it `name` is a folder, and each section becomes a file
  // there, named by its address.
  std::optional<uint32_t> base;
  std::optional<uint32_t> max_size;  // the most bytes; by default as in file mode
};

// Builds the memory that a target has with the image OLD, carries out the patch and writes the
// sections that it leaves. Ends the run as verify_memory does.
void apply_memory(const std::string& old_name, const std::string& patch_name,
                  const MemoryOutput& output, const ImageOptions& options);

}  // namespace kelpatch
