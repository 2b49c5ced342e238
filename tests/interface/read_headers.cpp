// SPDX-License-Identifier: Apache-2.0
// Reads the public headers given as arguments and writes the tables that listing.c prints: every field of every record,
// every constant, every function and function type. Nothing is typed a second time, so that nothing can be forgotten.
//
// It knows no C beyond what the headers use: a declaration ends with a semicolon outside of braces, an inline function
// with its brace; a record is `struct name { fields };`, with a field per semicolon and at most an unnamed union in it.

#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>
#include <regex>
#include <string>
#include <vector>

namespace {

std::string one_line(const std::string& text) {
  const std::string line = std::regex_replace(text, std::regex("\\s+"), " ");
  return std::regex_replace(line, std::regex("^ | $"), "");
}

std::string without_comments(const std::string& text) {
  std::string kept;
  for (size_t at = 0; at < text.size();) {
    const size_t begin = std::min(text.find("/*", at), text.size());
    kept.append(text, at, begin - at).append(1, ' ');
    at = begin < text.size() ? text.find("*/", begin) + 2 : begin;
  }
  return kept;
}

// A row of a table: RECORD(...), FIELD(...) and so on, as listing.c defines them.
void row(const char* table, const std::string& arguments) { std::cout << table << '(' << arguments << ")\n"; }

std::string quoted(const std::string& text) {
  return '"' + std::regex_replace(one_line(text), std::regex("[\"\\\\]"), "\\$&") + '"';
}

// The header's constants. Guards have no value, and what differs between C and C++ is no constant.
void list_constants(const std::string& text) {
  const std::regex define("(?:^|\n)#define (KDZK_\\w+)(\\([^)]*\\))?[ \t]+([^\n]+)");
  for (std::sregex_iterator it(text.begin(), text.end(), define), end; it != end; ++it) {
    const std::string name = (*it)[1], arguments = (*it)[2], value = (*it)[3];
    if (name == "KDZK_INLINE" || name.rfind("KDZK_ASSERT_", 0) == 0) continue;
    if (arguments != "") {
      row("TEXT", quoted(name + arguments + " " + value));
    } else {
      row(value[0] == '"' ? "STRING" : "NUMBER", name);
    }
  }
}

// The declared names: in parentheses behind a `*` for a function's address, otherwise the last word before each comma
// and the end, but for the bounds of an array.
std::vector<std::string> declared(const std::string& field) {
  std::smatch match;
  if (std::regex_search(field, match, std::regex("\\(\\*(\\w+)"))) return {match[1]};
  std::vector<std::string> names;
  const std::regex name("(\\w+)(\\[[^\\]]*\\])*(,|$)");
  for (std::sregex_iterator it(field.begin(), field.end(), name), end; it != end; ++it) names.push_back((*it)[1]);
  return names;
}

void list_record(const std::string& name, std::string body) {
  row("RECORD", name);
  body = std::regex_replace(body, std::regex("\\bunion \\{|\\}"), " ");  // an unnamed union's members are the record's
  const std::regex field("[^;]+;");
  for (std::sregex_iterator it(body.begin(), body.end(), field), end; it != end; ++it) {
    std::string text = one_line(it->str());
    text.pop_back();
    if (text == "") continue;
    for (const std::string& part : declared(text)) row("FIELD", name + ", " + part + ", " + quoted(text));
  }
}

void list_declaration(const std::string& declaration) {
  std::smatch match;
  const std::regex record("^(?:typedef )?(?:struct|union) (\\w+) \\{(.*)\\}( \\w+)?$");
  if (declaration == "" || declaration.rfind("KDZK_ASSERT_", 0) == 0) return;
  if (std::regex_match(declaration, match, record)) return list_record(match[1], match[2]);
  row("TEXT", quoted(declaration));
}

// Cuts the text, in which there are neither comments nor lines of the preprocessor, into declarations.
void list_declarations(const std::string& text) {
  std::string declaration;
  int depth = 0;
  for (const char c : text) {
    depth += c == '{' ? 1 : c == '}' ? -1 : 0;
    const bool inline_function = declaration.find(')') < declaration.find('{');
    if (c == '}' && depth == 0 && inline_function) {
      list_declaration(one_line(declaration.substr(0, declaration.find('{'))));
      declaration.clear();
    } else if (c == ';' && depth == 0) {
      list_declaration(one_line(declaration));
      declaration.clear();
    } else {
      declaration += c;
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; i++) {
    std::ifstream file(argv[i]);
    if (!file) return std::cerr << "no file " << argv[i] << '\n', 1;
    const std::string header(std::istreambuf_iterator<char>(file), {});
    const std::string path = argv[i];
    row("HEADER", quoted(path.substr(path.rfind("kdzk/"))));
    std::string text = std::regex_replace(without_comments(header), std::regex("\\\\\n"), " ");
    list_constants(text);
    text = std::regex_replace(text, std::regex("(^|\n)#[^\n]*"), "\n");
    list_declarations(std::regex_replace(text, std::regex("extern \"C\" \\{"), " "));
  }
}
