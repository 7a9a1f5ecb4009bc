#include "kelvane.h"

#include <gtest/gtest.h>

#include <optional>

#include "captured_run.h"
#include "debug_print.h"
#include "engine_fixture.h"
#include "engine_settings.h"
#include "indgen_memory.h"
#include "motion.h"
#include "operation_table.h"

namespace kelvane {
namespace {

struct Section {
  std::string name;
  uint32_t addr;
  std::string text;  // the contents in the file
  uint32_t size;     // of a section without contents, or of an expanded one
  uint32_t type;
  bool compressed;
};

// An image whose file holds the contents end to end, behind a first byte.
class TestImage {
 public:
  TestImage(const char* name, const std::vector<Section>& sections) : bytes_(1, 0) {
    names_.reserve(sections.size());
    for (const Section& section : sections) {
      names_.push_back(section.name);
      const auto size = static_cast<uint32_t>(section.text.size());
      sym_addr record = {};
      record.name = names_.back().data();
      record.type = section.type;
      record.addr.low = section.addr;
      record.offset.low = static_cast<uint32_t>(bytes_.size()) - 1;
      record.object_start = 1;
      record.size = section.size != 0 ? section.size : size;
      record.compressed_size = section.compressed ? size : 0;
      records_.push_back(record);
      bytes_.insert(bytes_.end(), section.text.begin(), section.text.end());
    }
    file_ = {name, bytes_.data(),   static_cast<int32_t>(bytes_.size()), 0,
             0,    records_.data(), records_.data() + records_.size(),   0};
  }
  TestImage(const TestImage&) = delete;
  TestImage& operator=(const TestImage&) = delete;

  const file_data* file() const { return &file_; }
  const Bytes& bytes() const { return bytes_; }

 private:
  std::vector<std::string> names_;
  std::vector<sym_addr> records_;
  Bytes bytes_;
  file_data file_;
};

// The sections of two images, and what a comparison of them made.
class MemoryMode : public EngineTest {
 protected:
  std::string compare() {
    first_.emplace("old", sections_[0]);
    second_.emplace("new", sections_[1]);
    const Bytes before = first_->bytes();
    diff_mem(first_->file(), second_->file(), 100, 1000, -1);
    EXPECT_EQ(first_->bytes(), before);
    return shown(first_move);
  }
  void start_afresh() {
    reset_all_state();
    sections_[0].clear();
    sections_[1].clear();
  }

  // The commands of a list, each by address and size, and the bytes that it stores, if any.
  static std::string shown(const command_record* list, bool stores = false) {
    std::string all;
    for (; list != nullptr; list = list->next) {
      char text[64];
      std::snprintf(text, sizeof text, "%s%x:%d", all.empty() ? "" : "/", list->address,
                    list->size);
      all += text;
      all += stores ? ":" + text_of(Bytes(list->data.bytes, list->data.bytes + list->size)) : "";
    }
    return all;
  }

  std::vector<Section> sections_[2];
  std::optional<TestImage> first_;
  std::optional<TestImage> second_;
};

TEST_F(MemoryMode, MakesWhatTheTableTells) {
  using Text = const std::string&;
  // clang-format off
  check_table({
      {"afresh", [this](Text) { start_afresh(); return ""; }},
      {"debug", [](int32_t level) { debug_level = level; return ""; }},
      {"swap_blocks", [](uint8_t on) { swap_block_enabled = on; return ""; }},
      {"section", [this](int32_t image, Text name, uint32_t addr, Text text) {
        sections_[image - 1].push_back({name, addr, text, 0, 1, false});
        return "";
      }},
      {"special", [this](int32_t image, Text name, uint32_t addr, Text text, uint32_t size, uint32_t type, int32_t compressed) {
        sections_[image - 1].push_back({name, addr, text, size, type, compressed != 0});
        return "";
      }},
      {"compare", [this](Text) { return compare(); }},
      {"stores", [](Text) { return shown(first_sub_one, true); }},
      {"sums", [](Text) { return shown(first_checksum1); }},
      {"other_commands", [](Text) {
        return (first_sub != nullptr ? 1 : 0) + (first_fill != nullptr ? 2 : 0) + (first_abs_move != nullptr ? 4 : 0);
      }},
      {"sum_of_old", [this](Text) {
        uint32_t sum = 0;
        for (size_t i = 1; i < first_->bytes().size(); ++i) {
          sum = (sum << 7U | sum >> 25U) + first_->bytes()[i];
        }
        return checksum1 == sum;
      }},
      {"sum_is_0", [](Text) { return checksum1 == 0; }},
      {"sums_are_equal", [](Text) { return checksum1 == checksum2; }},
  }, KELVANE_TABLES "kelvane.table");
  // clang-format on
}

TEST_F(MemoryMode, NamesTheFirstOverlapAmongMany) {
  std::vector<Section>& sections = sections_[0];
  for (uint32_t i = 0; i < 32768; ++i) {
    sections.push_back({".s" + std::to_string(i), 0x70000000 + 16 * i, "", 16, 8, false});
  }
  {
    const TestImage many("old", sections);
    check_overlap(many.file()->sections, 32768, "old");
  }
  // The order of the pairs counts, not that of the places where they overlap.
  sections[20000].size = 17;
  sections[10].size = 40;
  EXPECT_EQ(capture([this] { compare(); }).errors,
            "fatal: old: section '.s11' overlaps section '.s10'\n");
  // Addresses are signed here, so a section over the middle of all addresses meets none.
  const TestImage middle(
      "old", {{".m", 0x7FFFFFFC, "", 8, 8, false}, {".n", 0x80000000, "", 16, 8, false}});
  check_overlap(middle.file()->sections, 2, "old");
}

}  // namespace
}  // namespace kelvane
