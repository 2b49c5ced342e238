// SPDX-License-Identifier: Apache-2.0
// The engine's callbacks, called as the library calls them: with its comments, sizes and order.

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "host/verify/guard.h"
#include "host/verify/rules.h"

namespace kdzk_verify {
namespace {

constexpr const char* copy_comment = "kdzk_eq_dict_13bit: vec1_decomp";
constexpr uint32_t sizes[] = {1, 2, 15, 16, 17, 100, 4095, 4096, 4097, 70000};

unsigned long long shown(const void* address) { return reinterpret_cast<uintptr_t>(address); }

// ---- The record ----

void env_is_complete() {
  const kdzk_env* const env = host->env;
  if (env == nullptr) broken("env is null");
  const std::pair<const char*, bool> callbacks[] = {{"alloc", env->alloc != nullptr},
                                                    {"tmp_alloc", env->tmp_alloc != nullptr},
                                                    {"tmp_free", env->tmp_free != nullptr},
                                                    {"decompress", env->decompress != nullptr}};
  for (const auto& [name, there] : callbacks) {
    if (!there) broken("env->%s is null", name);
  }
}

void context_has_72_words() {
  if (host->env->hctx == nullptr) broken("env->hctx is null");
  touch(host->env->hctx, 0, 72 * 8, "the host context", "of which word 72 goes to hostinternalerr");
}

// ---- alloc ----

void* alloc(uint32_t size) {
  doing("in env->alloc of %u bytes", size);
  // The engine may expect its own tag, which only a column of its own has.
  static const auto* const column = new Column({.form = KDZK_VERIFY_CODES, .width = 9, .blocked = 1});
  const uint64_t tag = column->made() ? column->vec().alloc_tag : 0;
  void* const copy = host->env->alloc(host->env->hctx, host->env->heap, size, copy_comment, 8, 16, tag);
  if (copy == nullptr) broken("alloc of %u bytes returned null", size);
  return copy;
}

void alloc_is_aligned() {
  for (int turn = 0; turn < 8; turn++) {
    for (const uint32_t size : sizes) {
      const void* const copy = alloc(size);
      if (shown(copy) % 16 != 0) broken("alloc of %u bytes returned 0x%llx", size, shown(copy));
    }
  }
}

void alloc_gives_its_own_bytes() {
  std::vector<std::pair<uint8_t*, uint32_t>> copies;
  for (const uint32_t size : sizes) {
    copies.emplace_back(static_cast<uint8_t*>(alloc(size)), size);
    doing("writing %u bytes that alloc gave", size);
    std::memset(copies.back().first, static_cast<int>(copies.size()), size);
  }
  for (size_t i = 0; i < copies.size(); i++) {
    const auto [bytes, size] = copies[i];
    if (std::count(bytes, bytes + size, static_cast<uint8_t>(i + 1)) != size) {
      broken("%u bytes that alloc gave changed when others were written", size);
    }
  }
}

void alloc_is_padded() {
  alloc(1);  // so that the engine has what it keeps
  guard_malloc(true);
  bool guarded = true;
  for (uint32_t size = 1; size <= 40; size++) {
    const auto* const copy = static_cast<const uint8_t*>(alloc(size));
    guarded = guarded && guarded_end(copy) != nullptr;
    touch(copy, size, size + KDZK_PADDING, "a copy with its padding", std::to_string(size) + " bytes");
  }
  if (!guarded) remark("(not malloc's memory: only seen to be mapped)");
}

// ---- tmp_alloc and tmp_free ----

struct Scratch {
  void* word = &word;  // as the library has it: its own address at first
  uint8_t* bytes = nullptr;
  uint64_t size = 0;
  Scratch() = default;
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  void take(uint64_t n, const char* comment, uint32_t unit) {
    size = n;
    word = &word;
    doing("in env->tmp_alloc of %llu bytes, \"%s\"", static_cast<unsigned long long>(n), comment);
    bytes = static_cast<uint8_t*>(host->env->tmp_alloc(host->env->hctx, n, comment, unit, 0, &word));
    if (bytes == nullptr) broken("tmp_alloc of %llu bytes returned null", static_cast<unsigned long long>(n));
  }
  void give() {
    doing("in env->tmp_free of %llu bytes", static_cast<unsigned long long>(size));
    host->env->tmp_free(host->env->hctx, bytes, word);
    bytes = nullptr;
  }
};

struct Use {
  const char* comment;
  uint32_t unit;
};
constexpr Use uses[] = {{"sqzb_decode_x86 length_array", 4},
                        {"sqzb_decode_x86: symbol_array", 8},
                        {"kdzk_groupkey_dydi: temp column info", 8}};

void scratch_is_aligned() {
  for (const uint64_t size : sizes) {
    for (const Use& use : uses) {
      Scratch scratch;
      scratch.take(size, use.comment, use.unit);
      if (shown(scratch.bytes) % use.unit != 0) {
        broken("tmp_alloc of %llu bytes with unit %u returned 0x%llx", static_cast<unsigned long long>(size), use.unit,
               shown(scratch.bytes));
      }
    }
  }
}

// Three pieces at a time, given back in any order, keep their bytes as long as they are in use.
void scratch_comes_and_goes() {
  const int orders[][3] = {{0, 1, 2}, {2, 1, 0}, {1, 0, 2}, {0, 2, 1}, {1, 2, 0}, {2, 0, 1}};
  for (const uint64_t size : sizes) {
    for (const auto& order : orders) {
      Scratch scratch[3];
      for (int i = 0; i < 3; i++) {
        scratch[i].take(size, uses[i].comment, uses[i].unit);
        doing("writing %llu bytes of scratch", static_cast<unsigned long long>(size));
        std::memset(scratch[i].bytes, i + 1, size);
      }
      for (const int i : order) {
        const auto same = std::count(scratch[i].bytes, scratch[i].bytes + size, static_cast<uint8_t>(i + 1));
        if (static_cast<uint64_t>(same) != size) {
          broken("%llu bytes of scratch changed while another piece was written or given back",
                 static_cast<unsigned long long>(size));
        }
        scratch[i].give();
      }
    }
  }
}

void scratch_is_balanced() {
  if (host->in_use == nullptr) not_used("in_use is null");
  const uint64_t before = host->in_use(host->state);
  Scratch scratch[2];
  for (int i = 0; i < 2; i++) scratch[i].take(100, uses[i].comment, uses[i].unit);
  const uint64_t between = host->in_use(host->state);
  for (Scratch& piece : scratch) piece.give();
  const uint64_t after = host->in_use(host->state);
  if (between != before + 2 || after != before) {
    broken("%llu pieces in use, %llu with two of scratch, %llu when both were given back",
           static_cast<unsigned long long>(before), static_cast<unsigned long long>(between),
           static_cast<unsigned long long>(after));
  }
}

// ---- hostinternalerr, by a kernel on a block that doesn't decompress ----

uint8_t no_block[64];
void* no_alloc(void*, void*, uint32_t, const char*, uint32_t, uint32_t, uint64_t) { return no_block; }
uint32_t no_decompress(const kdzk_sqzb_ctx*, const void*, void*, uint32_t*, uint32_t) { return KDZK_MALFORMED; }

void call_that_fails(void*) {
  kdzk_env env = *host->env;  // with the engine's context
  env.alloc = no_alloc;
  env.decompress = no_decompress;
  void* slot = nullptr;
  kdzk_enc_ctx enc{};
  enc.flags = KDZK_PACKED_DICT | KDZK_BLOCKED;
  enc.width = 3;
  kdzk_vec input{}, result{};
  kdzk_exec exec{};
  uint64_t bits = 0;
  const uint32_t constant = 1;
  input.data = no_block;
  input.enc_ctx = &enc;
  input.decomp_size = 3;
  input.decomp_slot = &slot;
  input.nrows = result.nrows = 8;
  result.bitvec = &bits;
  exec.env = &env;
  kdzk_kargs arg{};
  arg.data = const_cast<uint32_t*>(&constant);
  library->dispatch[kdzk_id_of(2, KDZK_FAMILY_DICT * 32 + KDZK_OP_EQ)].compare(&result, &input, &arg, &exec);
}

void errors_arrive() {
  constexpr const char* message = "kdzk_eq_dict_3bit: kdzk_sqzb_decode failed";
  doing("in hostinternalerr");
  may_end();
  uint32_t left = 0;
  if (host->guard != nullptr) {
    left = host->guard(host->state, call_that_fails, nullptr);
  } else {
    call_that_fails(nullptr);
  }
  remark(left != 0 ? "it leaves the kernel" : "it returns: results of such a call have no meaning");
  if (host->last_error == nullptr) return;
  uint64_t word72 = 0, want = 0;
  std::memcpy(&want, static_cast<const uint64_t*>(host->env->hctx) + 71, sizeof want);
  const char* const got = host->last_error(host->state, &word72);
  if (got == nullptr || std::strcmp(got, message) != 0) {
    broken("it got the message \"%s\" and not \"%s\"", got == nullptr ? "" : got, message);
  }
  if (word72 != want) {
    broken("it got 0x%llx and not 0x%llx, the 72nd word of the host context", static_cast<unsigned long long>(word72),
           static_cast<unsigned long long>(want));
  }
}

// ---- The hash function ----

void needs_hash() {
  if (host->hash == nullptr) not_used("hash is null");
}

// Equal keys have equal hashes wherever they lie, and no byte behind a key is looked at: the page behind faults.
void hash_is_pure() {
  needs_hash();
  constexpr size_t page = 4096;
  auto* const map =
      static_cast<uint8_t*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  mprotect(map + page, page, PROT_NONE);
  alignas(16) uint8_t elsewhere[512];
  Random random{42};
  for (const uint32_t length : {0u, 1u, 2u, 3u, 4u, 5u, 7u, 8u, 9u, 15u, 16u, 17u, 31u, 32u, 33u, 100u, 255u}) {
    std::vector<uint8_t> key(length + 1);
    for (uint8_t& byte : key) byte = static_cast<uint8_t>(random.bits());
    doing("hashing a key of %u bytes", length);
    const uint64_t seed = random.bits(), want = host->hash(key.data(), length, seed);
    uint8_t* const at_end = map + page - length;
    if (length > 0) std::memcpy(at_end, key.data(), length);
    for (uint32_t offset = 0; offset < 16; offset++) {
      std::memset(elsewhere, static_cast<int>(random.bits()), sizeof elsewhere);
      std::memcpy(elsewhere + offset, key.data(), length);
      doing("hashing a key of %u bytes that ends before a page that faults", length);
      if (host->hash(elsewhere + offset, length, seed) != want || host->hash(at_end, length, seed) != want) {
        broken("two hashes of one key of %u bytes with one seed differ", length);
      }
    }
    if (host->hash(key.data(), length, seed + 1) == want)
      broken("the hash of %u bytes is the same with another seed", length);
  }
}

// The library cuts tags from the low bits, bucket numbers from those above, and partitions from wherever the host says.
void hash_is_mixed() {
  needs_hash();
  constexpr uint32_t keys = 1 << 16, cells = 256;
  struct Keys {
    const char* name;
    uint32_t bytes, step;
  };
  for (const Keys& kind :
       {Keys{"native uint32_t 0, 1, 2 and so on", 4, 1}, Keys{"native uint64_t 0, 1, 2 and so on", 8, 1},
        Keys{"native uint64_t, multiples of 4096", 8, 4096}}) {
    std::vector<std::array<uint32_t, cells>> count(57);  // by the 8 bits from bit 0 to 56 on
    std::vector<uint64_t> hashes;
    doing("hashing %s", kind.name);
    for (uint32_t i = 0; i < keys; i++) {
      const uint64_t key = uint64_t{i} * kind.step;
      const uint64_t hash = host->hash(&key, kind.bytes, 0);
      hashes.push_back(hash);
      for (size_t bit = 0; bit < count.size(); bit++) count[bit][hash >> bit & 0xff]++;
    }
    // Of even hashes the square sum is 255 on average, with a deviation of 23; 600 is for what isn't mixed at all.
    for (size_t bit = 0; bit < count.size(); bit++) {
      double square_sum = 0;
      const double mean = keys / cells;
      for (const uint32_t n : count[bit]) square_sum += (n - mean) * (n - mean) / mean;
      if (square_sum > 600) {
        broken("of %u keys (%s), bits %zu to %zu of the hash are uneven: chi-square %.0f, and 255 of an even hash",
               keys, kind.name, bit, bit + 7, square_sum);
      }
    }
    std::sort(hashes.begin(), hashes.end());
    const auto distinct = std::unique(hashes.begin(), hashes.end()) - hashes.begin();
    if (distinct + 4 < static_cast<long>(keys)) broken("%u keys (%s) have %ld hashes", keys, kind.name, distinct);
  }
}

}  // namespace

Rules env_rules() {
  return {
      {"env-complete", "fill in all callbacks of kdzk_env", env_is_complete, {}},
      {"host-context", "let env->hctx point to at least 576 readable bytes", context_has_72_words, {"env-complete"}},
      {"alloc-alignment",
       "align what alloc returns to its sixth argument, 16 bytes",
       alloc_is_aligned,
       {"env-complete"}},
      {"alloc-size",
       "give each copy size bytes of its own until the engine releases it",
       alloc_gives_its_own_bytes,
       {"env-complete"}},
      {"alloc-padding",
       "allocate KDZK_PADDING bytes more than size: kernels read behind the last row",
       alloc_is_padded,
       {"env-complete"}},
      {"tmp-alignment", "align scratch to the fourth argument, 4 or 8 bytes", scratch_is_aligned, {"env-complete"}},
      {"tmp-size",
       "give scratch back by the pointer, or by the word that tmp_alloc left in *out, in any order",
       scratch_comes_and_goes,
       {"env-complete"}},
      {"tmp-balance",
       "let tmp_free release what tmp_alloc gave, each once",
       scratch_is_balanced,
       {"env-complete", "tmp-size"}},
      {"hostinternalerr",
       "take the arguments in the order (hctx, word72, message, 0), and return, jump or end the process",
       errors_arrive,
       {"env-complete", "host-context"}},
      {"hash-pure", "hash exactly length bytes and the seed, and nothing else", hash_is_pure, {}},
      {"hash-mixed", "finish the hash so that every bit depends on every bit of the key", hash_is_mixed, {"hash-pure"}},
  };
}

}  // namespace kdzk_verify
