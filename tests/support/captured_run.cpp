#include "captured_run.h"

#include "indgen_message.h"

namespace kelvane {

CapturedRun capture(const std::function<void()>& action) {
  CapturedRun run;
  void (*const real_exit)(int32_t) = gen_exit;
  gen_exit = [](int32_t status) { throw EndOfRun{status}; };
  testing::internal::CaptureStderr();
  try {
    action();
  } catch (const EndOfRun& end) {
    run.ended = true;
    run.status = end.status;
  }
  run.errors = testing::internal::GetCapturedStderr();
  gen_exit = real_exit;
  return run;
}

}  // namespace kelvane
