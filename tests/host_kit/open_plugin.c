/* SPDX-License-Identifier: Apache-2.0
 * A program that knows nothing of the kit and opens a plugin with local scope. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

static void aborted(int signal) {
  static const char text[] = "aborted\n";
  (void)signal;
  _exit(write(2, text, sizeof text - 1) > 0 ? 0 : 1);
}

int main(int count, char** words) {
  if (count != 3 || signal(SIGABRT, aborted) == SIG_ERR) return 1;
  if (dlsym(RTLD_DEFAULT, "hostinternalerr") != NULL) return 2;
  void* const plugin = dlopen(words[1], RTLD_NOW | RTLD_LOCAL);
  if (plugin == NULL) {
    fprintf(stderr, "%s\n", dlerror());
    return 3;
  }
  void (*run)(const char*);
  *(void**)&run = dlsym(plugin, "run_plugin");
  if (run == NULL) return 4;
  run(words[2]);
  return 0;
}
