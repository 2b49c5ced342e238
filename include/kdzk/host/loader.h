/* SPDX-License-Identifier: Apache-2.0
 *
 * Opens a build of the library at run time, after it has made sure that it can run here. In the static library
 * kdzk_host. Any number of threads may load and unload, each with a record of its own. */
#ifndef KDZK_HOST_LOADER_H
#define KDZK_HOST_LOADER_H

#include <kdzk/context.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- What kdzk_host_load returns, in the order of its checks. ---- */

#define KDZK_HOST_LOADED 0u
#define KDZK_HOST_NO_PROCESSOR 1u  /* The processor lacks instructions that the kernels need. */
#define KDZK_HOST_NO_FILE 2u       /* There is no such file, or it can't be read. */
#define KDZK_HOST_NO_OBJECT 3u     /* The file is no shared object for x86-64. */
#define KDZK_HOST_NO_ERROR_FN 4u   /* The library wouldn't find hostinternalerr. */
#define KDZK_HOST_NOT_OPENED 5u    /* The system's loader refuses the file. */
#define KDZK_HOST_FOREIGN 6u       /* It lacks kdzk_global_specialized_ctx, or that record has another magic. */
#define KDZK_HOST_OTHER_VERSION 7u /* It is a build of another version than KDZK_VERSION. */

#define KDZK_HOST_LIBRARY_TEXT 640u

typedef struct kdzk_host_library {
  const kdzk_specialized_ctx* ctx;   /* Out: the record, constant until kdzk_host_unload; null if refused. */
  void* handle;                      /* Out: for kdzk_host_unload; null if refused. */
  char text[KDZK_HOST_LIBRARY_TEXT]; /* Out: the file's version and name, or one sentence, without a full stop, that
                                        says what is wrong and what to do. */
} kdzk_host_library;

/* Opens the library in the file at `path`, with all its symbols bound at once and none of them made visible to others,
 * and fills in `library`. A path without a slash is of the working directory: the system's directories are not
 * searched. Up to NO_ERROR_FN nothing of the file has run or been mapped; after a refusal it isn't open any more.
 *
 * hostinternalerr, which the library imports, must be where the dynamic linker looks for it: in the program (linked
 * with -rdynamic, or -Wl,--export-dynamic-symbol=hostinternalerr), or in an object that was opened with RTLD_GLOBAL.
 * Where it is in neither, but in the object that holds this function (a plugin that was itself opened with RTLD_LOCAL)
 * or in what that object was linked with, these become global by this call, with all their symbols, and stay it until
 * unloaded. A host that doesn't want that exports its own from the program. <kdzk/host/errors.h> has one for hosts
 * without.
 *
 * Returns KDZK_HOST_LOADED or one of the codes above. */
uint32_t kdzk_host_load(const char* path, kdzk_host_library* library);

/* Closes what kdzk_host_load opened, and sets `ctx` and `handle` to null. The record and all kernels and services are
 * gone then, if no other load of the same file is left. Does nothing with a library that was refused. */
void kdzk_host_unload(kdzk_host_library* library);

#ifdef __cplusplus
}
#endif

#endif
