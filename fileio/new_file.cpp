#include "fileio/new_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <new>
#include <system_error>
#include <utility>

namespace {

[[noreturn]] void fail(int why) {
  if (why == ENOMEM) throw std::bad_alloc();
  throw std::system_error(why, std::generic_category());
}

// The absolute path without links of something that exists; empty if it does not.
std::string real_path(const std::string& name) {
  struct freer {
    void operator()(char* text) const { std::free(text); }
  };
  const std::unique_ptr<char, freer> path(realpath(name.c_str(), nullptr));
  if (!path && errno != ENOENT) fail(errno);
  return path ? path.get() : "";
}

// The same for a file that need not exist, in a folder that must.
std::string target_of(std::string name) {
  for (int links = 0;; ++links) {
    if (std::string path = real_path(name); !path.empty()) return path;
    const std::size_t slash = name.rfind('/');
    const std::string file = slash == std::string::npos ? name : name.substr(slash + 1);
    std::string folder = real_path(slash == std::string::npos ? "." : name.substr(0, slash + 1));
    if (folder.empty() || file.empty()) fail(ENOENT);
    folder += '/';
    name = folder;
    name += file;
    char link[PATH_MAX];
    const ssize_t length = readlink(name.c_str(), link, sizeof link);
    if (length < 0) return name;
    if (links == 40 || length == sizeof link) fail(ELOOP);
    name = *link == '/' ? "" : folder;
    name.append(link, std::size_t(length));
  }
}

}  // namespace

new_file::new_file(const std::string& name) : owner_(getpid()) {
  struct stat old;
  const bool exists = stat(name.c_str(), &old) == 0;
  if (!exists && errno != ENOENT) fail(errno);
  if (exists && S_ISDIR(old.st_mode)) fail(EISDIR);
  if (exists && faccessat(AT_FDCWD, name.c_str(), W_OK, AT_EACCESS) != 0) fail(errno);
  const bool in_place = exists && (!S_ISREG(old.st_mode) || real_path(name).empty());
  if (in_place) {  // the second: a link in /proc to a file that has no name any more
    open(descriptor(::open(name.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC)), compressor_of(name));
  } else {
    name_ = target_of(name);
    open_beside(compressor_of(name));
  }
}

new_file::new_file(descriptor fd) : owner_(getpid()) { open(std::move(fd), nullptr); }

void new_file::open_beside(const char* compressor) {
  const std::string folder = name_.substr(0, name_.rfind('/') + 1);
  struct stat old;
  const bool exists = stat(name_.c_str(), &old) == 0;
  for (unsigned attempt = 0;; ++attempt) {
    temporary_ = folder + ".new." + std::to_string(owner_) + "." + std::to_string(attempt);
    descriptor made(::open(temporary_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC,
                           exists ? S_IRUSR | S_IWUSR : 0666));
    if (!made && errno == EEXIST) continue;
    if (made && exists) static_cast<void>(fchmod(made.get(), old.st_mode & 0777));
    if (!made) temporary_.clear();
    return open(std::move(made), compressor);
  }
}

void new_file::open(descriptor fd, const char* compressor) {
  if (fd && compressor) {
    const process_stream opened = open_compressor(compressor, false, fd, true);
    stream_ = opened.stream;
    process_ = opened.process;
  } else if (fd) {
    stream_ = fd.make_stream("w");
  }
  if (!stream_) {
    const int why = errno;
    if (!temporary_.empty()) unlink(temporary_.c_str());
    fail(why);
  }
  std::setvbuf(stream_, nullptr, _IONBF, 0);
}

void new_file::commit() {
  if (std::fclose(std::exchange(stream_, nullptr)) != 0) fail(errno);
  if (process_ && wait_for(std::exchange(process_, 0)) != 0) fail(0);
  if (temporary_.empty()) return;
  if (std::rename(temporary_.c_str(), name_.c_str()) != 0) fail(errno);
  temporary_.clear();
}

new_file::~new_file() {
  if (stream_) std::fclose(stream_);
  if (getpid() != owner_) return;
  if (process_) wait_for(process_);
  if (!temporary_.empty()) unlink(temporary_.c_str());
}
