// SPDX-License-Identifier: Apache-2.0
//
// What ends the program early.
#ifndef KDZK_EXAMPLES_ASK_ERROR_H
#define KDZK_EXAMPLES_ASK_ERROR_H

#include <stdexcept>

namespace ask {

// Carries a sentence for the user.
struct Error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace ask

#endif
