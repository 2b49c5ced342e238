// SPDX-License-Identifier: Apache-2.0
// The hash table's build: rows into chains of buckets (join/buckets.h), in memory that is all the host's.
//
// A batch of up to 1024 rows is gone through three times. Its hashes are computed (join/keys.h). The room test fetches
// the first bucket of every row and looks whether any is full. Then the rows are inserted one by one, each at the end
// of its chain:
//
//   table   [ c h a i n e d ] --next--> [ c h a i n e d ] --next--> [ tags and payloads, room ]   append here
//           an equal tag clears          likewise                    likewise; if there is no room, take the bucket at
//           the bucket's unique bit                                  the directory entry's cursor and chain it
//
// If the room test finds room everywhere, rows that come first into an empty bucket give it the unique bit; in a batch
// where it found a full bucket they don't, which costs such a bucket the probe's early exit, never a match. That is all
// that the test decides. A bucket that isn't full isn't chained, so that the walk costs a row without a chain one test
// of its header.
//
// Invariants. Of a bucket, only the header, one tag and one payload are written, and the pointer when it gets one; no
// store reaches into what isn't taken. When a row needs a bucket and the entry's cursor is at its limit, the call stops
// before it wrote the last bucket of the chain; what the walk has cleared by then stays cleared.

#include "frame/services.h"
#include "join/buckets.h"
#include "join/keys.h"

namespace kdzk {
namespace {

// Where overflow buckets come from: entry by entry of the directory.
struct Overflow {
  uint8_t** cursors;
  uint8_t* const* limits;
};

// Inserts a row at the end of the chain that begins at `bucket`. `opened` is what an empty bucket's header gets besides
// the count. False if that takes a new bucket and there is none; then the row isn't inserted.
template <class Form>
inline bool insert_row(uint8_t* bucket, typename Form::Tag tag, typename Form::Payload payload, uint32_t opened,
                       const Overflow& overflow, uint64_t entry) {
  uint32_t header = *bucket;
  while ((header & chained_bit) != 0) {
    if ((header & unique_bit) != 0 && entries_of<Form>(look<Form>(bucket, header, tag)) != 0) {
      *bucket = static_cast<uint8_t>(header & ~unique_bit);
    }
    bucket = load<uint8_t*>(bucket + next_at);
    header = *bucket;
  }
  const uint32_t count = header & count_bits;
  const uint32_t repeated = entries_of<Form>(look<Form>(bucket, header, tag)) != 0 ? unique_bit : 0;
  const uint32_t kept = (header & ~repeated) | (header == 0 ? opened : 0);
  if (count >= Form::capacity) {
    uint8_t* const fresh = overflow.cursors[entry];
    if (fresh >= overflow.limits[entry]) return false;
    overflow.cursors[entry] = fresh + bucket_bytes;
    store(bucket + next_at, fresh);
    *bucket = static_cast<uint8_t>(kept | chained_bit);
    store(fresh + Form::tags_at, tag);
    store(fresh + Form::payloads_at, payload);
    *fresh = unique_bit | 1;
    return true;
  }
  store(bucket + Form::tags_at + count * sizeof tag, tag);
  store(bucket + Form::payloads_at + count * sizeof payload, payload);
  *bucket = static_cast<uint8_t>(kept + 1);
  return true;
}

// Whether no row's first bucket is full.
template <class Form, class Hashes, class Table>
inline bool has_room(Hashes hashes, const Table& table, uint32_t n) {
  uint32_t full = 0;
  const Prefetch prefetch(hashes, table, n);
  for (uint32_t i = 0; i < n; i++) {
    prefetch.before(i);
    full |= (*table.bucket(hashes[i]) & count_bits) >= Form::capacity ? 1 : 0;
  }
  return full == 0;
}

// Inserts the rows of a batch in order, and returns how many.
template <class Form, class Hashes, class Tags, class Ids, class Table>
uint32_t insert_rows(Hashes hashes, Tags tags, Ids ids, const Table& table, const Overflow& overflow, uint32_t n) {
  const uint32_t opened = has_room<Form>(hashes, table, n) ? unique_bit : 0;
  for (uint32_t i = 0; i < n; i++) {
    const uint64_t hash = hashes[i];
    if (!insert_row<Form>(table.bucket(hash), tags.of(i, hash), ids[i], opened, overflow, table.entry(hash))) return i;
  }
  return n;
}

struct Call {
  const kdzk_htdesc* desc;
  const kdzk_vec* keys;
  const kdzk_vec* rows;
  int32_t partition;
  kdzk_hash_fn hash;
  kdzk_exec* exec;
};

// `part` of a stop at this hash: the directory field as it lies directly above the bucket field in the low 32 bits.
template <class Form>
uint32_t part_of(const OneTable<Form>&, const kdzk_htdesc*, uint64_t) {
  return 0;
}
template <class Form>
uint32_t part_of(const Directory<Form>& table, const kdzk_htdesc* desc, uint64_t hash) {
  return static_cast<uint32_t>(hash & table.dir_mask) >> (desc->bucket_hi + 1) % 32;
}

template <class Form, class Keys, class Tags, class Ids, class Table>
uint64_t build_into(const Table table, const Overflow overflow, const Call& call, const Tags tags, const Ids ids) {
  HashBatches<Keys> batches(call.keys, call.hash, call.exec);
  const uint32_t nrows = call.keys->nrows;
  uint32_t row = call.exec->row;
  while (row < nrows) {
    const uint32_t n = nrows - row < batch_rows ? nrows - row : batch_rows;
    const auto hashes = batches.hashes_of(row, n);
    const uint32_t done = insert_rows<Form>(hashes, tags.from(row), ids.from(row), table, overflow, n);
    if (done < n) {
      call.exec->part = part_of(table, call.desc, hashes[done]);
      call.exec->row = row + done;
      batches.stop_at(done, call.exec);
      return KDZK_OVERFLOW_FULL;
    }
    batches.finish_batch(n);
    row += n;
  }
  call.exec->row = nrows;
  batches.stop_behind(call.exec);
  return KDZK_DONE;
}

// A leaf. Its inner loops exist twice, with and without a directory.
template <class Form, class Keys, class Tags, class Ids>
uint64_t build(const Call& call, Tags tags, Ids ids) {
  const kdzk_htdesc* const desc = call.desc;
  if (call.partition < 0 && has_directory(desc)) {
    return build_into<Form, Keys>(Directory<Form>(desc), Overflow{desc->cursors, desc->limits}, call, tags, ids);
  }
  const uint32_t entry = call.partition < 0 ? 0 : static_cast<uint32_t>(call.partition);
  const Overflow overflow{desc->cursors + entry, desc->limits + entry};
  return build_into<Form, Keys>(OneTable<Form>(desc, entry), overflow, call, tags, ids);
}

// By the source of the payloads, where the keys don't bring them.
template <class Form, class Keys, class Tags>
uint64_t build_with_ids(const Call& call, Tags tags) {
  using Payload = typename Form::Payload;
  if ((call.rows->enc_ctx->flags & KDZK_IMPLICIT_IDS) != 0) {
    return build<Form, Keys>(call, tags, Counted<Payload>{static_cast<Payload>(call.rows->rowbase)});
  }
  return build<Form, Keys>(call, tags, Column<Payload>{bytes_of(call.rows)});
}

template <class Form>
uint64_t build_plain(const Call& call) {
  return first_form<Keyed16, FixedBytes, LenArray, LenPrefixed, PtrLen, Pair16, HashColumn>(
      call.keys->enc_ctx->flags, [&]<class Keys>() {
        if constexpr (std::is_same_v<Keys, Keyed16>) {
          return build<Form, Keys>(call, TagsFromHashes<Form>{},
                                   Column<typename Form::Payload, 16>{bytes_of(call.keys)});
        } else {
          return build_with_ids<Form, Keys>(call, TagsFromHashes<Form>{});
        }
      });
}

// In key mode the tag is the row's key.
template <class Form, class... Forms>
uint64_t build_keyed(const Call& call) {
  return first_form<Forms...>(call.keys->enc_ctx->flags, [&]<class Keys>() {
    const uint8_t* const data = bytes_of(call.keys);
    if constexpr (std::is_same_v<Keys, Keyed24>) {
      return build<Form, Keys>(call, TagsFromKeys<24>{{data + 8}}, Column<uint64_t, 24>{data + 16});
    } else {
      return build_with_ids<Form, Keys>(call, TagsFromKeys<4>{{data}});
    }
  });
}

}  // namespace

uint64_t kdzk_ht_build(const kdzk_htdesc* desc, const kdzk_vec* keys, const kdzk_vec* rows, int32_t partition,
                       kdzk_hash_fn hash, kdzk_exec* exec) {
  const Call call = {desc, keys, rows, partition, hash, exec};
  if ((desc->flags & (key_mode | 4)) == (key_mode | 4)) return build_keyed<Form4, Keyed24, U32Keys>(call);
  if ((desc->flags & (key_mode | 8)) == (key_mode | 8)) return build_keyed<Form8, U32Keys>(call);
  if (desc->flags == 1) return build_plain<Form1>(call);
  if (desc->flags == 2) return build_plain<Form2>(call);
  if (desc->flags == 4) return build_plain<Form4>(call);
  if (desc->flags == 8) return build_plain<Form8>(call);
  return KDZK_UNSUPPORTED;
}

}  // namespace kdzk
