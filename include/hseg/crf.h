/*
 * Dense CRF refinement: lattice hash table, permutohedral lattice, lattice filter, fast exponentials, dense CRF and the CRF-guided upsampling.
 */
#ifndef HSEG_CRF_H_
#define HSEG_CRF_H_

#include <stdint.h>

#include "hseg/pipeline.h"

#ifdef __cplusplus
extern "C" {
#endif

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* HSEG_CRF_H_ */
