// The program that the start-to-started-child comparison launches: it
// prints the monotonic clock as the first thing its main does, then exits.
#include <cstdio>
#include <ctime>
#include <unistd.h>

int main() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    char line[64];
    const int length = std::snprintf(line, sizeof line, "STARTED %lld\n",
                                     static_cast<long long>(now.tv_sec) * 1000000000LL + now.tv_nsec);
    return ::write(1, line, static_cast<std::size_t>(length)) == length ? 0 : 1;
}
