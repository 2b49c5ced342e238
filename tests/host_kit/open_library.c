/* SPDX-License-Identifier: Apache-2.0
 * A program without hostinternalerr that loads the library. */
#include <kdzk/host/loader.h>
#include <stdio.h>

int main(int count, char** words) {
  kdzk_host_library library;
  const uint32_t code = count > 1 ? kdzk_host_load(words[1], &library) : 99;
  if (count > 1) printf("%u: %s\n", code, library.text);
  return 0;
}
