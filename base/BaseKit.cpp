#include "base/BaseKit.h"

#include "base/Environment.h"
#include "base/log/Logger.h"

namespace Base {

void BaseKit::initialize(const InitializeDelegate* /*delegate*/) {
    std::string file = Environment::getEnvVariable("KYM_LOG_FILE");
    if (file.empty())
        log::setOutputStandardError();
    else
        log::setOutputFile(file);
    log::enableLoggers(Environment::getEnvVariable("KYM_LOG"));
}

} // namespace Base
