#include "base/SystemCalls.h"

namespace Base {
namespace SystemCalls {

namespace {

// Never destroyed: a hook may be consulted while the process exits.
FaultHook& hook(int which) {
    static FaultHook* hooks = new FaultHook[3];
    return hooks[which];
}

enum { Write, Rename, Exec };

int consult(int which, const std::string& what) {
    const FaultHook& fault = hook(which);
    return fault ? fault(what) : 0;
}

} // namespace

void setWriteFault(FaultHook fault) { hook(Write) = std::move(fault); }
void setRenameFault(FaultHook fault) { hook(Rename) = std::move(fault); }
void setExecFault(FaultHook fault) { hook(Exec) = std::move(fault); }

int writeFault(const std::string& file) { return consult(Write, file); }
int renameFault(const std::string& file) { return consult(Rename, file); }
int execFault(const std::string& program) { return consult(Exec, program); }

} // namespace SystemCalls
} // namespace Base
