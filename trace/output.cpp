#include "trace/output.h"

#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <system_error>

#include "coder/errors.h"
#include "coder/stdio_bytes.h"
#include "fileio/program.h"
#include "trace/command_error.h"

using namespace vqpack::detail;

namespace vqtrace {

namespace {

// What a signal that ends the program removes.
char unfinished[4096];

void remove_unfinished(int signal) {
  if (*unfinished) unlink(unfinished);
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

void handle_signals() {
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM})
    if (std::signal(signal, remove_unfinished) == SIG_IGN) std::signal(signal, SIG_IGN);
}

}  // namespace

trace_form form_for(input& trace, std::optional<int> version) {
  const bool coded = trace.is_text() || trace.header().compression != 0;
  const trace_form form{version.value_or(trace.version()), coded};
  if (form.version == 0) return {0, false};
  return {form.version, form.coded || form.version == 1};
}

velk_counts counts_for(input& trace) {
  return trace.has_counts() ? velk_counts::all : velk_counts::other_than_1;
}

void refuse_same_file(const std::string& in, const std::string& out) {
  struct stat read, written;
  const bool both_exist =
      xfstat(xfopen_name(in), "r", read) &&
      (out == "-" ? fstat(STDOUT_FILENO, &written) : stat(out.c_str(), &written)) == 0;
  if (both_exist && same_file(read, written))
    throw command_error(in, "Input and output are the same file");
}

output_file::output_file(const std::string& name) : name_(name) {
  std::signal(SIGXFSZ, SIG_IGN);  // a write fails instead
  // A closed pipe on standard output ends the program without a message.
  if (name != "-") std::signal(SIGPIPE, SIG_IGN);
  try {
    if (name == "-")
      file_.emplace(duplicate(STDOUT_FILENO));
    else
      file_.emplace(name);
  } catch (const std::system_error&) {
    throw command_error(name, "Can't open output file");
  }
  if (file_->temporary_name().size() < sizeof unfinished) {
    std::strcpy(unfinished, file_->temporary_name().c_str());
    handle_signals();
  }
}

output_file::~output_file() { *unfinished = '\0'; }

void output_file::write(const void* bytes, std::size_t size) {
  if (!write_bytes(file(), bytes, size)) fail_to_write();
}

void output_file::commit() {
  try {
    file_->commit();
  } catch (const std::system_error&) {
    fail_to_write();
  }
}

void output_file::fail_to_write() const { throw command_error(name_, cannot_write); }

output::output(const std::string& name, trace_form form, PRUV_header_t& header, velk_counts counts)
    : name_(name), header_(header), file_(name) {
  constexpr int block_size = 1 << 16;
  constexpr long long window = 65535;  // this and the next as vqpack(1) has them
  constexpr unsigned max_contexts = 16383;
  if (form.version < 0) {
    text_.emplace(file_.file(), header.trans_names, header.trans_name_count, counts);
    return;
  }
  header.trans_count = 0;  // which readers take for any, where it cannot be put in its place
  header.compression = form.coded;
  header.max_contexts = max_contexts;
  try {
    coder_.emplace(nullptr, form.version, &header, block_size, window);
  } catch (const VQcomp_error& error) {
    refuse(error);
  }
}

output::~output() {
  if (coder_) coder_->aborted = true;
}

void output::put(std::span<VQtransaction> transactions) {
  if (text_) return put_text(transactions);
  for (std::size_t done = 0; done < transactions.size();) {
    try {
      done += coder_->record(&transactions[done], transactions.size() - done);
    } catch (const VQcomp_error& error) {
      refuse(error);
    }
    if (const auto ready = std::size_t(coder_->ready())) {
      file_.write(coder_->buffer.get(), ready);
      coder_->reset_buffer();
    }
  }
}

void output::put_text(std::span<const VQtransaction> transactions) {
  try {
    for (const VQtransaction& t : transactions) {
      if (t.trans >= header_.trans_name_count)
        throw command_error(name_, "Transaction number out of range");
      text_->put(t);
    }
  } catch (const VQcomp_error& error) {
    refuse(error);
  }
}

void output::finish() {
  if (text_ && !text_->flush()) file_.fail_to_write();
  if (coder_) {
    try {
      coder_->finish(file_.file(), &header_);
    } catch (const VQcomp_error& error) {
      refuse(error);
    }
  }
  file_.commit();
}

void output::refuse(const VQcomp_error& error) const { throw command_error(name_, error.str()); }

}  // namespace vqtrace
