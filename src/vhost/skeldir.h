/**
 * @file
 * The sections that a skeleton is made of.
 */
#ifndef FRASK_VHOST_SKELDIR_H
#define FRASK_VHOST_SKELDIR_H

#include "log/api.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The names of the seven top-level directories that a skeleton may hold, then a NULL. */
FRASK_API extern const char* const skeldir[8];

#ifdef __cplusplus
}
#endif

#endif
