// Page paths: directory and file parts, and the resolution of "." and ".."
// against a directory.
#include "base/paths.h"

#include <vector>

std::string directory_part(std::string_view path) {
  size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string() : std::string(path.substr(0, slash + 1));
}

std::string file_part(std::string_view path) {
  size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

bool resolve_path(std::string_view base, std::string_view relative, std::string* result) {
  std::vector<std::string_view> parts;
  auto walk = [&parts](std::string_view path) {
    size_t begin = 0;
    while (begin <= path.size()) {
      size_t slash = path.find('/', begin);
      if (slash == std::string_view::npos) slash = path.size();
      std::string_view part = path.substr(begin, slash - begin);
      if (part == "..") {
        if (parts.empty()) return false;
        parts.pop_back();
      } else if (!part.empty() && part != ".") {
        parts.push_back(part);
      }
      begin = slash + 1;
    }
    return true;
  };
  if (!walk(base) || !walk(relative)) return false;
  std::string out = "/";
  for (std::string_view part : parts) {
    out += part;
    out += '/';
  }
  *result = std::move(out);
  return true;
}

std::string_view last_path_part(std::string_view path) {
  size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool resolve_page_directory(std::string_view directory, std::string_view target, std::string* result) {
  std::string dir(directory);
  size_t begin = 0;
  for (size_t slash; (slash = target.find('/', begin)) != std::string_view::npos; begin = slash + 1) {
    std::string_view part = target.substr(begin, slash - begin);
    if (part.empty()) {
      dir = "/";
    } else if (part == "..") {
      // Drop the last directory: keep up to and including the "/" before it.
      size_t end = dir.size() && dir.back() == '/' ? dir.size() - 1 : dir.size();
      size_t cut = dir.rfind('/', end == 0 ? 0 : end - 1);
      dir = cut == std::string::npos || end == 0 ? "/" : dir.substr(0, cut + 1);
    } else if (part == ".") {
      continue;
    } else if (part.back() == ':' && slash + 1 < target.size() && target[slash + 1] == '/') {
      return false;  // a scheme: the target is absolute
    } else {
      dir += part;
      dir += '/';
    }
  }
  *result = std::move(dir);
  return true;
}
