#include "comcoff.h"

#include <cstring>

#include "comcoff2.h"
#include "format_fixture.h"

namespace kelvane {
namespace {

class Coff : public FormatTest {
 protected:
  std::vector<Operation> numbers_and_settings();
  std::vector<Operation> records();

  coff::symbol symbol_ = {};  // that names are written for
  file_ptr strings_ = stream_of(bytes_of("0123456789"));
  uint32_t position_ = 3;
};

int32_t* setting(const std::string& name) {
  const std::pair<const char*, int32_t*> settings[] = {
      {"bigendian", &bigendian},      {"ecoff", &ecoff},     {"coff960", &coff960},
      {"bcscompat", &bcscompat},      {"symsize", &symsize}, {"dynamic", &dynamic},
      {"only_globals", &only_globals}};
  return std::ranges::find(settings, name, &std::pair<const char*, int32_t*>::first)->second;
}

// A number read behind the bytes, whose place holds ones before.
template <typename Number>
Operation reader(const char* name, int32_t (*read)(Number*, std::FILE*)) {
  return {name, [read](const std::string& digits) {
            const file_ptr stream = stream_of(bytes_from(digits));
            Number value = static_cast<Number>(-1);
            const int32_t result = read(&value, stream.get());
            return fields({value}) + ending(result, stream.get());
          }};
}

Operation writer(const char* name, void (*write)(uint32_t, std::FILE*)) {
  return {name, [write](uint32_t value) {
            return digits_of(written_by([&](std::FILE* out) { write(value, out); }));
          }};
}

std::vector<Operation> Coff::numbers_and_settings() {
  // clang-format off
  return {
      {"afresh", [](const std::string&) { reset_comcoff(); return ""; }},
      {"set", [](const std::string& name, int32_t value) { *setting(name) = value; return ""; }},
      reader("char", GETCHAR), reader("short", GETSHORT), reader("int", GETINT),
      reader("longlong", GETLONGLONG), reader("long", GETLONG),
      writer("put_char", PUTCHAR), writer("put_short", PUTSHORT), writer("put_int", PUTINT),
      {"put_longlong", [](uint32_t high, uint32_t low) {
        return digits_of(written_by([&](std::FILE* out) { PUTLONGLONG(high, low, out); }));
      }},
      {"fix", [](uint16_t magic) {
        int32_t order = 7;
        const int32_t result = fixCOFFmagic(&magic, &order);
        return std::to_string(result) + ":" + fields({magic}) + ":" + std::to_string(order) + ":" + std::to_string(bcscompat);
      }},
  };
  // clang-format on
}

std::string bytes_of_name(const char (&name)[8]) {
  return digits_of(bytes_of({name, sizeof name})) + ":";
}

// A section header in either form: its fields as read over ones, and what is written of them.
template <typename Record>
std::string section(const std::string& digits, int32_t (*read)(std::FILE*, Record*),
                    void (*write)(std::FILE*, const Record*)) {
  const file_ptr stream = stream_of(bytes_from(digits));
  Record record;
  std::memset(&record, 0xFF, sizeof record);
  const int32_t result = read(stream.get(), &record);
  return bytes_of_name(record.s_name) +
         fields({record.s_paddr, record.s_vaddr, record.s_size, record.s_scnptr, record.s_relptr,
                 record.s_lnnoptr, record.s_nreloc, record.s_nlnno, record.s_flags,
                 record.s_align}) +
         ending(result, stream.get()) + ">" +
         digits_of(written_by([&](std::FILE* out) { write(out, &record); }));
}

// The file header by its fields, what became of the settings, and the header written again.
std::string header(int32_t warn, int32_t order, int32_t bcs, const std::string& digits) {
  bigendian = order;
  bcscompat = bcs;
  const file_ptr stream = stream_of(bytes_from(digits));
  uint16_t magic, sections, optional_size, flags;
  uint32_t time, symbols, count;
  const int32_t result = get_endian_header(stream.get(), warn, &magic, &sections, &time, &symbols,
                                           &count, &optional_size, &flags);
  std::string text =
      fields({magic, sections, time, symbols, count, optional_size, flags}) +
      ending(result, stream.get()) + "/" +
      fields({static_cast<uint64_t>(bigendian), static_cast<uint64_t>(coff960),
              static_cast<uint64_t>(bcscompat), static_cast<uint64_t>(symsize)}) +
      ">" + digits_of(written_by([&](std::FILE* out) {
        write_header(out, magic, sections, time, symbols, count, optional_size, flags);
      }));
  coff960 = 0;
  return text;
}

std::string symbol(int64_t table, int32_t index, const std::string& digits) {
  const file_ptr stream = stream_of(bytes_from(digits));
  coff::symbol record;
  std::memset(&record, 0, sizeof record);
  const int32_t result = read_symbol(stream.get(), table, index, &record);
  if (result != 0) {
    return std::to_string(result);
  }
  return bytes_of_name(record.n_name) +
         fields({record.n_offset, record.n_value, static_cast<uint16_t>(record.n_scnum),
                 record.n_type, record.n_flags, record.n_sclass, record.n_numaux}) +
         ending(result, stream.get()) + ">" + digits_of(written_by([&](std::FILE* out) {
           EXPECT_EQ(write_symbol(out, 1, -1, &record, nullptr, nullptr, 0, nullptr), 0);
         }));
}

// An ECOFF record by its fields.
template <typename Record, typename Show>
Operation ecoff_record(const char* name, int32_t (*read)(std::FILE*, Record*), Show show) {
  return {name, [read, show](const std::string& digits) {
            const file_ptr stream = stream_of(bytes_from(digits));
            Record record = {};
            const int32_t result = read(stream.get(), &record);
            return show(record) + ending(result, stream.get());
          }};
}

std::string local(const ecoff64::lsymbol& r) {
  return fields({r.value, r.iss, r.st, r.sc, r.index});
}

std::vector<Operation> Coff::records() {
  using Digits = const std::string&;
  // clang-format off
  return {
      {"section", [](Digits digits) { return section<coff::section_header>(digits, read_section_header, write_section_header); }},
      {"sect", [](Digits digits) { return section<coff::scnhdr>(digits, read_sect_header, write_sect_header); }},
      KELVANE_OPERATION(header), KELVANE_OPERATION(symbol),
      {"no_fields", [](Digits digits) {
        return get_endian_header(stream_of(bytes_from(digits)).get(), 1, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr);
      }},
      {"named", [this](const char* name, int64_t offset) {
        const Bytes written = written_by([&](std::FILE* out) {
          EXPECT_EQ(write_symbol(out, 2, 0, &symbol_, name, strings_.get(), offset, &position_), 0);
        });
        return digits_of(written) + "/" + fields({symbol_.n_offset, position_}) + "/" + text_of(bytes_at(strings_.get(), 0, 100));
      }},
      {"first_letter", [this](char letter) { symbol_.n_name[0] = letter; return ""; }},
      {"offset", [this](uint32_t offset) { symbol_.n_offset = offset; return ""; }},
      ecoff_record("ecoff_section", read_ecoff_section_header, [](const ecoff64::section_header& r) {
        return bytes_of_name(r.s_name) + fields({r.s_paddr, r.s_vaddr, r.s_size, r.s_scnptr, r.s_relptr, r.s_lnnoptr, r.s_nreloc, r.s_nlnno, r.s_flags});
      }),
      ecoff_record("ecoff_symheader", read_ecoff_symheader, [](const ecoff64::symheader& r) {
        return fields({r.magic, r.vstamp, r.ilineMax, r.idnMax, r.ipdMax, r.isymMax, r.ioptMax, r.iauxMax, r.issMax, r.issExtMax,
                       r.ifdMax, r.crfd, r.iextMax, r.cbLine, r.cbLineOffset, r.cbDnOffset, r.cbPdOffset, r.cbSymOffset, r.cbOptOffset,
                       r.cbAuxOffset, r.cbSsOffset, r.cbSsExtOffset, r.cbFdOffset, r.cbRfdOffset, r.cbExtOffset});
      }),
      ecoff_record("ecoff_lsymbol", read_ecoff_lsymbol, local),
      ecoff_record("ecoff_symbol", read_ecoff_symbol, [](const ecoff64::symbol& r) {
        return local(r.asym) + ":" + fields({r.jmptbl, r.cobol_main, r.weakext, r.ifd});
      }),
      ecoff_record("ecoff_fdr", read_ecoff_fdr, [](const ecoff64::fdr& r) {
        return fields({r.adr, r.cbLineOffset, r.cbLine, r.cbSs, r.rss, r.issBase, r.isymBase, r.csym, r.ilineBase, r.cline, r.ioptBase,
                       r.copt, r.ipdFirst, r.cpd, r.iauxBase, r.caux, r.rfdBase, r.crfd, r.fMerge, r.fReadin, r.fBigendian, r.glevel});
      }),
      ecoff_record("ecoff_pdr", read_ecoff_pdr, [](const ecoff64::pdr& r) {
        return fields({r.adr, r.cbLineOffset, r.isym, r.iline, r.regmask, r.regoffset, r.iopt, r.fregmask, r.fregoffset, r.frameoffset,
                       r.lnLow, r.lnHigh, r.gp_prologue, r.gp_used, r.reg_frame, r.prof, r.reserved, r.localoff, r.framereg, r.pcreg});
      }),
  };
  // clang-format on
}

TEST_F(Coff, GivesWhatTheTableTells) {
  std::vector<Operation> operations = numbers_and_settings();
  const std::vector<Operation> more = records();
  operations.insert(operations.end(), more.begin(), more.end());
  check_table(operations, KELVANE_TABLES "comcoff.table");
}

TEST_F(Coff, AStringEndsAtAZeroTheEndOfTheFileOrTheBuffer) {
  const file_ptr stream =
      stream_of(joined({bytes_of("skip"), bytes_of("one"), Bytes(2, 0), Bytes(2000, 'x')}));
  EXPECT_STREQ(read_string(stream.get(), 3, 1), "one");
  EXPECT_STREQ(read_string(stream.get(), 4, 4), "");
  EXPECT_EQ(std::string(read_string(stream.get(), 4, 5)), std::string(1023, 'x'));
  EXPECT_EQ(std::string(read_string(stream.get(), 0, 2000)), std::string(9, 'x'));
  EXPECT_EQ(read_string(stream.get(), 0, 2009), nullptr);
  EXPECT_EQ(read_string(stream.get(), -5, 0), nullptr);
}

}  // namespace
}  // namespace kelvane
