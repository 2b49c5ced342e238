// SPDX-License-Identifier: Apache-2.0
// The prefix record decoder: records of 1 to 8 bytes that are stored in groups of 16 without what all records of the
// group begin with. docs/formats/prefix_records.md has the format.
//
// The prefix and the tails of several records get to their places by a shuffle each, and one OR joins them. Width 3,
// prefix of one byte P, tails a, b, c, ... of two bytes, four records a store:
//
//   stream         1 P a a b b c c d d e e ...
//   prefix         P . . P . . P . . P . . . . . .       the same for all stores of a group
//   tails          . a a . b b . c c . d d . . . .
//   output         P a a P b b P c c P d d 0 0 0 0       the next store begins at the first 0
//
// Each store is of 16 bytes, whatever the records take of it, and the next one overwrites the rest. Which shuffles
// those are follows from the record width, for which there is an instance each, and the prefix length, by which they
// are looked up once a group. What sets the pace is the way from one group's prefix length to the next group's, a load
// and some additions; up to 4 bytes a record the stores hide behind it.
//
// Invariants. The last group is decoded record by record, since its stores would reach past the output; so is the group
// before it where the last one is too short to take what that one's last store has too much. Loads begin inside the
// group or at its end and are 16 bytes long, or 8 in the last groups. The stream is trusted: a prefix length above the
// record width leads out of the tables. A host that can't trust a stream asks kdzk_host_prefix_records_check first.

#include "frame/services.h"
#include "x86/kdzkc_x86.h"

namespace kdzk {
namespace {

constexpr uint32_t group_records = 16;
constexpr int prefetch_bytes = 2048;  // of which the first ones are fetched before the first group

// Records of w bytes: how many a store takes, and the shuffles that make their bytes.
template <int w>
struct Records {
  static constexpr int per_store = w <= 4 ? 4 : 2;
  static constexpr int stores = static_cast<int>(group_records) / per_store;
  static constexpr uint32_t excess = 16 - per_store * w;  // bytes of a store behind its records

  struct Shuffles {
    std::array<uint8_t, 16> prefix, tail;
  };

  static constexpr Shuffles shuffles(int prefix_bytes) {
    Shuffles from{};
    for (int at = 0; at < 16; at++) {
      const int record = at / w, byte = at % w;
      const bool in_prefix = record < per_store && byte < prefix_bytes;
      const bool in_tail = record < per_store && byte >= prefix_bytes;
      from.prefix[at] = static_cast<uint8_t>(in_prefix ? byte : 0x80);
      from.tail[at] = static_cast<uint8_t>(in_tail ? record * (w - prefix_bytes) + byte - prefix_bytes : 0x80);
    }
    return from;
  }

  static constexpr std::array<Shuffles, w + 1> by_prefix = [] {
    std::array<Shuffles, w + 1> all{};
    for (int n = 0; n <= w; n++) all[n] = shuffles(n);
    return all;
  }();
};

static_assert(Records<3>::by_prefix[1].prefix == std::array<uint8_t, 16>{0, 0x80, 0x80, 0, 0x80, 0x80, 0, 0x80, 0x80, 0,
                                                                         0x80, 0x80, 0x80, 0x80, 0x80, 0x80});
static_assert(Records<3>::by_prefix[1].tail ==
              std::array<uint8_t, 16>{0x80, 0, 1, 0x80, 2, 3, 0x80, 4, 5, 0x80, 6, 7, 0x80, 0x80, 0x80, 0x80});
static_assert(Records<3>::by_prefix[3].prefix[11] == 2 && Records<3>::by_prefix[3].tail[11] == 0x80);
static_assert(Records<1>::excess == 12 && Records<4>::excess == 0 && Records<7>::excess == 2);

// Reads and writes of two streams, which go forward side by side.
struct Cursors {
  const uint8_t* in;
  uint8_t* out;
};

void prefetch(const Cursors& at, int from, int to) {
  for (int byte = from; byte < to; byte += 64) {
    __builtin_prefetch(at.out + byte, 1);
    __builtin_prefetch(at.in + byte, 0);
  }
}

// `groups` whole groups, and up to `excess` bytes too many behind the last one.
template <int w>
Cursors whole_groups(Cursors at, uint32_t groups) {
  using R = Records<w>;
  for (; groups > 0; groups--) {
    prefetch(at, prefetch_bytes, prefetch_bytes + (w <= 4 ? 64 : 128));
    const uint64_t n = *at.in;
    const uint64_t tail_bytes = w - n;
    const auto& shuffles = R::by_prefix[n];
    const __m128i to_prefix = load16(shuffles.prefix.data()), to_tail = load16(shuffles.tail.data());
    const __m128i prefix = _mm_shuffle_epi8(load16(at.in + 1), to_prefix);  // at each record of a store
    const uint8_t* tails = at.in + 1 + n;
#pragma GCC unroll 8
    for (int i = 0; i < R::stores; i++) {
      const __m128i tail = _mm_shuffle_epi8(load16(tails), to_tail);  // those of a store, behind their prefixes
      store16(at.out + i * R::per_store * w, _mm_or_si128(prefix, tail));
      tails += R::per_store * tail_bytes;
    }
    at.in += 1 + group_records * w - (group_records - 1) * n;  // the next group
    at.out += group_records * w;
  }
  return at;
}

// One group of `records` records, and no byte behind them.
template <int w>
Cursors exact_group(Cursors at, uint32_t records) {
  const int n = *at.in;
  const uint64_t prefix_bits = n < 8 ? ~(~uint64_t{0} << 8 * n) : ~uint64_t{0};
  const uint64_t prefix = load<uint64_t>(at.in + 1) & prefix_bits;
  at.in += 1 + n;
  for (; records > 0; records--) {
    const uint64_t tail = n < 8 ? load<uint64_t>(at.in) << 8 * n : 0;
    const uint64_t record = prefix | tail;  // first byte lowest, and more than w bytes of the stream
    std::memcpy(at.out, &record, w);
    at.in += w - n;
    at.out += w;
  }
  return at;
}

template <int w>
void expand(Cursors at, uint32_t groups, uint32_t records) {
  const uint32_t others = records - group_records * (groups - 1);
  const uint32_t in_last = others < group_records ? others : group_records;
  const uint32_t exact = groups > 1 && in_last * w < Records<w>::excess ? 2 : 1;
  at = whole_groups<w>(at, groups - exact);
  if (exact == 2) at = exact_group<w>(at, group_records);
  exact_group<w>(at, in_last);
}

// An entry for each record: its address in the output, its width in 16 bits, 6 zero bytes.
void write_table(uint8_t* table, const uint8_t* out, uint32_t records, int width) {
  const auto address = reinterpret_cast<uint64_t>(out);
  const auto entry = [&](uint64_t record) {
    return _mm_set_epi64x(width, static_cast<long long>(address + record * static_cast<uint64_t>(width)));
  };
  __m128i first = entry(0), second = entry(1), third = entry(2), fourth = entry(3);  // of a round
  const __m128i step = _mm_set_epi64x(0, 4 * width);                                 // moves an entry by four records
  uint32_t record = 0;
  for (; records - record >= 4; record += 4, table += 64) {
    __builtin_prefetch(table + prefetch_bytes, 1);
    store16(table, first);
    store16(table + 16, second);
    store16(table + 32, third);
    store16(table + 48, fourth);
    first = _mm_add_epi64(first, step);
    second = _mm_add_epi64(second, step);
    third = _mm_add_epi64(third, step);
    fourth = _mm_add_epi64(fourth, step);
  }
  for (; record < records; record++, table += 16) store16(table, entry(record));
}

}  // namespace

uint64_t kdzk_decode_prefix_records(const kdzk_vec* result, const kdzk_vec* input, const kdzk_exec* exec) {
  const kdzk_enc_ctx* const enc = input->enc_ctx;
  const int width = enc->prefix_width;
  if (enc->prefix_group != group_records || width < 1 || width > 8) return KDZK_MALFORMED;
  const Cursors start = {static_cast<const uint8_t*>(input->data), static_cast<uint8_t*>(result->data)};
  const uint32_t groups = input->nrows, records = enc->prefix_count;
  if (exec != nullptr && exec->xlate_info != nullptr) {
    write_table(static_cast<uint8_t*>(const_cast<void*>(exec->xlate_info)), start.out, records, width);
  }
  prefetch(start, 0, prefetch_bytes);
  switch (width) {
    case 1:
      expand<1>(start, groups, records);
      break;
    case 2:
      expand<2>(start, groups, records);
      break;
    case 3:
      expand<3>(start, groups, records);
      break;
    case 4:
      expand<4>(start, groups, records);
      break;
    case 5:
      expand<5>(start, groups, records);
      break;
    case 6:
      expand<6>(start, groups, records);
      break;
    case 7:
      expand<7>(start, groups, records);
      break;
    case 8:
      expand<8>(start, groups, records);
      break;
  }
  return KDZK_DONE;
}

}  // namespace kdzk
