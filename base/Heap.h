// The heap of a short-lived program. On the machines we run on, the first
// touch of each fresh 4 KiB page costs more than most of what a command does
// with it, and a launch of a large site touches a few hundred of them.
#pragma once

#include "base/BaseExport.h"

namespace Base {
namespace Heap {

// Lets the heap continue in transparent huge pages: it is grown by a few
// megabytes at once, the 2 MiB aligned part is marked for huge pages, and
// allocation carries on from its start, so that one fault maps what would
// take hundreds. Large blocks are taken from the heap as well, and freed heap
// is kept rather than handed back, since both would be faulted in again.
// Call it first thing in main. Returns false when no huge pages were asked
// for: no glibc allocator (or a sanitizer's), or a heap that could not be
// grown in place; with glibc the two thresholds are set all the same. The
// program works the same either way, and a system with huge pages switched
// off simply maps small ones.
BASE_EXPORT bool useHugePages();

} // namespace Heap
} // namespace Base
