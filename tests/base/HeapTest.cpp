// After the heap is moved into huge pages, what the program allocates lies in
// memory marked for them, large blocks included. (The kym command, whose
// end-to-end tests work its heap hard, runs with it.)
#include "base/Heap.h"

#include <gtest/gtest.h>
#include <cstdint>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

namespace {

struct Mapping {
    std::uintptr_t start = 0;
    std::uintptr_t end = 0;
    std::string flags;  // the VmFlags line of smaps
};

// The mapping of this process that holds the address, as the kernel reports it.
Mapping mappingOf(const void* address) {
    const auto wanted = reinterpret_cast<std::uintptr_t>(address);
    std::ifstream smaps("/proc/self/smaps");
    Mapping current;
    bool inside = false;
    for (std::string line; std::getline(smaps, line);) {
        std::uintptr_t start = 0, end = 0;
        char dash = 0;
        std::istringstream range(line);
        if (range >> std::hex >> start >> dash >> end && dash == '-') {
            inside = start <= wanted && wanted < end;
            if (inside) current = Mapping{start, end, {}};
        } else if (inside && line.rfind("VmFlags:", 0) == 0) {
            current.flags = line;
            return current;
        }
    }
    return Mapping{};
}

bool markedForHugePages(const Mapping& mapping) {
    return mapping.flags.find(" hg") != std::string::npos;
}

} // namespace

TEST(Heap, LaterBlocksLieInMemoryMarkedForHugePages) {
    if (!Base::Heap::useHugePages()) GTEST_SKIP() << "no glibc heap to place (a sanitizer's allocator)";
    constexpr std::uintptr_t HugePageSize = std::uintptr_t(2) << 20;

    // Larger than anything freed before, so carved from the heap's top.
    auto block = std::make_unique<char[]>(256 * 1024);
    const Mapping mapping = mappingOf(block.get());
    ASSERT_NE(mapping.end, 0u);
    EXPECT_TRUE(markedForHugePages(mapping)) << mapping.flags;
    EXPECT_EQ(mapping.start % HugePageSize, 0u);
    EXPECT_EQ(mapping.end % HugePageSize, 0u);

    // Above glibc's usual threshold for a mapping of its own.
    auto large = std::make_unique<char[]>(1536 * 1024);
    EXPECT_EQ(mappingOf(large.get()).start, mapping.start);
}
