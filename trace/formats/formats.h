// The formats of other tools, by name.
#pragma once

#include <cstdio>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "trace/access.h"

namespace vqtrace {

struct foreign_format {
  const char* name;
  // Accesses of a processor, before its caches; else requests to memory, after them.
  bool of_processor;
  const char* record;  // what one is called
  // Null where the format cannot be read, or written.
  std::unique_ptr<access_reader> (*reader)(FILE* file, bool skip_bad);
  std::unique_ptr<access_writer> (*writer)();
};

std::span<const foreign_format> foreign_formats();

// The format of a name. There must be one.
const foreign_format& find_format(const std::string& name);

}  // namespace vqtrace
