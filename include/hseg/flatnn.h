/*
 * Layer library: stateless layer functions over planar float tensors (CHW), on OpenBLAS and Eigen.
 */
#ifndef HSEG_FLATNN_H_
#define HSEG_FLATNN_H_

#include <stdint.h>

#include "hseg/pipeline.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* HSEG_FLATNN_H_ */
