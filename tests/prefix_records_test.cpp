// SPDX-License-Identifier: Apache-2.0
// The prefix record decoder against streams written group by group with prefixes of any length, and the host kit's
// writer and check of such streams.

#include <gtest/gtest.h>
#include <kdzk/host/prefix_records.h>

#include <cstring>

#include "tests/support/format_docs.h"
#include "tests/support/host.h"
#include "tests/support/prefix_streams.h"

namespace kdzk_test {
namespace {

using Bytes = std::vector<uint8_t>;

// A random stream, and its records.
struct Stream {
  Bytes bytes, records;

  Stream(uint32_t width, uint32_t count, int prefix, Random& random)
      : bytes(random_prefix_stream(random, width, count, prefix)), records(prefix_plain_decode(bytes, count, width)) {}
};

class PrefixRecords : public testing::TestWithParam<uint32_t> {};

TEST_P(PrefixRecords, AgreeWithTheRecordsOfTheStream) {
  const uint32_t width = GetParam();
  Random random("prefix_records" + std::to_string(width));
  std::vector<uint32_t> counts = {160, 1000};
  for (uint32_t count = 1; count <= 66; count++) counts.push_back(count);
  for (const uint32_t count : counts) {
    for (int prefix = any_prefix; prefix <= static_cast<int>(width); prefix++) {
      const Stream stream(width, count, prefix, random);
      const std::string what = std::to_string(width) + " bytes, " + std::to_string(count) + " records, prefix " +
                               std::to_string(prefix) + ", seed " + std::to_string(random.seed());
      SCOPED_TRACE(what);
      now_running("prefix records, " + what);
      GuardedBuffer in(stream.bytes, KDZK_PADDING, static_cast<uint8_t>(random.bits()));
      GuardedBuffer out(size_t{count} * width), table(size_t{count} * 16);  // each against a page that faults
      PrefixCall call(in.data(), width, count, out.data());
      call.result.hits = 4711;
      call.exec.xlate_info = random.below(2) == 0 ? table.data() : nullptr;
      EXPECT_EQ(call.run(prefix == 0 ? nullptr : &call.exec), KDZK_DONE);
      ASSERT_EQ(std::memcmp(out.data(), stream.records.data(), stream.records.size()), 0);
      EXPECT_EQ(call.result.hits, 4711u);
      for (uint32_t i = 0; i < count; i++) {
        uint64_t entry[2];
        std::memcpy(entry, table.data() + 16 * i, 16);
        const bool wanted = prefix != 0 && call.exec.xlate_info != nullptr;
        ASSERT_EQ(entry[0], wanted ? reinterpret_cast<uint64_t>(out.data() + i * width) : 0xa5a5a5a5a5a5a5a5);
        ASSERT_EQ(entry[1], wanted ? width : 0xa5a5a5a5a5a5a5a5);
      }
    }
  }
}

// Bytes behind the output stay, and bytes of the slack have no influence, at any address.
TEST_P(PrefixRecords, LeaveWhatIsBehindThem) {
  const uint32_t width = GetParam();
  Random random("prefix_records_behind" + std::to_string(width));
  for (uint32_t count = 1; count <= 50; count++) {
    const Stream stream(width, count, any_prefix, random);
    const size_t start = random.below(16), size = stream.records.size();
    Bytes in(start, 0), out(start + size + 64, 0x3c), want = out;
    in.insert(in.end(), stream.bytes.begin(), stream.bytes.end());
    in.resize(in.size() + KDZK_PADDING, 0xff);
    std::copy(stream.records.begin(), stream.records.end(), want.begin() + static_cast<long>(start));
    EXPECT_EQ(PrefixCall(in.data() + start, width, count, out.data() + start).run(nullptr), KDZK_DONE);
    ASSERT_EQ(out, want) << count;
  }
}

TEST_P(PrefixRecords, RefuseWrongParametersUntouched) {
  const uint32_t width = GetParam();
  Random random("prefix_records_refused");
  const Stream stream(width, 40, any_prefix, random);
  const auto expect_refusal = [&](uint8_t group, int16_t record_width) {
    SCOPED_TRACE("groups of " + std::to_string(group) + ", width " + std::to_string(record_width));
    Bytes out(400, 0x11), table(640, 0x22);
    PrefixCall call(nullptr, width, 40, out.data());
    call.enc.prefix_group = group;
    call.enc.prefix_width = record_width;
    call.exec.xlate_info = table.data();
    EXPECT_EQ(call.run(&call.exec), KDZK_MALFORMED);
    EXPECT_EQ(out, Bytes(400, 0x11));
    EXPECT_EQ(table, Bytes(640, 0x22));
  };
  for (const int group : {0, 1, 8, 15, 17, 32, 255})
    expect_refusal(static_cast<uint8_t>(group), static_cast<int16_t>(width));
  for (const int bad : {0, 9, 16, 255, 256, 32767, -1, -8, -32768}) expect_refusal(16, static_cast<int16_t>(bad));
}

// The host kit writes the shortest stream, which decodes to the records and which the check knows to the byte.
TEST_P(PrefixRecords, AreWrittenShortest) {
  const uint32_t width = GetParam();
  Random random("prefix_records_written" + std::to_string(width));
  for (const uint32_t count : {0u, 1u, 2u, 15u, 16u, 17u, 32u, 33u, 47u, 500u}) {
    Bytes records(size_t{count} * width);
    for (size_t i = 0; i < records.size(); i++)
      records[i] = random.below(width) <= i % width ? static_cast<uint8_t>(random.below(3)) : 7;
    size_t shortest = 0;
    for (uint32_t first = 0; first < count; first += 16) {
      const uint32_t here = std::min(count - first, 16u);
      uint32_t n = 0;
      const auto all_have = [&](uint32_t byte) {
        for (uint32_t i = 1; i < here; i++)
          if (records[(first + i) * width + byte] != records[first * width + byte]) return false;
        return true;
      };
      while (n < width && all_have(n)) n++;
      shortest += 1 + n + here * (width - n);
    }
    GuardedBuffer in(records, 0), bound(kdzk_host_prefix_records_bound(count, width), 0);
    const uint64_t size = kdzk_host_prefix_records_write(in.data(), count, width, bound.data());
    EXPECT_EQ(size, shortest);
    ASSERT_LE(size, bound.size());
    EXPECT_EQ(kdzk_host_prefix_groups(count), (count + 15) / 16);
    const Bytes stream(bound.data(), bound.data() + size);
    GuardedBuffer exact(stream, 0), padded(stream);
    EXPECT_EQ(kdzk_host_prefix_records_check(exact.data(), size, count, width), size);
    for (uint64_t cut = 0; cut < size; cut++) {
      GuardedBuffer part(std::span{stream.data(), cut}, 0);
      ASSERT_EQ(kdzk_host_prefix_records_check(part.data(), cut, count, width), KDZK_HOST_PREFIX_NO_STREAM) << cut;
    }
    if (count == 0) continue;
    GuardedBuffer out(records.size());
    EXPECT_EQ(PrefixCall(padded.data(), width, count, out.data()).run(nullptr), KDZK_DONE);
    EXPECT_EQ(std::memcmp(out.data(), records.data(), records.size()), 0);
  }
  for (const size_t start : {size_t{0}, size_t{1} + 16 * width, size_t{2} + 32 * width}) {  // of three groups
    Bytes bytes = Stream(width, 40, 0, random).bytes;
    EXPECT_EQ(kdzk_host_prefix_records_check(bytes.data(), bytes.size(), 40, width), bytes.size());
    bytes[start] = static_cast<uint8_t>(width + 1);
    EXPECT_EQ(kdzk_host_prefix_records_check(bytes.data(), bytes.size(), 40, width), KDZK_HOST_PREFIX_NO_STREAM);
  }
}

INSTANTIATE_TEST_SUITE_P(Widths, PrefixRecords, testing::Range(1u, 9u));

// The walk-through of the format's description.
TEST(PrefixRecordsFormat, IsAsDescribed) {
  const auto documented = documented_bytes("prefix_records.md");
  const Bytes &records = documented.at("records"), &stream = documented.at("stream");
  ASSERT_EQ(records.size(), 18u * 3);
  Bytes written(kdzk_host_prefix_records_bound(18, 3));
  written.resize(kdzk_host_prefix_records_write(records.data(), 18, 3, written.data()));
  EXPECT_EQ(written, stream);
  EXPECT_EQ(kdzk_host_prefix_records_check(stream.data(), stream.size(), 18, 3), stream.size());
  const GuardedBuffer in(stream);
  Bytes out(records.size());
  EXPECT_EQ(PrefixCall(in.data(), 3, 18, out.data()).run(nullptr), KDZK_DONE);
  EXPECT_EQ(out, records);
}

}  // namespace
}  // namespace kdzk_test
