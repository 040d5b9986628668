// Fuzz target for the page tokenizer and compiler: cut, compile, print, look
// up, and cut the print again.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "page/page.h"
#include "page/tag.h"

namespace {

void exercise(std::string_view text, bool keep_option_tags) {
  Page page = tokenize_page(text, 1, keep_option_tags);
  compile_nodes(page);
  std::string printed;
  for (uint32_t i = 0; i < page.size(); i++) {
    const PageNode& node = page.nodes[i];
    print_page_node(page, i, nullptr, printed);
    if (node.jump != kNoNode && (node.jump <= i || node.jump >= page.size())) __builtin_trap();
    if (!node.is_tag) continue;
    for (std::string_view name : {"condition", "VAR", "value", ""}) {
      const PageOption* option = page_option(page, i, name);
      if (option && option->value.size > text.size() + 1) __builtin_trap();
    }
    // Processing compiles option names and values again; they must cut cleanly.
    for (uint32_t k = 0; k < node.option_count; k++) {
      const PageOption& option = page.option(i, k);
      if (option.value_form != FORM_LITERAL) {
        option_value_page(page, option, node.line);
        option_program(page, option, node.line);
      }
    }
  }
  // The printed form is page text too.
  Page again = tokenize_page(printed, 1);
  if (printed.empty() != (again.size() == 0)) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  exercise(text, true);
  exercise(text, false);
  return 0;
}
