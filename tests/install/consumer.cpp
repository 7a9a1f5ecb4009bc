// An outside program that uses both installed libraries. For each letter of its argument it makes a
// patch, with increments and with something that compresses, and writes it to standard output, all
// in this process; the test compares that with a process for each.

#include <applier.h>
#include <diffshared.h>
#include <engine_settings.h>
#include <indgeninit.h>
#include <patch_buffer.h>

#include <cstdint>
#include <cstdio>
#include <vector>

namespace {

// Words that differ by a value of the letter's own, and a repeated text.
std::vector<uint8_t> image(char letter, bool second) {
  std::vector<uint8_t> bytes;
  for (uint32_t i = 0; i < 800; ++i) {
    const auto low = static_cast<uint8_t>(i % 100 + (second ? static_cast<uint32_t>(letter) : 0U));
    bytes.insert(bytes.end(), {low, static_cast<uint8_t>(i * i), static_cast<uint8_t>(i / 3), 1});
  }
  if (second) {
    for (uint32_t i = 0; i < 200; ++i) {
      bytes.push_back(static_cast<uint8_t>(letter + static_cast<char>(i % 7)));
    }
  }
  return bytes;
}

void write_patch_of(char letter) {
  std::vector<uint8_t> old_image = image(letter, false);
  std::vector<uint8_t> new_image = image(letter, true);
  kelvane::file_data first = {};
  first.name = "old";
  first.bytes = old_image.data();
  first.size = static_cast<int32_t>(old_image.size());
  kelvane::file_data second = {};
  second.name = "new";
  second.bytes = new_image.data();
  second.size = static_cast<int32_t>(new_image.size());
  kelvane::reset_engine();
  kelvane::version = 1;
  kelvane::incr_enabled = 1;
  kelvane::do_diff(first.bytes, 0, 3200, second.bytes, 0, 3400, 16, 1000, 0);
  uint8_t* bytes = nullptr;
  uint32_t size = 0;
  kelvane::dump_to_buf(&first, &second, &bytes, &size);
  std::fwrite(bytes, 1, size, stdout);
}

}  // namespace

int main(int argc, char** argv) {
  kelvane::gen_init("consumer", 0, 1);
  for (const char* letter = argc > 1 ? argv[1] : ""; *letter != '\0'; ++letter) {
    write_patch_of(*letter);
  }
  std::fprintf(stderr, "applier says '%s'\n", kelvane_apply_text(KELVANE_APPLY_OK));
  return kelvane::incr_values > 0 ? 0 : 1;
}
