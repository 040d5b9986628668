// Page paths, with "/" separators.
#pragma once

#include <string>
#include <string_view>

// Path helpers: "a/b/c.cvm" has the directory part "a/b/" and the file part
// "c.cvm".  resolve_path joins a relative path to an absolute base,
// removing "." and ".." segments; false when ".." climbs above the root.
std::string directory_part(std::string_view path);
std::string file_part(std::string_view path);
bool resolve_path(std::string_view base, std::string_view relative, std::string* result);

// Resolves the directory part of `target` against `directory` ("/a/b/"):
// ".." and "." components, an empty component restarting at "/".  Returns
// false when a scheme followed by "//" makes the target absolute.
bool resolve_page_directory(std::string_view directory, std::string_view target, std::string* result);
// The text after the final "/", or all of it.
std::string_view last_path_part(std::string_view path);
