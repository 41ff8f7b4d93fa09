// Zeroed memory for the daemon's large tables that are read at random (the prefix index). From
// 2 MB up a table is a mapping of its own, aligned to 2 MB and marked for huge pages: at a
// million prefixes the index spans thousands of 4 KB pages, and a lookup would then miss its
// translation as well as its cache line. Smaller tables come from the heap, cleared.
// bigTableFree takes the bytes asked for; bigTableMappedBytes is what the mappings hold now, as
// asked for (heap tables are counted by the heap).
#pragma once

#include <cstddef>

void* bigTableAlloc(std::size_t bytes);
void bigTableFree(void* p, std::size_t bytes) noexcept;
std::size_t bigTableMappedBytes();
