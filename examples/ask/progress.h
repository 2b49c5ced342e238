// SPDX-License-Identifier: Apache-2.0
//
// Tells on standard error how far a long file is read: one line, rewritten in place if that is a terminal.
#ifndef KDZK_EXAMPLES_ASK_PROGRESS_H
#define KDZK_EXAMPLES_ASK_PROGRESS_H

#include <chrono>
#include <cstddef>
#include <string>

namespace ask {

class Progress {
 public:
  enum class When { on_terminal, always };

  Progress(std::string file, When when);
  ~Progress();  // takes the line away
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Cheap to call often: writes four times a second at most, and nothing for a file that is read before that.
  void report(size_t rows, size_t bytes);

 private:
  std::string file_;
  bool terminal_;
  bool shown_;
  bool line_is_up_ = false;
  std::chrono::steady_clock::time_point last_;
};

}  // namespace ask

#endif
