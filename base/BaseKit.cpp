#include "base/BaseKit.h"

#include "base/log/Logger.h"

namespace Base {

void BaseKit::initialize(const InitializeDelegate* /*delegate*/) {
    log::configureFromEnvironment();
}

} // namespace Base
