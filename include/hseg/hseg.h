/* Umbrella header: the whole exported interface of libhseg. */
#ifndef HSEG_HSEG_H_
#define HSEG_HSEG_H_

#include "hseg/pipeline.h"
#include "hseg/flatnn.h"
#include "hseg/crf.h"
#include "hseg/resize.h"
#include "hseg/imgproc.h"
#include "hseg/blur.h"

#endif /* HSEG_HSEG_H_ */
