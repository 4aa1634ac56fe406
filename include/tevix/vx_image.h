/* Image processing routines: filters, undistortion, point clouds, colour maps and conversions. */
#ifndef TEVIX_VX_IMAGE_H
#define TEVIX_VX_IMAGE_H

#include "vx_cmap.h"
#include "vx_filter.h"
#include "vx_fit.h"
#include "vx_pcl.h"

#endif
