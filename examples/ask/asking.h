// SPDX-License-Identifier: Apache-2.0
//
// Answers to questions, printed and checked.
#ifndef KDZK_EXAMPLES_ASK_ASKING_H
#define KDZK_EXAMPLES_ASK_ASKING_H

#include <cstddef>
#include <string>

#include "engine.h"
#include "question.h"

namespace ask {

// Answers by the kernels and by the plain scan, prints what the kernels found, and how fast, with up to `show` rows,
// and tells on standard error how the two differ. `other` is the table that is joined with, or null. Returns whether
// the answers are the same.
bool ask(const std::string& text, const Request& request, const Engine& engine, const Engine* other, size_t show);

}  // namespace ask

#endif
