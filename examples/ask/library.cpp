// SPDX-License-Identifier: Apache-2.0
#include "library.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "error.h"

// The library imports this from the program that loads it.
extern "C" void hostinternalerr(void*, uint64_t, const char* message, uint64_t) {
  std::fprintf(stderr, "kdzk-ask: internal error in the library: %s\n", message);
  std::abort();
}

namespace ask {
namespace {

const kdzk_specialized_ctx* checked_context(void* object, const std::string& path) {
  const auto* context = static_cast<const kdzk_specialized_ctx*>(dlsym(object, KDZK_CONTEXT_SYMBOL));
  if (context == nullptr) throw Error(path + ": not a kernel library: it has no " KDZK_CONTEXT_SYMBOL);
  if (context->magic != KDZK_MAGIC)
    throw Error(path + ": not a kernel library: its " KDZK_CONTEXT_SYMBOL " is foreign");
  if (std::strcmp(context->version, KDZK_VERSION) != 0) {
    throw Error(path + ": version " + context->version + ", but this program was built for " KDZK_VERSION);
  }
  return context;
}

}  // namespace

Library::Library(const std::string& path) {
  // Loading a build of the kernels is choosing it: the library itself doesn't look at the processor.
  if (!__builtin_cpu_supports("ssse3") || !__builtin_cpu_supports("sse4.2") || !__builtin_cpu_supports("popcnt")) {
    throw Error("this processor doesn't have SSSE3, SSE4.2 and POPCNT, which the kernels need");
  }
  // A name without a slash would be looked for in the system's directories.
  const std::string file = path.find('/') == path.npos ? "./" + path : path;
  object_ = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (object_ == nullptr) throw Error(std::string("can't load the kernel library: ") + dlerror());
  try {
    context_ = checked_context(object_, path);
  } catch (...) {
    dlclose(object_);
    throw;
  }
}

Library::~Library() { dlclose(object_); }

}  // namespace ask
