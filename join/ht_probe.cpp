// SPDX-License-Identifier: Apache-2.0
// The hash table's probe: for each row the entries of its chain (join/buckets.h) whose tags equal the row's, as pairs
// of row id and payload. The table is only read.
//
// All hashes of a batch of up to 1024 rows are computed first (join/keys.h). Then one loop without a branch on the data
// goes through its rows:
//
//   look    which entries of the row's first bucket match, and whether the chain goes on
//   kept    (id of 3, payload) (id of 4, payload) .......      a small array, always written behind its last pair
//                                                 ^            move on if an entry matched, else the next row
//   pairs   ..................... <- kept                      moves when the array is full, and at the end
//
// A row where more than one entry matches or the chain goes on leaves the loop: its chain is followed, and its pairs
// are kept too if they fit. That look is the test for chains: a chain is followed only from a first bucket that has
// one. A row is finished behind the first match in a bucket with the unique bit.
//
// Invariants. What isn't a pair of the table isn't written to the output, which is why the loop has an array of its
// own; it never keeps more than the output has room for. The pairs of the row where that runs out stay in memory,
// behind the count.

#include "frame/services.h"
#include "join/buckets.h"
#include "join/keys.h"

namespace kdzk {
namespace {

constexpr uint32_t pair_bytes = 16;
constexpr uint32_t kept_pairs = 64;

// Where the next pair goes, and the end of the room.
struct Pairs {
  uint8_t *at, *end;

  void append(const uint8_t* from, const uint8_t* behind) {
    if (from == behind) return;  // without room there may be no memory
    std::memcpy(at, from, static_cast<size_t>(behind - from));
    at += behind - from;
  }
};

// No pairs, with room in `memory` for as many as there is room for in `pairs`, up to kept_pairs.
inline Pairs empty(uint8_t* memory, const Pairs& pairs) {
  const ptrdiff_t room = pairs.end - pairs.at, most = kept_pairs * pair_bytes;
  return {memory, memory + (room < most ? room : most)};
}

inline void set_pair(uint8_t* pair, uint64_t id, uint64_t payload) {
  store(pair, id);
  store(pair + 8, payload);
}

// The payload of the lowest of these entries; at the end of entries, a number of no meaning from within the bucket.
template <class Form>
inline uint64_t payload_of(const uint8_t* bucket, uint32_t entries) {
  using Payload = typename Form::Payload;
  static_assert(Form::payloads_at + (Form::capacity + 1) * sizeof(Payload) <= bucket_bytes);
  const uint64_t lowest = static_cast<uint32_t>(__builtin_ctz(entries));
  return load<Payload>(bucket + Form::payloads_at + lowest * sizeof(Payload));
}

// Writes the pairs of a row, whose first bucket looks like `seen`. Returns where they end; null if they don't all fit.
template <class Form>
[[gnu::noinline]] uint8_t* put_pairs(const uint8_t* bucket, typename Form::Tag tag, uint32_t seen, uint64_t id,
                                     Pairs pairs) {
  for (;;) {
    for (uint32_t matches = entries_of<Form>(seen); matches != 0; matches &= matches - 1) {
      if (pairs.at == pairs.end) return nullptr;
      set_pair(pairs.at, id, payload_of<Form>(bucket, matches));
      pairs.at += pair_bytes;
      if ((*bucket & unique_bit) != 0) return pairs.at;
    }
    if ((seen & goes_on) == 0) return pairs.at;
    bucket = load<const uint8_t*>(bucket + next_at);
    seen = look<Form>(bucket, *bucket, tag);
  }
}

// Looks up the rows of a batch in order, and returns how many are finished.
template <class Form, class Hashes, class Tags, class Ids, class Table>
uint32_t probe_rows(const Hashes hashes, const Tags tags, const Ids ids, const Table table, uint32_t n, Pairs& pairs) {
  alignas(16) uint8_t memory[kept_pairs * pair_bytes];
  Pairs kept = empty(memory, pairs);
  const Prefetch prefetch(hashes, table, n);
  for (uint32_t row = 0;; row++) {
    uint32_t seen = 0;
    for (; row < n; row++) {
      prefetch.before(row);
      const uint64_t hash = hashes[row];
      const uint8_t* const bucket = table.bucket(hash);
      seen = look<Form>(bucket, *bucket, tags.of(row, hash));
      const uint32_t more = seen & (seen - 1);  // than one thing to see, which may be the end of the entries
      if ((more & ~end_of_entries<Form>) != 0 || kept.at == kept.end) break;
      set_pair(kept.at, ids[row], payload_of<Form>(bucket, seen));
      kept.at += more / end_of_entries<Form> * pair_bytes;
    }
    if (row == n) break;
    const uint64_t hash = hashes[row];
    const auto put = [&](const Pairs& to) {
      return put_pairs<Form>(table.bucket(hash), tags.of(row, hash), seen, ids[row], to);
    };
    uint8_t* behind = put(kept);
    if (behind != nullptr) {
      kept.at = behind;
      continue;
    }
    pairs.append(memory, kept.at);
    behind = put(pairs);
    if (behind == nullptr) return row;
    pairs.at = behind;
    kept = empty(memory, pairs);
  }
  pairs.append(memory, kept.at);
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
    const uint32_t done = probe_rows<Form>(hashes, tags.from(row), ids.from(row), table, n, pairs);
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
      call.keys->enc_ctx->flags, [&]<class Keys>() { return probe<Form, Keys>(call, TagsFromHashes<Form>{}); });
}

// In key mode the tag is the row's key.
template <class Form>
uint64_t probe_keyed(const Call& call) {
  return first_form<U32Keys>(call.keys->enc_ctx->flags, [&]<class Keys>() {
    return probe<Form, Keys>(call, TagsFromKeys<4>{{bytes_of(call.keys)}});
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
