#include "trace/formats/formats.h"

#include <algorithm>

#include "trace/formats/champsim.h"
#include "trace/formats/dramsim.h"
#include "trace/formats/drmemtrace.h"
#include "trace/formats/gem5.h"
#include "trace/formats/lackey.h"
#include "trace/formats/ramulator.h"
#include "trace/text_reader.h"

namespace vqtrace {

namespace {

template <class Format>
std::unique_ptr<access_reader> read_text(FILE* file, bool skip_bad) {
  return std::make_unique<text_reader<Format>>(file, skip_bad);
}

std::unique_ptr<access_reader> read_champsim(FILE* file, bool) {
  return std::make_unique<champsim_reader>(file);
}

template <class Writer>
std::unique_ptr<access_writer> make() {
  return std::make_unique<Writer>();
}

// clang-format off
constexpr foreign_format formats[] = {
    {"lackey", true, "line", read_text<lackey>, make<lackey_writer>},
    {"drmemtrace", true, "line", read_text<drmemtrace>, nullptr},
    {"champsim", true, "record", read_champsim, make<champsim_writer>},
    {"dramsim", false, "line", read_text<dramsim>, make<dramsim_writer>},
    {"ramulator", false, "line", read_text<ramulator>, make<ramulator_writer>},
    {"ramulator-rw", false, "line", read_text<ramulator>, make<ramulator_rw_writer>},
    {"ramulator-cpu", false, "line", read_text<ramulator>, make<ramulator_cpu_writer>},
    {"stl", false, "line", read_text<stl>, make<stl_writer>},
    {"gem5", false, "line", read_text<gem5>, make<gem5_writer>},
};
// clang-format on

}  // namespace

std::span<const foreign_format> foreign_formats() { return formats; }

const foreign_format& find_format(const std::string& name) {
  return *std::ranges::find_if(formats, [&](const foreign_format& f) { return f.name == name; });
}

}  // namespace vqtrace
