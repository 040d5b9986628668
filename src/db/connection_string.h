// ODBC connection strings: "Driver=...;Server=...;..." pairs, read and
// extended without disturbing what the page wrote.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct ConnectionPair {
  std::string key, value;
};

// A data source text that holds a "=" is a connection string, not a name.
bool is_connection_string(std::string_view datasource);
// The pairs in order; a value in braces may hold ";" and "}}" stands for "}".
// Text without a "=" before the next ";" is passed over.
std::vector<ConnectionPair> connection_string_parse(std::string_view text);
// The value of the first pair whose key equals `key` ignoring case; null if
// there is none.
const std::string* connection_string_find(const std::vector<ConnectionPair>& pairs, std::string_view key);
// Appends "key=value", in braces when the value needs them, after a ";"
// unless the text is empty or already ends in one.
void connection_string_add(std::string& text, std::string_view key, std::string_view value);
// The drivers whose settings the engine adds to a connection string, as
// named by a driver's name or library path.
enum class DriverFamily { other, mariadb, postgresql };
DriverFamily driver_family(std::string_view driver);
