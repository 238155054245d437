#include "fileio/new_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <utility>

namespace {

[[noreturn]] void fail(int why) { throw std::system_error(why, std::generic_category()); }

// Where links lead; `name` itself if there is nothing yet.
std::string follow_links(const std::string& name) {
  struct freer {
    void operator()(char* text) const { std::free(text); }
  };
  const std::unique_ptr<char, freer> path(realpath(name.c_str(), nullptr));
  return path ? path.get() : name;
}

// Makes a file beside `name`, whose name it stores in `temporary`.
descriptor make_beside(const std::string& name, std::string& temporary) {
  for (unsigned attempt = 0;; ++attempt) {
    temporary = name + ".new" + std::to_string(getpid()) + "." + std::to_string(attempt);
    descriptor made(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (made) return made;
    if (errno != EEXIST) {
      const int why = errno;
      temporary.clear();
      fail(why);
    }
  }
}

}  // namespace

new_file::new_file(const std::string& name) : name_(follow_links(name)) {
  struct stat old;
  const bool exists = stat(name_.c_str(), &old) == 0;
  if (!exists && (errno != ENOENT || name.empty())) fail(errno);
  if (exists && S_ISDIR(old.st_mode)) fail(EISDIR);
  if (exists && access(name_.c_str(), W_OK) != 0) fail(errno);
  if (exists && !S_ISREG(old.st_mode)) {
    open(descriptor(::open(name_.c_str(), O_WRONLY | O_CLOEXEC)), compressor_of(name));
  } else {
    descriptor made = make_beside(name_, temporary_);
    if (exists) static_cast<void>(fchmod(made.get(), old.st_mode & 0777));
    open(std::move(made), compressor_of(name));
  }
}

new_file::new_file(descriptor fd) { open(std::move(fd), nullptr); }

void new_file::open(descriptor fd, const char* compressor) {
  if (fd && compressor) {
    const process_stream opened = open_compressor(compressor, false, fd, true);
    stream_ = opened.stream;
    process_ = opened.process;
  } else if (fd) {
    stream_ = fd.make_stream("w");
  }
  if (stream_) return;
  const int why = errno;
  if (!temporary_.empty()) unlink(temporary_.c_str());
  fail(why);
}

bool new_file::close() {
  if (!stream_) return true;
  const bool closed = std::fclose(std::exchange(stream_, nullptr)) == 0;
  const int why = errno;
  const bool ended_well = process_ == 0 || wait_for(process_) == 0;
  errno = closed ? EIO : why;
  return closed && ended_well;
}

void new_file::commit() {
  if (!close()) fail(errno);
  if (temporary_.empty()) return;
  if (std::rename(temporary_.c_str(), name_.c_str()) != 0) fail(errno);
  temporary_.clear();
}

new_file::~new_file() {
  close();
  if (!temporary_.empty()) unlink(temporary_.c_str());
}
