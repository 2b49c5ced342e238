// SPDX-License-Identifier: Apache-2.0
#include "question.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <string_view>
#include <utility>

#include "error.h"

namespace ask {
namespace {

constexpr int deepest_nesting = 200;  // keeps the recursion off the end of the stack

struct Token {
  enum class Kind { word, single_quoted, double_quoted, symbol, end };
  Kind kind;
  std::string text;  // without its quotes
  size_t position;   // byte of the question at which it starts
};

// The question, then a line with a mark under the byte at `position`.
[[noreturn]] void throw_error_at(const std::string& question, size_t position, const std::string& message) {
  std::string line = question;
  std::replace_if(
      line.begin(), line.end(), [](unsigned char c) { return std::iscntrl(c); }, ' ');
  const auto is_first_byte = [](char c) { return (static_cast<unsigned char>(c) & 0xc0) != 0x80; };  // UTF-8
  const auto place = line.begin() + static_cast<std::ptrdiff_t>(position);
  const auto characters = static_cast<size_t>(std::count_if(line.begin(), place, is_first_byte));
  throw Error(message + "\n  " + line + "\n  " + std::string(characters, ' ') + "^");
}

// The text within the quotes that open at `at`, which moves behind them.
std::string quoted_text(const std::string& question, size_t& at) {
  const size_t opening = at;
  const char quote = question[at++];
  std::string text;
  while (true) {
    const size_t closing = question.find(quote, at);
    if (closing == question.npos) throw_error_at(question, opening, "this quote is never closed");
    text.append(question, at, closing - at);
    at = closing + 1;
    if (at == question.size() || question[at] != quote) return text;
    text += quote;  // doubled, so it stands for itself
    at++;
  }
}

std::vector<Token> tokens_of(const std::string& question) {
  constexpr std::string_view blanks = " \t\r\n\v\f";
  constexpr std::string_view no_word_characters = " \t\r\n\v\f()=<>!'\",*";
  std::vector<Token> tokens;
  size_t at = 0;
  while ((at = question.find_first_not_of(blanks, at)) != question.npos) {
    const size_t start = at;
    const char first = question[at];
    if (first == '\'' || first == '"') {
      const auto kind = first == '"' ? Token::Kind::double_quoted : Token::Kind::single_quoted;
      tokens.push_back({kind, quoted_text(question, at), start});
    } else if (no_word_characters.find(first) != no_word_characters.npos) {
      const std::string_view two = std::string_view(question).substr(at, 2);
      at += two == "!=" || two == "<>" || two == "<=" || two == ">=" ? 2 : 1;
      tokens.push_back({Token::Kind::symbol, question.substr(start, at - start), start});
    } else {
      at = std::min(question.find_first_of(no_word_characters, at), question.size());
      tokens.push_back({Token::Kind::word, question.substr(start, at - start), start});
    }
  }
  tokens.push_back({Token::Kind::end, "", question.size()});
  return tokens;
}

class Parser {
 public:
  Parser(const std::string& question, const Table& table, const Table* other)
      : question_(question), table_(&table), other_(other), tokens_(tokens_of(question)) {}

  Request parse() {
    Request request = this->request();
    if (token().kind != Token::Kind::end) fail(expected_behind_);
    return request;
  }

 private:
  Request request() {
    if (accept_command("count")) {
      expect_keyword("by");
      Request request{Request::Kind::groups};
      do request.columns.push_back(column());
      while (accept_symbol(","));
      request.where = where();
      return request;
    }
    if (accept_command("sum")) {
      Request request{.kind = Request::Kind::sum, .columns = {column_of_numbers()}};
      expect_symbol("*");
      request.columns.push_back(column_of_numbers());
      request.where = where();
      return request;
    }
    if (accept_command("inside")) return inside();
    if (accept_command("join")) return join();
    return {.kind = Request::Kind::rows, .where = any_of()};
  }

  Request inside() {
    Request request{.kind = Request::Kind::inside, .columns = {column_of_numbers()}};
    expect_symbol(",");
    request.columns.push_back(column_of_numbers());
    expect_keyword("of");
    do {
      const double x = number();
      request.polygon.push_back({x, number()});
    } while (accept_symbol(","));
    if (request.polygon.size() < 3) fail("expected three points or more, as in -125 42, -114 42, -114 32");
    request.where = where();
    return request;
  }

  Request join() {
    if (other_ == nullptr) fail("there is no file to join with; name one by --join FILE.csv");
    Request request{Request::Kind::join};
    std::swap(table_, other_);
    request.other_where = where();
    std::swap(table_, other_);
    expect_keyword("on");
    request.columns.push_back(column());
    expect_symbol("=");
    std::swap(table_, other_);
    request.other_key = column();
    if (request.other_key->type() != request.columns.front()->type()) {
      fail(request.columns.front()->name() + " and " + request.other_key->name() + " hold values of different types");
    }
    expect_keyword("count");
    expect_keyword("by");
    request.other_group = column();
    std::swap(table_, other_);
    request.where = where();
    return request;
  }

  std::optional<Question> where() {
    if (accept_keyword("where")) return any_of();
    expected_behind_ = "expected `where` or the end of the question";
    return std::nullopt;
  }

  Question any_of() {
    std::vector<Question> terms{all_of()};
    expected_behind_ = "expected `and`, `or` or the end of the question";
    while (accept_keyword("or")) terms.push_back(all_of());
    return joined(Question::Kind::any_of, std::move(terms));
  }

  Question all_of() {
    std::vector<Question> terms{term()};
    while (accept_keyword("and")) terms.push_back(term());
    return joined(Question::Kind::all_of, std::move(terms));
  }

  static Question joined(Question::Kind kind, std::vector<Question> terms) {
    if (terms.size() == 1) return std::move(terms.front());
    return {.kind = kind, .terms = std::move(terms)};
  }

  Question term() {
    if (++nesting_ > deepest_nesting) fail("nested too deeply");
    Question found = inner_term();
    nesting_--;
    return found;
  }

  Question inner_term() {
    if (accept_keyword("not")) return {.kind = Question::Kind::negation, .terms = {term()}};
    if (accept_symbol("(")) {
      Question inner = any_of();
      if (!accept_symbol(")")) fail("expected `and`, `or` or a closing parenthesis");
      return inner;
    }
    return {.kind = Question::Kind::comparison, .comparison = comparison()};
  }

  Comparison comparison() {
    const Column* column = this->column();
    static constexpr std::pair<const char*, Relation> symbols[] = {
        {"=", Relation::eq},  {"!=", Relation::ne}, {"<>", Relation::ne}, {"<", Relation::lt},
        {"<=", Relation::le}, {">", Relation::gt},  {">=", Relation::ge}};
    for (const auto& [symbol, relation] : symbols) {
      if (accept_symbol(symbol)) return {column, relation, value(*column)};
    }
    const bool is = accept_keyword("is");
    const bool negated = accept_keyword("not");
    if (accept_keyword("between")) {
      Value low = value(*column);
      if (!accept_keyword("and")) fail("expected `and` and the upper end of the range");
      return {column, negated ? Relation::not_between : Relation::between, std::move(low), value(*column)};
    }
    Comparison set{column, negated ? Relation::not_in_set : Relation::in_set};
    if (accept_keyword("like")) {
      if (column->type() != Type::text)
        fail(column->name() + " holds " + name_of(column->type()) + "; `like` takes text");
      set.pattern = Pattern{std::get<std::string>(value(*column))};
      return set;
    }
    if (accept_keyword("in")) {
      expect_symbol("(");
      do set.list.push_back(value(*column));
      while (accept_symbol(","));
      expect_symbol(")");
      return set;
    }
    if (!is) fail(std::string("expected ") + (negated ? "" : "a comparison: = != < <= > >= is ") + "between in like");
    if (accept_keyword("null")) return {column, negated ? Relation::is_not_null : Relation::is_null};
    return {column, negated ? Relation::ne : Relation::eq, value(*column)};
  }

  const Column* column() {
    if (token().kind != Token::Kind::word && token().kind != Token::Kind::double_quoted) fail("expected a column");
    const Column* column = table_->find(token().text);
    if (column == nullptr)
      fail("there is no column '" + token().text + "'; " + table_->file + " has " + column_names());
    next_++;
    return column;
  }

  const Column* column_of_numbers() {
    const Column* column = this->column();
    if (column->type() == Type::text) fail(column->name() + " holds text, not numbers");
    return column;
  }

  double number() {
    double number = 0;
    const std::string& text = token().text;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (token().kind != Token::Kind::word || error != std::errc() || stop != text.data() + text.size() ||
        !std::isfinite(number)) {
      fail("expected a number");
    }
    next_++;
    return number;
  }

  Value value(const Column& column) {
    if (token().kind == Token::Kind::symbol || token().kind == Token::Kind::end) fail("expected a value");
    if (is_keyword("null")) fail("nothing compares with null; ask `is null`, or quote the word");
    auto constant = column.constant(token().text);
    if (!constant)
      fail(column.name() + " holds " + name_of(column.type()) + ", and '" + token().text + "' is no number");
    next_++;
    return *std::move(constant);
  }

  std::string column_names() const {
    std::string names;
    for (const Column& column : table_->columns) names += (names.empty() ? "" : ", ") + column.name();
    return names;
  }

  const Token& token() const { return tokens_[next_]; }

  bool is_keyword(std::string_view keyword) const {
    const auto same = [](unsigned char a, unsigned char b) { return std::tolower(a) == b; };
    const std::string& text = token().text;
    return token().kind == Token::Kind::word &&
           std::equal(text.begin(), text.end(), keyword.begin(), keyword.end(), same);
  }

  // A keyword that begins a request, unless it is a column that is compared.
  bool accept_command(std::string_view command) {
    if (!is_keyword(command)) return false;
    next_++;
    const bool compared = token().kind == Token::Kind::symbol || token().kind == Token::Kind::end || is_keyword("is") ||
                          is_keyword("not") || is_keyword("between") || is_keyword("in") || is_keyword("like");
    next_ -= compared;
    return !compared;
  }

  void expect_keyword(const std::string& keyword) {
    if (!accept_keyword(keyword)) fail("expected `" + keyword + "`");
  }

  void expect_symbol(const std::string& symbol) {
    if (!accept_symbol(symbol)) fail("expected `" + symbol + "`");
  }

  bool accept_keyword(std::string_view keyword) {
    const bool there = is_keyword(keyword);
    next_ += there;
    return there;
  }

  bool accept_symbol(std::string_view symbol) {
    const bool there = token().kind == Token::Kind::symbol && token().text == symbol;
    next_ += there;
    return there;
  }

  [[noreturn]] void fail(const std::string& message) const { throw_error_at(question_, token().position, message); }

  const std::string& question_;
  const Table* table_;
  const Table* other_;
  std::vector<Token> tokens_;
  const char* expected_behind_ = "";
  size_t next_ = 0;
  int nesting_ = 0;
};

}  // namespace

Request parse_request(const std::string& text, const Table& table, const Table* other) {
  return Parser(text, table, other).parse();
}

}  // namespace ask
