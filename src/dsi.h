/*
 * The Box storage plug-in's module, which registers the storage interface
 * and the policy's check with the server.
 */
#ifndef TARVEX_BOX_DSI_H
#define TARVEX_BOX_DSI_H

#include "tarvex_box_common.h"

extern "C" {

TARVEX_API extern tarvex_module_descriptor_t tarvex_gridftp_server_box_module;

}

#endif
