/* SPDX-License-Identifier: Apache-2.0
 *
 * Prints the interface: what the headers declare, as this compiler lays it out, and what the library built holds. One
 * source, compiled as C and as C++; both must print the same. */
#include <dlfcn.h>
#include <kdzk/host.h>
#include <kdzk/host/verify.h>
#include <kdzk/kdzk.h>
#include <stdio.h>
#include <string.h>

void hostinternalerr(void* hctx, uint64_t word72, const char* message, uint64_t zero) {
  (void)hctx, (void)word72, (void)message, (void)zero;
}

/* What the tables have of a line: its kind, and its numbers as far as it has any. */
typedef struct line {
  char kind;
  const char *record, *name, *text;
  size_t offset, size;
  unsigned long long number;
} line;

#define HEADER(text) {'h', "", "", text, 0, 0, 0},
#define RECORD(record) {'r', #record, "", "", 0, sizeof(record), 0},
#define FIELD(record, field, text) \
  {'f', #record, #field, text, offsetof(record, field), sizeof(((record*)0)->field), 0},
#define NUMBER(name) {'n', "", #name, "", 0, sizeof(name), (name)},
#define STRING(name) {'s', "", #name, name, 0, 0, 0},
#define TEXT(text) {'t', "", "", text, 0, 0, 0},
static const line lines[] = {
#include "interface_tables.h"
};
enum { number_of_lines = sizeof lines / sizeof lines[0] };

static void print_headers(void) {
  for (int i = 0; i < number_of_lines; i++) {
    const line* l = &lines[i];
    if (l->kind == 'h') printf("\n%s\n", l->text);
    if (l->kind == 'r') printf("record %s: %zu bytes\n", l->record, l->size);
    if (l->kind == 'f') printf("  %zu, %zu bytes: %s\n", l->offset, l->size, l->text);
    if (l->kind == 'n') printf("%s = %#llx, %zu bytes\n", l->name, l->number, l->size);
    if (l->kind == 's') printf("%s = \"%s\"\n", l->name, l->text);
    if (l->kind == 't') printf("%s\n", l->text);
  }
}

/* A word of the exported record: a number, a text or table, or a function, perhaps that of an earlier word. */
static void print_slot(const uint64_t* words, size_t slot, const char* group, const char* name) {
  printf("slot %zu %s%s", slot, group, name);
  if (slot == 1 || slot == 3) {
    printf(": \"%s\"\n", (const char*)(uintptr_t)words[slot]);
  } else if (slot < 14) {
    printf(": %#llx\n", (unsigned long long)words[slot]);
  } else {
    size_t same = 14;
    while (words[same] != words[slot]) same++;
    if (same < slot) printf(": as %zu", same);
    printf(words[slot] == 0 ? ": null\n" : "\n");
  }
}

static void print_slots(const kdzk_specialized_ctx* ctx, const char* record, size_t base, const char* group) {
  uint64_t words[sizeof *ctx / 8];
  memcpy(words, ctx, sizeof words);
  for (int i = 0; i < number_of_lines; i++) {
    const line* l = &lines[i];
    if (l->kind != 'f' || strcmp(l->record, record) != 0) continue;
    const size_t slot = base + l->offset / 8;
    char name[64];
    snprintf(name, sizeof name, "%s.", l->name);
    if (strncmp(l->text, "kdzk_bv_services ", 17) == 0) {
      print_slots(ctx, "kdzk_bv_services", slot, name);
    } else {
      for (size_t k = 0; k < l->size / 8; k++) {
        if (l->size > 8) snprintf(name, sizeof name, "%s[%zu]", l->name, k);
        print_slot(words, slot + k, group, l->size > 8 ? name : l->name);
      }
    }
  }
}

static void print_library(const kdzk_specialized_ctx* ctx) {
  puts("\nthe library's record");
  print_slots(ctx, "kdzk_specialized_ctx", 0, "");
  puts("\nthe library's kernels");
  for (uint32_t id = 0; id < KDZK_KERNEL_IDS; id++) {
    if (ctx->dispatch[id].any != NULL) printf("kernel %u %s\n", id, kdzk_name_of(ctx, id));
  }
}

int main(int argc, char** argv) {
  void* handle = argc == 2 ? dlopen(argv[1], RTLD_NOW) : NULL;
  if (handle == NULL) return fprintf(stderr, "can't open the library: %s\n", dlerror()), 1;
  puts(
      "The interface that hosts rely on. Written by the target accept_interface; the test `interface` holds the "
      "headers");
  puts("and the library to it.");
  print_headers();
  print_library((const kdzk_specialized_ctx*)dlsym(handle, KDZK_CONTEXT_SYMBOL));
  return 0;
}
