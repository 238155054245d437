// Transactions to QUBIX files and back: the bytes, whole files, damaged files, errors.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "support.h"

namespace {

bytes operator+(bytes a, const bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

bytes preamble(coding c) {
  bytes file = encode({}, c);
  file.resize(preamble_size(c));
  if (c.version < 2) std::fill(file.begin() + 3, file.end(), 0);
  return file;
}

bytes records_of(const bytes& file, coding c, std::size_t limit_bytes = 0) {
  const auto start = file.begin() + std::ptrdiff_t(preamble_size(c) + limit_bytes);
  return bytes(start, file.end() - std::ptrdiff_t(end_size(c)));
}

constexpr coding raw0{0, false}, context1{1, true}, context2{2, true}, context3{3, true},
    context4{4, true};

// "code address agent count, ...", the address in hexadecimal; agents are 0 and counts 1 where
// they are left out.
trace trace_of(const std::string& text) {
  std::istringstream from(text);
  trace result;
  for (std::string item; std::getline(from, item, ',');) {
    transaction t{};
    std::sscanf(item.c_str(), "%hhu %llx %d %u", &t.trans,
                reinterpret_cast<unsigned long long*>(&t.addr), &t.agent, &t.count);
    result.push_back(t);
  }
  return result;
}

TEST(Coder, BytesOfRecords) {
  const std::string unit = " 30 80 80 ", line = " 30 80 A0 9C ";  // new contexts at 0 and 1000
  const struct {
    const char* what;
    coding c;
    std::string transactions, records;
  } rows[] = {
      {"a run, another type, the run again", context1,
       "28 1000, 28 1040, 28 1080, 29 1000, 28 10C0", "B0 80 A0 9C 30 80 A0 9D 11"},
      {"repeated 3 times", context2, "28 0, 28 40, 28 80, 28 C0", "F0 80 80 9C 81"},
      {"counts", context3, "4 2008 1 5, 4 2010 1 1, 4 2018 1 0, 4 2018 1 2",
       "F1 80 C0 04 01 83 41 01 80"},
      {"long deltas", context1, "4 100, 4 180, 4 100", "30 80 82 84 08 90 08 F0"},
      {"7 and 8 lines", context4, "28 1000, 28 11C0, 28 13C0, 28 1200, 28 1000",
       line + "07 08 40 80 09 08 C0"},
      {"agents around the escape", context4, "5 0 254, 5 0 255, 5 0 3, 5 0 0, 5 0 300",
       unit + "05 FE" + unit + "05 FF 7F 81" + unit + "05 83" + unit + "85" + unit + "05 2C 82"},
      {"deferred reply with a count", context3, "47 12345678", "74 80 83 AF"},
      {"line sizes of all types", context1,
       "7 0, 7 8, 8 0, 8 10, 16 0, 16 20, 31 0, 31 40, 39 0, 39 80, 40 0, 40 8, 54 0, 54 8, "
       "63 0, 63 8, 64 0, 64 40",
       "70 80 80 87 70 80 80 88 70 80 80 90 70 80 80 9F 70 80 80 A7 70 80 80 A8 70 80 80 B6 "
       "70 80 80 BF 70 80 80 C0"},
      {"negative address", context1, "4 -8", "3F 80 7F 7F 7F 7F 7F 7F 7F 7F 81 84"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(records_of(encode(trace_of(row.transactions), row.c), row.c), from_hex(row.records))
        << row.what;
}

TEST(Coder, BytesOfEmptyFiles) {
  EXPECT_EQ(encode({}, raw0), from_hex("51 55 00 FF FF FF FF FF 00 00 00 00 00 00 00 00"));
  EXPECT_EQ(encode({}, context1),
            from_hex("51 55 01 FF FF FF FF 30 00 80 00 00 00 00 00 00 00 00"));
}

// Context-coded records in the plainest form: qubix(5).
bytes plain_records(const trace& transactions, coding c, const coder_limits& limits) {
  constexpr int size_classes[] = {0, 1, 2, 3, 4, 0, 0, 0, 3};
  std::vector<VQcomp::context> contexts;  // newest first
  bytes records;
  std::size_t head = 0;  // of the latest record
  unsigned repeat = 0;
  bool escaped = false;
  const auto put = [&](auto byte) { records.push_back(static_cast<unsigned char>(byte)); };
  const auto put_number = [&](unsigned long long n) {
    for (; n > 127; n >>= 7) put(n & 127);
    put(n | 128);
  };
  const auto put_repeat = [&] {
    if (records.empty()) return;
    records[head] |= static_cast<unsigned char>(std::min(repeat, 3u) << 6);
    if (repeat > 2) put_number(repeat - 2);
  };
  for (const transaction& t : transactions) {
    const bool is_reply = t.trans == 47 || t.trans == 48;
    const auto addr = static_cast<long long>(static_cast<unsigned long long>(t.addr) >>
                                             (c.four_field() && is_reply ? 16 : 3));
    const auto found = std::find_if(contexts.begin(), contexts.end(), [&](const auto& context) {
      return context.trans == t.trans && context.agent == t.agent &&
             std::abs(context.addr - addr) < limits.window >> 3;
    });
    const bool is_new = found == contexts.end();
    const auto position = found - contexts.begin();
    const long long before = is_new ? 0 : found->addr;
    const int shift = size_classes[t.trans >> 3];
    const long long lines = (addr >> shift) - (before >> shift);
    const bool in_lines = std::abs(lines) <= 7 && addr % (1 << shift) == 0;
    if (!is_new) contexts.erase(found);
    contexts.insert(contexts.begin(), {addr, t.agent, t.trans});
    if (limits.max_contexts && contexts.size() > limits.max_contexts) contexts.pop_back();
    if (!c.four_field()) {
      if (!is_new && position == 0 && in_lines && lines == 1 && ++repeat) continue;
      put_repeat();
    }
    head = records.size();
    repeat = c.four_field() ? t.count : 0;
    put((is_new || position > 2 ? 3 : position) << 4 | (is_new     ? addr & 15
                                                        : in_lines ? lines & 15
                                                                   : 8));
    if (is_new) {
      put(0x80);
      put_number(static_cast<unsigned long long>(addr) >> 4);
      put(t.trans | (t.agent ? 0 : 0x80));
      const bool escapes = c.wide_agents() && t.agent >= 255 && !escaped;
      if (escapes) put(255);
      escaped = escaped || escapes;
      if (t.agent) escaped ? put_number(unsigned(t.agent)) : put(t.agent);
    } else {
      if (position > 2) put_number(static_cast<unsigned long long>(position - 2));
      long long units = addr - before;
      if (!in_lines) {
        for (; units < -64 || units > 63; units >>= 7) put(units & 127);
        put((units & 127) | 128);
      }
    }
    if (c.four_field()) put_repeat();
  }
  if (!c.four_field()) put_repeat();
  return records;
}

TEST(Coder, RecordsAreThoseOfThePlainFormInBatchesOfAnySize) {
  const std::size_t batches[] = {0, 1, 7, 63, 65, 5000};
  const unsigned limits[] = {0, 1, 2, 3, 64, 65, 200};
  for (const coding c : all_codings)
    for (const long long window :
         {0LL, 8LL, 16LL, 99LL, 512LL, 4096LL, 65535LL, 65536LL, 1LL << 60})
      for (unsigned seed = 0; seed < 24; ++seed) {
        const std::size_t batch = batches[seed % 6];
        const coder_limits limit{window, limits[seed % 7], seed % 5 ? 84 : 1024, batch};
        const trace transactions = random_trace(seed, 300, c);
        const bytes file = encode(transactions, c, limit);
        const std::size_t limit_bytes = c.compressed && c.version > 3 && limit.max_contexts ? 5 : 0;
        EXPECT_TRUE(!c.compressed ||
                    records_of(file, c, limit_bytes) == plain_records(transactions, c, limit))
            << c << " seed " << seed << " window " << window;
        const decoded read = decode(
            file, [] { return 300; }, transactions.size(), batch);
        EXPECT_TRUE(read == (decoded{transactions, ""})) << c << " seed " << seed << read.error;
      }
}

TEST(Coder, TracesOfManyContexts) {
  const struct {
    unsigned addresses, size, max_contexts;
  } rows[] = {{2500, 9000, 1000}, {5000, 9000, 0}, {80000, 200000, 70000}, {80000, 200000, 0}};
  for (const auto& row : rows) {
    std::mt19937 random(12);
    trace transactions;
    for (unsigned i = 0; i < row.size; ++i)
      transactions.push_back({28, int(random() % row.addresses) * 65536LL, int(random() % 2)});
    const coder_limits limits{.max_contexts = row.max_contexts};
    const bytes file = encode(transactions, context1, limits);
    EXPECT_TRUE(row.size > 9000 ||
                records_of(file, context1) == plain_records(transactions, context1, limits));
    const decoded read = decode(
        file, [] { return 1024; }, transactions.size());
    EXPECT_TRUE(read == (decoded{transactions, ""})) << row.max_contexts << read.error;
  }
}

// A limit of one context lets the decoder keep 128, of which the next one drops 64.
TEST(Coder, ContextsFarBeyondTheLimitAreDropped) {
  bytes start = encode({}, context4, {.max_contexts = 1});
  start.resize(preamble_size(context4) + 5);
  for (const int contexts : {128, 129}) {
    trace transactions;
    for (int agent = 0; agent <= contexts; ++agent)
      transactions.push_back({0, 0, agent % contexts});
    const decoded read = decode(start + plain_records(transactions, context4, {}));
    EXPECT_EQ(read.error.substr(0, 7), contexts == 128 ? "Input e" : "Context") << read.error;
  }
}

TEST(Coder, DamagedRecords) {
  const std::string position = "Context number too high, at record ",
                    type = "Transaction number out of range, at record 1, byte 7",
                    extra =
                        "Extra data follows good checksum -- file is bad?, at record 1, byte 12";
  const struct {
    const char* what;
    coding c;
    std::string records, error;
  } rows[] = {
      {"position 1 before any context", context1, "11", position + "1, byte 7"},
      {"position 0 before any context", context1, "00", type},
      {"position 3 of one context", context1, "30 80 80 80 30 81", position + "2, byte 11"},
      {"a wrapping one", context1, "30 80 80 80 30 7E 7F 7F 7F 8F", position + "2, byte 11"},
      {"the highest", context1, "30 80 80 80 30 7F 7F 7F 7F 8F", position + "2, byte 11"},
      {"type 68 of a context", context1, "30 80 80 C4", type},
      {"a type beyond the line sizes", context1, "B0 80 80 FF", type},
      {"raw type 68", raw0, "44 00 00 00 00 00 00 00 00 00", type},
      {"a zero of three bytes ends the records", context1, "30 00 00 80 00 00 00 00", ""},
      {"bits beyond 32 do not count", context1, "30 00 00 00 00 70 81 0 0 0 0", ""},
      {"wrong checksum", context1, "30 00 80 00 00 00 01", "Bad checksum, at record 1, byte 14"},
      {"half a checksum", raw0, "FF 0 0", "QUBIX file ends prematurely, at record 1, byte 7"},
      {"a byte too many", raw0, "FF 00 00 00 00 00", extra},
      {"many", raw0, "FF 0 0 0 0 1 2 3 4 5 6 7 8 9 1 2 3 4 5 6 7 8 9 1 2 3", extra},
      {"half a record", raw0, "1C 0 0 0 0 0 0 0 0", "Input ends early, at record 1, byte 16"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(decode(preamble(row.c) + from_hex(row.records)).error, row.error) << row.what;
}

// Numbers may be written with any number of needless groups, over any number of chunks.
TEST(Coder, OverlongNumbers) {
  const struct {
    coding c;
    const char* transactions;
    std::ptrdiff_t rest, size;  // bytes after the number, and of it
    bytes first, last;          // in its place, with any number of `needless` in between
    unsigned char needless;
  } rows[] = {{context1, "4 180, 4 100", 11, 1, {0x70}, {0xFF}, 0x7F},
              {context4, "4 180 255", 7, 2, {0x7F, 0x01}, {0x80}, 0}};
  for (const auto& row : rows)
    for (const std::size_t groups : {5u, 12u, 1000u, 1040u, 5000u})
      for (const int chunk : {5, 1024}) {
        const trace transactions = trace_of(row.transactions);
        const bytes file = encode(transactions, row.c);
        const bytes rest(file.end() - row.rest, file.end());
        const bytes cut = bytes(file.begin(), file.end() - row.rest - row.size) + row.first +
                          bytes(groups, row.needless);
        const auto next = [=] { return chunk; };
        EXPECT_TRUE(decode(cut + row.last + rest, next) == (decoded{transactions, ""})) << groups;
        EXPECT_TRUE(decode(cut, next).error.starts_with("Input ends early")) << groups;
      }
}

TEST(Coder, RecordsAbove16MiBAreRefused) {
  const bytes file = encode({{4, 0, 0}}, context1);  // two records of 4 and 3 bytes
  const auto next = [] { return 1 << 20; };
  for (const std::size_t needless : {(1u << 24) - 4, (1u << 24) - 3}) {
    bytes record = file, marker = file;
    record.insert(record.begin() + 9, needless, 0);
    EXPECT_EQ(decode(record, next).error,
              needless % 4 ? "Record too long, at record 1, byte 7" : "");
    marker.insert(marker.begin() + 12, needless + 1, 0);
    EXPECT_EQ(decode(marker, next).error,
              needless % 4 ? "Record too long, at record 2, byte 11" : "");
  }
  EXPECT_EQ(decode(preamble(context1) + bytes(40u << 20, 0x3F), next).error,
            "Record too long, at record 1, byte 7");
}

TEST(Coder, StoredCounts) {
  const bytes file = encode(trace_of("1 8, 2 8, 3 8"), raw0);
  for (const int count : {0, 2, 3}) {
    bytes changed = file;
    changed[42] = static_cast<unsigned char>(count);
    EXPECT_EQ(decode(changed).error,
              count == 2 ? "Bad transaction count, at record 4, byte 46" : "");
  }
}

TEST(Coder, NamesOfTheHeaderLimitTheTypes) {
  PRUV_header_t header;
  header.version = 2;
  header.trans_name_count = 3;
  header.trans_names = VQcomp::FSB_transactions;
  int size;
  const std::unique_ptr<unsigned char[]> encoded(VQcomp::pruv_header_struct_to_bytes(header, size));
  const decoded read = decode(from_hex("51 55 02") + bytes(encoded.get(), encoded.get() + size) +
                              from_hex("02 0 0 0 0 0 0 0 0 0 03 0 0 0 0 0 0 0 0 0"));
  EXPECT_EQ(read.transactions.size(), 1u);
  EXPECT_TRUE(read.error.starts_with("Transaction number out of range, at record 2")) << read.error;
}

TEST(Coder, ChunksOutOfTurn) {
  const char* const short_preamble = "51 55 00 00 00";
  const struct {
    std::vector<const char*> chunks;
    const char* error;
  } rows[] = {
      {{"51 56 00 00 00"}, "No magic number; is this a QUBIX?"},
      {{"51 55 06 00 00"}, "Input has bad version (must be 0-5), at byte 2"},
      {{"51 55 00 00"}, "Not enough in first block for header"},
      {{"51 55 02 1D 00"}, "QUBIX file ends prematurely, at byte 32"},
      {{short_preamble, ""}, "QUBIX file ends prematurely, at record 1, byte 5"},
      {{short_preamble, "0 0 0", "0"}, "Previous block hasn't been finished, at record 1, byte 7"},
      {{short_preamble, "0 0", "", ""}, "Input has already been finished, at record 1, byte 7"},
      {{short_preamble, "0 0 FF 0 0 0 0"}, "no error"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(error_of([&] {
                VQuncomp decoder;
                for (const char* const text : row.chunks) {
                  const bytes chunk = from_hex(text);
                  decoder.put(chunk.data(), int(chunk.size()));
                }
              }),
              row.error);
}

TEST(Coder, CheckFindsWhatIsLeft) {
  const bytes file = encode({{1, 8, 0}, {2, 8, 0}}, raw0);
  VQuncomp decoder;
  decoder.put(file.data(), int(file.size()));
  const auto check = [&] { decoder.check(); };
  EXPECT_EQ(error_of(check), "no error");
  VQtransaction taken;
  EXPECT_EQ(decoder.read(&taken, 1), 1u);
  EXPECT_EQ(error_of(check), "Some input left in uncompressor, at record 2, byte 7");
  decoder.put(nullptr, 0);
  EXPECT_EQ(decoder.read(&taken, 1), 1u);
  EXPECT_THROW(decoder.read(&taken, 1), VQcomp_done);
  EXPECT_EQ(error_of(check), "no error");
}

TEST(Coder, RefusedTransactions) {
  const std::string type = "Transaction out of range", address = "Lowest 3 bits of address not 0",
                    agent = "Agent ID too big for this version";
  for (const coding c : all_codings) {
    const int highest = c.wide_agents() ? 65535 : 255;
    const std::pair<transaction, std::string> rows[] = {{{68, 1, -1}, type},
                                                        {{0, 4, -1}, address},
                                                        {{0, 8, highest + 1}, agent},
                                                        {{0, 8, -1}, agent},
                                                        {{47, 7, highest}, ""}};
    for (const auto& [t, error] : rows)
      EXPECT_EQ(error_of([&, t = t] {
                  encode({{67, 8, 0}, t}, c);
                }),
                error.empty() ? "no error" : error + ", at record 2")
          << c;
  }
}

TEST(Coder, RefusedSettings) {
  PRUV_header_t header;
  const auto make = [&](int version, PRUV_header_t* h, int size) {
    return error_of([&] {
      VQcomp coder(nullptr, version, h, size, 0);
      coder.aborted = true;
    });
  };
  for (const int size : {84, 65536}) EXPECT_EQ(make(0, nullptr, size), "no error");
  for (const int size : {83, 65537})
    EXPECT_EQ(make(0, nullptr, size), "Size too large or too small");
  for (const int version : {-1, 6})
    EXPECT_EQ(make(version, &header, 84), "Illegal version number (must be 0-5)");
  EXPECT_EQ(make(2, nullptr, 84), "Versions 2 and higher require PRUV header");
}

TEST(Coder, WhatFinishReports) {
  const struct {
    const char* what;
    const char* transactions;
    std::array<unsigned, 3> wanted;  // contexts, their average distance, bits of addresses
  } rows[] = {
      {"nothing", "", {0, 0, 8}},
      {"a bit more than 8", "0 100, 0 200", {1, 0, 10}},
      {"negative addresses and deferred replies do not count", "0 -8, 47 FF0000", {2, 0, 8}},
      {"the highest", "0 4000000000000000, 0 8", {2, 0, 63}},
      {"half a place is rounded up", "0 0, 0 0 1, 0 0, 0 0 1", {2, 1, 8}},
      {"a third is rounded down", "0 0, 0 0 1, 0 0", {2, 0, 8}}};
  for (const auto& row : rows) {
    VQcomp coder(nullptr, 1, nullptr, 1024, 65535);
    for (const transaction& t : trace_of(row.transactions))
      coder.record(t.trans, t.addr, t.agent, t.count);
    std::array<unsigned, 3> found;
    coder.finish(found[0], found[1], found[2]);
    coder.reset_buffer();
    EXPECT_EQ(found, row.wanted) << row.what;
  }
}

bytes content_of(FILE* file) {
  std::fflush(file);
  bytes content(std::size_t(lseek(fileno(file), 0, SEEK_END)));
  EXPECT_EQ(pread(fileno(file), content.data(), content.size(), 0), ssize_t(content.size()));
  return content;
}

TEST(Coder, FinishPutsTheTotalsWhereTheStreamLetsIt) {
  const struct {
    const char* before;   // in the stream
    bool appends, grows;  // the stream; the header
    int more;             // than there are, in the header
    VQtotals totals;      // in types 2 to 5; types 0 and 1 have theirs in place or at the end
  } rows[] = {{"", false, false, 7, VQtotals::in_place},
              {"", false, true, 0, VQtotals::header_resized},
              {"text", false, false, 0, VQtotals::address_length_differs},
              {"", true, false, 0, VQtotals::address_length_differs},
              {"", true, false, 7, VQtotals::count_differs}};
  for (const auto& row : rows)
    for (const coding c : all_codings) {
      const trace transactions = random_trace(2, 500, c);
      const auto header = make_header(c, transactions);
      header->trans_count += row.more;
      const file_ptr file(std::tmpfile());
      if (row.appends) fcntl(fileno(file.get()), F_SETFL, O_APPEND);
      std::fputs(row.before, file.get());
      VQcomp coder(file.get(), c.version, header.get(), 84, 65535);
      for (const transaction& t : transactions) coder.record(t.trans, t.addr, t.agent, t.count);
      header->compression ^= 1;  // what the records depend on stays as it was
      header->max_contexts = 1;
      header->trans_count = -1;
      if (row.grows) header->extra_shorts_1 = new short[header->extra_shorts_1_count = 1]{};
      const VQcomp_summary summary = coder.finish(file.get(), header.get());
      EXPECT_EQ(summary.transactions, ssize_t(transactions.size()));
      const bool in_place = !*row.before && !row.appends && (!row.grows || c.version < 2);
      EXPECT_EQ(summary.totals, in_place        ? VQtotals::in_place
                                : c.version < 2 ? VQtotals::count_at_end
                                                : row.totals)
          << c;
      const auto end = std::ftell(file.get());
      const bytes content = content_of(file.get());
      EXPECT_EQ(end, ssize_t(content.size())) << c;
      bytes wanted = encode(transactions, c);
      wanted.insert(wanted.begin(), row.before, row.before + std::strlen(row.before));
      if (in_place)
        EXPECT_TRUE(decode(content) == (decoded{transactions, ""})) << c;
      else
        EXPECT_TRUE(row.more || content == wanted) << c;
    }
}

TEST(Coder, CallsOutOfOrderAreRefused) {
  for (const coding c : all_codings) {
    VQcomp coder(nullptr, c.version, make_header(c, {}).get(), 84, 65535);
    coder.aborted = true;
    unsigned ignored;
    long long addr = 0, recorded = 0;
    const auto record = [&] { coder.record(0, addr += 1 << 20, 0, 1); };
    const auto finish = [&] { coder.finish(ignored, ignored, ignored); };
    EXPECT_EQ(error_of([&] { coder.reset_buffer(); }), "No block is ready");
    for (; !coder.ready(); ++recorded) try {
        record();
      } catch (const VQcomp_block&) {
      }
    const std::string place = ", at record " + std::to_string(recorded);
    EXPECT_EQ(error_of(record), "Previous block hasn't been written" + place);
    EXPECT_EQ(error_of(finish), "Previous block hasn't been written" + place);
    coder.reset_buffer();
    finish();
    EXPECT_EQ(error_of(record), "Output has already been finished" + place);
    EXPECT_EQ(error_of(finish), "Output has already been finished" + place);
  }
}

TEST(Coder, AHeaderLongerThanABlockAndARefusal) {
  const coding c{4, true};
  const auto header = make_header(c, {{}});
  header->comment = new char[200]{"long"};
  std::fill_n(header->comment, 199, 'x');
  VQcomp coder(nullptr, c.version, header.get(), 84, 65535);
  EXPECT_EQ(error_of([&] { coder.record(0, 1, 0, 1); }),
            "Lowest 3 bits of address not 0, at record 1");
  EXPECT_THROW(coder.record(0, 8, 0, 1), VQcomp_block);
  coder.reset_buffer();
  unsigned ignored;
  coder.finish(ignored, ignored, ignored);
  coder.reset_buffer();
}

TEST(Coder, BatchesEndBeforeARefusedTransaction) {
  VQcomp coder(nullptr, 1, nullptr, 1024, 65535);
  coder.aborted = true;
  VQtransaction given[] = {{8, 0, 1, 0}, {16, 0, 1, 0}, {4, 0, 1, 0}};
  EXPECT_EQ(coder.record(given, 3), 2u);
  EXPECT_EQ(error_of([&] { coder.record(given + 2, 1); }),
            "Lowest 3 bits of address not 0, at record 3");
}

TEST(Coder, WhatABatchLeavesDoesNotCount) {
  VQcomp coder(nullptr, 0, nullptr, 84, 0);
  VQtransaction given[64] = {};
  given[63].addr = 1 << 20;
  EXPECT_EQ(coder.record(given, 64), 8u);  // then the block is full
  coder.reset_buffer();
  unsigned contexts, distance, bits;
  coder.finish(contexts, distance, bits);
  coder.reset_buffer();
  EXPECT_EQ(bits, 8u);
}

TEST(Coder, DestroyingACompressorThatHoldsBytes) {
  const auto record_one = [](bool aborted, bool unwinds, FILE* file = nullptr) {
    return error_of([=] {
      VQcomp coder(file, 1, nullptr, 84, 65535);
      coder.record(0, 0, 0, 1);
      coder.aborted = aborted;
      if (unwinds) throw VQcomp_error{"another", 0, 0, false};
    });
  };
  EXPECT_EQ(record_one(false, false), "Compressor killed with output remaining, at record 1");
  EXPECT_EQ(record_one(true, false), "no error");
  EXPECT_EQ(record_one(false, true), "another");
  const file_ptr full(std::fopen("/dev/full", "w"));
  EXPECT_EQ(record_one(false, false, full.get()), "Can't write output, at record 1");
}

}  // namespace
