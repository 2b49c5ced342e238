// SPDX-License-Identifier: Apache-2.0
// Gather, pair matrix and row packing against row-by-row models. Whatever a call may write is compared byte for byte
// with the model's copy, garbage included, after every call of a sequence with little room.

#include <gtest/gtest.h>

#include "tests/support/streams.h"
#include "tests/support/value_columns.h"

namespace kdzk_test {
namespace {

// Memory that a call writes, which ends where the next access faults, and what the model makes of it.
struct Written {
  GuardedBuffer real;
  Bytes model;
  Written(size_t n, Random& random) : real(random_bytes(n, random), 0), model(real.data(), real.data() + n) {}
  bool agrees() const { return model.empty() || std::memcmp(real.data(), model.data(), model.size()) == 0; }
};

uint64_t low(uint64_t bits) { return bits >= 64 ? ~uint64_t{0} : (uint64_t{1} << bits) - 1; }

size_t random_length(Random& random) {
  const size_t below[] = {1, 2, 5, 18, 40, 300};
  return random.below(below[random.below(6)]);
}

// ---- Gather ----

enum Input { u64, u32, u16, u8, three_bytes, nine_bytes, word0, word1, pointers, pairs, ref_words };
constexpr uint32_t input_bytes[] = {8, 4, 2, 1, 3, 9, 16, 16, 8, 16, 8};
const uint32_t out_forms[] = {KDZK_FIXED_BYTES, KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED,
                              KDZK_PTR_LEN,     KDZK_PAIR16,    KDZK_REF_WORDS};

struct Leaf {
  uint32_t page_form;  // 0: the input names the values
  Input input;
  uint32_t out_form;
};

std::vector<Leaf> leaves() {
  std::vector<Leaf> all;
  for (const uint32_t page_form : {32u, 16u, 8u})
    for (const uint32_t out_form : out_forms)
      for (int input = u64; input <= word1; input++) all.push_back({page_form, static_cast<Input>(input), out_form});
  for (const uint32_t out_form : {KDZK_LEN_ARRAY, KDZK_LEN_PREFIXED})
    for (int input = pointers; input <= ref_words; input++) all.push_back({0, static_cast<Input>(input), out_form});
  return all;
}

constexpr uint32_t pages = 4, entries = 32, ref_bits = 13;

// Four pages of 32 entries in all three forms. Values end up to the last byte of memory that faults behind.
struct Store {
  std::deque<GuardedBuffer> memory;
  std::vector<uint8_t*> values, pair_pages, word_pages, offset_pages;
  std::vector<uint64_t> bases, ref_pages;
  kdzk_rowstore record{};

  explicit Store(uint32_t width, Random& random) {
    const size_t reach = width / 8, size = size_t{1} << ref_bits;  // `reach` bytes are read of a short value too
    for (uint32_t page = 0; page < pages; page++) {
      values.push_back(memory.emplace_back(random_bytes(size, random), 0).data());
      Bytes p = random_bytes(entries * 16, random), r, o;
      size_t offset = 0;
      for (uint32_t entry = 0; entry < entries; entry++) {
        const size_t length = random_length(random), taken = std::max(length, reach);
        const size_t start = random.below(4) == 0 ? size - taken : random.below(size - taken);
        append(o, static_cast<uint32_t>(offset));
        offset = std::min(offset + length % 200, size - reach);
        put(&p[entry * 16], static_cast<uint16_t>(length));
        put(&p[entry * 16 + 8], values[page] + start);
        // References are of the first page; what is above their low bits is masked away.
        append(r, (random.bits() << ref_bits | start) << 16 | length);
      }
      append(o, static_cast<uint32_t>(offset));
      pair_pages.push_back(memory.emplace_back(p, 0).data());
      word_pages.push_back(memory.emplace_back(r, 0).data());
      offset_pages.push_back(memory.emplace_back(o, 0).data());
      bases.push_back(reinterpret_cast<uint64_t>(values[page]));
    }
    ref_pages = bases;
    ref_pages.push_back(bases.back());  // of empty values at the end of the last page
    record = {.width = static_cast<uint16_t>(width), .pairs = pair_pages.data(), .refs = word_pages.data()};
    record.offsets = offset_pages.data();
    record.bases = bases.data();
  }
};

struct ModelValue {
  const uint8_t* at;
  uint64_t length, page;
};

class Gather : public testing::TestWithParam<Leaf> {
 protected:
  Random random{"gather"};
  kdzk_enc_ctx in_enc{.ref_bits = ref_bits}, out_enc{.ref_bits = ref_bits};
  kdzk_vec in{.enc_ctx = &in_enc}, out{.enc_ctx = &out_enc};
  kdzk_exec exec{};
  Leaf leaf = GetParam();
  const Store* store = nullptr;

  void set_forms() {
    in_enc.flags = leaf.input <= nine_bytes ? KDZK_FIXED_BYTES
                   : leaf.input <= word1    ? KDZK_PROBE_PAIRS
                   : leaf.input == pointers ? KDZK_PTR_LEN
                   : leaf.input == pairs    ? KDZK_PAIR16
                                            : KDZK_REF_WORDS;
    in_enc.width = static_cast<uint8_t>(input_bytes[leaf.input] * 8 + 5);
    out_enc.flags = leaf.out_form;
    exec.flags = leaf.input == word0 ? KDZK_EX_PAIR_WORD0 : static_cast<uint8_t>(~KDZK_EX_PAIR_WORD0);
  }

  ModelValue value_of(uint64_t row) const {
    const uint8_t* const at = static_cast<const uint8_t*>(in.data) + row * input_bytes[leaf.input];
    const uint8_t* const lengths = static_cast<const uint8_t*>(in.lengths) + row * 2;
    if (leaf.input == pointers) return {get<const uint8_t*>(at), get<uint16_t>(lengths), 0};
    if (leaf.input == pairs) return {get<const uint8_t*>(at + 8), get<uint16_t>(at), 0};
    if (leaf.input == ref_words) {
      const uint64_t word = get<uint64_t>(at), reference = word >> 16;
      const uint64_t start = in_enc.ref_pages[reference >> ref_bits] + (reference & low(ref_bits));
      return {reinterpret_cast<const uint8_t*>(start), word & 0xffff, 0};
    }
    uint64_t locator = 0;
    std::memcpy(&locator, leaf.input == word1 ? at + 8 : at, std::min(input_bytes[leaf.input], 8u));
    const kdzk_rowstore& s = store->record;
    const uint64_t page = s.page_lo == 64 ? 0 : (locator & low(s.page_hi + 1u)) >> s.page_lo;
    const uint64_t entry = s.page_lo == 64 ? locator : locator & low(s.page_lo);
    if (leaf.page_form == 32) {
      const uint8_t* const pair = s.pairs[page] + 16 * entry;
      return {get<const uint8_t*>(pair + 8), get<uint16_t>(pair), page};
    }
    if (leaf.page_form == 16) {
      const uint64_t word = get<uint64_t>(s.refs[page] + 8 * entry);
      return {store->values[0] + (word >> 16 & low(ref_bits)), word & 0xffff, 0};
    }
    const uint32_t start = get<uint32_t>(s.offsets[page] + 4 * entry);
    const uint32_t end = get<uint32_t>(s.offsets[page] + 4 * entry + 4);
    return {reinterpret_cast<const uint8_t*>(s.bases[page]) + start, end - start, page};
  }

  // One call as the model has it. Returns its code and moves `row`.
  uint64_t model_call(uint32_t& row, uint64_t left, Bytes& data, Bytes& lengths) const {
    uint8_t* to = data.data();
    for (uint64_t i = 0; row < in.nrows; row++, i++) {
      const ModelValue v = value_of(row);
      const auto length = static_cast<uint16_t>(v.length);
      const uint64_t fixed = store != nullptr ? store->record.width / 8 : 0;
      const uint64_t need = leaf.out_form == KDZK_FIXED_BYTES    ? fixed
                            : leaf.out_form == KDZK_LEN_ARRAY    ? v.length
                            : leaf.out_form == KDZK_LEN_PREFIXED ? v.length + 2
                            : leaf.out_form == KDZK_PTR_LEN      ? 8
                            : leaf.out_form == KDZK_PAIR16       ? 16
                                                                 : 0;
      if (left < need) return 9;
      left -= need;
      if (leaf.out_form == KDZK_LEN_ARRAY || leaf.out_form == KDZK_PTR_LEN) put(&lengths[i * 2], length);
      if (leaf.out_form == KDZK_FIXED_BYTES) std::copy(v.at, v.at + fixed, to);
      if (leaf.out_form == KDZK_LEN_ARRAY) std::copy(v.at, v.at + v.length, to);
      if (leaf.out_form == KDZK_LEN_PREFIXED) put(to, length), std::memcpy(to + 2, v.at, v.length);
      if (leaf.out_form == KDZK_PTR_LEN) put(to, v.at);
      if (leaf.out_form == KDZK_PAIR16) put(to, length), put(to + 8, v.at);
      if (leaf.out_form == KDZK_REF_WORDS) {
        // In form 16 the distance from the page, otherwise the page and the low bits of the address.
        const auto address = reinterpret_cast<uint64_t>(v.at);
        const uint64_t reference = leaf.page_form == 16 ? address - reinterpret_cast<uint64_t>(store->values[0])
                                                        : (v.page << ref_bits) + (address & low(ref_bits));
        put(&data[uint64_t{row} * 8], reference << 16 | length);
      }
      to += need;
    }
    row = in.nrows;
    return 0;
  }

  // Calls until all rows from `row` on are done, with `room` bytes of output each time; every call is compared.
  void gather_by(uint64_t room, uint32_t row = 0) {
    const Case now(Message() << "gather, room " << room << ", rows from " << row, random);
    const bool by_index = leaf.out_form == KDZK_REF_WORDS;
    Written data(by_index ? size_t{in.nrows} * 8 : room, random), lengths(size_t{in.nrows} * 2, random);
    out.data = data.real.data();
    out.lengths = lengths.real.data();
    out.out_size = room;
    const kdzk_vec in_before = in, out_before = out;
    for (exec.row = row;;) {
      const uint32_t before = row;
      const uint64_t want = model_call(row, room, data.model, lengths.model);
      const uint64_t code = library().ht_gather(&out, &in, store == nullptr ? nullptr : &store->record, &exec);
      EXPECT_EQ(code, want);
      EXPECT_EQ(exec.row, row);
      EXPECT_TRUE(data.agrees() && lengths.agrees()) << "rows " << before << " to " << row;
      if (want == 0 || row == before || HasFailure()) break;
    }
    EXPECT_TRUE(same_bytes(in, in_before) && same_bytes(out, out_before));
  }
};

TEST_P(Gather, AgreesWithTheModel) {
  set_forms();
  const int widths[] = {0, 7, 8, 24, 64, 100, 136, 272, 1200};
  const struct { uint8_t hi, lo; } cuts[] = {{6, 5}, {3, 64}, {63, 5}, {1, 0}, {62, 6}};
  for (const auto cut : cuts) {
    for (const uint32_t rows : {0u, 1u, 2u, 15u, 16u, 17u, 63u, 64u, 65u, 130u, 200u}) {
      Store made(static_cast<uint32_t>(widths[random.below(9)]), random);
      made.record.page_hi = cut.hi;
      made.record.page_lo = cut.lo;
      made.record.flags = leaf.page_form | (leaf.page_form - 1u);  // those asked later don't count
      const Case now(Message() << "page form " << leaf.page_form << ", " << rows << " rows, page bits " << +cut.hi
                               << " to " << +cut.lo << ", width " << made.record.width,
                     random);
      const size_t stride = input_bytes[leaf.input];
      Bytes column = random_bytes(rows * stride, random), lengths(rows * 2);
      for (uint32_t row = 0; row < rows; row++) {
        uint8_t* const at = &column[row * stride];
        const uint64_t page = random.below(pages), entry = random.below(entries);
        const uint8_t* const pair = made.pair_pages[page] + entry * 16;
        put(&lengths[row * 2], get<uint16_t>(pair));
        if (leaf.input == pointers) put(at, get<uint64_t>(pair + 8));
        if (leaf.input == pairs) std::memcpy(at, pair, 16);
        if (leaf.input == ref_words)
          put(at, ((page << ref_bits) + (get<uint64_t>(pair + 8) - made.bases[page])) << 16 | get<uint16_t>(pair));
        if (leaf.page_form == 0) continue;
        // Where a byte doesn't hold it, the page is cut off.
        const uint64_t garbage = cut.hi < 63 ? random.bits() & ~low(cut.hi + 1u) : 0;
        const uint64_t locator = cut.lo == 64  ? entry
                                 : cut.lo == 0 ? page
                                               : garbage | (page << cut.lo & low(cut.hi + 1u)) | entry;
        std::memcpy(leaf.input == word1 ? at + 8 : at, &locator, std::min<size_t>(stride, 8));
      }
      GuardedBuffer stored(column), stored_lengths(lengths);
      in.data = stored.data();
      in.lengths = stored_lengths.data();
      in.nrows = rows;
      in_enc.ref_pages = leaf.page_form == 0 ? made.ref_pages.data() : nullptr;
      out_enc.ref_pages = leaf.page_form == 16 && leaf.out_form != KDZK_REF_WORDS ? made.ref_pages.data() : nullptr;
      store = leaf.page_form == 0 ? nullptr : &made;
      const uint32_t fixed = made.record.width / 8u;
      for (const uint64_t room : {0u, 1u, fixed, rows * fixed, 15u, 16u, 17u, 302u, 1000u, 5000u, rows * 310})
        gather_by(room);
      for (const uint32_t row : {rows / 2, rows + 1}) gather_by(400, row);
      if (HasFailure()) return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(All, Gather, testing::ValuesIn(leaves()), [](const auto& info) {
  return "page" + std::to_string(info.param.page_form) + "_in" + std::to_string(info.param.input) + "_out" +
         std::to_string(info.param.out_form);
});

using GatherChoice = Gather;

// A value of more than 16 bits of length is copied whole, and its length cut. Byte positions wrap at 2^32.
TEST_P(GatherChoice, LongValuesAndFarRows) {
  Store made(24, random);
  GuardedBuffer value(random_bytes(70000, random), 0), offsets(8, 0, 0), locators(16, KDZK_PADDING, 0);
  uint8_t* pages_of_offsets[] = {offsets.data()};
  const uint64_t base = reinterpret_cast<uint64_t>(value.data());
  put(offsets.data() + 4, uint32_t{70000});
  made.record = {.flags = 8, .page_lo = 64, .offsets = pages_of_offsets, .bases = &base};
  store = &made;
  in.data = locators.data();
  in.nrows = 1;
  for (const uint32_t form : out_forms) {
    leaf = {8, u64, form};
    set_forms();
    for (const uint64_t room : {69999u, 70000u, 70001u, 70002u}) gather_by(room);
  }
  leaf = {8, three_bytes, KDZK_LEN_ARRAY};
  set_forms();
  Written data(210000, random), lengths(6, random);
  out.data = data.real.data();
  out.lengths = lengths.real.data();
  out.out_size = 210000;
  exec.row = 1431655766;  // its three bytes begin at 2^32 + 2
  in.nrows = exec.row + 3;
  EXPECT_EQ(library().ht_gather(&out, &in, &made.record, &exec), KDZK_DONE);
  EXPECT_EQ(std::memcmp(data.real.data() + 140000, value.data(), 70000), 0);
}

TEST_P(GatherChoice, TakesTheFirstFlagOrNone) {
  Store made(24, random);
  made.record.page_lo = 64;
  store = &made;
  GuardedBuffer locators(bytes_of(std::vector<uint64_t>{0, 3, 6, 9, 12, 15, 18, 21}));
  in.data = locators.data();
  in.nrows = 4;
  out_enc.ref_pages = made.ref_pages.data();
  for (size_t first = 0; first < 6; first++) {  // all output flags from one on
    leaf = {32, u64, out_forms[first]};
    set_forms();
    in_enc.flags |= KDZK_PROBE_PAIRS;
    for (size_t later = first; later < 6; later++) out_enc.flags |= out_forms[later];
    made.record.flags = 0xffffffff;
    gather_by(1000);
  }
  leaf = {0, pointers, KDZK_LEN_ARRAY};  // a copy is asked for before the fixed form is
  set_forms();
  in_enc.flags |= KDZK_FIXED_BYTES | KDZK_PAIR16 | KDZK_REF_WORDS;
  out_enc.flags |= KDZK_FIXED_BYTES | KDZK_LEN_PREFIXED;
  Bytes named, lengths = {3, 0, 0, 0, 40, 0, 1, 0};
  for (size_t row = 0; row < 4; row++) append(named, made.values[0] + row * 100);
  in.data = named.data();
  in.lengths = lengths.data();
  store = nullptr;
  gather_by(43);

  const uint32_t refused[][3] = {{KDZK_FIXED_BYTES, KDZK_PAIR16, ~56u},
                                 {KDZK_FIXED_BYTES, KDZK_NUMERIC | KDZK_KEYED16, 32},
                                 {~uint32_t{KDZK_FIXED_BYTES | KDZK_PROBE_PAIRS}, KDZK_PTR_LEN, 16},
                                 {KDZK_NUMERIC, KDZK_LEN_ARRAY, 8}};
  for (const auto& [from, to, pages_flag] : refused) {
    in_enc.flags = from;
    out_enc.flags = to;
    made.record.flags = pages_flag;
    exec.row = 77;
    out.data = nullptr;
    EXPECT_EQ(library().ht_gather(&out, &in, &made.record, nullptr), KDZK_UNSUPPORTED);
    EXPECT_EQ(library().ht_gather(&out, &in, &made.record, &exec), KDZK_UNSUPPORTED);
    EXPECT_EQ(exec.row, 77u);
  }
}

INSTANTIATE_TEST_SUITE_P(All, GatherChoice, testing::Values(Leaf{32, u64, KDZK_LEN_ARRAY}));

// ---- Pair matrix ----

TEST(PairMatrix, HoldsThePairsOfEachColumn) {
  Random random("pair_matrix");
  for (const uint32_t form : forms_of_values) {
    for (const uint32_t rows : {0u, 1u, 6u, 7u, 8u, 100u, 1000u}) {
      for (const uint16_t ncols : {1, 2, 7}) {
        const auto column = static_cast<uint32_t>(random.below(ncols));
        const std::vector<Bytes> values = random_values(form, rows, static_cast<uint32_t>(random.below(32)), random);
        ValueColumn col(form, values, random);
        for (const uint32_t later : forms_of_values) col.enc.flags |= later > form ? later : 0;
        Written matrix(size_t{rows} * ncols * 16, random);
        uint8_t* cursors[] = {nullptr, matrix.real.data()};
        kdzk_rowstore store{.flags = uint32_t(random.bits() | 32), .ncols = ncols, .pair_cursors = cursors};
        EXPECT_EQ(library().fill_pairs(&store, &col.vec, column | 0xabcd0000, 1), KDZK_DONE);
        const auto* data = static_cast<const uint8_t*>(col.vec.data);
        for (size_t row = 0; row < rows; row++) {
          uint8_t* const pair = &matrix.model[16 * (row * ncols + column)];
          const uint64_t length = values[row].size(),
                         start = form == KDZK_FIXED_BYTES ? row * length : col.positions()[row];
          put(pair, static_cast<uint16_t>(length));
          put(pair + 8, form == KDZK_PTR_LEN  ? get<const uint8_t*>(data + row * 8)
                        : form == KDZK_PAIR16 ? get<const uint8_t*>(data + row * 16 + 8)
                                              : data + start + (form == KDZK_LEN_PREFIXED ? 2 : 0));
        }
        ASSERT_TRUE(matrix.agrees()) << form_name(form) << ", " << rows << " rows, column " << column << " of "
                                     << ncols;
        EXPECT_EQ(cursors[1], matrix.real.data());
        col.enc.flags = ~uint32_t{0xf800};
        EXPECT_EQ(library().fill_pairs(&store, &col.vec, column, 1), KDZK_UNSUPPORTED);
        col.enc.flags = form;
        store.flags = ~32u;
        EXPECT_EQ(library().fill_pairs(&store, &col.vec, column, 1), KDZK_UNSUPPORTED);
        EXPECT_TRUE(matrix.agrees());
      }
    }
  }
}

// ---- Row packing ----

struct Packing {
  bool offsets, whole_rows;
  uint16_t ncols;
};

// Page 1 of the target, page 2 of the source.
class PackRows : public testing::TestWithParam<Packing> {
 protected:
  const Packing layout = GetParam();
  Random random{"pack_rows"};
  std::deque<GuardedBuffer> values;
  Bytes pair_bytes;
  uint8_t *matrix[3] = {}, *data[2] = {}, *offsets[2] = {}, *pair_cursors[2] = {}, *limits[2] = {};
  kdzk_rowstore source{.ncols = layout.ncols, .pairs = matrix};
  kdzk_rowstore target{.ncols = 4711, .pair_cursors = pair_cursors, .offset_cursors = offsets, .data_cursors = data};
  kdzk_exec exec{};

  void make_rows(uint32_t rows, const std::function<size_t()>& length) {
    pair_bytes = random_bytes(size_t{rows} * layout.ncols * 16, random);
    for (size_t i = 0; i < size_t{rows} * layout.ncols; i++) {
      const GuardedBuffer& value = values.emplace_back(random_bytes(length(), random), 0);
      put(&pair_bytes[i * 16], static_cast<uint16_t>(value.size()));
      put(&pair_bytes[i * 16 + 8], value.data());
    }
    matrix[2] = pair_bytes.data();
    // Single values in every way to ask for them.
    const uint32_t both = random.below(2) == 0 ? 2 : 0;
    target.flags = (layout.offsets ? 8 | (random.bits() & 32) : 32u) | (layout.whole_rows ? 2 : both);
    source.flags = static_cast<uint32_t>(random.bits()) & ~2u;
    if (!layout.whole_rows) source.flags |= both;
    target.data_limits = limits;
  }

  // The model's cursors, as distances.
  struct State {
    size_t data, directory;
    uint32_t row;
  };

  uint64_t model_call(State& s, int64_t last, Bytes& bytes, Bytes& directory, size_t limit) const {
    uint32_t offset = 0;
    if (layout.offsets && s.row == 0) put(&directory[s.directory], uint32_t{0}), s.directory += 4;
    if (layout.offsets && s.row <= last) offset = get<uint32_t>(&directory[s.directory - 4]);
    while (s.row <= last) {
      State next = s;
      uint32_t next_offset = offset;
      uint16_t size = 0;
      const auto begin = [&] {
        if (!layout.offsets) put(&directory[next.directory + 8], data_start + next.data);
      };
      const auto finish = [&](uint32_t n) {
        next_offset += n;
        layout.offsets ? put(&directory[next.directory], next_offset)
                       : put(&directory[next.directory], static_cast<uint16_t>(n));
        next.directory += layout.offsets ? 4 : 16;
      };
      if (layout.whole_rows) begin();
      for (size_t c = 0; c < layout.ncols; c++) {
        const uint8_t* const pair = &pair_bytes[16 * (size_t{s.row} * layout.ncols + c)];
        const auto length = get<uint16_t>(pair);
        if (limit - next.data < length + (layout.whole_rows ? 2u : 0u)) return 8;
        if (layout.whole_rows) {
          put(&bytes[next.data], length);
          next.data += 2;
          size = static_cast<uint16_t>(size + length + (layout.offsets ? 2 : 0));
        } else {
          begin();
        }
        if (length > 0) std::memcpy(&bytes[next.data], get<const uint8_t*>(pair + 8), length);
        next.data += length;
        if (!layout.whole_rows) finish(length);
      }
      if (layout.whole_rows) finish(size);
      s = next;
      s.row++;
      offset = next_offset;
    }
    return 0;
  }
  const uint8_t* data_start = nullptr;

  // Rows first to last into a page whose room grows by `step` after every stop; `room` at first.
  void pack(uint32_t first, int32_t last, size_t room, size_t step) {
    const Case now(Message() << "pack rows " << first << " to " << last << ", room " << room << " and " << step,
                   random);
    Written page(std::min(room + step * 4000, size_t{400000}), random),
        directory(4 + (pair_bytes.size() / 16 + 200) * 16, random);
    data_start = page.real.data();
    State s = {0, 4, first};
    data[1] = page.real.data();
    uint8_t*& cursor = layout.offsets ? offsets[1] : pair_cursors[1];
    cursor = directory.real.data() + 4;
    for (size_t limit = room;; limit += step) {
      limit = std::min(limit, page.model.size());
      limits[1] = page.real.data() + limit;
      const uint32_t before = s.row;
      const uint64_t want = model_call(s, last, page.model, directory.model, limit);
      EXPECT_EQ(library().pack_rows(&target, &source, 1, 2, before, last, &exec), want);
      EXPECT_EQ(exec.row, s.row);
      EXPECT_EQ(data[1] - page.real.data(), static_cast<ptrdiff_t>(s.data));
      EXPECT_EQ(cursor - directory.real.data(), static_cast<ptrdiff_t>(s.directory));
      EXPECT_TRUE(page.agrees() && directory.agrees());
      if (want == 0 || HasFailure() || limit == page.model.size()) break;
      if (s.row == 0 && layout.offsets) cursor -= 4, s.directory -= 4;  // row 0 writes its leading entry again
    }
  }
};

TEST_P(PackRows, AgreeWithTheModel) {
  for (const uint32_t rows : {1u, 2u, 63u, 65u, 200u}) {
    if (rows * layout.ncols > 5000) return;
    make_rows(rows, [&] { return random_length(random) % 70; });
    const auto last = static_cast<int32_t>(rows) - 1;
    for (const size_t room : {0, 1, 2, 16, 100, 2000, 60000}) {
      for (const size_t step : {1, 7, 64, 1000}) {
        for (const uint32_t first : {0u, rows / 2}) pack(first, last, room, step);
        if (HasFailure()) return;
      }
    }
    for (const uint32_t first : {rows, 0x80000000u}) pack(first, last, 100, 0);  // no row left
    for (const int32_t none : {-1, -5}) pack(0, none, 100, 0);
  }
}

// Sizes that don't fit where they are kept; and targets of no form.
TEST_P(PackRows, WrapLongRowsAndRefuseOtherTargets) {
  make_rows(3, [&] { return 35000 + random.below(30536); });
  pack(0, 2, 500000, 0);
  exec.row = 7;
  EXPECT_EQ(library().pack_rows(nullptr, &source, 1, 2, 0, 0, &exec), KDZK_UNSUPPORTED);
  target.flags = ~40u;
  EXPECT_EQ(library().pack_rows(&target, &source, 1, 2, 0, 0, &exec), KDZK_UNSUPPORTED);
  EXPECT_EQ(exec.row, 7u);
}

std::vector<Packing> packings() {
  std::vector<Packing> all;
  for (const bool offsets : {true, false})
    for (const bool whole_rows : {true, false})
      for (const uint16_t ncols : {0, 1, 2, 3, 7, 70}) all.push_back({offsets, whole_rows, ncols});
  return all;
}

INSTANTIATE_TEST_SUITE_P(All, PackRows, testing::ValuesIn(packings()), [](const auto& info) {
  const Packing& p = info.param;
  return std::string(p.offsets ? "offsets_" : "pairs_") + (p.whole_rows ? "rows_of_" : "values_of_") +
         std::to_string(p.ncols);
});

// ---- All three: rows come back as they went in ----

TEST(RowStore, GivesBackTheRowsItWasGiven) {
  Random random("row_store");
  const uint32_t forms[] = {KDZK_LEN_ARRAY, KDZK_FIXED_BYTES, KDZK_PTR_LEN}, nrows = 700;
  GuardedBuffer matrix(nrows * 3 * 16, 0);
  uint8_t *pairs = matrix.data(), *data, *offsets, *limit;
  kdzk_rowstore source{.flags = KDZK_STORE_PAIRS, .ncols = 3, .pairs = &pairs, .pair_cursors = &pairs};
  kdzk_rowstore target{.flags = KDZK_STORE_OFFSETS, .page_hi = 31, .page_lo = 16};
  target.offset_cursors = &offsets;
  target.data_cursors = &data;
  target.data_limits = &limit;
  Bytes want[3];  // back to back, behind their lengths
  std::deque<ValueColumn> columns;
  for (uint32_t c = 0; c < 3; c++) {
    const auto values = random_values(forms[c], nrows, 3, random);
    for (const Bytes& value : values) append(want[c], static_cast<uint16_t>(value.size())), append(want[c], value);
    EXPECT_EQ(library().fill_pairs(&source, &columns.emplace_back(forms[c], values, random).vec, c, 0), KDZK_DONE);
  }
  std::deque<GuardedBuffer> memory;
  std::vector<uint8_t*> offset_pages;
  std::vector<uint64_t> bases, found;  // as a probe leaves them: a row, and the locator of its first value
  kdzk_exec exec{};
  for (uint64_t code = KDZK_PAGE_FULL; code == KDZK_PAGE_FULL;) {
    data = memory.emplace_back(500 + random.below(3000), 0).data();
    limit = data + memory.back().size();
    bases.push_back(reinterpret_cast<uint64_t>(data));
    offset_pages.push_back(offsets = memory.emplace_back((nrows * 3 + 1) * 4, 0, 0).data());
    if (exec.row > 0) offsets += 4;  // a first entry of 0
    code = library().pack_rows(&target, &source, 0, 0, exec.row, nrows - 1, &exec);
    for (uint64_t entry = 0; found.size() < 2 * (code == KDZK_DONE ? nrows : exec.row); entry += 3)
      found.insert(found.end(), {0, (bases.size() - 1) << 16 | entry});
  }
  EXPECT_GT(bases.size(), 3u);
  target.offsets = offset_pages.data();
  target.bases = bases.data();
  for (const Bytes& values : want) {
    GuardedBuffer got(values.size(), 0);
    kdzk_enc_ctx in_enc{.flags = KDZK_PROBE_PAIRS}, out_enc{.flags = KDZK_LEN_PREFIXED};
    const kdzk_vec in{.data = found.data(), .enc_ctx = &in_enc, .nrows = nrows};
    kdzk_vec out{.data = got.data(), .enc_ctx = &out_enc, .out_size = got.size()};
    exec = {};
    EXPECT_EQ(library().ht_gather(&out, &in, &target, &exec), KDZK_DONE);
    EXPECT_EQ(contents(got), values);
    for (size_t i = 1; i < found.size(); i += 2) found[i]++;
  }
}

}  // namespace
}  // namespace kdzk_test
