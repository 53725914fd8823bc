// Temporary files and command runs for the tests of the command-line tools.
#ifndef HSEG_TESTS_SUPPORT_TOOL_RUN_H_
#define HSEG_TESTS_SUPPORT_TOOL_RUN_H_

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace hseg_test {

// A path in the test's temporary directory, apart from those of other
// processes running the same suite.
inline std::string temp_path(const std::string &name) {
  return testing::TempDir() + "hseg_" + std::to_string(getpid()) + "_" + name;
}

inline std::string read_text(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

inline void write_text(const std::string &path, const std::string &bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

struct RunResult {
  int status = -1;  // the exit status, -1 when the command did not exit normally
  std::string out, err;
};

// Runs a shell command line (arguments already quoted), its two output
// streams captured apart.
inline RunResult run(const std::string &command) {
  const std::string out = temp_path("run.out"), err = temp_path("run.err");
  const int raw =
      std::system((command + " >'" + out + "' 2>'" + err + "' </dev/null").c_str());
  RunResult r;
  r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  r.out = read_text(out);
  r.err = read_text(err);
  std::remove(out.c_str());
  std::remove(err.c_str());
  return r;
}

inline std::string shell_quoted(const std::string &s) { return "'" + s + "'"; }

}  // namespace hseg_test

#endif  // HSEG_TESTS_SUPPORT_TOOL_RUN_H_
