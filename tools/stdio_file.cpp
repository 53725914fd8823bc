#include "stdio_file.h"

#include <cerrno>
#include <cstring>

namespace hseg_tools {

void FileCloser::operator()(FILE *f) const {
  if (f != nullptr && f != stdin && f != stdout && f != stderr) std::fclose(f);
}

File open_file(const std::string &path, const char *mode) {
  if (path == "-") return File(mode[0] == 'r' ? stdin : stdout);
  return File(std::fopen(path.c_str(), mode));
}

int close_file(File &f) {
  FILE *s = f.release();
  if (s == nullptr) return EBADF;
  errno = 0;
  int e = 0;
  if (std::fflush(s) != 0 || std::ferror(s) != 0) e = errno != 0 ? errno : EIO;
  if (s != stdin && s != stdout && s != stderr && std::fclose(s) != 0 && e == 0)
    e = errno != 0 ? errno : EIO;
  return e;
}

std::string file_message(const char *verb, const std::string &path, int error) {
  const bool reads = std::strcmp(verb, "read") == 0 || std::strcmp(verb, "open") == 0;
  const std::string name =
      path != "-" ? "'" + path + "'" : reads ? "standard input" : "standard output";
  return std::string("cannot ") + verb + " " + name + ": " +
         std::strerror(error != 0 ? error : EIO);
}

}  // namespace hseg_tools
