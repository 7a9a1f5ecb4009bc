#include "kelmake_images.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>

#include "exit_status.h"
#include "indgen_message.h"
#include "indgeninit.h"
#include "load.h"
#include "motion.h"
#include "options.h"
#include "patch_file.h"
#include "printable.h"

namespace kelmake {
namespace {

using kelvane::kStatusFailure;

constexpr uint32_t kWarning = 4;
constexpr uint64_t kAddressEnd = uint64_t{1} << 32U;

// How messages of the readers are printed while images are read.
struct MessageState {
  void (*print)(uint32_t code, const char* format, va_list arguments);
  bool no_warnings;
  const char* file_name;  // that is being read, or null
};
MessageState messages;

void print_message(uint32_t code, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  messages.print(code, format, arguments);
  va_end(arguments);
}

// Adds the name of the file where a message tells none. Names of sections come from the file.
void print_for_file(uint32_t code, const char* format, va_list arguments) {
  if (code == kWarning && messages.no_warnings) {
    return;
  }
  const int reason = errno;
  std::string told = kelpatch::formatted_list(format, arguments);
  if (messages.file_name != nullptr &&
      told.find("'" + std::string(messages.file_name) + "'") == std::string::npos) {
    told = "image '" + std::string(messages.file_name) + "': " + told;
  }
  told = kelpatch::printable(told);
  errno = reason;
  print_message(code, "%s", told.c_str());
}

class ReadersMessages {
 public:
  explicit ReadersMessages(bool no_warnings) {
    messages = {kelvane::gen_domessage, no_warnings, nullptr};
    kelvane::gen_domessage = print_for_file;
  }
  ~ReadersMessages() { kelvane::gen_domessage = messages.print; }
  ReadersMessages(const ReadersMessages&) = delete;
  ReadersMessages& operator=(const ReadersMessages&) = delete;
};

// The symbols of the file are then those of kelvane::table.
void load(kelvane::file_data* record, const std::string& name) {
  kelvane::table = {};
  messages.file_name = name.c_str();
  if (kelvane::load_file(record, name.c_str()) != 1) {
    kelvane::gen_exit(kStatusFailure);
  }
  messages.file_name = nullptr;
  if (record->sections == record->sections_end) {
    kelpatch::fatal("'%s' has no sections that could be compared: it has to be an ELF image",
                    name.c_str());
  }
}

}  // namespace

MemoryImages::LoadedFile::~LoadedFile() {
  kelvane::release_file(&record);
}

MemoryImages::MemoryImages(const Options& options) {
  const ReadersMessages readers(options.quiet);
  kelvane::gen_endian_init();
  kelvane::fDiffMemory = 1;
  for (const std::string& alias : options.aliases) {
    kelvane::get_alias(alias.c_str());
  }
  kelvane::exclude_file = options.exclude_name.empty() ? nullptr : options.exclude_name.c_str();
  kelvane::read_exclude_file();
  kelvane::file_data& old_record = old_file_.record;
  kelvane::file_data& new_record = new_file_.record;
  load(&old_record, options.old_name);
  kelvane::table1 = kelvane::table;
  load(&new_record, options.new_name);
  kelvane::table2 = kelvane::table;
  kelvane::check_byte_orders(&old_record, &new_record);
  order_ = old_record.big_endian != 0 ? kelvane::ByteOrder::kBig : kelvane::ByteOrder::kLittle;
  pair_sections();
  refuse_overlaps(false, old_record.name);
  refuse_overlaps(true, new_record.name);
  for (const kelvane::file_data* const record : {&old_record, &new_record}) {
    if (options.format == 1 && record->crt1 == 0) {
      kelpatch::fatal("could not find __qvr_ind_crt1() in '%s'", record->name);
    }
  }
  header_ = {old_record.checksum,
             new_record.checksum,
             static_cast<uint32_t>(old_record.size),
             static_cast<uint32_t>(new_record.size),
             old_record.crt1,
             new_record.crt1};
}

void MemoryImages::pair_sections() {
  const kelvane::section_pairing pairing(&old_file_.record, &new_file_.record);
  for (uint32_t k = 0; k < pairing.count(); ++k) {
    std::optional<kelvane::section_pair> pair = pairing.pair_at(k);
    if (!pair) {
      continue;
    }
    kelvane::refuse_far_pair(*pair);
    pairs_.push_back(
        {{pair->address1, {pair->contents1.bytes, pair->size1}, pair->contents1.is_zero},
         {pair->address2, {pair->contents2.bytes, pair->size2}, pair->contents2.is_zero}});
    sections_.push_back({pair->name, pair->address1, pair->size1, pair->address2, pair->size2});
    contents_.push_back(*std::move(pair));
  }
  const kelvane::address_range swap =
      kelvane::find_swap_region(kelvane::table1, kelvane::table2, pairing.compared());
  const uint64_t end = std::min(uint64_t{swap.start} + swap.size, kAddressEnd);
  spare_ = {swap.start, static_cast<uint32_t>(end - swap.start)};
}

// The test of all sections takes addresses for signed numbers, and sees nothing of two that meet
// where these change their sign.
void MemoryImages::refuse_overlaps(bool of_new, const char* file_name) const {
  std::vector<std::pair<uint32_t, const ComparedSection*>> ordered;
  for (const ComparedSection& section : sections_) {
    if ((of_new ? section.new_size : section.old_size) != 0) {
      ordered.emplace_back(of_new ? section.new_address : section.old_address, &section);
    }
  }
  std::sort(ordered.begin(), ordered.end());
  for (size_t i = 0; i + 1 < ordered.size(); ++i) {
    const auto& [address, section] = ordered[i];
    if (ordered[i + 1].first - address < (of_new ? section->new_size : section->old_size)) {
      kelpatch::fatal("%s: section '%s' overlaps section '%s'", file_name,
                      ordered[i + 1].second->name.c_str(), section->name.c_str());
    }
  }
}

}  // namespace kelmake
