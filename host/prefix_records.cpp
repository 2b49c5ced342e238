// SPDX-License-Identifier: Apache-2.0
// The longest prefix is the best one for any group: each of its bytes is stored once instead of once a record.

#include <kdzk/host/prefix_records.h>

#include <cstring>

namespace {

uint32_t records_in_group(uint32_t left) { return left < KDZK_HOST_PREFIX_GROUP ? left : KDZK_HOST_PREFIX_GROUP; }

// Bytes that all of these records begin with.
uint32_t common_prefix(const uint8_t* records, uint32_t count, uint32_t width) {
  uint32_t common = width;
  for (uint32_t record = 1; record < count; record++) {
    const uint8_t* const at = records + record * width;
    uint32_t same = 0;
    while (same < common && at[same] == records[same]) same++;
    common = same;
  }
  return common;
}

}  // namespace

uint32_t kdzk_host_prefix_groups(uint32_t count) {
  return count / KDZK_HOST_PREFIX_GROUP + (count % KDZK_HOST_PREFIX_GROUP != 0);
}

uint64_t kdzk_host_prefix_records_bound(uint32_t count, uint32_t width) {
  return kdzk_host_prefix_groups(count) + uint64_t{count} * width;
}

uint64_t kdzk_host_prefix_records_write(const void* records, uint32_t count, uint32_t width, void* stream) {
  const uint8_t* in = static_cast<const uint8_t*>(records);
  uint8_t* out = static_cast<uint8_t*>(stream);
  for (uint32_t groups = kdzk_host_prefix_groups(count), left = count; groups > 0; groups--) {
    const uint32_t here = records_in_group(left), prefix = common_prefix(in, here, width);
    *out++ = static_cast<uint8_t>(prefix);
    std::memcpy(out, in, prefix);
    out += prefix;
    for (uint32_t record = 0; record < here; record++, in += width, out += width - prefix) {
      std::memcpy(out, in + prefix, width - prefix);
    }
    left -= here;
  }
  return static_cast<uint64_t>(out - static_cast<uint8_t*>(stream));
}

uint64_t kdzk_host_prefix_records_check(const void* stream, uint64_t size, uint32_t count, uint32_t width) {
  if (width < 1 || width > KDZK_HOST_PREFIX_MAX_WIDTH) return KDZK_HOST_PREFIX_NO_STREAM;
  const uint8_t* const in = static_cast<const uint8_t*>(stream);
  uint64_t at = 0;
  for (uint32_t groups = kdzk_host_prefix_groups(count), left = count; groups > 0; groups--) {
    if (at >= size || in[at] > width) return KDZK_HOST_PREFIX_NO_STREAM;
    const uint32_t prefix = in[at], here = records_in_group(left);
    at += 1 + prefix + here * (width - prefix);
    left -= here;
  }
  return at <= size ? at : KDZK_HOST_PREFIX_NO_STREAM;
}
