#include "output_file.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace hseg_tools {
namespace {

// Creates "DIR/.NAME.tmp-PID-N" beside `path` with O_EXCL, mode 0666 less the
// umask, as the target itself would get. Returns the descriptor (or -1 with
// errno set) and the name in *temp.
int create_beside(const std::string &path, std::string *temp) {
  const size_t slash = path.find_last_of('/');
  const std::string dir = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  for (int n = 0;; ++n) {
    *temp = dir + "." + name + ".tmp-" + std::to_string(getpid()) + "-" + std::to_string(n);
    const int fd = ::open(temp->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd >= 0 || errno != EEXIST || n == 99) return fd;
  }
}

}  // namespace

bool OutputFile::failed(int error) {
  if (error_ == 0) error_ = error != 0 ? error : EIO;
  return false;
}

void OutputFile::fail(int error) { failed(error); }

bool OutputFile::open() {
  final_ = target_;
  struct stat st {};
  const bool exists = target_ != "-" && stat(target_.c_str(), &st) == 0;
  if (exists && S_ISDIR(st.st_mode)) return failed(EISDIR);
  if (target_ == "-" || (exists && !S_ISREG(st.st_mode))) {
    in_place_ = true;
    stream_ = open_file(target_, "wb");
    return stream_ != nullptr || failed(errno);
  }
  if (exists) {
    char resolved[PATH_MAX];
    if (realpath(target_.c_str(), resolved) != nullptr) final_ = resolved;
  }
  const int fd = create_beside(final_, &temp_);
  if (fd < 0) {
    const int e = errno;
    temp_.clear();
    return failed(e);
  }
  stream_.reset(fdopen(fd, "wb"));
  if (stream_ == nullptr) {
    const int e = errno;
    ::close(fd);
    return failed(e);
  }
  return true;
}

bool OutputFile::write(const void *data, size_t n) {
  if (error_ != 0 || stream_ == nullptr) return failed(EBADF);
  if (n > 0 && std::fwrite(data, 1, n, stream_.get()) != n) return failed(errno);
  return true;
}

bool OutputFile::flush() {
  if (error_ != 0 || stream_ == nullptr) return failed(EBADF);
  return std::fflush(stream_.get()) == 0 || failed(errno);
}

bool OutputFile::close() {
  if (stream_ == nullptr) return failed(EBADF);
  const int e = close_file(stream_);
  return e != 0 ? failed(e) : error_ == 0;
}

bool OutputFile::commit() {
  if (error_ != 0 || stream_ != nullptr) return failed(EBADF);
  if (!in_place_ && std::rename(temp_.c_str(), final_.c_str()) != 0) return failed(errno);
  committed_ = true;
  return true;
}

void OutputFile::discard() {
  stream_.reset();
  if (!committed_ && !temp_.empty()) std::remove(temp_.c_str());
  temp_.clear();
}

std::string OutputFile::message() const {
  return file_message("write", target_, error_);
}

bool OutputSet::commit(const OutputFile **failed) {
  for (OutputFile &f : files_) {
    if (!f.commit()) {
      if (failed != nullptr) *failed = &f;
      return false;
    }
  }
  return true;
}

}  // namespace hseg_tools
