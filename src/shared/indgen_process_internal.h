#pragma once

namespace kelvane {

// Forgets what was looked up once, and takes the variables that gen_put_env_variable has set out of
// the environment.
void reset_indgen_process();

}  // namespace kelvane
