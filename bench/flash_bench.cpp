// SPDX-License-Identifier: Apache-2.0
// Erases and seconds of an update in flash, power-safe by pages, against the applier in file order
// through a write buffer of one page, which is not power-safe; and what checkpoints cost a dense
// update. Prints the tables of docs/device.md: made-up pairs, and ahead of them those that are
// given.
//   flash_bench [NAME OLD NEW PATCH]...
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "bundle_file.h"
#include "dense_bundle.h"
#include "linked_program.h"
#include "page_plan.h"
#include "patch_builder.h"
#include "update_simulation.h"

namespace kelvane {
namespace {

// Flash of a larger part, and of one as small as the given images.
struct Geometry {
  uint32_t page;
  double erase_seconds;
  double program_seconds;  // for a page
};
constexpr Geometry kLarge = {4096, 0.085, 0.042};
constexpr Geometry kSmall = {1024, 0.022, 0.012};
constexpr uint32_t kSpare = 8;
constexpr uint32_t kSize = 400000;

struct Pair {
  const char* name;
  std::string old_image;
  std::string new_image;
  std::string patch;
};

// A write buffer of one page: counts how often each page is written.
struct Buffered {
  uint32_t page_size;
  std::string bytes;
  std::vector<uint32_t> writes;
  uint32_t held = UINT32_MAX;
  bool changed = false;

  void hold(uint32_t page) {
    if (page != held) {
      flush();
      held = page;
    }
  }
  void flush() {
    if (changed) {
      ++writes[held];
      changed = false;
    }
  }
  static int read(void* context, uint32_t address, uint8_t* out, uint32_t count) {
    static_cast<Buffered*>(context)->bytes.copy(reinterpret_cast<char*>(out), count, address);
    return 0;
  }
  static int write(void* context, uint32_t address, const uint8_t* in, uint32_t count) {
    auto& self = *static_cast<Buffered*>(context);
    for (uint32_t i = 0; i < count; ++i) {
      self.hold((address + i) / self.page_size);
      self.changed = true;
      self.bytes[address + i] = static_cast<char>(in[i]);
    }
    return 0;
  }
};

Buffered in_place(const std::string& patch, const std::string& old_image, uint32_t size,
                  uint32_t page_size, uint32_t flags, uint32_t skip) {
  Buffered memory;
  memory.page_size = page_size;
  memory.bytes = old_image;
  memory.bytes.resize(size, '\xFF');
  memory.writes.resize(size / page_size + 1);
  kelvane_applier applier;
  const kelvane_region room = {0, size};
  const kelvane_memory access = {
      &memory,  Buffered::read, Buffered::write, &room, 1, static_cast<uint32_t>(old_image.size()),
      page_size};
  int code = kelvane_apply_open(&applier, reinterpret_cast<const uint8_t*>(patch.data()),
                                static_cast<uint32_t>(patch.size()), flags);
  if (code == KELVANE_APPLY_OK) {
    code = kelvane_apply_run(&applier, &access, skip);
  }
  if (code != KELVANE_APPLY_OK) {
    std::printf("%s\n", kelvane_apply_text(code));
  }
  memory.flush();
  return memory;
}

Pair pair_of(const char* name, const PatchBuilder& commands, const std::string& old_image,
             uint32_t new_size) {
  const uint32_t size = std::max(new_size, static_cast<uint32_t>(old_image.size()));
  Pair pair = {name, old_image, "", ""};
  pair.new_image =
      in_place(std::string(16, '\0') + commands.commands(), old_image, size, kLarge.page,
               KELVANE_V0_MEMORY_MODE, KELVANE_SKIP_OLD | KELVANE_SKIP_NEW)
          .bytes.substr(0, new_size);
  pair.patch = commands.version1(old_image, pair.new_image);
  return pair;
}

std::string random_image(std::mt19937& random) {
  std::string image(kSize, '\0');
  std::generate(image.begin(), image.end(), [&] { return static_cast<char>(random() & 0xFFU); });
  return image;
}

// Pointers everywhere, by classes, as code that moved leaves them.
std::vector<PatchBuilder::Class> pointers(std::mt19937& random, uint32_t classes) {
  std::vector<PatchBuilder::Class> all;
  for (uint32_t i = 0; i < classes; ++i) {
    PatchBuilder::Class one = {300 * (i + 1), {}};
    const auto below = [&random](uint32_t limit) {
      return static_cast<uint32_t>(random() % limit);
    };
    for (uint32_t at = 4 * below(100); at + 4 <= kSize; at += 4 * (1 + below(200))) {
      one.addresses.push_back(at);
    }
    all.push_back(one);
  }
  return all;
}

Pair insert(std::mt19937& random) {
  PatchBuilder commands(PatchBuilder::Order::kLittle);
  commands.move({{1000, kSize - 1000, 300}}).substitute(1, {{1000, std::string(300, 'n')}});
  commands.increments(pointers(random, 12));
  return pair_of("insert", commands, random_image(random), kSize + 300);
}

Pair reorder(std::mt19937& random) {
  // Blocks of two thirds of a page change places with their third neighbours, by way of the end.
  PatchBuilder commands(PatchBuilder::Order::kLittle);
  std::vector<PatchBuilder::Block> blocks;
  const uint32_t block = 2700;
  for (uint32_t at = 0; at + 4 * block <= kSize; at += 4 * block) {
    blocks.push_back({at, block, kSize - at});
    blocks.push_back({at + 3 * block, block, 0U - 3 * block});
    blocks.push_back({kSize, block, at + 3 * block - kSize});
  }
  commands.move(blocks).increments(pointers(random, 12));
  return pair_of("reorder", commands, random_image(random), kSize + block);
}

Pair grown(std::mt19937& random) {
  PatchBuilder commands(PatchBuilder::Order::kLittle);
  commands.move({}).increments(pointers(random, 1));
  std::string tail = random_image(random).substr(0, 60000);
  commands.substitute(1, {{kSize, tail}});
  return pair_of("grown", commands, random_image(random), kSize + 60000);
}

Pair spread(std::mt19937& random) {
  PatchBuilder commands(PatchBuilder::Order::kLittle);
  PatchBuilder::Stores stores;
  for (uint32_t at = 500; at + 100 < kSize; at += 30000) {
    stores.push_back({at, std::string(40, 'c')});
  }
  commands.move({}).substitute(1, stores);
  return pair_of("few changes", commands, random_image(random), kSize);
}

// What an update of a device took.
struct Taken {
  int code = 0;
  uint32_t erases = 0;
  double seconds = 0;
};

Taken run(const DeviceShape& shape, const Geometry& geometry, const std::string& old_image,
          const kelpatch::Bytes& bundle) {
  SimulatedDevice device(shape, old_image, 1);
  Taken taken;
  taken.code =
      device.run({bundle.data(), nullptr, nullptr, 0, static_cast<uint32_t>(bundle.size())});
  for (const uint32_t count : device.flash().erases) {
    taken.erases += count;
  }
  taken.seconds =
      taken.erases * geometry.erase_seconds +
      static_cast<double>(device.flash().programmed) / geometry.page * geometry.program_seconds;
  return taken;
}

const char* failure(const Taken& taken) {
  return taken.code == KELVANE_APPLY_OK ? "" : " FAILED";
}

void show(const Pair& pair, const Geometry& geometry) {
  const kelpatch::Bytes old_file(pair.old_image.begin(), pair.old_image.end());
  const kelpatch::Bytes new_file(pair.new_image.begin(), pair.new_image.end());
  kelpatch::PatchFile patch("patch", {pair.patch.begin(), pair.patch.end()});
  const kelpatch::PagePlan plan =
      kelpatch::plan_for(patch, old_file, new_file, {geometry.page, 2, kSpare});
  kelpatch::BundleParts parts;
  parts.payload = patch.bytes();
  const kelpatch::Bytes bundle = make_bundle(plan, parts);
  DeviceShape shape;
  shape.flash.page_size = geometry.page;
  shape.image_pages = plan.pages;
  shape.spare_pages = kSpare;
  const Taken taken = run(shape, geometry, pair.old_image, bundle);
  const auto changed = static_cast<double>(plan.changed.size());
  const uint32_t size =
      static_cast<uint32_t>(std::max(pair.old_image.size(), pair.new_image.size()));
  const Buffered plain = in_place(pair.patch, pair.old_image, size, geometry.page, 0, 0);
  uint32_t writes = 0;
  for (const uint32_t count : plain.writes) {
    writes += count;
  }
  std::printf("| %s%s | %.0f of %u | %.2f | %.1f | %.1f | %u | %.1f |\n", pair.name, failure(taken),
              changed, plan.pages, taken.erases / changed, taken.seconds, writes / changed,
              *std::max_element(plain.writes.begin(), plain.writes.end()),
              writes * (geometry.erase_seconds + geometry.program_seconds));
}

std::string contents(const char* name) {
  std::ifstream file(name, std::ios::binary);
  if (!file) {
    std::printf("unable to open '%s'\n", name);
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

// Made-up programs of that size, whose parts refer to each other.
struct Programs {
  const char* name;
  Bytes old_image;
  Bytes new_image;
  uint32_t raise = 0;  // pages
};

std::vector<Programs> programs() {
  const dense_target target = {KELVANE_DENSE_THUMB, ByteOrder::kLittle, ByteOrder::kLittle, 0x8000};
  Random random(5);
  const LinkedProgram original(4100, random);
  const Bytes old_image = original.link(target);
  LinkedProgram inserted = original;
  inserted.insert(40, random);
  LinkedProgram reordered = inserted;
  for (uint32_t i = 100; i < 4000; i += 400) {
    reordered.swap(i, i + 150);
  }
  Bytes grown = inserted.link(target);
  const Bytes tail = random.bytes(20000);
  grown.insert(grown.end(), tail.begin(), tail.end());
  Bytes pushed = inserted.link(target);
  const Bytes piece = random.bytes(40000);
  pushed.insert(pushed.begin() + 30000, piece.begin(), piece.end());
  Bytes patched = old_image;
  for (size_t at = 500; at < patched.size(); at += 30000) {
    patched[at] = static_cast<uint8_t>(patched[at] + 1);
  }
  return {{"insert", old_image, inserted.link(target)},
          {"reorder", old_image, reordered.link(target)},
          {"grown", old_image, grown},
          {"grown inside", old_image, pushed},
          {"the same, raised", old_image, pushed, 10},
          {"few changes", old_image, patched}};
}

void show_dense(const Programs& pair, const dense_request& request, const dense_update& update,
                uint32_t checkpoint) {
  static const kelvane_payload_kind* const kinds[] = {&kelvane_dense_kind, nullptr};
  const DenseBundle bundle = bundle_of(request, update, checkpoint);
  const kelpatch::PagePlan& plan = bundle.plan;
  DeviceShape shape;
  shape.flash.page_size = kLarge.page;
  shape.image_pages = plan.pages;
  shape.spare_pages = plan.spare() + 2 * ((kelvane_dense_kind.state_size - 1) / kLarge.page + 1);
  shape.kinds = kinds;
  shape.state_size = dense_memory(bundle.map_entries);
  const Taken taken = run(shape, kLarge, text_of(pair.old_image), bundle.bytes);
  const auto changed = static_cast<double>(plan.changed.size());
  std::printf("| %s%s | %u | %zu | %.0f of %u | %u + %u + %u | %.2f | %.1f |\n", pair.name,
              failure(taken), checkpoint, bundle.bytes.size(), changed, plan.pages, plan.ring,
              plan.slots, shape.spare_pages - plan.spare(), taken.erases / changed, taken.seconds);
}

}  // namespace
}  // namespace kelvane

int main(int argc, char** argv) {
  for (int at = 1; at + 3 < argc; at += 4) {
    kelvane::show({argv[at], kelvane::contents(argv[at + 1]), kelvane::contents(argv[at + 2]),
                   kelvane::contents(argv[at + 3])},
                  kelvane::kSmall);
  }
  std::mt19937 random(11);
  for (kelvane::Pair (*const make)(std::mt19937&) :
       {kelvane::insert, kelvane::reorder, kelvane::grown, kelvane::spread}) {
    kelvane::show(make(random), kelvane::kLarge);
  }
  for (const kelvane::Programs& pair : kelvane::programs()) {
    kelvane::dense_request request;
    request.images = {pair.old_image, pair.new_image};
    request.geometry = {kelvane::kLarge.page, 2, 4, 0, pair.raise};
    request.effort = kelvane::dense_effort::quick;
    const kelvane::dense_update update = search_dense(request);
    for (const uint32_t checkpoint : {4U, 8U, 16U}) {
      kelvane::show_dense(pair, request, update, checkpoint);
    }
  }
  return 0;
}
