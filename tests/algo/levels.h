// The kernels' instruction-set levels in tests: every wider level must give the scalar bits.
#pragma once

#include <cstring>

#include <gtest/gtest.h>

#include "algo/simd.h"

namespace tevix::test {

// Runs fn() capped at each level and returns the scalar result. The wider levels must return the
// same bytes: NaN payloads and signed zeros count, which == on floats would hide.
template <class F>
auto same_at_every_level(F &&fn) {
    using simd::level;
    const auto want = [&] {
        simd::scoped_limit cap(level::scalar);
        return fn();
    }();
    for (level l : {level::sse41, level::avx2}) {
        simd::scoped_limit cap(l);
        const auto got = fn();
        size_t i = 0;
        while (i < want.size() && i < got.size() &&
               std::memcmp(&got[i], &want[i], sizeof want[i]) == 0)
            ++i;
        EXPECT_TRUE(i == want.size() && got.size() == want.size())
            << "level " << static_cast<int>(l) << " differs from scalar at element " << i << " of "
            << want.size();
    }
    return want;
}

}  // namespace tevix::test
