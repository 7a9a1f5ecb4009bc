#pragma once

#include <atomic>
#include <initializer_list>
#include <string>

#include "patch_file.h"

namespace kelpatch {

// Ends the run if the file to be written is one of those that are read: "output file '...' is also
// an input file". Names of no file are passed over.
void refuse_inputs(const std::string& output, std::initializer_list<std::string> inputs);

// Whether both names stand for one place, also where no file is there yet.
bool is_same_place(const std::string& first, const std::string& second);

// A new file under a name of its own, beside the one that it is to become. It goes away unless it
// is kept, also where SIGHUP, SIGINT or SIGTERM end the program. There are two at a time at most.
class OutputFile {
 public:
  // Makes the file for `name`. Ends the run if that is something else than a regular file
  // ("output file '...' exists and is not a regular file") or no file can be made beside it
  // ("unable to open output file '...'", with the text of errno). A link is followed, so that it
  // stays a link; the mode is that of the file of this name, if there is one.
  explicit OutputFile(const std::string& name);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // All end the run with "error writing output file '...'" and the text of errno. complete() has
  // the disk take what was written; keep() does so too, and gives the file its name, in place of
  // what had it.
  void write(const Bytes& bytes);
  void complete();
  void keep();

 private:
  [[noreturn]] void fail() const;

  std::string shown_name_;
  std::string name_;
  std::string temporary_name_;
  std::atomic<const char*>* removed_by_signal_ = nullptr;
  int file_ = -1;
};

}  // namespace kelpatch
