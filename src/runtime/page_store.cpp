// Page files: read and compiled when a run needs them.
#include "runtime/run.h"

PagePtr load_page(const std::string& path) {
  DynStringPtr file = dyn_load_file(path);
  if (!file) return nullptr;
  return compile_page_bytes(std::move(file->data), 1);
}
