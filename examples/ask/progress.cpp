// SPDX-License-Identifier: Apache-2.0
#include "progress.h"

#include <unistd.h>

#include <cstdio>

#include "report.h"

namespace ask {

Progress::Progress(std::string file, When when)
    : file_(std::move(file)),
      terminal_(isatty(STDERR_FILENO) != 0),
      shown_(terminal_ || when == When::always),
      last_(std::chrono::steady_clock::now()) {}

Progress::~Progress() {
  if (line_is_up_) std::fputs("\r\033[K", stderr);
}

void Progress::report(size_t rows, size_t bytes) {
  using namespace std::chrono_literals;
  const auto now = std::chrono::steady_clock::now();
  if (!shown_ || now - last_ < 250ms) return;
  last_ = now;
  line_is_up_ = terminal_;
  std::fprintf(stderr, "%sreading %s: %s rows, %s%s", terminal_ ? "\r" : "", file_.c_str(), grouped(rows).c_str(),
               byte_size(bytes).c_str(), terminal_ ? "\033[K" : "\n");
}

}  // namespace ask
