// The runtime's own module descriptor.
#include "tarvex_common.h"

namespace {

const tarvex_version_t common_version = {0, 26, 0, 0};

// The runtime keeps no state that needs setting up: its tables build
// themselves on first use.  The module exists so that users can count
// their references and tests can make activation fail.
int common_activate()
{
    return 0;
}

int common_deactivate()
{
    return 0;
}

} // namespace

extern "C" {

tarvex_module_descriptor_t tarvex_i_common_module = {
    "tarvex_common", common_activate, common_deactivate, nullptr, nullptr,
    &common_version, nullptr};

} // extern "C"
