// SPDX-License-Identifier: Apache-2.0

#include "tests/fuzz/formats.h"

#include <kdzk/host.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/support/predicate_oracle.h"
#include "tests/support/prefix_streams.h"

namespace kdzk_test {
namespace {

using View = std::span<const uint8_t>;

std::string repeat;  // the arguments that repeat what runs

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "not so: %s\nto repeat it: kdzk_fuzz %s\n", what, repeat.c_str());
  std::abort();
}

uint64_t number(View bytes) {
  uint64_t value = 0;
  for (const uint8_t byte : bytes) value = value << 8 | byte;
  return value;
}

void put(Bytes& to, uint64_t value, int bytes) {
  for (int shift = 8 * bytes - 8; shift >= 0; shift -= 8) to.push_back(static_cast<uint8_t>(value >> shift));
}

// What is left of an input. Where it ends numbers become smaller, and streams shorter.
struct Input {
  View left;

  View bytes(size_t size) {
    const View front = left.first(std::min(size, left.size()));
    left = left.subspan(front.size());
    return front;
  }
  uint32_t number(size_t size) { return static_cast<uint32_t>(kdzk_test::number(bytes(size))); }
  uint8_t byte() { return static_cast<uint8_t>(number(1)); }
};

// ---- Blocks ----

bool try_sqzb(View input) {
  Input in{input};
  const bool repair = in.byte() % 4 != 0;
  const uint8_t behind = in.byte();
  Bytes block(in.left.begin(), in.left.end());
  kdzk_host_sqzb_report report{};
  for (bool repaired = false;; repaired = true) {
    const GuardedBuffer exact(block, 0);
    if (kdzk_host_sqzb_check(exact.data(), block.size(), &report) == KDZK_HOST_DONE) break;
    require(report.offset <= block.size(), "a block's fault is inside the block");
    // A size in the header that agrees with the stream; one symbol may stand there four thousand million times.
    if (repaired || !repair || report.offset != 12 || block.size() == 12 || number({&block[16], 2}) == 1) return false;
    const size_t size = sqzb_plain_decode(block).size();
    for (size_t i = 0; i < 4; i++) block[12 + i] = static_cast<uint8_t>(size >> (24 - 8 * i));
  }
  if (report.decoded_size > 1 << 20) return false;
  block.resize(report.block_size);
  SqzbHost host;
  const auto got = host.decode(block, report.decoded_size, KDZK_PADDING, behind);
  require(got.status == KDZK_DONE, "a block that passed is decoded");
  require(got.written == report.decoded_size && got.dst == sqzb_plain_decode(block), "as the plain decoder has it");
  require(host.allocs.size() == 2 && host.frees.size() == 2 && host.complaint == "", "with two pieces of scratch");
  return true;
}

Bytes make_sqzb(Random& random) {
  const auto width = static_cast<uint32_t>(random.below(random.below(4) == 0 ? 11 : 6));
  Bytes block =
      random_sqzb_block(random, width, static_cast<uint32_t>(random.below(200)),
                        static_cast<uint32_t>(1 + random.below(random.below(8) == 0 ? 9 : 8)))  // 9 is too long
          .bytes();
  if (random.below(8) == 0) {  // or the writer's
    const Bytes data = sqzb_plain_decode(block);
    const auto size = static_cast<uint32_t>(data.size());
    uint64_t written = 0;
    block.resize(kdzk_host_sqzb_bound(size, KDZK_HOST_SQZB_ANY_WIDTH));
    (void)kdzk_host_sqzb_write(data.data(), size, KDZK_HOST_SQZB_ANY_WIDTH, block.data(), block.size(), &written);
    block.resize(written);
  }
  for (int i = 0; i < 2; i++) block.insert(block.begin(), static_cast<uint8_t>(random.bits()));
  return block;
}

// ---- Prefix records ----

bool try_prefix_records(View input) {
  Input in{input};
  const uint32_t width = in.number(1) % 10, count = in.number(2) % 500;
  const uint8_t behind = in.byte();
  const View given = in.left;
  const GuardedBuffer exact(given, 0);
  const uint64_t size = kdzk_host_prefix_records_check(exact.data(), given.size(), count, width);
  const uint32_t whole = kdzk_host_check_prefix_records(exact.data(), given.size(), count, width, nullptr);
  require(given.empty() || (whole == KDZK_HOST_DONE) == (size == given.size()), "both checks say the same");
  if (size == KDZK_HOST_PREFIX_NO_STREAM) return false;
  require(size <= given.size(), "a stream that passed is all there");
  const GuardedBuffer stream(given.first(size), KDZK_PADDING, behind);
  GuardedBuffer out(size_t{count} * width), table(count * sizeof(kdzk_prefix_record));
  PrefixCall call(stream.data(), width, count, out.data());
  call.exec.xlate_info = table.data();
  require(call.run(&call.exec) == KDZK_DONE, "a stream that passed is decoded");
  const Bytes want = prefix_plain_decode(given, count, width);
  require(std::equal(want.begin(), want.end(), out.data(), out.data() + out.size()), "as the plain decoder has it");
  for (uint32_t i = 0; i < count; i++) {
    const kdzk_prefix_record entry = {out.data() + i * width, static_cast<uint16_t>(width), {}};
    require(std::memcmp(table.data() + i * sizeof entry, &entry, sizeof entry) == 0, "the table tells where they are");
  }
  return true;
}

Bytes make_prefix_records(Random& random) {
  const auto width = static_cast<uint32_t>(1 + random.below(8)), count = static_cast<uint32_t>(1 + random.below(99));
  Bytes input;
  put(input, width, 1);
  put(input, count, 2);
  put(input, random.bits(), 1);
  const Bytes stream = random_prefix_stream(random, width, count, any_prefix);
  input.insert(input.end(), stream.begin(), stream.end());
  return input;
}

// ---- Packed codes, of rows or of runs ----

// What comes first in an input: the codes' width, number, limit and slack, and how kernels are called.
struct Call {
  Input& in;
  uint32_t width = in.number(1) % 34, count = in.number(2) % 1500;
  uint64_t stated = in.number(4), limit = stated == 0 ? uint64_t{1} << width : stated;
  uint8_t flags = in.byte(), behind = in.byte();
  uint32_t operation = in.number(1) % 11;  // of the predicates; the last is a set
  uint32_t start = in.number(2), room = 1 + in.number(1), low = in.number(4), high = in.number(4);
  uint64_t filter = kdzk_test::number(in.bytes(8)), selection = kdzk_test::number(in.bytes(8));

  bool null_aware = flags & 1, filtered = flags & 2, selected = flags & 4, selective = flags & 8, wide = flags & 16,
       listed = flags & 32, known = flags & 64;  // known: the constant is a code of the column
  bool set() const { return operation > KDZK_OP_GE_LE; }
  kdzk_kernel kernel(uint32_t op) const {
    return library().dispatch[kdzk_id_of_kind(kdzk_kind_of(kdzk_row_of_width(width), KDZK_FAMILY_DICT), op)];
  }
};

// Codes that passed the check, in just their bytes and the padding, and their rows: one each, or runs of them.
struct Codes {
  const Call& call;
  View stream;
  std::vector<uint32_t> lengths, codes, rows;
  GuardedBuffer padded;
  kdzk_enc_ctx enc{};
  kdzk_vec column{};

  Codes(const Call& c, View given, const std::vector<uint32_t>& run_lengths)
      : call(c),
        stream(given.first((size_t{c.count} * c.width + 7) / 8)),
        lengths(run_lengths),
        codes(c.count),
        padded(stream, c.set() ? KDZK_SET_PADDING : KDZK_PADDING, c.behind) {
    for (size_t bit = 0; bit < codes.size() * c.width; bit++)
      codes[bit / c.width] = codes[bit / c.width] * 2 + (stream[bit / 8] >> (7 - bit % 8) & 1);
    for (size_t i = 0; i < codes.size(); i++) rows.insert(rows.end(), lengths[i], codes[i]);
    enc.flags = KDZK_PACKED_DICT;
    enc.width = static_cast<uint8_t>(c.width);
    enc.own_nrows = c.count;
    column.data = padded.data();
    column.enc_ctx = &enc;
    column.nrows = static_cast<uint32_t>(rows.size());
  }
};

// The check by the library's kernel and the one by a loop, which must agree.
bool good_codes(const Call& c, View stream) {
  const GuardedBuffer padded(stream, KDZK_PADDING, c.behind), exact(stream, 0);
  kdzk_host_report fast{}, slow{};
  (void)kdzk_host_check_codes(&library(), padded.data(), stream.size(), c.count, c.width, c.limit, &fast);
  (void)kdzk_host_check_codes(nullptr, exact.data(), stream.size(), c.count, c.width, c.limit, &slow);
  require(fast.ok == slow.ok && fast.offset == slow.offset, "both ways of checking codes agree");
  require(fast.ok == 0 || (uint64_t{c.count} * c.width + 7) / 8 <= stream.size(), "codes that passed are all there");
  return fast.ok == 1;
}

GuardedBits bits_of(uint64_t pattern, uint64_t count) {
  std::vector<bool> bits(count);
  for (size_t i = 0; i < count; i++) bits[i] = (pattern >> (i + i / 64 * 5) % 64 & 1) != 0;
  return GuardedBits(bits, ~pattern);
}

// A predicate or a set, and the burst kernel behind it.
void expect_rows(Codes& c) {
  const Call& call = c.call;
  const bool set = call.set();
  if (set && (call.width > 13 || call.kernel(KDZK_OP_SET).any == nullptr)) return;  // large tables
  const PredicateKernel kernel{static_cast<int>(set ? 0 : call.operation), "dict", static_cast<int>(call.width),
                               call.null_aware && !set ? "_null" : "", 0};
  const bool known = call.known && call.count > 0, filtered = call.filtered && !set && kernel.reads_filter();
  const Row low = kernel.fitting(known ? c.codes[call.start % call.count] : call.low, 0);
  const Row high = kernel.fitting(call.high, 0);
  GuardedBits filter = bits_of(call.filter, call.count), selection = bits_of(call.selection, call.count);
  GuardedBits table = bits_of(call.filter ^ call.low, uint64_t{1} << (set ? call.width : 0));
  std::vector<bool> want;
  for (uint32_t i = 0; i < call.count; i++) {
    const bool one = (set ? table.row(c.codes[i]) : qualifies(kernel, {c.codes[i], 0}, low, high)) &&
                     (!filtered || filter.row(i)) && (!call.selected || selection.row(i));
    want.insert(want.end(), c.lengths[i], one);
  }
  GuardedBits run_bits(call.count), bits(c.rows.size());
  const kdzk_env env{};
  kdzk_exec exec{};
  exec.env = &env;
  exec.selection = call.selected ? selection.words() : nullptr;
  exec.flags = call.selective && c.enc.result_cb == nullptr ? KDZK_EX_SELECTIVE : 0;
  c.column.filter = filtered ? filter.words() : nullptr;
  c.enc.own_bitvec = run_bits.words();
  kdzk_vec result{}, members{};
  result.bitvec = bits.words();
  result.nrows = c.column.nrows;
  members.bitvec = table.words();
  const uint64_t returned =
      set ? call.kernel(KDZK_OP_SET).set(&result, &c.column, &members, &exec)
          : kernel.call(&result, &c.column, Constant(kernel, low).args(), Constant(kernel, high).args(), &exec);
  require(bits.rows() == want, "the rows are those of the plain loop");
  require(result.hits == std::ranges::count(want, true), "and so is their number");
  require(returned == (result.hits > 0 ? KDZK_DONE : KDZK_NO_ROW), "and the return code");
}

// Calls of decode_unpack, one going on where the other was full.
void expect_unpacked(Codes& c) {
  const Call& call = c.call;
  const uint32_t nrows = c.column.nrows, start = call.listed || nrows == 0 ? 0 : call.start % nrows;
  GuardedBits selection = bits_of(call.selection, nrows);
  std::vector<uint32_t> want, got;
  Bytes list;
  for (uint32_t row = start; row < nrows; row++) {
    if ((call.listed || call.selected) && !selection.row(row)) continue;
    want.push_back(c.rows[row]);
    put(list, __builtin_bswap32(row), 4);
  }
  if (nrows == 0 || (call.listed && list.empty())) return;
  GuardedBuffer ones(list, 0);
  kdzk_exec exec{};
  exec.row = start;
  exec.flags = static_cast<uint8_t>((call.wide ? KDZK_EX_UNPACK_WIDE : 0) | (call.selective ? KDZK_EX_SELECTIVE : 0));
  exec.ones_vec = call.listed ? reinterpret_cast<uint32_t*>(ones.data()) : nullptr;
  exec.ones_vec_size = static_cast<uint32_t>(list.size() / 4);
  exec.selection = call.selected && !call.listed ? selection.words() : nullptr;
  const uint32_t element = call.wide || call.width > 16 ? 4 : call.width > 8 ? 2 : 1;
  const uint32_t room = call.listed ? exec.ones_vec_size : call.room * (nrows > 5000 ? 64 : 1);
  do {
    GuardedBuffer out(size_t{room} * element);
    kdzk_vec result{};
    result.data = out.data();
    result.nrows = room;
    const uint64_t returned = call.kernel(KDZK_OP_DECODE_UNPACK).decode(&result, &c.column, &exec);
    require(returned == (result.hits > 0 ? KDZK_DONE : KDZK_NO_ROW), "the return code tells of rows");
    require(result.hits <= std::min<size_t>(room, want.size() - got.size()), "no more codes than room and rows");
    for (uint32_t i = 0; i < result.hits; i++) {
      got.push_back(0);
      std::memcpy(&got.back(), out.data() + size_t{i} * element, element);
    }
  } while (!call.listed && ++exec.row < nrows);
  require(got == want, "unpacked codes are those of the plain loop");
}

// The symbol of every row, from a dictionary whose offsets end at a page that faults.
void expect_symbols(Codes& c, View offsets) {
  const uint32_t nrows = c.column.nrows;
  const GuardedBuffer exact(offsets, 0);
  c.enc.dict_mode = 1;
  c.enc.base = exact.data();  // no symbol is looked at
  c.enc.offsets = exact.data();
  GuardedBuffer list(nrows * 4), addresses(nrows * 8), lengths(nrows * 2), indicators(nrows * 2);
  for (uint32_t row = 0; row < nrows; row++) std::memcpy(list.data() + row * 4, &row, 4);
  kdzk_exec exec{};
  exec.ones_vec = reinterpret_cast<uint32_t*>(list.data());
  exec.ones_vec_size = nrows;
  kdzk_vec result{};
  result.data = addresses.data();
  result.lengths = lengths.data();
  result.indicators = indicators.data();
  (void)c.call.kernel(KDZK_OP_DECODE).decode(&result, &c.column, &exec);
  for (uint32_t row = 0; row < nrows; row++) {
    const View pair = offsets.subspan(c.rows[row] * 4, 8);
    const uint8_t* const address = exact.data() + number(pair.first(4));
    const auto length = static_cast<uint16_t>(number(pair.last(4)) - number(pair.first(4)));
    const uint16_t indicator = length == 0 ? 2 : 0;
    require(std::memcmp(addresses.data() + row * 8, &address, 8) == 0 &&
                std::memcmp(lengths.data() + row * 2, &length, 2) == 0 &&
                std::memcmp(indicators.data() + row * 2, &indicator, 2) == 0,
            "symbols are those of the plain loop");
  }
}

bool try_packed_codes(View input) {
  Input in{input};
  Call call{in};
  const uint32_t entries = in.number(1), symbol_bytes = in.number(2);  // of a dictionary; 0: there is none
  const View offsets = in.bytes(entries == 0 ? 0 : entries * 4 + 4);
  if (entries > 0) {
    call.limit = entries;
    const GuardedBuffer exact(offsets, 0);
    if (kdzk_host_check_offsets(exact.data(), offsets.size(), entries, symbol_bytes, nullptr) != KDZK_HOST_DONE)
      return false;
    require(offsets.size() == entries * 4 + 4, "offsets that passed are all there");
    for (size_t i = 0; i < entries; i++)
      require(number(offsets.subspan(i * 4, 4)) <= number(offsets.subspan(i * 4 + 4, 4)), "offsets don't descend");
    require(number(offsets.last(4)) <= symbol_bytes, "symbols don't reach past the end");
  }
  if (!good_codes(call, in.left)) return false;
  Codes rows(call, in.left, std::vector<uint32_t>(call.count, 1));
  require(std::ranges::all_of(rows.codes, [&](uint32_t code) { return code < call.limit; }),
          "codes are below the limit");
  const GuardedBuffer exact(rows.stream, 0);
  std::vector<uint32_t> unpacked(call.count);
  const uint32_t half = call.start % (call.count + 1);
  kdzk_host_unpack(exact.data(), 0, half, call.width, unpacked.data());
  kdzk_host_unpack(exact.data(), half, call.count - half, call.width, unpacked.data() + half);
  require(unpacked == rows.codes, "the kit unpacks the same codes");
  expect_rows(rows);
  if (call.set()) return true;  // which has less padding
  rows.column.filter = nullptr;
  expect_unpacked(rows);
  if (entries > 0) expect_symbols(rows, offsets);
  return true;
}

// An input that has got as far as the call, and its codes.
struct MadeCodes {
  uint32_t width, count;
  uint64_t limit;
  Bytes input = {}, stream = {};

  MadeCodes(Random& random, uint64_t rows, uint64_t entries) : count(static_cast<uint32_t>(rows)) {
    const uint64_t row = random.below(22);
    width = static_cast<uint32_t>(row < 20 ? row + 1 : row == 20 ? 24 : 32);
    limit = uint64_t{1} << width;
    if (random.below(2) == 0) limit = 1 + random.below(limit);
    if (entries > 0) limit = std::min(limit, entries);
    std::vector<uint32_t> codes(count);
    for (uint32_t& code : codes) code = static_cast<uint32_t>(random.below(limit));
    stream.resize(kdzk_host_packed_bytes(count, width));
    kdzk_host_pack(codes.data(), count, width, stream.data());
    put(input, width, 1);
    put(input, count, 2);
    put(input, limit, 4);  // 2^32 is 0, which is no limit
    for (int i = 0; i < 30; i++) put(input, random.bits(), 1);
  }
  void put_stream() { input.insert(input.end(), stream.begin(), stream.end()); }
};

Bytes make_packed_codes(Random& random) {
  const uint64_t dictionary = random.below(2) * 255;
  MadeCodes made(random, random.below(random.below(2) == 0 ? 1500 : 100), dictionary);
  const uint64_t entries = dictionary == 0 ? 0 : made.limit;
  put(made.input, entries, 1);
  put(made.input, entries * 9, 2);
  uint64_t offset = 0;
  for (uint64_t i = 0; entries > 0 && i <= entries; i++, offset += random.below(10)) put(made.input, offset, 4);
  made.put_stream();
  return made.input;
}

// Run lengths of 8 or 16 bits, or the runs' first rows.
constexpr uint32_t burst_ids[] = {878, 1902, 1006, 2030};  // by lengths, and by first rows
uint32_t burst_id;

uint32_t burst(const kdzk_env*, kdzk_vec* result, const kdzk_vec* input, const kdzk_result_report* report) {
  return static_cast<uint32_t>(library().dispatch[burst_id].burst(result, input, report));
}

bool try_run_length(View input) {
  Input in{input};
  const Call call{in};
  const uint32_t form = in.number(1) % 4, size = form < 2 ? 1 + form : 4, numbers = call.count + (form < 2 ? 0 : 1);
  const auto more_rows = static_cast<int8_t>(in.byte());  // than the runs have
  const View codes = in.bytes((size_t{call.count} * call.width + 7) / 8), runs = in.left;
  const auto at = [&](size_t i) { return i * size + size > runs.size() ? 0 : number(runs.subspan(i * size, size)); };
  std::vector<uint32_t> lengths;
  uint64_t rows = static_cast<uint64_t>(int64_t{more_rows});
  for (size_t run = 0; run < call.count; run++) {
    lengths.push_back(static_cast<uint32_t>(form < 2 ? at(run) : at(run + 1) - at(run)));
    rows += lengths.back();
  }
  const GuardedBuffer exact(runs, 0);
  const uint32_t status = form < 2
                              ? kdzk_host_check_runs(exact.data(), runs.size(), size * 8, call.count, rows, nullptr)
                              : kdzk_host_check_run_offsets(exact.data(), runs.size(), call.count, rows, nullptr);
  if (status != KDZK_HOST_DONE || !good_codes(call, codes)) return false;
  require(more_rows == 0 && std::ranges::count(lengths, 0u) == 0, "runs have the rows of the column, and some each");
  require(numbers * size <= runs.size(), "runs that passed are all there");
  if (rows > 100'000) return false;                     // too many to go through one by one
  GuardedBuffer needed(runs.first(numbers * size), 0);  // whole numbers, and so aligned to them
  Codes column(call, codes, lengths);
  column.enc.flags |= KDZK_RLE;
  column.enc.unpack_base = reinterpret_cast<uint64_t>(needed.data());
  column.enc.unpack_width = static_cast<uint8_t>(size * 8);
  column.enc.run_offsets = needed.data();
  column.enc.result_cb = burst;
  burst_id = burst_ids[form];
  expect_rows(column);
  if (form < 2 && !call.set()) expect_unpacked(column);
  return true;
}

Bytes make_run_length(Random& random) {
  MadeCodes made(random, random.below(random.below(2) == 0 ? 300 : 20), 0);
  const uint64_t form = random.below(4);
  const uint64_t long_runs = form == 0 ? 255 : 65'535 / (made.count + 1) + 1;
  const uint64_t longest = random.below(3) == 0 ? 1 : random.below(2) == 0 ? 80 : long_runs;
  put(made.input, form << 8, 2);
  made.put_stream();
  uint64_t row = 0;
  for (uint32_t run = 0; run < made.count; run++) {
    const uint64_t length = 1 + random.below(longest);
    put(made.input, form < 2 ? length : row, form < 2 ? static_cast<int>(form) + 1 : 4);
    row += length;
  }
  if (form >= 2) put(made.input, row, 4);
  return made.input;
}

constexpr Format all_formats[] = {{"sqzb", try_sqzb, make_sqzb},
                                  {"prefix_records", try_prefix_records, make_prefix_records},
                                  {"run_length", try_run_length, make_run_length},
                                  {"packed_codes", try_packed_codes, make_packed_codes}};

}  // namespace

const std::span<const Format> formats = all_formats;

bool try_input(const Format& format, View input) {
  static constexpr char digits[] = "0123456789abcdef";
  repeat = std::string("replay ") + format.name + " ";
  for (const uint8_t byte : input) (repeat += digits[byte / 16]) += digits[byte % 16];
  now_running("kdzk_fuzz " + repeat);
  (void)library();  // which brings the report of a fault
  return format.try_input(input);
}

}  // namespace kdzk_test
