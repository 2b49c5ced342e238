// SPDX-License-Identifier: Apache-2.0
// verify-host's main: loads the library, gets the engine's record, and looks at rule after rule, each in a process of
// its own. What a rule found out comes back in a page that both processes share.

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "host/verify/rules.h"

namespace kdzk_verify {

const kdzk_specialized_ctx* library;
const kdzk_verify_host* host;

namespace {

enum class State : uint32_t { running, holds, broken, not_used, not_looked_at };

struct Found {
  State state;
  bool may_end;
  char text[600];
  char doing[400];
};
Found* found;

constexpr unsigned seconds = 60;  // for one rule

void format_to(char* text, size_t size, const char* format, va_list values) {
  std::vsnprintf(text, size, format, values);
}

[[noreturn]] void leave(State state) {
  found->state = state;
  std::fflush(nullptr);
  _exit(0);
}

}  // namespace

void broken(const char* format, ...) {
  va_list values;
  va_start(values, format);
  format_to(found->text, sizeof found->text, format, values);
  va_end(values);
  leave(State::broken);
}

void not_used(const char* why) {
  std::snprintf(found->text, sizeof found->text, "%s", why);
  leave(State::not_used);
}

void remark(const char* format, ...) {
  va_list values;
  va_start(values, format);
  format_to(found->text, sizeof found->text, format, values);
  va_end(values);
}

void doing(const char* format, ...) {
  va_list values;
  va_start(values, format);
  format_to(found->doing, sizeof found->doing, format, values);
  va_end(values);
}

void may_end() { found->may_end = true; }

namespace {

// A rule in a process of its own.
void look_at(const Rule& rule) {
  *found = {};
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    alarm(seconds);
    rule.check();
    leave(State::holds);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) {
    found->state = State::broken;
    std::snprintf(found->text, sizeof found->text, "couldn't start a process for it: %s", std::strerror(errno));
    return;
  }
  if (found->state != State::running) return;
  const int signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  if (found->may_end && signal != SIGSEGV && signal != SIGBUS && signal != SIGALRM) {
    found->state = State::holds;
    std::snprintf(found->text, sizeof found->text, "it ends the process");
    return;
  }
  found->state = State::broken;
  if (signal == SIGALRM) {
    std::snprintf(found->text, sizeof found->text, "no end after %u seconds, %s", seconds, found->doing);
  } else if (signal != 0) {
    std::snprintf(found->text, sizeof found->text, "%s, %s", strsignal(signal), found->doing);
  } else {
    std::snprintf(found->text, sizeof found->text, "the process ended with status %d, %s", WEXITSTATUS(status),
                  found->doing);
  }
}

// A rule that doesn't hold, or wasn't looked at because of one: `cause`.
struct NotHeld {
  std::string_view name, group, cause;
};

// The first of them that `rule` needs; null if there is none.
const NotHeld* missing(const Rule& rule, const std::vector<NotHeld>& not_held) {
  for (const NotHeld& held : not_held) {
    for (const std::string_view need : rule.needs) {
      if (need == held.name || need == held.group) return &held;
    }
  }
  return nullptr;
}

void print(const char* state, const char* rule, const std::string& text) {
  std::printf(text.empty() ? "  %-9s %s\n" : "  %-9s %-16s %s\n", state, rule, text.c_str());
}

// 0 if all rules hold.
int verify(std::initializer_list<std::string_view> only) {
  const std::pair<const char*, Rules> groups[] = {{"callbacks", env_rules()},
                                                  {"records", column_rules()},
                                                  {"families", predicate_rules()},
                                                  {"families", decoding_rules()},
                                                  {"families", join_rules()}};
  std::string_view last_group;
  std::vector<NotHeld> not_held;
  std::map<State, unsigned> count;
  for (const auto& [group, rules] : groups) {
    if (last_group != group) std::printf("%s\n", group);
    last_group = group;
    for (const Rule& rule : rules) {
      bool wanted = only.size() == 0;
      for (const std::string_view name : only) wanted = wanted || name == rule.name;
      if (!wanted) continue;
      const NotHeld* const lacks = missing(rule, not_held);
      if (lacks != nullptr) {
        found->state = State::not_looked_at;
      } else {
        look_at(rule);
      }
      count[found->state]++;
      switch (found->state) {
        case State::holds:
          print("ok", rule.name, found->text);
          break;
        case State::not_used:
          print("not used", rule.name, found->text);
          break;
        case State::not_looked_at:
          print("skipped", rule.name, "needs " + std::string(lacks->cause));
          not_held.push_back({rule.name, group, lacks->cause});
          break;
        default:
          print("BROKEN", rule.name, std::string(found->text) + ": " + rule.remedy);
          not_held.push_back({rule.name, group, rule.name});
      }
    }
  }
  std::printf("%u ok, %u broken, %u skipped, %u not used\n", count[State::holds], count[State::broken],
              count[State::not_looked_at], count[State::not_used]);
  return count[State::broken] == 0 ? 0 : 1;
}

int run(int count, char** words) {
  if (count != 2 && count != 3) {
    std::fprintf(stderr,
                 "usage: %s LIBRARY [RULE]\n"
                 "Checks the engine that this program is linked with against the rules of LIBRARY, a build of kdzk, or "
                 "against one of them.\nEnds with 0 if all that were looked at hold, 1 if one is broken, 2 if nothing "
                 "could be looked at.\n",
                 words[0]);
    return 2;
  }
  kdzk_host_library loaded;
  if (kdzk_host_load(words[1], &loaded) != KDZK_HOST_LOADED) {
    std::fprintf(stderr, "%s\n", loaded.text);
    return 2;
  }
  library = loaded.ctx;
  void* const shared = mmap(nullptr, sizeof *found, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) return 2;
  found = static_cast<Found*>(shared);
  host = kdzk_verify_host_of(library);
  if (host == nullptr || host->make == nullptr || host->end == nullptr) {
    std::fprintf(stderr, "kdzk_verify_host_of gave no record with make and end\n");
    return 2;
  }
  std::printf("%s with %s\n", host->name == nullptr ? "the engine" : host->name, loaded.text);
  return count == 3 ? verify({words[2]}) : verify({});
}

}  // namespace
}  // namespace kdzk_verify

int main(int count, char** words) { return kdzk_verify::run(count, words); }
