// The page checker behind `cvml --check`: finds, without running a page,
// what can be known before it runs (blocks, tag and option names, required
// options, keyword values, arithmetic in options, include targets).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct CheckFinding {
  uint32_t line = 0;
  std::string message;
};

// Checks one page's text, in line order.  Include targets are looked for
// as the engine would: from `page_dir` (the page's directory under the web
// root, "/" at both ends), and from `doc_root` for a target starting "/".
std::vector<CheckFinding> check_page_text(std::string_view text, const std::string& doc_root,
                                          const std::string& page_dir);

// Checks each file and prints "file:line: message" lines to standard
// output; returns the number of findings (an unreadable file counts).
// The web root is DOCUMENT_ROOT when the page lies under it, else the
// root of the file system, as for a page run from the command line.
size_t check_pages(const std::vector<std::string>& paths);
