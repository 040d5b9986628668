// Page files and the compiled pages kept for them (load_page, in run.h,
// reads through this cache).
//
// An entry is found by the file's path and used only while the file still
// has the device, inode, size, modification and change times it had when
// it was compiled, so an edited page is compiled again on its next
// request.  A file changed within a moment of its last compilation could
// keep all of those (time stamps are coarse), so until its times are a few
// seconds old an entry is also compared by content.  The cache holds at
// most a set number of bytes (its pages' estimated size); the page used
// longest ago goes first.
#pragma once

#include <cstddef>
#include <cstdint>

// The bound in bytes; 0 keeps no page.  Lowering it drops pages at once.
void set_page_cache_bytes(size_t bytes);

struct PageCacheCounts {
  uint64_t hits = 0;      // pages served from the cache
  uint64_t compiles = 0;  // pages read and compiled
  size_t pages = 0;       // pages held now
  size_t bytes = 0;       // their estimated size
};
PageCacheCounts page_cache_counts();
// Forgets every page (a worker's reload, tests).
void page_cache_clear();
