#pragma once

// Puts the units of the foundation back to where a new process has them, and releases what they
// hold. For tests, and for whoever uses the library twice in a process.
namespace kelvane {

// The next random number seeds itself from the clock.
void reset_genrand();
// The three directories.
void reset_indconfig();
// The default functions and the ring of temporary buffers. Comes after all others, which release
// memory by these functions.
void reset_indgen_memory();
// The default functions, the counters and the flags.
void reset_indgen_message();
// The current directory, the home directory and the name of the current device.
void reset_indgen_path();
// What was looked up once; the variables that gen_put_env_variable has set leave the environment.
void reset_indgen_process();
// The stream on the null device and the spare buffer.
void reset_indgen_quote();
// The default choice of the directory, what it chose, and the running number.
void reset_indgen_tempname();
// The names, the handler of exhausted memory and all else of start-up. Signal handlers stay.
void reset_indgeninit();
// The viewpath and the source roots.
void reset_indview();

}  // namespace kelvane
