#include "pecoff.h"

#include "format_fixture.h"
#include "pecoff_internal.h"

namespace kelvane {
namespace {

using Pe = FormatTest;

struct Optional : pe::optional_header {
  Optional() : pe::optional_header{} {}
  ~Optional() { free_pecoff_optheader(this); }
  Optional(const Optional&) = delete;
  Optional& operator=(const Optional&) = delete;
};

// What is printed counts as said.
template <typename Print>
void say(Print print) {
  std::fputs(printed_by(print).c_str(), stderr);
}

// A record read, printed, and written again.
template <typename Record>
Operation record(const char* name, int32_t (*read)(Record*, std::FILE*),
                 void (*write)(const Record*, std::FILE*), void (*print)(const Record*)) {
  return {name, [=](const std::string& digits) {
            const file_ptr stream = stream_of(bytes_from(digits));
            Record fields = {};
            const int32_t result = read(&fields, stream.get());
            say([&] { print(&fields); });
            return digits_of(written_by([&](std::FILE* out) { write(&fields, out); })) +
                   ending(result, stream.get());
          }};
}

// The same for an optional header, whose entries are counted: those linked from the first fixed one
// on, and the extra ones.
std::string optional(int32_t size, const std::string& digits) {
  const Bytes bytes = bytes_from(digits);
  const file_ptr stream = stream_of(bytes);
  Optional header;
  const int32_t result = read_pecoff_optheader(&header, size, stream.get());
  if (result != 0) {
    EXPECT_EQ(header.extra, nullptr);
    return std::to_string(result);
  }
  const auto length_of = [](const pe::image_dir_entry* entry) {
    int32_t count = 0;
    for (; entry != nullptr; entry = entry->next) {
      ++count;
    }
    return std::to_string(count);
  };
  say([&] { print_pecoff_optheader(&header, size); });
  const Bytes written =
      written_by([&](std::FILE* out) { write_pecoff_optheader(&header, size, out); });
  EXPECT_EQ(written, Bytes(bytes.begin(), bytes.begin() + std::ftell(stream.get())));
  return length_of(header.fixed) + ":" + length_of(header.extra) + ending(result, stream.get());
}

TEST_F(Pe, GivesWhatTheTableTells) {
  // clang-format off
  check_table({
      {"line", [](const char* label, uint32_t value, const char* suffix) {
        return printed_by([&] { print_num_line(label, value, suffix); });
      }},
      record("file_header", read_pecoff_fileheader, write_pecoff_fileheader, print_pecoff_fileheader),
      record("section", read_pecoff_scnhdr, write_pecoff_scnhdr, print_pecoff_scnhdr),
      record("debug", read_pecoff_debug_dir, write_pecoff_debug_dir, print_pecoff_debug_dir),
      KELVANE_OPERATION(optional),
      {"flags", [](uint32_t flags) { return printed_by([=] { print_pecoff_section_flags(flags); }); }},
      {"held", [](uint32_t in_memory, uint32_t in_file, uint32_t place) {
        pe::section_header section = {};
        section.VirtualSize = in_memory;
        section.SizeOfRawData = in_file;
        section.PointerToRawData = place;
        return calc_sizeof_rawdata_in_pecoff_section(&section);
      }},
      {"machine", pecoff_machinename}, {"type", pecoff_debug_dir_type_name},
      {"skip", [](const std::string& digits) {
        const file_ptr stream = stream_of(bytes_from(digits));
        std::fseek(stream.get(), 2, SEEK_SET);
        return skip_to_pecoff_fileheader(stream.get()) == 0 ? std::fgetc(stream.get()) : -2;
      }},
      {"nothing", [](const std::string&) {
        say([] { print_pecoff_scnhdr(nullptr); print_pecoff_debug_dir(nullptr); print_image_data("x", nullptr, ""); });
        return "";
      }},
  }, KELVANE_TABLES "pecoff.table");
  // clang-format on
}

}  // namespace
}  // namespace kelvane
