// An outside program that tells a patch as a value, with the writer alone.

#include <patch_writer.h>

#include <utility>

int main() {
  kelvane::patch_commands commands;
  commands.blocks.push_back({0x100, 0x40, 8});
  const kelvane::format_settings settings;
  const size_t size = kelvane::size_of_patch(commands, settings);
  return kelvane::write_patch(std::move(commands), {}, settings).size() == size ? 0 : 1;
}
