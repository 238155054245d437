#include "driver/metadata.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>
#include <type_traits>

namespace {

constexpr metadata_field metadata_fields[] = {
    {'a', &PRUV_header_t::address_length}, {'c', &PRUV_header_t::cycle_count},
    {'i', &PRUV_header_t::inst_count},     {'l', &PRUV_header_t::line_size},
    {'r', &PRUV_header_t::trans_count},    {'s', &PRUV_header_t::cache_size_kib},
    {'t', &PRUV_header_t::threads},
};

[[noreturn]] void fail_at(const char* msg, long long record) {
  throw VQcomp_error{msg, record, 0, false};
}

constexpr int most_points = 255;

// Parses one line of a sensitivity file; `line_number` is 1-based.
sensitivity_point_t parse_point(const char* line, long long line_number) {
  sensitivity_point_t p;
  char extra;
  if (std::sscanf(line, "%u %u %u %u %u %u %u %c", &p.config_type, &p.mlc_size, &p.llc_size,
                  &p.instructions, &p.cycles, &p.llc_refs, &p.llc_misses, &extra) != 7)
    fail_at("Trouble parsing sensitivity file", line_number);
  if (p.config_type > 255) fail_at("Sensitivity cfg class out of range", line_number);
  if (p.mlc_size > 65535) fail_at("Sensitivity MLC size out of range", line_number);
  return p;
}

bool conflict(const sensitivity_point_t& a, const sensitivity_point_t& b) {
  return a.config_type == b.config_type && a.mlc_size == b.mlc_size && a.llc_size == b.llc_size;
}

// Refuses points of the same configuration; the first `kept` points come from the input.
void refuse_conflicts(const sensitivity_point_t* points, int count, int kept) {
  for (int j = 1; j < count; ++j) {
    const auto same = [&](const sensitivity_point_t& earlier) {
      return conflict(earlier, points[j]);
    };
    if (std::none_of(points, points + j, same)) continue;
    if (j >= kept) fail_at("Conflict in new sensitivity data", j - kept + 1);
    fail_at("Conflict in old sensitivity data", j + 1);
  }
}

// Puts the points of `file` into the header: after those that it holds (`merge`) or in their place.
void set_sensitivity(PRUV_header_t& header, FILE* file, bool merge) {
  const int kept = merge ? header.sensitivity_count : 0;
  if (kept > most_points) fail_at("Old sensitivity curve size not 0-255", kept);
  auto points = std::make_unique<sensitivity_point_t[]>(most_points + 1);
  std::copy_n(header.sensitivity, kept, points.get());
  int count = kept;
  for (char line[1000]; std::fgets(line, sizeof line, file); ++count) {
    const int line_number = count - kept + 1;
    if (count == most_points) fail_at("Sensitivity file max is 255 data points", line_number);
    points[unsigned(count)] = parse_point(line, line_number);
  }
  if (std::ferror(file)) fail_at(unreadable_sensitivity, 0);  // a directory, for example
  refuse_conflicts(points.get(), count, kept);
  delete[] header.sensitivity;
  header.sensitivity = count ? points.release() : nullptr;
  header.sensitivity_count = count;
}

void set_field(PRUV_header_t& header, const given_metadata& given) {
  const auto assign = [&](auto member) {
    using field_type = std::remove_reference_t<decltype(header.*member)>;
    header.*member = static_cast<field_type>(given.value);
  };
  std::visit(assign, given.field->member);
}

// Ends an old comment with a newline first, unless it is empty or already ends with one.
void append_comment(PRUV_header_t& header, const char* text) {
  std::string comment = header.comment ? header.comment : "";
  if (!comment.empty() && comment.back() != '\n') comment += '\n';
  comment += text;
  char* const copy = new char[comment.size() + 1];
  std::memcpy(copy, comment.c_str(), comment.size() + 1);
  delete[] header.comment;
  header.comment = copy;
}

void drop_comment(PRUV_header_t& header) {
  delete[] header.comment;
  header.comment = nullptr;
}

}  // namespace

const metadata_field* find_metadata_field(char letter) {
  const auto found = std::find_if(std::begin(metadata_fields), std::end(metadata_fields),
                                  [letter](const auto& field) { return field.letter == letter; });
  return found == std::end(metadata_fields) ? nullptr : found;
}

void edit_header(PRUV_header_t& header, header_edits& edits) {
  if (edits.sensitivity) set_sensitivity(header, edits.sensitivity.get(), edits.merge_sensitivity);
  edits.sensitivity.reset();
  if (edits.drop_comment) drop_comment(header);
  for (const given_metadata& given : edits.metadata) set_field(header, given);
  if (edits.comment) append_comment(header, edits.comment);
}
