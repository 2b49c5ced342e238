// SPDX-License-Identifier: Apache-2.0
#include "library.h"

#include "error.h"

namespace ask {

Library::Library(const std::string& path) {
  if (kdzk_host_load(path.c_str(), &library_) != KDZK_HOST_LOADED) {
    throw Error(std::string("can't load the kernel library: ") + library_.text);
  }
}

}  // namespace ask
