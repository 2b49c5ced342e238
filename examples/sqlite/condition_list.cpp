// SPDX-License-Identifier: Apache-2.0
#include "condition_list.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

namespace packed {
namespace {

bool same_word(std::string_view a, std::string_view b) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [&](char x, char y) { return lower(x) == lower(y); });
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool begins_name(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || (static_cast<unsigned char>(c) & 0x80) != 0;
}
bool goes_on_name(char c) { return begins_name(c) || is_digit(c) || c == '$'; }

class Reader {
 public:
  Reader(const char* list, std::string_view text) : list_(list), text_(text) { advance(); }

  [[noreturn]] void fail(size_t at, const std::string& what) const { throw ListError(list_, text_, at, what); }
  [[noreturn]] void expected(const char* what) const {
    fail(at_,
         std::string("expected ") + what + (kind_ == Kind::end ? ", not the end" : ", not " + std::string(token())));
  }

  bool at_end() const { return kind_ == Kind::end; }
  size_t at() const { return at_; }

  bool take_word(std::string_view word) {
    if (kind_ != Kind::word || !same_word(token(), word)) return false;
    advance();
    return true;
  }
  bool take_sign(std::string_view sign) {
    if (kind_ != Kind::sign || token() != sign) return false;
    advance();
    return true;
  }
  void need_sign(const char* sign) {
    if (!take_sign(sign)) expected(sign);
  }

  std::string name(const char* what) {
    std::string name;
    if (kind_ == Kind::word) {
      name = token();
    } else if (kind_ == Kind::quoted_name) {
      name = value_;
    } else {
      expected(what);
    }
    advance();
    return name;
  }

  Literal literal() {
    Literal literal;
    const size_t at = at_;
    const bool minus = take_sign("-");
    if (!minus) take_sign("+");
    const bool has_sign = at != at_;
    if (kind_ == Kind::number) {
      literal = number(minus);
    } else if (kind_ == Kind::text && !has_sign) {
      literal = value_;
    } else if (kind_ == Kind::word && same_word(token(), "null") && !has_sign) {
      literal = std::monostate();
    } else {
      expected("a number, 'text' or null");
    }
    advance();
    return literal;
  }

 private:
  enum class Kind { end, word, quoted_name, number, text, sign };

  std::string_view token() const { return text_.substr(at_, next_ - at_); }

  Literal number(bool minus) const {
    std::string digits(minus ? 1 : 0, '-');
    digits += token();
    int64_t whole = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), whole);
    if (error == std::errc() && end == digits.data() + digits.size()) return whole;
    return std::strtod(digits.c_str(), nullptr);  // the kit and SQLite use the C locale
  }

  // Text from the quote at next_ on, without quotes, a doubled one within being one.
  void read_quoted(char quote) {
    value_.clear();
    for (next_++;; next_++) {
      if (next_ == text_.size()) fail(at_, "the quote opened here is never closed");
      if (text_[next_] == quote) {
        if (quote == ']' || next_ + 1 == text_.size() || text_[next_ + 1] != quote) break;
        next_++;
      }
      value_ += text_[next_];
    }
    next_++;
  }

  void advance() {
    while (next_ < text_.size() && (text_[next_] == ' ' || (text_[next_] >= '\t' && text_[next_] <= '\r'))) next_++;
    at_ = next_;
    if (next_ == text_.size()) {
      kind_ = Kind::end;
      return;
    }
    const char c = text_[next_];
    const char c2 = next_ + 1 < text_.size() ? text_[next_ + 1] : '\0';
    if (begins_name(c)) {
      kind_ = Kind::word;
      while (next_ < text_.size() && goes_on_name(text_[next_])) next_++;
    } else if (is_digit(c) || (c == '.' && is_digit(c2))) {
      read_number();
    } else if (c == '\'') {
      kind_ = Kind::text;
      read_quoted('\'');
    } else if (c == '"' || c == '`' || c == '[') {
      kind_ = Kind::quoted_name;
      read_quoted(c == '[' ? ']' : c);
    } else {
      kind_ = Kind::sign;
      const bool two = (c2 == '=' && (c == '<' || c == '>' || c == '!' || c == '=')) || (c == '<' && c2 == '>');
      next_ += two ? 2 : 1;
    }
  }

  void read_number() {
    kind_ = Kind::number;
    const auto digits = [this] {
      while (next_ < text_.size() && is_digit(text_[next_])) next_++;
    };
    digits();
    if (next_ < text_.size() && text_[next_] == '.') next_++, digits();
    if (next_ < text_.size() && (text_[next_] | 0x20) == 'e') {
      size_t exponent = next_ + 1;
      if (exponent < text_.size() && (text_[exponent] == '+' || text_[exponent] == '-')) exponent++;
      if (exponent < text_.size() && is_digit(text_[exponent])) next_ = exponent, digits();
    }
    if (next_ < text_.size() && goes_on_name(text_[next_])) fail(at_, "this is no number");
  }

  const char* list_;
  std::string_view text_;
  Kind kind_ = Kind::end;
  std::string value_;  // of quoted_name and text
  size_t at_ = 0;      // the current token
  size_t next_ = 0;    // what is behind it
};

ListedCondition parse_condition(Reader& reader) {
  using Test = ListedCondition::Test;
  ListedCondition condition;
  condition.at = reader.at();
  condition.column = reader.name("a column");
  condition.negated = reader.take_word("not");
  if (reader.take_word("between")) {
    condition.test = Test::between;
    condition.literals.push_back(reader.literal());
    if (!reader.take_word("and")) reader.expected("and");
    condition.literals.push_back(reader.literal());
    return condition;
  }
  if (reader.take_word("in")) {
    condition.test = Test::in;
    reader.need_sign("(");
    if (reader.take_sign(")")) return condition;
    do {
      condition.literals.push_back(reader.literal());
    } while (reader.take_sign(","));
    reader.need_sign(")");
    return condition;
  }
  for (const auto& [word, test] : {std::pair{"like", Test::like}, std::pair{"glob", Test::glob}}) {
    if (!reader.take_word(word)) continue;
    condition.test = test;
    condition.literals.push_back(reader.literal());
    return condition;
  }
  if (condition.negated) reader.expected("between, in, like or glob");
  if (reader.take_word("is")) {
    condition.test = Test::is_null;
    condition.negated = reader.take_word("not");
    if (!reader.take_word("null")) reader.expected("null");
    return condition;
  }
  static constexpr std::pair<const char*, Test> signs[] = {{"=", Test::eq},  {"==", Test::eq}, {"<>", Test::ne},
                                                           {"!=", Test::ne}, {"<", Test::lt},  {"<=", Test::le},
                                                           {">", Test::gt},  {">=", Test::ge}};
  for (const auto& [sign, test] : signs) {
    if (!reader.take_sign(sign)) continue;
    condition.test = test;
    condition.literals.push_back(reader.literal());
    return condition;
  }
  reader.expected("a comparison, between, in, like, glob or is");
}

ListedAggregate parse_aggregate(Reader& reader) {
  using Kind = ListedAggregate::Kind;
  static constexpr std::pair<const char*, Kind> names[] = {
      {"count", Kind::count}, {"sum", Kind::sum}, {"min", Kind::min}, {"max", Kind::max}, {"avg", Kind::avg}};
  ListedAggregate aggregate;
  aggregate.at = reader.at();
  const auto* named =
      std::find_if(std::begin(names), std::end(names), [&](const auto& pair) { return reader.take_word(pair.first); });
  if (named == std::end(names)) reader.expected("count, sum, min, max or avg");
  aggregate.kind = named->second;
  reader.need_sign("(");
  if (aggregate.kind == Kind::count && reader.take_sign("*")) {
    aggregate.kind = Kind::count_rows;
  } else {
    aggregate.at = reader.at();
    aggregate.column = reader.name("a column");
  }
  reader.need_sign(")");
  return aggregate;
}

}  // namespace

ListError::ListError(const char* list, std::string_view text, size_t at, const std::string& what)
    : std::runtime_error(std::string(list) + ", byte " + std::to_string(at + 1) + ": " + what + ": " +
                         std::string(text.substr(0, at)) + " >>> " + std::string(text.substr(at))) {}

std::vector<ListedCondition> parse_conditions(std::string_view text) {
  Reader reader("condition list", text);
  std::vector<ListedCondition> conditions;
  if (reader.at_end()) return conditions;
  do {
    conditions.push_back(parse_condition(reader));
  } while (reader.take_word("and"));
  if (!reader.at_end()) reader.expected("and");
  return conditions;
}

std::vector<ListedAggregate> parse_aggregates(std::string_view text) {
  Reader reader("list of aggregates", text);
  std::vector<ListedAggregate> aggregates;
  do {
    aggregates.push_back(parse_aggregate(reader));
  } while (reader.take_sign(","));
  if (!reader.at_end()) reader.expected("a comma");
  return aggregates;
}

std::vector<ListedName> parse_names(std::string_view text) {
  Reader reader("list of columns", text);
  std::vector<ListedName> names;
  if (reader.at_end()) return names;
  do {
    const size_t at = reader.at();
    names.push_back({reader.name("a column"), at});
  } while (reader.take_sign(","));
  if (!reader.at_end()) reader.expected("a comma");
  return names;
}

}  // namespace packed
