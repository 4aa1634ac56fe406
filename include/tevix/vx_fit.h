/*
 * Least-squares fitting: straight lines, polynomials, multiple linear fits with outlier removal,
 * and Mahalanobis distances. Inputs are double arrays; samples with a NaN or infinite value in
 * any of their coordinates are left out of every fit. Results are 0 on success, or a negative
 * code with the outputs untouched:
 *   VX_FIT_EINVAL  (-22) a null pointer, or a count or order out of range;
 *   VX_FIT_EDATA   (-33) too few finite samples for the unknowns;
 *   VX_FIT_ESINGULAR (-34) the samples do not determine the unknowns (all x equal for a line,
 *                    collinear regressors, a covariance without inverse).
 */
#ifndef TEVIX_VX_FIT_H
#define TEVIX_VX_FIT_H

#include <stdint.h>

#include "tevix_export.h"

TEVIX_EXTERN_C_BEGIN

enum { VX_FIT_EINVAL = -22, VX_FIT_EDATA = -33, VX_FIT_ESINGULAR = -34 };

/* y = slope * x + offset over n samples; r (may be NULL) the correlation coefficient (0 when y
 * is constant). */
TEVIX_API int vx_fit_linear(const double *x, const double *y, int32_t n, double *slope,
                            double *offset, double *r) TEVIX_NOEXCEPT;

/* y = c[0] + c[1] x + ... + c[order] x^order over n samples (order 0..8); c holds order + 1
 * values. rms (may be NULL) the root mean square residual. */
TEVIX_API int vx_fit_poly(const double *x, const double *y, int32_t n, int32_t order, double *c,
                          double *rms) TEVIX_NOEXCEPT;

/*
 * Multiple linear fit with outlier removal: y = c[0] x_0 + ... + c[k-1] x_(k-1) over n samples,
 * x row by row (n x k, row-major; give a column of ones for an offset). After each fit the
 * samples whose residual exceeds `reject` times the residual standard deviation are dropped and
 * the fit is repeated, at most `rounds` times or until none is dropped; reject <= 0 keeps every
 * sample. keep (n bytes, may be NULL) marks the samples of the last fit with 1; the number of
 * them goes to *used (may be NULL). k is 1..32.
 */
TEVIX_API int vx_fit_mlf(const double *x, const double *y, int32_t n, int32_t k, double *c,
                         double reject, int32_t rounds, uint8_t *keep,
                         int32_t *used) TEVIX_NOEXCEPT;

/*
 * Mahalanobis distances of n samples of k dimensions (row-major) to the distribution of those
 * samples: d[i] = sqrt((x_i - mean)^T S^-1 (x_i - mean)) with S the sample covariance. Samples
 * with a non-finite coordinate get NaN and are left out of mean and covariance. k is 1..32.
 */
TEVIX_API int vx_mahalanobis(const double *x, int32_t n, int32_t k, double *d) TEVIX_NOEXCEPT;

TEVIX_EXTERN_C_END

#endif
