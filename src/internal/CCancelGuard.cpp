#include "internal/CCancelGuard.h"

namespace QuorCore
{
__thread bool t_bAsynchronousCancel __attribute__((tls_model("initial-exec"))) = false;
} // namespace QuorCore
