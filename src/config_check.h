/*
 * The policy's check, run by the server before a policy is taken.
 */
#ifndef TARVEX_BOX_CONFIG_CHECK_H
#define TARVEX_BOX_CONFIG_CHECK_H

#include "tarvex_box_common.h"

extern "C" {

/* The policy's check (config_check.cpp), which the module's activation
 * registers for the server under "box:config"; not exported. */
extern const tarvex_gfs_config_checker_t tarvex_i_box_config_checker
    __attribute__((visibility("hidden")));

}

#endif
