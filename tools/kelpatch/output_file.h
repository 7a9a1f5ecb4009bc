#pragma once

#include <string>

#include "patch_file.h"

namespace kelpatch {

// A new file under a name of its own, beside the one that it is to become. It goes away unless it
// is kept, also where SIGHUP, SIGINT or SIGTERM end the program. There is one at a time.
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

  // Both end the run with "error writing output file '...'" and the text of errno. keep() gives the
  // file its name, in place of what had it.
  void write(const Bytes& bytes);
  void keep();

 private:
  [[noreturn]] void fail() const;

  std::string shown_name_;
  std::string name_;
  std::string temporary_name_;
  int file_ = -1;
};

}  // namespace kelpatch
