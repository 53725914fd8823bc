// Owning stdio streams for the command-line tools, and the one way they
// close a stream they wrote and say what went wrong with a file.
#ifndef HSEG_TOOLS_STDIO_FILE_H_
#define HSEG_TOOLS_STDIO_FILE_H_

#include <cstdio>
#include <memory>
#include <string>

namespace hseg_tools {

// Closes the stream, unchecked, when its owner goes away: the right end for
// a stream that was only read, or whose writes have failed already. The
// standard streams are never closed.
struct FileCloser {
  void operator()(FILE *f) const;
};
using File = std::unique_ptr<FILE, FileCloser>;

// Opens `path` with fopen's `mode`; "-" is standard input for a mode that
// reads and standard output for one that writes. Null with errno set on
// failure.
File open_file(const std::string &path, const char *mode);

// Flushes and closes `f` (a standard stream is flushed only) and empties
// it. Returns 0, or the errno of the first failure, including a write error
// the stream recorded earlier (EIO when the library left errno unset).
int close_file(File &f);

// "cannot VERB 'PATH': REASON" for errno `error`; the path "-" is named
// "standard input" or "standard output" after the verb.
std::string file_message(const char *verb, const std::string &path, int error);

}  // namespace hseg_tools

#endif  // HSEG_TOOLS_STDIO_FILE_H_
