// The compiled page: built-in names, printing nodes back, option look-up.
#include "page/page.h"

#include "base/nocase.h"

const char* const kTagNames[TAG_COUNT] = {
    "",
    "/CVBINARY", "/CVDEBUG", "/CVDIRECT", "/CVELSE", "/CVELSEIF",
    "/CVEXIT", "/CVFILE", "/CVFLUSH", "/CVFOR", "/CVHEADER",
    "/CVIF", "/CVINCLUDE", "/CVLOCATION", "/CVMLMODE", "/CVQUERY",
    "/CVRESTART", "/CVUNVAR", "/CVVAR", "/CVWEB", "/CVWHILE",
    "CV-API", "CV-CONVERT", "CV-LIST", "CV-MATH", "CV-ROWSEEK", "CV-STR", "CV-TIME",
    "CVBINARY", "CVDEBUG", "CVDIRECT", "CVELSE", "CVELSEIF", "CVEXIT", "CVFILE",
    "CVFLUSH", "CVFOR", "CVHEADER", "CVIF", "CVINCLUDE", "CVLOCATION", "CVMLMODE",
    "CVQUERY", "CVRESTART", "CVUNVAR", "CVVAR", "CVWEB", "CVWHILE",
};

TagId tag_id_of(std::string_view name) {
  // Every built-in name begins with "/CV" or "CV" and is at most 11 bytes.
  if (name.size() < 4 || name.size() > 11) return TAG_OTHER;
  unsigned char first = fold_upper(static_cast<unsigned char>(name[0]));
  if (first != 'C' && first != '/') return TAG_OTHER;
  for (int id = 1; id < TAG_COUNT; id++)
    if (equals_nocase(name, kTagNames[id])) return TagId(id);
  return TAG_OTHER;
}

void print_page_node(const Page& page, uint32_t node, const std::string* stored, std::string& out) {
  const PageNode& n = page.nodes[node];
  if (!n.is_tag) {
    out.append(page.text(n.span));
    return;
  }
  out.push_back('<');
  out.append(stored ? *stored : page.node_name(node));
  for (uint32_t k = 0; k < n.option_count; k++) {
    const PageOption& option = page.options[n.first_option() + k];
    out.push_back(' ');
    out.append(page.text(option.name));
    if (option.value.size) {
      out.append("=\"");
      out.append(page.text(option.value));
      out.push_back('"');
    }
  }
  out.push_back('>');
}

const PageOption* page_option(const Page& page, uint32_t node, std::string_view name) {
  const PageNode& n = page.nodes[node];
  for (uint32_t k = 0; k < n.option_count; k++) {
    const PageOption& option = page.options[n.first_option() + k];
    if (equals_nocase(page.text(option.name), name)) return &option;
  }
  return nullptr;
}
