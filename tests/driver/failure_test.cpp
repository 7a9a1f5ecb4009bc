#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "bytes.h"
#include "captured_run.h"
#include "changed_surroundings.h"
#include "indgen_memory.h"
#include "indgeninit.h"
#include "pipe_ends.h"
#include "reset_state.h"
#include "run_program.h"
#include "run_sequence.h"
#include "sanitizers.h"
#include "temporary_directory.h"

namespace kelvane {
namespace {

// ---- Memory that counts its blocks and refuses a request.

std::map<void*, size_t> live_blocks;
uint32_t requests = 0;
uint32_t refused_request = 0;  // 0: none

void count_request() {
  if (++requests == refused_request) {
    gen_out_of_memory(0);
  }
}

void* counted_alloc(uint32_t count, uint32_t size) {
  if (count != 0) {
    count_request();
  }
  void* const memory = gen_default_alloc(count, size);
  if (memory != nullptr) {
    live_blocks[memory] = size_t{count} * size;
  }
  return memory;
}

void* counted_realloc(void* pointer, int32_t size) {
  if (pointer == nullptr || size < 1) {
    return gen_default_realloc(pointer, size);  // comes back by way of the other two
  }
  count_request();
  live_blocks.erase(pointer);
  void* const memory = gen_default_realloc(pointer, size);
  live_blocks[memory] = static_cast<size_t>(size);
  return memory;
}

void counted_free(void* pointer) {
  live_blocks.erase(pointer);
  gen_default_free(pointer);
}

// Two versions of a file that differ in every way that file mode knows: single bytes, stretches,
// runs, something that compresses, words with one increment, bytes inserted and removed.
struct Versions {
  std::string old_file;
  std::string new_file;
};

Versions changed_in_every_way() {
  Random random(20);
  Bytes before = random.bytes(1200);
  Bytes after = before;
  after[40] ^= 1;
  after[50] ^= 1;
  for (size_t i = 0; i < 96; ++i) {  // more words than there are classes of increments
    after[100 + i] = static_cast<uint8_t>(~before[100 + i]);
  }
  std::fill_n(after.begin() + 200, 40, uint8_t{0xEE});
  for (size_t i = 0; i < 120; ++i) {
    after[400 + i] = static_cast<uint8_t>("repeat"[i % 6]);
  }
  for (size_t i = 600; i < 680; i += 8) {
    before[i] = static_cast<uint8_t>(i & 0x7FU);
    after[i] = static_cast<uint8_t>(before[i] + 16);
    for (size_t k = 1; k < 4; ++k) {
      before[i + k] = after[i + k] = 0;
    }
  }
  after.insert(after.begin() + 800, 5, 'x');
  after.erase(after.begin() + 1000, after.begin() + 1009);
  return {{before.begin(), before.end()}, {after.begin(), after.end()}};
}

// Whole runs in this process or in one of their own, in a fresh directory with "old" and "new".
class WholeRun : public testing::Test {
 protected:
  WholeRun() {
    reset_all_state();
    write(changed_in_every_way());
  }
  ~WholeRun() override { reset_all_state(); }

  void write(const Versions& versions) {
    tree_.write("old", versions.old_file);
    tree_.write("new", versions.new_file);
  }

  using Words = std::vector<std::string>;

  static CapturedRun run_here(const Words& options) {
    Words words = {"kelvane"};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"old", "new"});
    std::vector<char*> argv;
    for (std::string& word : words) {
      argv.push_back(word.data());
    }
    argv.push_back(nullptr);
    gen_skip_trapsetup = 1;
    return capture([&] { run_sequence(static_cast<int32_t>(argv.size()) - 1, argv.data()); });
  }
  ProgramResult run_there(const Words& options, const std::function<void()>& prepare = nullptr) {
    Words words = {kelvane_program()};
    words.insert(words.end(), options.begin(), options.end());
    words.insert(words.end(), {"old", "new"});
    return run_program(words, tree_.name(), {}, prepare);
  }

  TemporaryDirectory tree_;
  ChangedDirectory here_{tree_.name()};
  ChangedVariable home_{"HOME", tree_.name()};
  ChangedVariable no_viewpath_{"NVPATH", std::nullopt};
};

const std::vector<std::vector<std::string>> kOptionSets = {{"-b", "16"},
                                                           {"-b", "16", "-version", "1", "-inc"}};

TEST_F(WholeRun, MakesEveryCommandOfFileMode) {
  EXPECT_EQ(run_here(kOptionSets[1]).errors, "");
  const std::string shown =
      run_program({kelpatch_program(), "show", "diff.out"}, tree_.name()).output;
  for (const char* const command :
       {"CM_MOVE", "CM_SUBSTITUTE", "CM_SUB_COMP", "CM_SUB_ONE", "CM_FILL", "CM_INCRS"}) {
    EXPECT_THAT(shown, testing::HasSubstr(command));
  }
}

TEST_F(WholeRun, TwiceInAProcessIsEqualToTwoProcesses) {
  const Versions first = changed_in_every_way();
  const Versions back = {first.new_file, first.old_file};
  for (const auto& options : kOptionSets) {
    for (const Versions& versions : {first, back, first}) {
      write(versions);
      reset_all_state();
      EXPECT_EQ(run_here(options).errors, "");
      const std::string patch = tree_.read("diff.out");
      EXPECT_EQ(run_there(options).status, 0);
      EXPECT_TRUE(patch == tree_.read("diff.out"));
    }
  }
}

TEST_F(WholeRun, EndsWithOneMessageAndNoLeakWhereMemoryIsRefused) {
  for (const auto& options : kOptionSets) {
    bool through = false;
    for (uint32_t n = 1; !through; ++n) {
      ASSERT_LT(n, 5000U);
      gen_alloc = counted_alloc;
      gen_realloc = counted_realloc;
      gen_free = counted_free;
      requests = 0;
      refused_request = n;
      const CapturedRun run = run_here(options);
      through = !run.ended;
      if (through) {
        EXPECT_GT(n, 50U);
        EXPECT_EQ(run.errors, "");
      } else {
        EXPECT_EQ(run.status, 3) << n;
        // The name is the first thing that memory is asked for.
        EXPECT_TRUE(run.errors == "kelvane: fatal: Out of memory\n" ||
                    (n < 3 && run.errors == "fatal: Out of memory\n"))
            << n << ": " << run.errors;
      }
      refused_request = 0;
      reset_all_state();
      EXPECT_TRUE(live_blocks.empty()) << live_blocks.size() << " blocks left, request " << n;
      live_blocks.clear();
    }
  }
}

#if !KELVANE_UNDER_ADDRESS_SANITIZER
// What containers take counts like what is allocated by name: the index of a search takes more than
// the files do.
TEST_F(WholeRun, EndsWithOneMessageWhereTheAddressSpaceEnds) {
  constexpr size_t kMebibyte = size_t{1} << 20U;
  const auto run_within = [this](size_t limit, const Words& options) {
    return run_there(options, [limit] {
      const rlimit most = {limit, limit};
      ::setrlimit(RLIMIT_AS, &most);
    });
  };
  size_t limit = kMebibyte;  // grows until the program itself fits
  while (run_within(limit, {"-b", "16"}).status != 0) {
    limit += kMebibyte;
    ASSERT_LT(limit, 1024 * kMebibyte);
  }
  Random random(22);
  const Bytes before = random.bytes(kMebibyte);
  const Bytes after = random.bytes(kMebibyte);
  write({{before.begin(), before.end()}, {after.begin(), after.end()}});
  limit += 3 * kMebibyte;  // room for the files
  int32_t refusals = 0;
  ProgramResult result;
  while ((result = run_within(limit, {"-s", "1000000"})).status == 3) {
    EXPECT_EQ(result.errors, "kelvane: fatal: Out of memory\n") << limit;
    ++refusals;
    limit += 2 * kMebibyte;
  }
  EXPECT_GT(refusals, 3);
  EXPECT_EQ(result.status, 1);  // nothing is alike in these files
  EXPECT_EQ(result.errors, "");
}
#endif

TEST_F(WholeRun, EndsWithOneMessageWhereTheOutputCannotGrow) {
  Random random(21);
  const Bytes before = random.bytes(9000);
  const Bytes after = random.bytes(9000);
  write({{before.begin(), before.end()}, {after.begin(), after.end()}});
  for (const char* const format : {"0", "1"}) {
    const std::vector<std::string> options = {"-b", "9000", "-version", format};
    ASSERT_EQ(run_there(options).status, 0);
    const size_t size = tree_.read("diff.out").size();
    ASSERT_GT(size, 9000U);
    for (const size_t limit : {size_t{0}, size_t{1}, size_t{20}, size_t{4095}, size_t{4096},
                               size_t{4097}, size_t{8192}, size - 1, size}) {
      PipeEnds errors;  // the limit holds for files
      const ProgramResult result = run_there(options, [&] {
        ::dup2(errors.writer(), STDERR_FILENO);
        const rlimit most = {limit, limit};
        ::setrlimit(RLIMIT_FSIZE, &most);
        std::signal(SIGXFSZ, SIG_IGN);
      });
      if (limit == size) {
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(errors.drain(), "");
      } else {
        EXPECT_EQ(result.status, 1) << limit;
        EXPECT_EQ(errors.drain(),
                  "kelvane: fatal: error writing patch file 'diff.out': File too large\n")
            << limit;
      }
    }
  }
}

}  // namespace
}  // namespace kelvane
