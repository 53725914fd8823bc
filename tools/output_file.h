// Output files that appear under their names only when the whole run that
// writes them succeeds.
//
// An OutputFile writes to a temporary file beside its target (same
// directory, so that the final rename stays on one file system and replaces
// the target in one step). Every write, the flush and the close are checked,
// and the first failure is kept with its reason; later writes are skipped.
// A run keeps its files in an OutputSet: commit() renames every temporary
// onto its target once everything has been written and closed, and whatever
// was not committed is removed when the set goes away, so a run that fails
// leaves neither partial outputs nor temporaries behind.
//
// Targets that a rename cannot replace are written in place, still checked:
// "-" (standard output) and an existing file that is not a regular file (a
// device such as /dev/null or /dev/full, a pipe). A target that is a
// symbolic link to a regular file is replaced where the link points.
//
// A program that writes under a file-size limit should ignore SIGXFSZ, so
// that a write past the limit fails (and is reported and cleaned up) rather
// than killing the process.
#ifndef HSEG_TOOLS_OUTPUT_FILE_H_
#define HSEG_TOOLS_OUTPUT_FILE_H_

#include <cstddef>
#include <deque>
#include <string>

#include "stdio_file.h"

namespace hseg_tools {

class OutputFile {
 public:
  explicit OutputFile(std::string target) : target_(std::move(target)) {}
  ~OutputFile() { discard(); }
  OutputFile(const OutputFile &) = delete;
  OutputFile &operator=(const OutputFile &) = delete;

  // Creates the temporary (or opens the target in place). False on failure.
  bool open();
  // Writes n bytes. False once anything has failed.
  bool write(const void *data, size_t n);
  // Hands what was written so far on to the file (a reader at the other end
  // of a pipe sees it now). False once anything has failed.
  bool flush();
  // Flushes and closes; a temporary then waits for commit(). False when this
  // or anything before it failed.
  bool close();
  // Renames the closed temporary onto the target (nothing to do in place).
  bool commit();
  // Closes without checking and removes the temporary, unless committed.
  void discard();
  // Records a failure that is not the file's own (the encoder ran out of
  // memory, say), so that the file is not committed.
  void fail(int error);

  bool ok() const { return error_ == 0; }
  const std::string &target() const { return target_; }
  // "cannot write 'TARGET': reason" for the first failure ("standard
  // output" for "-").
  std::string message() const;

 private:
  bool failed(int error);

  std::string target_;
  std::string final_;  // where commit() renames to: the target, or where its link points
  std::string temp_;   // empty when written in place
  File stream_;
  bool in_place_ = false;
  bool committed_ = false;
  int error_ = 0;
};

class OutputSet {
 public:
  OutputSet() = default;
  OutputSet(const OutputSet &) = delete;
  OutputSet &operator=(const OutputSet &) = delete;

  // A new output for `target`, not yet opened; it lives as long as the set.
  OutputFile &add(const std::string &target) { return files_.emplace_back(target); }
  // Commits every file in the order added; stops at the first failure, whose
  // file is returned through *failed (the ones before it stay committed).
  bool commit(const OutputFile **failed);

 private:
  std::deque<OutputFile> files_;  // stable addresses
};

}  // namespace hseg_tools

#endif  // HSEG_TOOLS_OUTPUT_FILE_H_
