// Least-squares fits on Eigen. Every solve goes through a column-pivoting QR of the (scaled)
// design matrix with a rank check, so that degenerate samples are reported, not answered with
// huge or NaN coefficients.
#include <Eigen/Dense>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>
#include <vector>

#include "tevix/vx_fit.h"

namespace {

using Eigen::MatrixXd;
using Eigen::VectorXd;

constexpr int32_t k_max_dims = 32;
constexpr int32_t k_max_order = 8;

bool _finite(double v) {
    return std::isfinite(v);
}

// Solves min |A c - y| with A's columns scaled to unit norm first (polynomial columns span many
// orders of magnitude); false when A does not have full column rank.
bool _solve(const MatrixXd &a, const VectorXd &y, VectorXd &c) {
    VectorXd scale = a.colwise().norm().transpose();
    for (Eigen::Index j = 0; j < scale.size(); ++j)
        if (!(scale[j] > 0.0)) return false;
    const MatrixXd as = a * scale.cwiseInverse().asDiagonal();
    Eigen::ColPivHouseholderQR<MatrixXd> qr(as);
    qr.setThreshold(1e-10);
    if (qr.rank() < as.cols()) return false;
    c = qr.solve(y).cwiseQuotient(scale);
    return c.allFinite();
}

template <class F>
int _guard(F &&f) noexcept {
    try {
        return f();
    } catch (const std::bad_alloc &) {
        return VX_FIT_EDATA;
    }
}

}  // namespace

extern "C" int vx_fit_linear(const double *x, const double *y, int32_t n, double *slope,
                             double *offset, double *r) noexcept {
    if (!x || !y || !slope || !offset || n < 0) return VX_FIT_EINVAL;
    double sx = 0, sy = 0;
    int32_t m = 0;
    for (int32_t i = 0; i < n; ++i)
        if (_finite(x[i]) && _finite(y[i])) sx += x[i], sy += y[i], ++m;
    if (m < 2) return VX_FIT_EDATA;
    // Centred sums: no cancellation for samples far from the origin.
    const double mx = sx / m, my = sy / m;
    double sxx = 0, sxy = 0, syy = 0;
    for (int32_t i = 0; i < n; ++i) {
        if (!_finite(x[i]) || !_finite(y[i])) continue;
        const double dx = x[i] - mx, dy = y[i] - my;
        sxx += dx * dx, sxy += dx * dy, syy += dy * dy;
    }
    if (!(sxx > 0.0) || !(sxx > 1e-24 * (mx * mx + 1.0) * m)) return VX_FIT_ESINGULAR;
    *slope = sxy / sxx;
    *offset = my - *slope * mx;
    if (r) *r = syy > 0.0 ? sxy / std::sqrt(sxx * syy) : 0.0;
    return 0;
}

extern "C" int vx_fit_poly(const double *x, const double *y, int32_t n, int32_t order, double *c,
                           double *rms) noexcept {
    if (!x || !y || !c || n < 0 || order < 0 || order > k_max_order) return VX_FIT_EINVAL;
    return _guard([&]() -> int {
        std::vector<int32_t> rows;
        double lo = INFINITY, hi = -INFINITY;
        for (int32_t i = 0; i < n; ++i)
            if (_finite(x[i]) && _finite(y[i])) {
                rows.push_back(i);
                lo = std::min(lo, x[i]);
                hi = std::max(hi, x[i]);
            }
        const auto m = static_cast<Eigen::Index>(rows.size());
        if (m < order + 1) return VX_FIT_EDATA;
        // The fit runs in t = (x - mid) / half, within -1..1, where the powers stay well
        // conditioned; the coefficients are expanded back to powers of x afterwards.
        const double mid = 0.5 * (lo + hi), half = hi > lo ? 0.5 * (hi - lo) : 1.0;
        MatrixXd a(m, order + 1);
        VectorXd b(m);
        for (Eigen::Index i = 0; i < m; ++i) {
            const double t = (x[rows[i]] - mid) / half;
            double p = 1.0;
            for (int32_t j = 0; j <= order; ++j, p *= t) a(i, j) = p;
            b[i] = y[rows[i]];
        }
        VectorXd ct;
        if (!_solve(a, b, ct)) return VX_FIT_ESINGULAR;
        // sum_j ct_j ((x - mid) / half)^j, expanded by Horner's scheme on polynomials in x.
        std::vector<double> px(static_cast<size_t>(order) + 1, 0.0);
        for (int32_t j = order; j >= 0; --j) {
            for (int32_t e = order; e >= 1; --e)
                px[size_t(e)] = (px[size_t(e - 1)] - mid * px[size_t(e)]) / half;
            px[0] = -mid * px[0] / half + ct[j];
        }
        std::memcpy(c, px.data(), sizeof(double) * px.size());
        if (rms) *rms = std::sqrt((a * ct - b).squaredNorm() / static_cast<double>(m));
        return 0;
    });
}

extern "C" int vx_fit_mlf(const double *x, const double *y, int32_t n, int32_t k, double *c,
                          double reject, int32_t rounds, uint8_t *keep, int32_t *used) noexcept {
    if (!x || !y || !c || n < 0 || k < 1 || k > k_max_dims || rounds < 0) return VX_FIT_EINVAL;
    return _guard([&]() -> int {
        std::vector<uint8_t> in(static_cast<size_t>(n));
        for (int32_t i = 0; i < n; ++i) {
            bool ok = _finite(y[i]);
            for (int32_t j = 0; j < k && ok; ++j) ok = _finite(x[size_t(i) * k + j]);
            in[size_t(i)] = ok;
        }
        VectorXd sol;
        for (int32_t round = 0;; ++round) {
            std::vector<int32_t> rows;
            for (int32_t i = 0; i < n; ++i)
                if (in[size_t(i)]) rows.push_back(i);
            const auto m = static_cast<Eigen::Index>(rows.size());
            if (m < k) return VX_FIT_EDATA;
            MatrixXd a(m, k);
            VectorXd b(m);
            for (Eigen::Index i = 0; i < m; ++i) {
                for (int32_t j = 0; j < k; ++j) a(i, j) = x[size_t(rows[i]) * k + j];
                b[i] = y[rows[i]];
            }
            if (!_solve(a, b, sol)) return VX_FIT_ESINGULAR;
            if (!(reject > 0.0) || round >= rounds || m <= k) break;
            const VectorXd res = a * sol - b;
            const double sd = std::sqrt(res.squaredNorm() / static_cast<double>(m - k));
            if (!(sd > 0.0)) break;
            int32_t dropped = 0;
            for (Eigen::Index i = 0; i < m; ++i)
                if (std::fabs(res[i]) > reject * sd) in[size_t(rows[i])] = 0, ++dropped;
            if (dropped == 0) break;
        }
        std::memcpy(c, sol.data(), sizeof(double) * static_cast<size_t>(k));
        int32_t count = 0;
        for (int32_t i = 0; i < n; ++i) count += in[size_t(i)];
        if (keep) std::memcpy(keep, in.data(), static_cast<size_t>(n));
        if (used) *used = count;
        return 0;
    });
}

extern "C" int vx_mahalanobis(const double *x, int32_t n, int32_t k, double *d) noexcept {
    if (!x || !d || n < 0 || k < 1 || k > k_max_dims) return VX_FIT_EINVAL;
    return _guard([&]() -> int {
        std::vector<int32_t> rows;
        for (int32_t i = 0; i < n; ++i) {
            bool ok = true;
            for (int32_t j = 0; j < k && ok; ++j) ok = _finite(x[size_t(i) * k + j]);
            if (ok) rows.push_back(i);
        }
        const auto m = static_cast<Eigen::Index>(rows.size());
        if (m < k + 1) return VX_FIT_EDATA;
        MatrixXd a(m, k);
        for (Eigen::Index i = 0; i < m; ++i)
            for (int32_t j = 0; j < k; ++j) a(i, j) = x[size_t(rows[i]) * k + j];
        const Eigen::RowVectorXd mean = a.colwise().mean();
        a.rowwise() -= mean;
        const MatrixXd cov = (a.transpose() * a) / static_cast<double>(m - 1);
        Eigen::LDLT<MatrixXd> ldlt(cov);
        const double biggest = cov.diagonal().maxCoeff();
        if (ldlt.info() != Eigen::Success || !(biggest > 0.0) ||
            ldlt.vectorD().minCoeff() <= 1e-12 * biggest)
            return VX_FIT_ESINGULAR;
        for (int32_t i = 0; i < n; ++i) d[i] = std::nan("");
        for (Eigen::Index i = 0; i < m; ++i) {
            const VectorXd v = a.row(i).transpose();
            d[rows[i]] = std::sqrt(std::max(0.0, v.dot(ldlt.solve(v))));
        }
        return 0;
    });
}
