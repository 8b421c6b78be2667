#include "base/Heap.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#if defined(__GLIBC__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>
#define BASE_HEAP_HUGE_PAGES 1
#endif

namespace Base {
namespace Heap {

#ifdef BASE_HEAP_HUGE_PAGES

namespace {

constexpr std::uintptr_t HugePageSize = std::uintptr_t(2) << 20;
// Two huge pages at least stay whole inside the growth beyond the probe.
constexpr int Growth = 8 << 20;
// Larger than the room glibc leaves at the heap's top, so the probe grows it.
constexpr std::size_t ProbeSize = 1 << 20;
constexpr int DefaultTopPad = 128 << 10;
// glibc keeps two size words before each block; a block's chunk is its size
// plus one size word, rounded up to two.
constexpr std::uintptr_t SizeWord = sizeof(std::size_t);
constexpr std::uintptr_t ChunkHeader = 2 * SizeWord;

} // namespace

bool useHugePages() {
    if (mallopt(M_MMAP_THRESHOLD, 32 << 20) != 1 || mallopt(M_TRIM_THRESHOLD, 256 << 20) != 1) return false;

    // A block larger than the top's free room comes from a fresh top that
    // starts where the block starts; freed, it leaves that top in one piece.
    const std::uintptr_t endBefore = reinterpret_cast<std::uintptr_t>(::sbrk(0));
    mallopt(M_TOP_PAD, Growth);
    void* volatile probe = std::malloc(ProbeSize);
    mallopt(M_TOP_PAD, DefaultTopPad);
    if (!probe) return false;
    const std::uintptr_t top = reinterpret_cast<std::uintptr_t>(probe) - ChunkHeader;
    std::free(probe);

    const std::uintptr_t heapEnd = reinterpret_cast<std::uintptr_t>(::sbrk(0));
    // Past the header glibc wrote behind the probe: a huge page is only
    // placed where no small page has been touched yet.
    const std::uintptr_t touched = top + ProbeSize + 2 * ChunkHeader;
    const std::uintptr_t start = (touched + HugePageSize - 1) & ~(HugePageSize - 1);
    const std::uintptr_t end = heapEnd & ~(HugePageSize - 1);
    // Only a probe carved from the old top of a heap that grew for it tells
    // where allocation goes on; another allocator's (a checker's) is left be.
    if (heapEnd <= endBefore || top >= endBefore || endBefore - top > ProbeSize || end <= start) return false;
    if (::madvise(reinterpret_cast<void*>(start), end - start, MADV_HUGEPAGE) != 0) return false;

    // The part below the aligned start (more than the probe) is taken by a
    // block that is never touched, so it costs address space only, and the
    // next blocks come from the huge pages.
    void* volatile filler = std::malloc(start - top - SizeWord);
    static_cast<void>(filler);
    return true;
}

#else

bool useHugePages() {
    return false;
}

#endif

} // namespace Heap
} // namespace Base
