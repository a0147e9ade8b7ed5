// Fills a shell's completion script in from the tool's table of options: each "@name@" in it is
// replaced by what the table gives for the name.
//   write_completion TEMPLATE CLIENTS SCRIPT    CLIENTS: the file that stands for "@clients@"
#include <string.h>

#include <exception>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "tool/option_table.private.h"

namespace {

using frask::tool::kOptions;
using frask::tool::kShortOptions;
using frask::tool::kTypeWords;
using frask::tool::OptionRow;
using frask::tool::TypeWord;
using frask::tool::ValueKind;
using Words = std::vector<std::string>;

std::string join(const Words& words, const std::string& separator) {
  std::string text;
  for (const std::string& word : words) text += (text.empty() ? "" : separator) + word;
  return text;
}

/// As it is written on the command line: the letter, if there is one, and the long name.
Words names_of(const OptionRow& row) {
  Words names;
  if (strchr(kShortOptions, row.letter) != nullptr) names.push_back({'-', row.letter});
  names.push_back(std::string("--") + row.name);
  return names;
}

template <class Predicate>
Words names_where(Predicate wanted) {
  Words names;
  for (const OptionRow& row : kOptions)
    if (wanted(row))
      for (const std::string& name : names_of(row)) names.push_back(name);
  return names;
}

bool selects_help(const OptionRow& row) {
  return row.mode == Mode::kHelp;
}

bool selects_mode(const OptionRow& row) {
  return row.mode != Mode::kNone;
}

std::string type_words() {
  Words words;
  for (const TypeWord& type : kTypeWords) words.emplace_back(type.word);
  return join(words, " ");
}

/// How zsh's _arguments describes the value.
std::string zsh_value(ValueKind kind) {
  switch (kind) {
    case ValueKind::kNone:
      return "";
    case ValueKind::kArchiveType:
      return ":archive type:(" + type_words() + ")";
    case ValueKind::kArchive:
      return ":archive:_files";
    case ValueKind::kClient:
      return ":client:_tembrix_client";
    case ValueKind::kDirectory:
      return ":directory:_files -/";
    case ValueKind::kHostName:
      return ":host name: ";
  }
  throw std::logic_error("a kind of value that zsh is told nothing of");
}

/// Help leaves nothing to be said, a mode no other mode.
std::string zsh_excludes(const OptionRow& row) {
  if (selects_help(row)) return "- *";
  return join(selects_mode(row) ? names_where(selects_mode) : names_of(row), " ");
}

/// A text inside single quotes, where zsh ends a description at "]".
std::string quoted(const std::string& text) {
  std::string result;
  for (const char c : text) {
    if (c == '\'') result += "'\\'";
    if (c == '[' || c == ']' || c == ':') result += '\\';
    result += c;
  }
  return result;
}

std::string zsh_argument(const OptionRow& row, const std::string& name) {
  const bool is_long = name[1] == '-';
  const std::string attached = row.value == ValueKind::kNone ? "" : is_long ? "=" : "+";
  return "  '(" + zsh_excludes(row) + ")" + name + attached + "[" + quoted(row.summary) + "]" +
         zsh_value(row.value) + "'";
}

std::string zsh_arguments() {
  Words arguments;
  for (const OptionRow& row : kOptions)
    for (const std::string& name : names_of(row)) arguments.push_back(zsh_argument(row, name));
  return join(arguments, " \\\n");
}

std::string alternatives(ValueKind kind) {
  return join(names_where([kind](const OptionRow& row) { return row.value == kind; }), " | ");
}

std::string content_of(const char* path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error(std::string("cannot read ") + path);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::map<std::string, std::string> replacements(const char* clients) {
  const Words modes = names_where(selects_mode);
  const Words others = names_where([](const OptionRow& row) { return !selects_mode(row); });
  return {{"@clients@", content_of(clients)},
          {"@help|@", join(names_where(selects_help), " | ")},
          {"@modes@", join(modes, " ")},
          {"@modes|@", join(modes, " | ")},
          {"@others@", join(others, " ")},
          {"@types@", type_words()},
          {"@archive_type|@", alternatives(ValueKind::kArchiveType)},
          {"@archive|@", alternatives(ValueKind::kArchive)},
          {"@client|@", alternatives(ValueKind::kClient)},
          {"@directory|@", alternatives(ValueKind::kDirectory)},
          {"@host_name|@", alternatives(ValueKind::kHostName)},
          {"@arguments@", zsh_arguments()}};
}

void replace_all(std::string& text, const std::string& name, const std::string& value) {
  for (size_t at = 0; (at = text.find(name, at)) != std::string::npos; at += value.size())
    text.replace(at, name.size(), value);
}

void write_script(const char* pattern, const char* clients, const char* path) {
  std::string script = content_of(pattern);
  for (const auto& [name, value] : replacements(clients)) replace_all(script, name, value);
  std::ofstream file(path);
  file << script << std::flush;
  if (!file.good()) throw std::runtime_error(std::string("cannot write ") + path);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  try {
    write_script(argv[1], argv[2], argv[3]);
    return 0;
  } catch (const std::exception& failure) {
    std::cerr << "write_completion: " << failure.what() << "\n";
    return 1;
  }
}
