// ODBC connection strings: parsing, lookup and appending pairs.
#include "db/connection_string.h"

#include "base/nocase.h"

namespace {

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

bool contains_nocase(std::string_view text, std::string_view word) {
  for (size_t i = 0; i + word.size() <= text.size(); i++)
    if (equals_nocase(text.substr(i, word.size()), word)) return true;
  return false;
}

}  // namespace

bool is_connection_string(std::string_view datasource) {
  return datasource.find('=') != std::string_view::npos;
}

std::vector<ConnectionPair> connection_string_parse(std::string_view text) {
  std::vector<ConnectionPair> pairs;
  size_t pos = 0;
  while (pos < text.size()) {
    size_t equals = text.find('=', pos);
    size_t semicolon = text.find(';', pos);
    if (equals == std::string_view::npos || (semicolon != std::string_view::npos && semicolon < equals)) {
      if (semicolon == std::string_view::npos) break;
      pos = semicolon + 1;
      continue;
    }
    ConnectionPair pair;
    pair.key = trim(text.substr(pos, equals - pos));
    pos = equals + 1;
    while (pos < text.size() && (text[pos] == ' ' || text[pos] == '\t')) pos++;
    if (pos < text.size() && text[pos] == '{') {
      // Braced: up to the "}" that is not doubled.
      for (pos++; pos < text.size(); pos++) {
        if (text[pos] == '}') {
          if (pos + 1 < text.size() && text[pos + 1] == '}') {
            pair.value += '}';
            pos++;
            continue;
          }
          pos++;
          break;
        }
        pair.value += text[pos];
      }
      size_t end = text.find(';', pos);
      pos = end == std::string_view::npos ? text.size() : end + 1;
    } else {
      size_t end = text.find(';', pos);
      if (end == std::string_view::npos) end = text.size();
      pair.value = trim(text.substr(pos, end - pos));
      pos = end + 1;
    }
    pairs.push_back(std::move(pair));
  }
  return pairs;
}

const std::string* connection_string_find(const std::vector<ConnectionPair>& pairs, std::string_view key) {
  for (const ConnectionPair& p : pairs)
    if (equals_nocase(p.key, key)) return &p.value;
  return nullptr;
}

void connection_string_add(std::string& text, std::string_view key, std::string_view value) {
  if (!text.empty() && text.back() != ';') text += ';';
  text.append(key);
  text += '=';
  bool braces = value.find_first_of(";{}") != std::string_view::npos || trim(value) != value;
  if (!braces) {
    text.append(value);
    return;
  }
  text += '{';
  for (char c : value) {
    text += c;
    if (c == '}') text += '}';
  }
  text += '}';
}

DriverFamily driver_family(std::string_view driver) {
  if (contains_nocase(driver, "mariadb") || contains_nocase(driver, "maodbc") ||
      contains_nocase(driver, "mysql") || contains_nocase(driver, "myodbc"))
    return DriverFamily::mariadb;
  if (contains_nocase(driver, "psqlodbc") || contains_nocase(driver, "postgres")) return DriverFamily::postgresql;
  return DriverFamily::other;
}
