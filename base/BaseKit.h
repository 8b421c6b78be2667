// Start-up of the base layer.
#pragma once

#include "base/BaseExport.h"

namespace Base {

// A program's hooks into start-up; none are needed yet.
class BASE_EXPORT InitializeDelegate {
public:
    virtual ~InitializeDelegate() = default;
};

class BASE_EXPORT BaseKit {
public:
    // Sets up the loggers: KYM_LOG names the ones to switch on, KYM_LOG_FILE
    // the file they write to (standard error otherwise). The delegate may be null.
    static void initialize(const InitializeDelegate* delegate);
};

} // namespace Base
