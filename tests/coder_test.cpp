// Transactions to QUBIX files and back: the bytes, whole files, damaged files, errors.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <array>

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

constexpr coding raw0{0, false}, context1{1, true}, context4{4, true};

// Raw records in the plainest form: qubix(5).
bytes plain_raw_records(const trace& transactions, coding c) {
  bytes records;
  const auto put = [&](unsigned long long value, int size) {
    for (; size > 0; --size, value >>= 8) records.push_back(static_cast<unsigned char>(value));
  };
  for (const transaction& t : transactions) {
    put(t.trans, 1);
    put(unsigned(t.agent), c.wide_agents() ? 2 : 1);
    put(static_cast<unsigned long long>(t.addr), 8);
    if (c.four_field()) put(t.count, 4);
  }
  return records;
}

// The same, context-coded.
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

// The remainder of the bytes followed by four zero bytes, bit by bit.
unsigned plain_checksum(bytes data) {
  data.insert(data.end(), 4, 0);
  unsigned remainder = 0;
  for (const unsigned byte : data)
    for (int bit = 7; bit >= 0; --bit) {
      const bool carry = remainder >> 31;
      remainder = remainder << 1 | (byte >> bit & 1);
      if (carry) remainder ^= 0x04C11DB7;
    }
  return remainder;
}

// All that follows the header, or the count in its place.
bytes plain_body(const trace& transactions, coding c, const coder_limits& limits) {
  const bytes raw = plain_raw_records(transactions, c);
  bytes body = c.compressed ? plain_records(transactions, c, limits) + from_hex("30 00 80")
                            : raw + from_hex("FF");
  const unsigned checksum = plain_checksum(raw);
  for (int shift = 24; shift >= 0; shift -= 8)
    body.push_back(static_cast<unsigned char>(checksum >> shift));
  for (int shift = 0; shift < 32 && c.version < 2; shift += 8)
    body.push_back(static_cast<unsigned char>(transactions.size() >> shift));
  return body;
}

bool is_plain(const bytes& file, const trace& transactions, coding c, const coder_limits& limits) {
  const bytes body = plain_body(transactions, c, limits);
  const std::size_t limit_bytes = c.compressed && c.version > 3 && limits.max_contexts ? 5 : 0;
  return file.size() == preamble_size(c) + limit_bytes + body.size() &&
         std::equal(body.rbegin(), body.rend(), file.rbegin());
}

TEST(Coder, FilesAreThoseOfThePlainFormInBatchesOfAnySize) {
  const std::size_t batches[] = {1, 7, 63, 64, 65, 5000};
  const unsigned limits[] = {0, 1, 2, 3, 64, 65, 200};
  for (const coding c : all_codings)
    for (const long long window :
         {0LL, 8LL, 16LL, 99LL, 512LL, 4096LL, 65535LL, 65536LL, 1LL << 60})
      for (unsigned seed = 0; seed < 24; ++seed) {
        const std::size_t batch = batches[seed % 6];
        const coder_limits limit{window, limits[seed % 7], seed % 5 ? 84 : 1024, batch};
        const trace transactions = random_trace(seed, int(seed % 8 * 50), c);
        std::map<std::size_t, std::size_t> handed_out, of_single_ones;
        const bytes file = encode(transactions, c, limit, &handed_out);
        EXPECT_TRUE(is_plain(file, transactions, c, limit))
            << c << " seed " << seed << " window " << window;
        encode(transactions, c, {window, limit.max_contexts, limit.block_size}, &of_single_ones);
        for (const auto& [transactions_so_far, size] : handed_out)
          EXPECT_EQ(size, of_single_ones[transactions_so_far]) << c << " seed " << seed;
        const decoded read = decode(file, 300, transactions.size(), batch);
        EXPECT_TRUE(read == (decoded{transactions, ""})) << c << " seed " << seed << read.error;
      }
}

TEST(Coder, StepsOfManyBits) {
  for (const coding c : {context1, context4})
    for (const long long step : {1LL << 16, 1LL << 27, 1LL << 34, 1LL << 35, 1LL << 40})
      for (const long long more : {-64, 0, 64, 4096}) {
        const trace transactions{{24, step, 0}, {24, 2 * step + more, 0}, {24, more + 4096, 0}};
        const coder_limits limits{.window = 1LL << 60, .batch = 3};
        EXPECT_TRUE(is_plain(encode(transactions, c, limits), transactions, c, limits)) << step;
      }
}

// Three fields coded by contexts keep the latest record back, as it may be repeated.
TEST(Coder, ABlockIsFullAtItsSize) {
  for (const coding c : all_codings)
    for (int block_size = 84; block_size < 100; ++block_size) {
      trace transactions;
      std::map<std::size_t, std::size_t> handed_out;
      for (int i = 0; i < 60; ++i) transactions.push_back({24, 1LL << (i % 36 + 20), i / 36});
      encode(transactions, c, {.block_size = block_size}, &handed_out);
      std::size_t wanted = 0, before = preamble_size(c);
      for (std::size_t i = 1; i <= transactions.size(); ++i) {
        const trace first(transactions.begin(), transactions.begin() + long(i));
        const std::size_t used =
            preamble_size(c) +
            (c.compressed ? plain_records(first, c, {}) : plain_raw_records(first, c)).size();
        if (used >= wanted + unsigned(block_size))
          wanted = c.compressed && !c.four_field() ? before : used;
        EXPECT_EQ(handed_out[i], wanted) << c << " size " << block_size << " record " << i;
        before = used;
      }
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
    EXPECT_TRUE(row.size > 9000 || is_plain(file, transactions, context1, limits));
    const decoded read = decode(file, 1024, transactions.size());
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
    trace transactions;
    std::ptrdiff_t rest, size;  // bytes after the number, and of it
    bytes first, last;          // in its place, with any number of `needless` in between
    unsigned char needless;
  } rows[] = {{context1, {{4, 0x180, 0}, {4, 0x100, 0}}, 11, 1, {0x70}, {0xFF}, 0x7F},
              {context4, {{4, 0x180, 255}}, 7, 2, {0x7F, 0x01}, {0x80}, 0}};
  for (const auto& row : rows)
    for (const std::size_t groups : {5u, 12u, 1000u, 1040u, 5000u})
      for (const int chunk : {5, 1024}) {
        const bytes file = encode(row.transactions, row.c);
        const bytes rest(file.end() - row.rest, file.end());
        const bytes cut = bytes(file.begin(), file.end() - row.rest - row.size) + row.first +
                          bytes(groups, row.needless);
        EXPECT_TRUE(decode(cut + row.last + rest, chunk) == (decoded{row.transactions, ""}))
            << groups;
        EXPECT_TRUE(decode(cut, chunk).error.starts_with("Input ends early")) << groups;
      }
}

// In small chunks, a number in pieces was taken together with what an earlier refill had left in
// the buffer.
TEST(Coder, RecordsAbove16MiBAreRefused) {
  const bytes file = encode({{4, 0, 0}}, context1);  // two records of 4 and 3 bytes
  for (const int chunk : {1025, 1 << 20}) {
    for (const std::size_t needless : {(1u << 24) - 4, (1u << 24) - 3}) {
      bytes record = file, marker = file;
      record.insert(record.begin() + 9, needless, 0);
      EXPECT_EQ(decode(record, chunk).error,
                needless % 4 ? "Record too long, at record 1, byte 7" : "");
      marker.insert(marker.begin() + 12, needless + 1, 0);
      EXPECT_EQ(decode(marker, chunk).error,
                needless % 4 ? "Record too long, at record 2, byte 11" : "");
    }
    EXPECT_EQ(decode(preamble(context1) + bytes(40u << 20, 0x3F), chunk).error,
              "Record too long, at record 1, byte 7");
  }
}

TEST(Coder, AnotherCountThanTheStoredOneIsRefused) {
  bytes file = encode({{1, 8, 0}, {2, 8, 0}, {3, 8, 0}}, raw0);
  file[42] = 2;
  EXPECT_EQ(decode(file).error, "Bad transaction count, at record 4, byte 46");
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
  transaction taken;
  const auto read = [&] { decoder.read(taken.trans, taken.addr, taken.agent, taken.count); };
  read();
  EXPECT_EQ(taken, (transaction{1, 8, 0}));
  EXPECT_EQ(error_of(check), "Some input left in uncompressor, at record 2, byte 7");
  EXPECT_THROW(read(), VQcomp_block);
  decoder.put(nullptr, 0);
  read();
  EXPECT_THROW(read(), VQcomp_done);
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
    trace transactions;
    std::array<unsigned, 3> wanted;  // contexts, their average distance, bits of addresses
  } rows[] = {
      {"nothing", {}, {0, 0, 8}},
      {"a bit more than 8", {{0, 0x100, 0}, {0, 0x200, 0}}, {1, 0, 10}},
      {"negative addresses and replies do not count", {{0, -8, 0}, {47, 0xFF0000, 0}}, {2, 0, 8}},
      {"the highest", {{0, 1LL << 62, 0}, {0, 8, 0}}, {2, 0, 63}},
      {"half a place is rounded up", {{0, 0, 0}, {0, 0, 1}, {0, 0, 0}, {0, 0, 1}}, {2, 1, 8}},
      {"a third is rounded down", {{0, 0, 0}, {0, 0, 1}, {0, 0, 0}}, {2, 0, 8}}};
  for (const auto& row : rows) {
    VQcomp coder(nullptr, 1, nullptr, 1024, 65535);
    for (const transaction& t : row.transactions) coder.record(t.trans, t.addr, t.agent, t.count);
    std::array<unsigned, 3> found;
    coder.finish(found[0], found[1], found[2]);
    coder.reset_buffer();
    EXPECT_EQ(found, row.wanted) << row.what;
  }
}

TEST(Coder, TheHeaderMayChangeUntilTheEnd) {
  const struct {
    bool grows, appends;  // the header; the stream
    VQtotals totals, without_header;
  } rows[] = {{false, false, VQtotals::in_place, VQtotals::in_place},
              {true, false, VQtotals::header_resized, VQtotals::in_place},
              {false, true, VQtotals::count_differs, VQtotals::count_at_end}};
  for (const coding c : all_codings)
    for (const auto& row : rows) {
      const trace transactions = random_trace(2, 500, c);
      const auto header = make_header(c, {});
      const file_ptr file(std::tmpfile());
      if (row.appends) fcntl(fileno(file.get()), F_SETFL, O_APPEND);
      VQcomp coder(file.get(), c.version, header.get(), 84, 65535);
      for (const transaction& t : transactions) coder.record(t.trans, t.addr, t.agent, t.count);
      header->compression ^= 1;  // what the records depend on stays as it was
      header->max_contexts = 1;
      header->trans_count = -1;
      if (row.grows) header->extra_shorts_1 = new short[header->extra_shorts_1_count = 1]{};
      EXPECT_EQ(coder.finish(file.get(), header.get()).totals,
                c.version > 1 ? row.totals : row.without_header)
          << c;
      const auto end = std::ftell(file.get());
      std::fseek(file.get(), 0, SEEK_END);
      EXPECT_EQ(end, std::ftell(file.get())) << c;
      std::rewind(file.get());
      EXPECT_TRUE(read_all(file.get()) == (decoded{transactions, ""})) << c;
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
      } catch (const VQcomp_block& block) {
        EXPECT_EQ(int(block.bytes), coder.ready());
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
  coder.aborted = true;
  EXPECT_EQ(error_of([&] { coder.record(0, 1, 0, 1); }),
            "Lowest 3 bits of address not 0, at record 1");
  EXPECT_THROW(coder.record(0, 8, 0, 1), VQcomp_block);
  coder.reset_buffer();
}

TEST(Coder, BatchesEndBeforeARefusedTransaction) {
  VQcomp coder(nullptr, 1, nullptr, 1024, 65535);
  VQtransaction given[] = {{8, 0, 1, 0}, {16, 0, 1, 0}, {(1 << 20) + 4, 0, 1, 0}};
  EXPECT_EQ(coder.record(given, 3), 2u);
  EXPECT_EQ(error_of([&] { coder.record(given + 2, 1); }),
            "Lowest 3 bits of address not 0, at record 3");
  unsigned contexts, distance, bits;
  coder.finish(contexts, distance, bits);
  coder.reset_buffer();
  EXPECT_EQ(bits, 8u);  // without the refused one's
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
