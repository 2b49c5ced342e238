// SPDX-License-Identifier: Apache-2.0
// The hash table's probe: for each row the entries of its chain (join/buckets.h) whose tags equal the row's, as pairs
// of row id and payload. The table is only read.
//
// All hashes of a batch of up to 1024 rows are computed first (join/keys.h). Then its rows are gone through in turns:
//
//   look   every row, without a branch       which entries of its first bucket match, and whether the chain goes on
//          |  fetches the bucket of a row further on
//          v
//   seen   3:.1... 4:...1. 7:.....+ ...      only rows with either are kept, in order; in most of them one entry
//          |
//          v
//   pairs  (id of 3, payload) (id of 4, payload) ...      these rows' chains are followed where they go on
//
// The look is the test for chains: a chain is followed only from a first bucket that has one, so that rows without one
// never meet the pointer. A row is finished behind the first match in a bucket with the unique bit.
//
// Invariants. What isn't a pair of the table isn't written: rows are kept in an array of the turn's own. The capacity
// is asked for before each pair. The pairs of the row where it runs out stay in memory, behind the count.

#include "frame/services.h"
#include "join/buckets.h"
#include "join/keys.h"

namespace kdzk {
namespace {

// Few enough that the buckets of a turn are still in the first cache when their payloads are read.
constexpr uint32_t turn_rows = 256;

// A look at a bucket: bit j tells that entry j is there and has the tag.
constexpr uint32_t chained = 1 << 15;  // there may be more in the next bucket

template <class Form>
inline uint32_t look(const uint8_t* bucket, typename Form::Tag tag) {
  const uint32_t header = *bucket;
  return equal_tags<Form>(bucket, header, tag) | (header & chained_bit) * (chained / chained_bit);
}

// Where the next pair goes, and the end of the room.
struct Pairs {
  uint8_t *at, *end;
};

template <class Form>
inline void put_pair(const uint8_t* bucket, uint32_t matches, uint64_t id, uint8_t* pair) {
  using Payload = typename Form::Payload;
  const auto lowest = static_cast<uint32_t>(__builtin_ctz(matches));
  store(pair, id);
  store(pair + 8, uint64_t{load<Payload>(bucket + Form::payloads_at + lowest * sizeof(Payload))});
}

// Writes the pairs of a row, whose first bucket looks like `seen`, and returns where they end; null if they don't fit.
template <class Form>
uint8_t* put_pairs(const uint8_t* bucket, typename Form::Tag tag, uint32_t seen, uint64_t id, Pairs pairs) {
  for (;;) {
    for (uint32_t matches = seen & ~chained; matches != 0; matches &= matches - 1) {
      if (pairs.at == pairs.end) return nullptr;
      put_pair<Form>(bucket, matches, id, pairs.at);
      pairs.at += 16;
      if ((*bucket & unique_bit) != 0) return pairs.at;
    }
    if ((seen & chained) == 0) return pairs.at;
    bucket = load<const uint8_t*>(bucket + next_at);
    seen = look<Form>(bucket, tag);
  }
}

// Looks up the rows of a batch in order, and returns how many are finished.
template <class Form, class Hashes, class Tags, class Ids, class Table>
uint32_t probe_rows(const Hashes hashes, const Tags tags, const Ids ids, const Table table, uint32_t n, Pairs& pairs) {
  uint32_t seen[turn_rows];  // rows with a match or a chain: their number, and above 16 bits the look
  Pairs room = pairs;
  prefetch_first(hashes, table, n);
  for (uint32_t row = 0; row < n;) {
    uint32_t kept = 0;
    for (const uint32_t end = n - row < turn_rows ? n : row + turn_rows; row < end; row++) {
      const uint32_t first = look<Form>(prefetched_bucket(hashes, table, row, n), tags[row]);
      seen[kept] = row | first << 16;
      kept += first != 0 ? 1 : 0;
    }
    for (uint32_t i = 0; i < kept; i++) {
      const uint32_t at = seen[i] & 0xffff, first = seen[i] >> 16;
      const uint8_t* const bucket = table.bucket(hashes[at]);
      const bool alone = (first & (first - 1)) == 0 && first != chained;  // one entry matches and no chain goes on
      if (alone && room.at != room.end) {
        put_pair<Form>(bucket, first, ids[at], room.at);
        room.at += 16;
        continue;
      }
      uint8_t* const behind = put_pairs<Form>(bucket, tags[at], first, ids[at], room);
      if (behind == nullptr) {
        pairs = room;
        return at;
      }
      room.at = behind;
    }
  }
  pairs = room;
  return n;
}

struct Call {
  kdzk_vec* out;
  const kdzk_vec* keys;
  const kdzk_vec* rows;
  const kdzk_htdesc* desc;
  kdzk_hash_fn hash;
  kdzk_exec* exec;
};

template <class Form, class Keys, class Tags, class Ids, class Table>
uint64_t probe_in(const Table table, const Call& call, const Tags tags, const Ids ids) {
  HashBatches<Keys> batches(call.keys, call.hash, call.exec);
  auto* const out = static_cast<uint8_t*>(call.out->data);
  Pairs pairs = {out, out + uint64_t{call.out->nrows} * 16};
  const uint32_t nrows = call.keys->nrows;
  uint32_t row = call.exec->row;
  while (row < nrows) {
    const uint32_t n = nrows - row < batch_rows ? nrows - row : batch_rows;
    const auto hashes = batches.hashes_of(row, n);
    const uint32_t done = probe_rows<Form>(hashes, tags_of<Form>(tags, row, hashes), ids.from(row), table, n, pairs);
    row += done;
    if (done < n) {
      call.exec->row = row;
      call.out->nrows = static_cast<uint32_t>((pairs.at - out) / 16);
      batches.stop_at(done, call.exec);
      return KDZK_PAIRS_FULL;
    }
    batches.finish_batch(n);
  }
  call.exec->row = nrows;
  call.out->nrows = static_cast<uint32_t>((pairs.at - out) / 16);
  batches.stop_behind(call.exec);
  return KDZK_DONE;
}

// A leaf, by the source of the row ids. Its inner loops exist twice, with and without a directory.
template <class Form, class Keys, class Tags>
uint64_t probe(const Call& call, const Tags tags) {
  const auto with_ids = [&](auto ids) {
    if (has_directory(call.desc)) return probe_in<Form, Keys>(Directory<Form>(call.desc), call, tags, ids);
    return probe_in<Form, Keys>(OneTable<Form>(call.desc, 0), call, tags, ids);
  };
  if ((call.rows->enc_ctx->flags & KDZK_IMPLICIT_IDS) != 0) return with_ids(Counted<uint64_t>{call.rows->rowbase});
  return with_ids(Column<typename Form::Payload>{bytes_of(call.rows)});  // as wide as the table's payloads
}

template <class Form>
uint64_t probe_plain(const Call& call) {
  return first_form<FixedBytes, LenArray, LenPrefixed, PtrLen, Pair16, HashColumn>(
      call.keys->enc_ctx->flags, [&]<class Keys>() { return probe<Form, Keys>(call, TagsFromHashes{}); });
}

// In key mode the tag is the row's key.
template <class Form>
uint64_t probe_keyed(const Call& call) {
  return first_form<U32Keys>(call.keys->enc_ctx->flags, [&]<class Keys>() {
    return probe<Form, Keys>(call, Column<uint32_t>{bytes_of(call.keys)});
  });
}

}  // namespace

uint64_t kdzk_ht_probe(kdzk_vec* out, const kdzk_vec* keys, const kdzk_vec* rows, const kdzk_htdesc* desc,
                       kdzk_hash_fn hash, kdzk_exec* exec) {
  const Call call = {out, keys, rows, desc, hash, exec};
  if ((desc->flags & (key_mode | 4)) == (key_mode | 4)) return probe_keyed<Form4>(call);
  if ((desc->flags & (key_mode | 8)) == (key_mode | 8)) return probe_keyed<Form8>(call);
  if (desc->flags == 1) return probe_plain<Form1>(call);
  if (desc->flags == 2) return probe_plain<Form2>(call);
  if (desc->flags == 4) return probe_plain<Form4>(call);
  if (desc->flags == 8) return probe_plain<Form8>(call);
  return KDZK_UNSUPPORTED;
}

}  // namespace kdzk
