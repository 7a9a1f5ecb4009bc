// The dispatcher: who gets which file, and the walk over the members of a library.
#include "indobjio.h"

#include <algorithm>
#include <unordered_set>

#include "byte_reader.h"
#include "exit_status.h"
#include "indaixlib.h"
#include "indgen_file.h"
#include "indgen_memory.h"
#include "indgen_message.h"
#include "indgen_string.h"
#include "indobjio_internal.h"
#include "indview.h"
#include "oof.h"
#include "section_list.h"

namespace kelvane {

object_hook do_BSD_file_ptr = nullptr;
object_hook do_COFF_file_ptr = nullptr;
object_hook do_ELF_file_ptr = do_ELF_file;
object_hook do_QVR_file_ptr = nullptr;
object_hook do_OOF_file_ptr = nullptr;
object_hook do_import_library_file_ptr = nullptr;
object_hook do_misc_file_ptr = nullptr;
object_hook do_windows_resource_file_ptr = nullptr;
object_hook do_unknown_file_ptr = nullptr;
library_hook do_TOC_file_ptr = nullptr;
library_hook do_archive_start_ptr = nullptr;
library_hook do_archive_end_ptr = nullptr;

int32_t adi_style_ar_header = 0;
int32_t no_long_filenames_in_ar_header = 0;

object_info info = {};

namespace {

constexpr int32_t kNoHook = -1;

// The file at hand, opened twice: the hooks may move the second stream as they like.
struct OpenFile {
  const char* name;
  std::FILE* stream;
  std::FILE* second_stream;
};

// How a member is shown: in these brackets behind its library.
struct Brackets {
  const char* open;
  const char* close;
};
constexpr Brackets kRound = {"(", ")"};
constexpr Brackets kSquare = {"[", "]"};

// Describes a member in `info` as long as the object lives.
class DescribedMember {
 public:
  DescribedMember(const char* library, const char* member, const Brackets& brackets)
      : display_name_(gen_concat4(library, brackets.open, member, brackets.close)) {
    info.display_name = display_name_.get();
    info.member_name = member;
    info.in_library = 1;
    info.member_header = nullptr;
  }
  ~DescribedMember() {
    info.display_name = nullptr;
    info.member_name = nullptr;
  }
  DescribedMember(const DescribedMember&) = delete;
  DescribedMember& operator=(const DescribedMember&) = delete;

 private:
  gen_ptr<char> display_name_;
};

void set_member_offset(int64_t offset) {
  info.member_offset = static_cast<int32_t>(offset);
}

int32_t file_class_of(const file_magic* found) {
  return found != nullptr ? found->file_class : file_kind::kUnknown;
}

bool is_library(int32_t file_class) {
  return file_class == file_kind::kArchive || file_class == file_kind::kElfArchive ||
         file_class == file_kind::kOasysLibrary || file_class == file_kind::kAixArchive;
}

// The hook for a class; null for those that nobody but do_unknown_file_ptr takes.
const object_hook* hook_for(int32_t file_class) {
  switch (file_class) {
    case file_kind::kAout:
      return &do_BSD_file_ptr;
    case file_kind::kCoff:
    case file_kind::kCoffLongSymbols:
    case file_kind::kCoffPowerPc:
    case file_kind::kPe:
      return &do_COFF_file_ptr;
    case file_kind::kElf:
      return &do_ELF_file_ptr;
    case file_kind::kToolChainData:
      return &do_QVR_file_ptr;
    case file_kind::kOasysLibrary:
      return &do_OOF_file_ptr;
    case file_kind::kImportLibrary:
      return &do_import_library_file_ptr;
    case file_kind::kProfileData:
      return do_misc_file_ptr != nullptr ? &do_misc_file_ptr : nullptr;
    case file_kind::kResource:
      return &do_windows_resource_file_ptr;
    default:
      return nullptr;
  }
}

// Identifies the member at which the stream stands, and hands it over.
int32_t do_member(const OpenFile& file) {
  info.magic = indmagic(file.stream, nullptr);
  return do_object_file(file.stream, file.second_stream, &info);
}

int32_t do_archive(const OpenFile& file) {
  int32_t result = 0;
  gen_safe_fseek(file.name, file.stream, kArchiveMagicSize, SEEK_SET);
  while (archive_member* const header = read_archive_header(file.stream, file.name)) {
    if (header->size < 0) {
      archive_read_error(file.name);
    }
    const int64_t contents = std::ftell(file.stream);
    const int64_t room = int64_t{header->size} + header->size % 2;
    const DescribedMember described(file.name, header->name, kRound);
    set_member_offset(contents);
    info.member_header = header;
    if (header->is_table == 0) {
      result = do_member(file);
    } else if (do_TOC_file_ptr != nullptr) {
      do_TOC_file_ptr(file.stream, &info);
    }
    gen_safe_fseek(file.name, file.stream, contents + room, SEEK_SET);
  }
  return result;
}

// An entry of an Oasys library, read from where the stream stands.
class OasysEntry {
 public:
  OasysEntry(const OpenFile& file, uint32_t expected_number) {
    if (read_ooflib_tbl_entry(file.stream, &entry_) != kOasysLibraryWord ||
        entry_.number != expected_number) {
      free_ooflib_tbl_entry_ptr(&entry_);
      gen_errorexit(kStatusFailure, "failed reading Oasys 68K library '%s'", file.name);
    }
  }
  ~OasysEntry() { free_ooflib_tbl_entry_ptr(&entry_); }
  OasysEntry(const OasysEntry&) = delete;
  OasysEntry& operator=(const OasysEntry&) = delete;

  const char* name() const { return entry_.name != nullptr ? entry_.name : ""; }
  uint32_t offset() const { return entry_.words[kOasysMemberOffset]; }

 private:
  ooflib_tbl_entry entry_ = {};
};

int32_t do_oasys_library(const OpenFile& file) {
  int32_t result = 0;
  const auto size = static_cast<uint64_t>(std::max<int64_t>(stream_rest(file.stream), 0));
  ooflib_header header = {};
  if (read_ooflib_header(file.stream, &header) != kOasysLibraryWord) {
    gen_errorexit(kStatusFailure, "failed reading the header of Oasys 68K library '%s'", file.name);
  }
  gen_safe_fseek(file.name, file.stream, header.table_offset, SEEK_SET);
  for (uint32_t done = 0; done < header.entry_count; ++done) {
    const OasysEntry entry(file, done + 1);
    if (!fits(entry.offset(), 1, size)) {
      break;
    }
    const long next_entry = std::ftell(file.stream);
    const DescribedMember described(file.name, entry.name(), kSquare);
    set_member_offset(entry.offset());
    gen_safe_fseek(file.name, file.stream, entry.offset(), SEEK_SET);
    result = do_member(file);
    gen_safe_fseek(file.name, file.stream, next_entry, SEEK_SET);
  }
  return result;
}

int32_t do_aix_library(const OpenFile& file) {
  int32_t result = 0;
  aix_file_header file_header = {};
  if (aix_archive_read_file_header(file.stream, &file_header) != 1) {
    gen_errorexit(kStatusFailure, "failed reading the header of AIX format library '%s'",
                  file.name);
  }
  aix_member_header header = {};
  int64_t offset = aix_archive_first_offset(&file_header);
  gen_ptr<char> name(aix_archive_read_first_member_header(file.stream, &file_header, &header));
  // Offsets that were met: members may stand in any order, but not in a circle.
  std::unordered_set<int64_t> met;
  while (name != nullptr) {
    if (!met.insert(offset).second) {
      archive_read_error(file.name);
    }
    const DescribedMember described(file.name, name.get(), kRound);
    set_member_offset(std::ftell(file.stream));
    result = do_member(file);
    offset = aix_archive_next_offset(&header);
    name.reset(aix_archive_read_next_member_header(file.stream, &file_header, &header, &header));
  }
  return result;
}

int32_t do_plain_object(const OpenFile& file) {
  info.display_name = file.name;
  info.member_name = file.name;
  return do_object_file(file.stream, file.second_stream, &info);
}

int32_t do_opened_file(const OpenFile& file, int32_t file_class) {
  switch (file_class) {
    case file_kind::kArchive:
    case file_kind::kElfArchive:
      return do_archive(file);
    case file_kind::kOasysLibrary:
      return do_oasys_library(file);
    case file_kind::kAixArchive:
      return do_aix_library(file);
    default:
      return do_plain_object(file);
  }
}

// Calls a hook for the library as a whole, if there is one.
void call_library_hook(library_hook hook, const OpenFile& file) {
  if (hook != nullptr) {
    info.display_name = info.archive_name;
    info.member_name = nullptr;
    info.member_header = nullptr;
    info.in_library = 1;
    hook(file.stream, &info);
  }
}

}  // namespace

int32_t do_object_file(std::FILE* stream, std::FILE* second_stream, object_info* object) {
  const object_hook* const hook = hook_for(file_class_of(object->magic));
  if (hook != nullptr) {
    return *hook != nullptr ? (*hook)(stream, second_stream, object) : kNoHook;
  }
  if (do_unknown_file_ptr != nullptr) {
    return do_unknown_file_ptr(stream, second_stream, object);
  }
  return object->in_library != 0 ? 0 : kNoHook;
}

int32_t do_any_file(const char* name) {
  const file_ptr stream(gen_fopen(name, "r"));
  const file_ptr second_stream(gen_fopen(name, "r"));
  if (stream == nullptr || second_stream == nullptr) {
    gen_errorexit(kStatusFailure, "unable to open input file '%s'", name);
  }
  const OpenFile file = {name, stream.get(), second_stream.get()};
  info = {};
  info.magic = indmagic(file.stream, name);
  const int32_t file_class = file_class_of(info.magic);
  adi_style_ar_header = file_class == file_kind::kElfArchive ? 1 : 0;
  if (!is_library(file_class)) {
    return do_plain_object(file);
  }
  info.archive_name = name;
  call_library_hook(do_archive_start_ptr, file);
  const int32_t result = do_opened_file(file, file_class);
  info.magic = nullptr;
  call_library_hook(do_archive_end_ptr, file);
  return result;
}

void reset_indobjio() {
  do_BSD_file_ptr = nullptr;
  do_COFF_file_ptr = nullptr;
  do_ELF_file_ptr = do_ELF_file;
  do_QVR_file_ptr = nullptr;
  do_OOF_file_ptr = nullptr;
  do_import_library_file_ptr = nullptr;
  do_misc_file_ptr = nullptr;
  do_windows_resource_file_ptr = nullptr;
  do_unknown_file_ptr = nullptr;
  do_TOC_file_ptr = nullptr;
  do_archive_start_ptr = nullptr;
  do_archive_end_ptr = nullptr;
  adi_style_ar_header = 0;
  no_long_filenames_in_ar_header = 0;
  info = {};
  ar = {};
  buff = {};
  longname = {};
  gen_free(ax_stringtab.bytes);
  ax_stringtab = {};
  ax_strtabpos = 0;
  gnu_arfilenames_seen = false;
  null_terminated_overflow_table = false;
  suffix = 1;
  ret = {};
}

}  // namespace kelvane
