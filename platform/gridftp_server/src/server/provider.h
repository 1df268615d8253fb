// The server's side of the operations it hands to its plug-in: every call
// the plug-in makes on an operation lands here with the PluginCall it was
// created for.
#pragma once

#include "tarvex_gridftp_server.h"

namespace tarvex_server {

extern const tarvex_gfs_operation_provider_t session_provider;

// Buffer size suggested to plug-ins: large buffers keep transfers fast.
constexpr tarvex_size_t data_block_size = tarvex_size_t{1024} * 1024;

} // namespace tarvex_server
