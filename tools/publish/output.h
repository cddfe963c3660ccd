#pragma once
// Writing results so that nothing half-made is ever seen: a source directory is built
// under a hidden temporary name beside its final place and renamed into place at the end;
// single files are written to a temporary name and renamed (or linked) into place.
#include <string>

#include "util.h"

namespace publish {

// Refuses an existing output unless `force` is given (then it will be replaced whole).
// `replaceable` false marks outputs that no option can replace (keys).
void check_output_free(const std::string& path, bool force, const char* what, bool directory, bool replaceable = true);

class StagedDirectory {
 public:
  StagedDirectory(const std::string& final_path, bool force);
  StagedDirectory(const StagedDirectory&) = delete;
  StagedDirectory& operator=(const StagedDirectory&) = delete;
  // Removes the temporary directory unless commit() has run.
  ~StagedDirectory();

  void write(const std::string& name, const Bytes& data);
  // Renames the directory into place; with force an existing one is swapped out in one
  // step and then removed.
  void commit();

 private:
  std::string final_path_;
  std::string temp_path_;
  bool force_;
  bool committed_ = false;
};

// Writes a file atomically: the data goes to a temporary file in the same directory with
// the given mode, then takes the final name. Without force an existing file is refused.
void write_file_atomic(const std::string& path, const Bytes& data, unsigned mode, bool force, const char* what);

}  // namespace publish
