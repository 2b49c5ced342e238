// SPDX-License-Identifier: Apache-2.0
// Opens the library. The checks that can be made from outside come first, and only then the system's loader: what it
// says of a file that isn't one, or of a symbol that nobody has, tells a host's user little about what to do.

#include <cpuid.h>
#include <dlfcn.h>
#include <elf.h>
#include <kdzk/host/loader.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr char error_function[] = "hostinternalerr";

// Writes the sentence of a refusal, and returns its code.
__attribute__((format(printf, 3, 4))) uint32_t refuse(kdzk_host_library* library, uint32_t code, const char* format,
                                                      ...) {
  va_list values;
  va_start(values, format);
  std::vsnprintf(library->text, sizeof library->text, format, values);
  va_end(values);
  return code;
}

// A path as sentences show it: of a long one the end, so that there is room for what to do.
class Shown {
 public:
  explicit Shown(const char* path) {
    const size_t size = std::strlen(path);
    const size_t skipped = size < sizeof text_ ? 0 : size - (sizeof text_ - sizeof "...");
    std::snprintf(text_, sizeof text_, "%s%s", skipped > 0 ? "..." : "", path + skipped);
  }
  const char* text() const { return text_; }

 private:
  char text_[240];
};

uint32_t check_processor(kdzk_host_library* library) {
  struct Feature {
    const char* name;
    uint32_t bit;
  };
  static constexpr Feature needed[] = {
      {"SSSE3", bit_SSSE3}, {"SSE4.1", bit_SSE4_1}, {"SSE4.2", bit_SSE4_2}, {"POPCNT", bit_POPCNT}};
  uint32_t eax, ebx, ecx = 0, edx;
  __get_cpuid(1, &eax, &ebx, &ecx, &edx);
  char missing[64] = "";
  for (const Feature& feature : needed) {
    if ((ecx & feature.bit) != 0) continue;
    if (missing[0] != 0) std::strcat(missing, ", ");
    std::strcat(missing, feature.name);
  }
  if (missing[0] == 0) return KDZK_HOST_LOADED;
  return refuse(library, KDZK_HOST_NO_PROCESSOR,
                "this processor lacks %s, which the kernels need: run on an x86-64 processor of 2008 or later, or give "
                "the virtual machine such a model",
                missing);
}

// The file is there and, as far as its first bytes tell, a shared object that this process can map.
uint32_t check_file(const char* path, kdzk_host_library* library) {
  const Shown shown(path);
  Elf64_Ehdr header{};
  std::FILE* const file = std::fopen(path, "rbe");
  errno = file == nullptr ? errno : 0;
  const size_t size = file == nullptr ? 0 : std::fread(&header, 1, sizeof header, file);
  const int error = errno;  // of opening, or of reading: a directory opens
  if (file != nullptr) std::fclose(file);
  if (error != 0) {
    return refuse(library, KDZK_HOST_NO_FILE,
                  "can't read %s (%s): give the path of a build of the library, such as build/libvexksse4219.so",
                  shown.text(), std::strerror(error));
  }
  if (size < sizeof header || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) {
    return refuse(library, KDZK_HOST_NO_OBJECT,
                  "%s is no shared object, for it has no ELF header: give the path of a build of the library",
                  shown.text());
  }
  if (header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_ident[EI_DATA] != ELFDATA2LSB ||
      header.e_machine != EM_X86_64) {
    return refuse(library, KDZK_HOST_NO_OBJECT,
                  "%s is for another processor (ELF machine %d), and this one is x86-64: give the path of a build for "
                  "x86-64",
                  shown.text(),
                  header.e_ident[EI_DATA] == ELFDATA2LSB ? header.e_machine : __builtin_bswap16(header.e_machine));
  }
  if (header.e_type != ET_DYN) {
    return refuse(library, KDZK_HOST_NO_OBJECT,
                  "%s is a program or an object file (ELF type %d), not a shared object: give the path of a build of "
                  "the library",
                  shown.text(), header.e_type);
  }
  return KDZK_HOST_LOADED;
}

// Whether an object that is opened from now on finds hostinternalerr. RTLD_DEFAULT would not do: it also looks where
// only this object looks.
bool error_function_is_global() {
  void* const program = dlopen(nullptr, RTLD_NOW);
  if (program == nullptr) return false;
  const bool found = dlsym(program, error_function) != nullptr;
  dlclose(program);
  return found;
}

// Sees to it that the library will find hostinternalerr, if need be by making the object that this code is in global.
uint32_t check_error_function(kdzk_host_library* library) {
  if (error_function_is_global()) return KDZK_HOST_LOADED;
  Dl_info own{};
  void* self = nullptr;  // stays null in a program, which is global
  if (dladdr(reinterpret_cast<void*>(&error_function_is_global), &own) != 0) {
    self = dlopen(own.dli_fname, RTLD_NOW | RTLD_NOLOAD);
  }
  const bool has_one = self != nullptr && dlsym(self, error_function) != nullptr;
  if (self != nullptr) dlclose(self);
  if (!has_one) {
    return refuse(library, KDZK_HOST_NO_ERROR_FN,
                  "the library calls hostinternalerr, which it couldn't find: define it with default visibility in the "
                  "program, linked with -rdynamic, or in the plugin that loads the library, or link kdzk::host_error, "
                  "which has one");
  }
  // It stays global when the handle is closed.
  if (void* const global = dlopen(own.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_GLOBAL); global != nullptr) {
    dlclose(global);
  }
  if (error_function_is_global()) return KDZK_HOST_LOADED;
  return refuse(
      library, KDZK_HOST_NO_ERROR_FN,
      "the library wouldn't find hostinternalerr in %s, which was opened with RTLD_LOCAL and couldn't be made "
      "global: open it with RTLD_GLOBAL",
      Shown(own.dli_fname).text());
}

uint32_t check_record(const char* path, const kdzk_specialized_ctx* ctx, kdzk_host_library* library) {
  const Shown shown(path);
  if (ctx == nullptr) {
    return refuse(library, KDZK_HOST_FOREIGN,
                  "%s is another library, for it has no " KDZK_CONTEXT_SYMBOL ": give the path of a build of kdzk",
                  shown.text());
  }
  if (ctx->magic != KDZK_MAGIC) {
    return refuse(library, KDZK_HOST_FOREIGN,
                  "%s is another library, for its " KDZK_CONTEXT_SYMBOL
                  " begins with 0x%llx and not 0x%llx: give the path of a build of kdzk",
                  shown.text(), static_cast<unsigned long long>(ctx->magic),
                  static_cast<unsigned long long>(KDZK_MAGIC));
  }
  const char* const version = ctx->version == nullptr ? "" : ctx->version;
  if (std::strcmp(version, KDZK_VERSION) != 0) {
    return refuse(library, KDZK_HOST_OTHER_VERSION,
                  "%s has version \"%.32s\", and this program was built for \"" KDZK_VERSION
                  "\": use a library of that version, or build the program with the headers of this one",
                  shown.text(), version);
  }
  std::snprintf(library->text, sizeof library->text, "%s %s", version, ctx->name == nullptr ? "" : ctx->name);
  return KDZK_HOST_LOADED;
}

// As a path that dlopen takes for one: it would look for a bare name in the system's directories.
class AsPath {
 public:
  explicit AsPath(const char* path) {
    if (std::strchr(path, '/') == nullptr && std::strlen(path) < sizeof text_ - 2) {
      std::snprintf(text_, sizeof text_, "./%s", path);
      path_ = text_;
    } else {
      path_ = path;
    }
  }
  AsPath(const AsPath&) = delete;
  AsPath& operator=(const AsPath&) = delete;
  const char* text() const { return path_; }

 private:
  char text_[258];  // a file's name has at most 255 bytes
  const char* path_;
};

uint32_t load(const char* path, kdzk_host_library* library) {
  if (const uint32_t refused = check_processor(library)) return refused;
  if (const uint32_t refused = check_file(path, library)) return refused;
  if (const uint32_t refused = check_error_function(library)) return refused;
  void* const handle = dlopen(AsPath(path).text(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    return refuse(library, KDZK_HOST_NOT_OPENED,
                  "the system can't open the library (%.320s): see that the file is whole and that what it needs is "
                  "installed",
                  dlerror());
  }
  const auto* const ctx = static_cast<const kdzk_specialized_ctx*>(dlsym(handle, KDZK_CONTEXT_SYMBOL));
  if (const uint32_t refused = check_record(path, ctx, library)) {
    dlclose(handle);
    return refused;
  }
  library->ctx = ctx;
  library->handle = handle;
  return KDZK_HOST_LOADED;
}

}  // namespace

uint32_t kdzk_host_load(const char* path, kdzk_host_library* library) {
  library->ctx = nullptr;
  library->handle = nullptr;
  library->text[0] = 0;
  return load(path == nullptr ? "" : path, library);
}

void kdzk_host_unload(kdzk_host_library* library) {
  if (library->handle != nullptr) dlclose(library->handle);
  library->ctx = nullptr;
  library->handle = nullptr;
}
