// Start-up of the base layer.
#pragma once

namespace Base {

// A program's hooks into start-up; none are needed yet.
class InitializeDelegate {
public:
    virtual ~InitializeDelegate() = default;
};

class BaseKit {
public:
    // Sets up the loggers: KYM_LOG names the ones to switch on, KYM_LOG_FILE
    // the file they write to (standard error otherwise). The delegate may be null.
    static void initialize(const InitializeDelegate* delegate);
};

} // namespace Base
