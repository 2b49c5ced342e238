// SPDX-License-Identifier: Apache-2.0
//
// The plain way to answer a question: row by row over the values as they were read. What the kernels say is checked
// against it, so it shares neither codes nor plans with them.
#ifndef KDZK_EXAMPLES_ASK_SCAN_H
#define KDZK_EXAMPLES_ASK_SCAN_H

#include <cstddef>

#include "question.h"

namespace ask {

// Three-valued: a comparison with NULL is neither true nor false, and so is its negation.
enum class Truth { no, unknown, yes };

Truth truth(const Question& question, size_t row);

}  // namespace ask

#endif
