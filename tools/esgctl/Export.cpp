#include "Commands.h"
namespace esgctl {
int RunExport(Session&) { return kOther; }
}  // namespace esgctl
