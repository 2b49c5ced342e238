/* SPDX-License-Identifier: Apache-2.0
 * A plugin that loads the library, and calls a kernel whose decompression fails, for two host contexts with a route for
 * their errors each. */
#include <kdzk/host.h>
#include <stdio.h>

#if defined(WITH_ERRORS)
static uint32_t fail(const kdzk_sqzb_ctx* ctx, const void* src, void* dst, uint32_t* written, uint32_t capacity) {
  (void)ctx, (void)src, (void)dst, (void)written, (void)capacity;
  return KDZK_MALFORMED;
}

static void print(const kdzk_host_error_route* route, uint64_t word72, const char* message) {
  printf("route %s, word %u: %s\n", (const char*)route->user, (unsigned)word72, message);
}

static void call(const kdzk_host_library* library, kdzk_host_memory* memory) {
  kdzk_host_kernel eq;
  uint8_t block[16] = {0};
  uint64_t bits[1];
  uint32_t zero = 0;
  void* slot = NULL;
  kdzk_exec exec = {.env = &memory->env};
  kdzk_enc_ctx column = {.width = 3, .flags = KDZK_BLOCKED};
  kdzk_vec input = {.data = block, .enc_ctx = &column, .nrows = 8, .decomp_size = 3, .decomp_slot = &slot};
  kdzk_vec result = {.bitvec = bits, .nrows = 8};
  kdzk_kargs constant = {.data = &zero};
  input.alloc_tag = kdzk_host_tag(&slot);
  memory->env.decompress = fail;
  if (kdzk_host_find_kernel_named(library->ctx, "kdzk_eq_dict_3bit", &eq) != KDZK_HOST_FOUND) return;
  eq.entry.compare(&result, &input, &constant, &exec);
  kdzk_host_memory_reset(memory);
}

static void call_with_routes(const kdzk_host_library* library) {
  kdzk_host_memory a, b;
  kdzk_host_memory_malloc(&a, NULL);
  kdzk_host_memory_malloc(&b, NULL);
  a.word72 = 1;
  b.word72 = 2;
  kdzk_host_error_route to_a = {.hctx = &a, .handler = print, .user = "a"};
  kdzk_host_error_route to_b = {.hctx = &b, .handler = print, .user = "b"};
  kdzk_host_error_route later_to_b = {.hctx = &b, .handler = print, .user = "later b"};
  kdzk_host_route_errors(&to_a);
  kdzk_host_route_errors(&to_b);
  kdzk_host_route_errors(&later_to_b);
  call(library, &a);
  call(library, &b);
  kdzk_host_unroute_errors(&later_to_b);
  call(library, &b);
  kdzk_host_unroute_errors(&to_a);
  fflush(stdout);
  call(library, &a); /* which aborts */
}
#endif

__attribute__((visibility("default"))) void run_plugin(const char* path) {
  kdzk_host_library library;
  const uint32_t code = kdzk_host_load(path, &library);
  printf("%u: %s\n", code, library.text);
#if defined(WITH_ERRORS)
  if (code == KDZK_HOST_LOADED) call_with_routes(&library);
#endif
}
