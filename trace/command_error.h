// How a sub-command ends before its work is done.
#pragma once

#include <stdexcept>
#include <string>

namespace vqtrace {

// What to print, with the name of a file where one is concerned. The outputs that are not finished
// are dropped, and the exit status is 255.
class command_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  command_error(const std::string& file, const std::string& message)
      : std::runtime_error(file + ": " + message) {}
};

}  // namespace vqtrace
