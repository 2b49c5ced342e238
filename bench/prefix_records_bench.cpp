// SPDX-License-Identifier: Apache-2.0
// Prefix record streams. Data are named for the bytes of a record and of the prefix that most groups have: record
// numbers in ascending order, big-endian, below a random top. Bytes per second count the output.
//
// Peers: `memcpy_per_record` and `byte_loop` expand the same stream record by record; `memcpy` writes as many bytes.

#include <kdzk/host/prefix_records.h>

#include <cstring>
#include <memory>
#include <random>

#include "bench/bench.h"
#include "bench/peers/prefix_records_loops.h"

namespace kdzk_bench {
namespace {

struct Stream {
  std::vector<uint8_t> records, stream, out;
  std::vector<kdzk_prefix_record> table;
  kdzk_enc_ctx enc{};
  kdzk_vec input{}, result{};
  kdzk_exec exec{};

  // Records whose last `tail` bytes are random; those before it change from group to group.
  Stream(uint32_t count, uint32_t width, uint32_t tail, bool with_table)
      : records(uint64_t{count} * width), out(uint64_t{count} * width), table(with_table ? count : 0) {
    std::mt19937_64 random(1);
    for (uint64_t record = 0, group = 0; record < count; record++) {
      if (record % KDZK_HOST_PREFIX_GROUP == 0) group = random();
      const uint64_t number = random();
      uint8_t* const at = records.data() + record * width;
      std::memcpy(at, &group, width - tail);
      std::memcpy(at + width - tail, &number, tail);
    }
    stream.resize(kdzk_host_prefix_records_bound(count, width) + KDZK_PADDING);
    kdzk_host_prefix_records_write(records.data(), count, width, stream.data());
    enc.prefix_group = KDZK_HOST_PREFIX_GROUP;
    enc.prefix_width = static_cast<int16_t>(width);
    enc.prefix_count = count;
    input.enc_ctx = &enc;
    input.data = stream.data();
    input.nrows = kdzk_host_prefix_groups(count);
    result.data = out.data();
    exec.xlate_info = with_table ? table.data() : nullptr;
  }
};

void add_stream(uint32_t count, uint32_t width, uint32_t tail, bool with_table) {
  const auto make = [=] {
    auto s = std::make_shared<Stream>(count, width, tail, with_table);
    const auto answer = [=] { return Answer{s->out == s->records, {}}; };
    std::vector<Peer> peers = {
        {"kdzk", [=] { library().decode_prefix_records(&s->result, &s->input, &s->exec); }, answer},
        {"memcpy_per_record", [=] { expand_by_memcpy(s->stream.data(), count, width, s->out.data()); }, answer},
        {"byte_loop", [=] { expand_by_bytes(s->stream.data(), count, width, s->out.data()); }, answer},
        {"memcpy", [=] { std::memcpy(s->out.data(), s->records.data(), s->out.size()); }, nullptr}};
    return peers;
  };
  const std::string prefix = std::to_string(width) + "_bytes/prefix_" + std::to_string(width - tail);
  add_group("decode_prefix_records", prefix + (with_table ? "/table/" : "/") + (count == in_cache ? "64Ki" : "16Mi"),
            count, uint64_t{count} * width, make);
}

}  // namespace

void add_prefix_records() {
  for (uint32_t width = 1; width <= 8; width++) {
    for (const uint32_t tail : {0u, width / 2, width}) add_stream(in_cache, width, tail, false);
  }
  add_stream(in_cache, 8, 2, true);
  add_stream(in_memory / 4, 8, 2, false);
}

}  // namespace kdzk_bench
