#include "memory_pair.h"

#include <algorithm>
#include <map>

#include "image_pair.h"
#include "indzip.h"

namespace kelvane {

namespace {

struct Function {
  std::string name;
  Bytes code;
  std::vector<std::pair<size_t, std::string>> calls;  // place of an address, whose
};

struct Program {
  std::vector<Function> functions;
  std::vector<Function> slow;  // those of the compressed section
  std::vector<std::string> pointers;
  Bytes constants;
  Bytes variables;
  uint32_t zeroed;
  uint32_t gaps[6];  // in front of each section, and of the swap region
  uint32_t heap;
};

Function random_function(uint32_t number, const ProgramSize& size, Random& random) {
  Function function = {"f" + std::to_string(number), {}, {}};
  const uint32_t words = size.largest / 4;
  function.code = code_like(4 * (size.alike ? words : 1 + random.below(words)), random);
  for (size_t place = 4; place + 4 <= function.code.size(); place += 4 * (3 + random.below(9))) {
    function.calls.emplace_back(place, "f" + std::to_string(random.below(number + 1)));
  }
  return function;
}

Program random_program(const ProgramSize& size, Random& random) {
  Program program;
  for (uint32_t i = 0; i < size.functions; ++i) {
    program.functions.push_back(random_function(i, size, random));
  }
  for (uint32_t i = 0; i < 4; ++i) {
    program.slow.push_back(random_function(i, size, random));
    program.slow.back().name = "s" + std::to_string(i);
    program.pointers.push_back("s" + std::to_string(i));
  }
  for (uint32_t i = 0; i < size.functions; ++i) {
    program.pointers.push_back("f" + std::to_string(random.below(size.functions)));
  }
  program.constants = text_like(random.below(400), random);
  program.variables = random.bytes(4 * random.below(50), 5);
  program.zeroed = 4 * random.below(64);
  for (uint32_t& gap : program.gaps) {
    const uint32_t gaps[] = {0, 0, 4, 64, 0x1000};
    gap = gaps[random.below(5)];
  }
  const uint32_t heaps[] = {0, 8, 40, 100, 1000, 100000};
  program.heap = size.heap.value_or(heaps[random.below(6)]);
  return program;
}

void change_functions(ProgramChange change, std::vector<Function>& functions,
                      const ProgramSize& size, Random& random) {
  if (change == ProgramChange::mixed) {
    for (uint32_t i = 1 + random.below(4); i > 0; --i) {
      change_functions(kAllProgramChanges[random.below(6)], functions, size, random);
    }
    return;
  }
  const auto place = [&] { return functions.begin() + random.below(functions.size()); };
  for (uint32_t i = 1 + random.below(3); i > 0 && functions.size() > 4; --i) {
    switch (change) {
      case ProgramChange::moved: {
        // One function goes behind others.
        const auto first = place();
        std::rotate(first, first + 1,
                    first + 1 + random.below(static_cast<size_t>(functions.end() - first)));
        break;
      }
      case ProgramChange::exchanged:
        std::iter_swap(place(), place());
        break;
      case ProgramChange::rotated: {
        const auto first = place();
        const auto second = place();
        std::iter_swap(first, second);
        std::iter_swap(second, place());
        break;
      }
      case ProgramChange::inserted:
        functions.insert(place(), random_function(1000 + random.below(9000), size, random));
        break;
      case ProgramChange::removed:
        functions.erase(place());
        break;
      default:
        replace_piece(place()->code, random);
        break;
    }
  }
}

// Puts functions end to end and tells where each lies.
class Linker {
 public:
  Linker(const Program& program, ByteOrder order) : program_(program), order_(order) {}

  LinkedImage link() {
    linked_.image.order = order_;
    uint32_t at = 0x1000;
    const uint32_t text = place(program_.functions, &at, 0);
    const uint32_t constants = begin(&at, 1, program_.constants.size());
    const uint32_t slow = place(program_.slow, &at, 2);
    const uint32_t data = begin(&at, 3, 4 * program_.pointers.size() + program_.variables.size());
    const uint32_t zeroed = begin(&at, 4, program_.zeroed);
    Bytes initialised;
    for (const std::string& name : program_.pointers) {
      append_word(initialised, address_of(name), order_ == ByteOrder::big);
    }
    initialised.insert(initialised.end(), program_.variables.begin(), program_.variables.end());
    add_plain(".text", text, code_of(program_.functions));
    add_plain(".rodata", constants, program_.constants);
    add_stored(".text_slow", ".cromt_slow", slow, code_of(program_.slow), true);
    add_stored(".data", ".romdata", data, initialised, false);
    linked_.image.sections.push_back(
        {".bss", elf32::SHT_NOBITS, elf32::SHF_ALLOC, zeroed, {}, program_.zeroed});
    linked_.sections.push_back({".bss", zeroed, Bytes(program_.zeroed)});
    linked_.image.sections.push_back({".debug_info", elf32::SHT_PROGBITS, 0, 0, Bytes(12, 'd')});
    add_symbols(program_.functions, ".text");
    add_symbols(program_.slow, ".text_slow");
    linked_.image.symbols.push_back(crt1_symbol(text, ".text"));
    if (program_.heap != 0) {
      linked_.heap_address = begin(&at, 5, program_.heap);
      linked_.heap_size = program_.heap;
      linked_.image.symbols.push_back({".heap", linked_.heap_address, program_.heap, 0x11, ".bss"});
    }
    return linked_;
  }

 private:
  uint32_t begin(uint32_t* at, size_t gap, size_t size) const {
    const uint32_t start = *at + program_.gaps[gap];
    *at = start + (static_cast<uint32_t>(size) + 3) / 4 * 4;
    return start;
  }

  uint32_t place(const std::vector<Function>& functions, uint32_t* at, size_t gap) {
    uint32_t address = begin(at, gap, 0);
    const uint32_t start = address;
    for (const Function& function : functions) {
      addresses_.emplace(function.name, address);
      address += static_cast<uint32_t>(function.code.size());
    }
    *at = (address + 3) / 4 * 4;
    return start;
  }

  uint32_t address_of(const std::string& name) const {
    const auto found = addresses_.find(name);
    return found == addresses_.end() ? 0 : found->second;
  }

  Bytes code_of(const std::vector<Function>& functions) const {
    Bytes code;
    for (const Function& function : functions) {
      Bytes own = function.code;
      for (const auto& [at, callee] : function.calls) {
        if (at + 4 <= own.size()) {
          Bytes word;
          append_word(word, address_of(callee), order_ == ByteOrder::big);
          std::copy(word.begin(), word.end(), own.begin() + static_cast<ptrdiff_t>(at));
        }
      }
      code.insert(code.end(), own.begin(), own.end());
    }
    return code;
  }

  void add_plain(const char* name, uint32_t address, const Bytes& contents) {
    linked_.image.sections.push_back(
        {name, elf32::SHT_PROGBITS, elf32::SHF_ALLOC, address, contents});
    linked_.sections.push_back({name, address, contents});
  }

  // A section that the start-up code brings to its place from where it is stored.
  void add_stored(const char* name, const char* stored_name, uint32_t address,
                  const Bytes& contents, bool compressed) {
    static Bytes stream;
    stream.clear();
    Encode(contents.data(), static_cast<uint32_t>(contents.size()),
           [](int32_t byte) { stream.push_back(static_cast<uint8_t>(byte)); });
    linked_.image.sections.push_back({stored_name, elf32::SHT_PROGBITS, elf32::SHF_ALLOC,
                                      0x80000000U + address, compressed ? stream : contents});
    linked_.image.sections.push_back({name,
                                      elf32::SHT_NOBITS,
                                      elf32::SHF_ALLOC,
                                      address,
                                      {},
                                      static_cast<uint32_t>(contents.size())});
    linked_.sections.push_back({name, address, contents});
  }

  void add_symbols(const std::vector<Function>& functions, const char* section) {
    for (const Function& function : functions) {
      linked_.image.symbols.push_back({function.name, address_of(function.name),
                                       static_cast<uint32_t>(function.code.size()), 0x12, section});
    }
  }

  const Program& program_;
  ByteOrder order_;
  LinkedImage linked_;
  std::map<std::string, uint32_t> addresses_;
};

}  // namespace

MemoryPair make_memory_pair(ProgramChange change, ByteOrder order, const ProgramSize& size,
                            Random& random) {
  Program program = random_program(size, random);
  MemoryPair pair;
  pair.old_image = Linker(program, order).link();
  change_functions(change, program.functions, size, random);
  if (random.below(3) == 0) {
    change_functions(change, program.slow, size, random);
    program.variables = random.bytes(program.variables.size() + random.below(3), 5);
    program.zeroed = 4 * random.below(64);
    program.gaps[random.below(6)] = 4 * random.below(40);
  }
  if (random.below(3) == 0 && !size.heap) {
    program.heap = random.below(3) * 64;
  }
  pair.new_image = Linker(program, order).link();
  return pair;
}

}  // namespace kelvane
