/*
 * Resizing and colour conversion: area resize to BGR (full and half-sampled), nearest-neighbour, bilinear and bicubic resizers.
 */
#ifndef HSEG_RESIZE_H_
#define HSEG_RESIZE_H_

#include <stdint.h>

#include "hseg/pipeline.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- area resize to BGR (full and half-sampled) ---- */

/* ---- end of area resize ---- */

/* ---- nearest, bilinear and bicubic resizers ---- */

/* ---- end of nearest, bilinear and bicubic resizers ---- */

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* HSEG_RESIZE_H_ */
