/*
 * The storage interface's session end.
 */
#ifndef TARVEX_BOX_DESTROY_H
#define TARVEX_BOX_DESTROY_H

#include "tarvex_box_common.h"

extern "C" {

void tarvex_i_box_destroy(void *user_arg);

}

#endif
