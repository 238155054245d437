// The plain forms of the coder, to measure against: sscanf and fprintf a line, a
// checksum byte after byte, a list of contexts that is walked. Converts text to file type 1 and
// back, good input only: plain INFILE OUTFILE.

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "coder/vqcomp.h"

namespace {

struct context {
  long long addr;  // in 8-byte units
  int agent;
  velk_trans_class trans;
};

constexpr std::size_t most_contexts = 16383;
constexpr long long window = 65535 >> 3;

unsigned crc_table[256];

void make_crc_table() {
  for (unsigned i = 0; i < 256; ++i) {
    unsigned entry = i << 24;
    for (int bit = 0; bit < 8; ++bit) entry = entry << 1 ^ (entry >> 31 ? 0x04C11DB7 : 0);
    crc_table[i] = entry;
  }
}

unsigned crc = 0;

void fold(unsigned byte) { crc = (crc << 8 | (byte & 0xFF)) ^ crc_table[crc >> 24]; }

void fold(velk_trans_class trans, int agent, long long addr) {
  fold(trans);
  fold(unsigned(agent));
  for (int byte = 0; byte < 8; ++byte) fold(unsigned(addr >> 8 * byte));
}

int size_class(velk_trans_class trans) { return VQcomp::trans2line_size[trans >> 3]; }

class encoder {
 public:
  explicit encoder(FILE* out) : out_(out) { bytes_ = {'Q', 'U', 1, 0xFF, 0xFF, 0xFF, 0xFF}; }

  void record(velk_trans_class trans, long long addr, int agent) {
    ++count_;
    fold(trans, agent, addr);
    const context wanted = {addr >> 3, agent, trans};
    long long prev = 0;
    const int position = find(wanted, prev);
    const int shift = size_class(trans);
    const long long lines = (wanted.addr >> shift) - (prev >> shift);
    const bool aligned = (wanted.addr & ((1 << shift) - 1)) == 0;
    if (position == 0 && aligned && lines == 1) {
      ++repeats_;
      return;
    }
    flush_repeats();
    head_ = bytes_.size();
    if (position < 0) {
      bytes_.push_back(static_cast<unsigned char>(0x30 | (wanted.addr & 0xF)));
      bytes_.push_back(0x80);
      put(static_cast<unsigned long long>(wanted.addr) >> 4);
      bytes_.push_back(static_cast<unsigned char>(agent ? trans : trans | 0x80));
      if (agent) bytes_.push_back(static_cast<unsigned char>(agent));
      return;
    }
    bytes_.push_back(static_cast<unsigned char>(std::min(position, 3) << 4));
    if (position > 2) put(static_cast<unsigned long long>(position - 2));
    if (aligned && lines >= -7 && lines <= 7) {
      bytes_[head_] |= static_cast<unsigned char>(lines & 0xF);
    } else {
      bytes_[head_] |= 8;
      put_signed(wanted.addr - prev);
    }
  }

  void finish() {
    flush_repeats();
    for (int i = 0; i < 4; ++i) fold(0u);
    bytes_.insert(bytes_.end(), {0x30, 0x00, 0x80});
    for (int shift = 24; shift >= 0; shift -= 8)
      bytes_.push_back(static_cast<unsigned char>(crc >> shift));
    write(bytes_.size());
    std::fseek(out_, 3, SEEK_SET);
    for (int shift = 0; shift < 32; shift += 8) std::fputc(int(count_ >> shift & 0xFF), out_);
  }

 private:
  int find(const context& wanted, long long& prev) {
    context carried = wanted;
    for (std::size_t i = 0; i < contexts_.size(); ++i) {
      std::swap(carried, contexts_[i]);
      if (carried.trans == wanted.trans && carried.agent == wanted.agent &&
          carried.addr - window < wanted.addr && wanted.addr < carried.addr + window) {
        prev = carried.addr;
        return int(i);
      }
    }
    if (contexts_.size() < most_contexts) contexts_.push_back(carried);
    return -1;
  }

  void put(unsigned long long value) {
    for (; value > 0x7F; value >>= 7) bytes_.push_back(static_cast<unsigned char>(value & 0x7F));
    bytes_.push_back(static_cast<unsigned char>(value | 0x80));
  }

  void put_signed(long long value) {
    for (; value < -64 || value > 63; value >>= 7)
      bytes_.push_back(static_cast<unsigned char>(value & 0x7F));
    bytes_.push_back(static_cast<unsigned char>((value & 0x7F) | 0x80));
  }

  void flush_repeats() {
    if (repeats_ > 0) bytes_[head_] |= static_cast<unsigned char>(std::min(repeats_, 3u) << 6);
    if (repeats_ > 2) put(repeats_ - 2);
    repeats_ = 0;
    if (bytes_.size() >= 1024) write(bytes_.size());
  }

  void write(std::size_t size) {
    std::fwrite(bytes_.data(), 1, size, out_);
    bytes_.clear();
  }

  FILE* out_;
  std::vector<unsigned char> bytes_;
  std::vector<context> contexts_;
  std::size_t head_ = 0;
  unsigned repeats_ = 0;
  unsigned long long count_ = 0;
};

void encode(FILE* in, FILE* out) {
  encoder coder(out);
  char line[100], name[20], next;
  unsigned long long addr;
  unsigned agent, count;
  while (std::fgets(line, sizeof line, in) &&
         std::sscanf(line, "%19s%llx%x %u%c", name, &addr, &agent, &count, &next) >= 3)
    coder.record(velk_trans_str2num_type1(name), static_cast<long long>(addr), int(agent));
  coder.finish();
}

class decoder {
 public:
  decoder(FILE* in, FILE* out) : in_(in), out_(out) {}

  void run() {
    for (int i = 0; i < 7; ++i) next();
    while (record()) {
    }
  }

 private:
  unsigned next() { return unsigned(std::fgetc(in_)); }

  unsigned long long get(int& bits) {
    unsigned long long value = 0;
    for (bits = 0;; bits += 7) {
      const unsigned byte = next();
      value |= static_cast<unsigned long long>(byte & 0x7F) << bits;
      if (byte & 0x80) break;
    }
    bits += 7;
    return value;
  }

  bool record() {
    const unsigned head = next();
    int bits;
    unsigned long long position = head >> 4 & 3, number = 0;
    if (position == 3) {
      number = get(bits);
      if (number == 0 && bits > 7) return false;
      position = number + 2;
    }
    context used;
    if ((head >> 4 & 3) == 3 && number == 0) {
      used.addr = static_cast<long long>((head & 0xF) | get(bits) << 4);
      const unsigned code = next();
      used.trans = static_cast<velk_trans_class>(code & 0x7F);
      used.agent = code & 0x80 ? 0 : int(next());
    } else {
      used = contexts_[position];
      contexts_.erase(contexts_.begin() + std::ptrdiff_t(position));
      move(used, head);
    }
    contexts_.insert(contexts_.begin(), used);
    unsigned long long repeats = head >> 6;
    if (repeats == 3) repeats = get(bits) + 2;
    print();
    for (; repeats > 0; --repeats) {
      const int shift = size_class(contexts_[0].trans);
      contexts_[0].addr = ((contexts_[0].addr >> shift) + 1) << shift;
      print();
    }
    return true;
  }

  void move(context& used, unsigned head) {
    if ((head & 0xF) == 8) {
      int bits;
      unsigned long long delta = get(bits);
      if (bits < 64 && delta >> (bits - 1) & 1) delta |= ~0ull << bits;
      used.addr += static_cast<long long>(delta);
    } else {
      const int shift = size_class(used.trans);
      used.addr = ((used.addr >> shift) + (int(head & 0xF) ^ 8) - 8) << shift;
    }
  }

  void print() {
    const context& c = contexts_[0];
    fold(c.trans, c.agent, c.addr << 3);
    std::fprintf(out_, "%10s %08llX %x\n", VQcomp::FSB_transactions[c.trans],
                 static_cast<unsigned long long>(c.addr) << 3, unsigned(c.agent));
  }

  FILE* in_;
  FILE* out_;
  std::vector<context> contexts_;
};

}  // namespace

int main(int argc, char** argv) {
  FILE* const in = argc == 3 ? std::fopen(argv[1], "rb") : nullptr;
  FILE* const out = in ? std::fopen(argv[2], "wb") : nullptr;
  if (!out) {
    std::fprintf(stderr, "usage: plain INFILE OUTFILE\n");
    return 1;
  }
  make_crc_table();
  const int first = std::ungetc(std::fgetc(in), in);
  if (first == 'Q')
    decoder(in, out).run();
  else
    encode(in, out);
  std::fclose(in);
  return std::fclose(out) == 0 ? 0 : 1;
}
