// One process-wide instance of a class, created on first use and never
// destroyed. Declare one object per accessor at namespace scope: it is
// initialised before any code runs and has nothing to do at exit.
#pragma once

#include <stdexcept>

namespace Base {

template <class T>
class ProcessWide {
public:
    constexpr ProcessWide() = default;
    ProcessWide(const ProcessWide&) = delete;
    ProcessWide& operator=(const ProcessWide&) = delete;

    // The instance, constructed on the first call. A constructor that throws
    // leaves no instance behind, so the next call tries again.
    T& instance() {
        if (mInstance) return *mInstance;
        if (mDestroyed) throw std::runtime_error("Dead Reference Detected");
        mInstance = new T();
        return *mInstance;
    }

private:
    T* mInstance = nullptr;
    // Nothing sets it: the instance deliberately outlives every user. The
    // guard stays in case that ever changes.
    bool mDestroyed = false;
};

} // namespace Base
