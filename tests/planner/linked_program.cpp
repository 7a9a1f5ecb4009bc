// SPDX-License-Identifier: Apache-2.0
#include "linked_program.h"

#include <map>

namespace kelvane {
namespace {

// Puts instructions behind each other; addresses of functions are known in the second pass.
class Linker {
 public:
  Linker(const dense_target& target, const std::map<uint32_t, uint32_t>& places)
      : target_(target), places_(places) {}

  Bytes bytes;

  uint32_t here() const { return target_.base + static_cast<uint32_t>(bytes.size()); }
  uint32_t address_of(uint32_t function) const {
    const auto found = places_.find(function);
    return found == places_.end() ? target_.base : found->second;
  }
  void data(uint32_t word) { put(word, target_.data_order); }
  void align() {
    while (bytes.size() % 4 != 0) {
      half(0);
    }
  }

  void plain(uint32_t bits) {
    switch (target_.machine) {
      case KELVANE_DENSE_THUMB:
        half(0x2000 | (bits & 0x1F3F));  // MOV, CMP, ADD of small numbers
        return;
      case KELVANE_DENSE_ARM:
        code(0xE0800000 | (bits & 0x000FF00F));
        return;
      case KELVANE_DENSE_POWERPC:
        code(0x7C000214 | (bits & 0x03FFF800));
        return;
      case KELVANE_DENSE_MIPS:
        code(0x00000021 | (bits & 0x03FFF800));
        return;
      case KELVANE_DENSE_RISCV:
        if (bits % 2 == 0) {
          half(0x4501 | (bits & 0xF80));
        } else {
          code(0x00000033 | (bits & 0x01FFFF80));
        }
        return;
      default:
        data(bits | 0x40000000);
    }
  }

  void call(uint32_t function) {
    const uint32_t distance = address_of(function) - here();
    switch (target_.machine) {
      case KELVANE_DENSE_THUMB: {
        const uint32_t d = distance - 4;
        const uint32_t s = d >> 31;
        half(0xF000 | s << 10 | (d >> 12 & 0x3FF));
        half(0xD000 | (1 ^ (d >> 23 & 1) ^ s) << 13 | (1 ^ (d >> 22 & 1) ^ s) << 11 |
             (d >> 1 & 0x7FF));
        return;
      }
      case KELVANE_DENSE_ARM:
        code(0xEB000000 | ((distance - 8) >> 2 & 0xFFFFFF));
        return;
      case KELVANE_DENSE_POWERPC:
        code(0x48000001 | (distance & 0x3FFFFFC));
        return;
      case KELVANE_DENSE_MIPS:
        code(0x0C000000 | (address_of(function) >> 2 & 0x3FFFFFF));
        return;
      case KELVANE_DENSE_RISCV:
        code(0x000000EF | (distance >> 20 & 1) << 31 | (distance >> 1 & 0x3FF) << 21 |
             (distance >> 11 & 1) << 20 | (distance >> 12 & 0xFF) << 12);
        return;
      default:
        data(address_of(function));
    }
  }

  void address(uint32_t function) {
    const uint32_t value = address_of(function) + 4;
    const uint32_t rounded = value + 0x8000;
    switch (target_.machine) {
      case KELVANE_DENSE_THUMB:
        thumb_move(0xF2400000, value);
        thumb_move(0xF2C00000, value >> 16);
        return;
      case KELVANE_DENSE_ARM:
        code(0xE3003000 | (value & 0xF000) << 4 | (value & 0xFFF));
        code(0xE3403000 | (value >> 12 & 0xF0000) | (value >> 16 & 0xFFF));
        return;
      case KELVANE_DENSE_POWERPC:
        code(0x3D200000 | rounded >> 16);
        code(0x81690000 | (value & 0xFFFF));
        return;
      case KELVANE_DENSE_MIPS:
        code(0x3C020000 | rounded >> 16);
        code(0x24420000 | (value & 0xFFFF));
        return;
      case KELVANE_DENSE_RISCV: {
        const uint32_t distance = value - here();
        code(0x00000517 | ((distance + 0x800) & 0xFFFFF000));
        code(0x00050513 | distance << 20);
        code(0x000005B7 | ((value + 0x800) & 0xFFFFF000));
        code(0x0005A603 | value << 20);
        return;
      }
      default:
        data(value);
    }
  }

  // Reads a constant that stands 8 bytes on, where the machine has such an instruction.
  void pool(uint32_t function) {
    if (target_.machine == KELVANE_DENSE_THUMB) {
      align();
      half(0x4901);
      half(0xE003);
      half(0x2000);
      half(0x2000);
    }
    align();
    data(address_of(function));
  }

 private:
  void half(uint32_t value) {
    const uint32_t low = value & 255;
    const uint32_t high = value >> 8 & 255;
    const bool big = target_.code_order == ByteOrder::kBig;
    bytes.push_back(static_cast<uint8_t>(big ? high : low));
    bytes.push_back(static_cast<uint8_t>(big ? low : high));
  }
  void put(uint32_t word, ByteOrder order) {
    bytes.resize(bytes.size() + 4);
    store_word(bytes.data() + bytes.size() - 4, word, order);
  }
  void code(uint32_t word) { put(word, target_.code_order); }
  void thumb_move(uint32_t opcode, uint32_t value) {
    half(opcode >> 16 | (value >> 12 & 15) | (value >> 11 & 1) << 10);
    half(0x300 | (value >> 8 & 7) << 12 | (value & 255));
  }

  const dense_target& target_;
  const std::map<uint32_t, uint32_t>& places_;
};

}  // namespace

LinkedProgram::LinkedProgram(uint32_t functions, Random& random) {
  for (uint32_t i = 0; i < functions; ++i) {
    functions_.push_back(make(random));
  }
}

LinkedProgram::Function LinkedProgram::make(Random& random) {
  Function function;
  function.number = made_++;
  const uint32_t steps = 12 + random.below(24);
  for (uint32_t i = 0; i < steps; ++i) {
    const uint32_t dice = random.below(12);
    const auto kind = dice < 8    ? Step::plain
                      : dice < 10 ? Step::call
                      : dice < 11 ? Step::address
                                  : Step::pool;
    const uint32_t other = random.below(function.number + 1);
    function.steps.push_back({kind, kind == Step::plain ? random.below(1U << 30U) : other});
  }
  return function;
}

void LinkedProgram::insert(uint32_t place, Random& random) {
  functions_.insert(functions_.begin() + place, make(random));
}

void LinkedProgram::swap(uint32_t first, uint32_t second) {
  std::swap(functions_[first], functions_[second]);
}

Bytes LinkedProgram::link(const dense_target& target) const {
  std::map<uint32_t, uint32_t> places;
  Bytes linked;
  for (int pass = 0; pass < 2; ++pass) {
    Linker linker(target, places);
    for (const Function& function : functions_) {
      linker.align();
      const uint32_t begin = linker.here();
      for (const Step& step : function.steps) {
        switch (step.kind) {
          case Step::plain:
            linker.plain(step.value);
            break;
          case Step::call:
            linker.call(step.value);
            break;
          case Step::address:
            linker.address(step.value);
            break;
          case Step::pool:
            linker.pool(step.value);
            break;
        }
      }
      places[function.number] = begin;
    }
    linker.align();
    for (const Function& function : functions_) {
      linker.data(linker.address_of(function.number));
      linker.data(linker.address_of(function.number) - linker.here());
    }
    linked = std::move(linker.bytes);
  }
  return linked;
}

}  // namespace kelvane
