// A C++ host of the installed library: the camera interface and the image routines.
#include <cstdio>
#include <vector>

#include <tevix/tevix.h>
#include <tevix/vx_image.h>

int main() {
    tevix_init("");
    tevix_log_cfg(7, 7, 7);
    std::vector<uint16_t> mm(4 * 8, 1500);
    if (!vx_box2d_u16(mm.data(), 8, 4, 3)) return 1;
    double slope = 0, offset = 0;
    const double x[3] = {0, 1, 2}, y[3] = {1, 3, 5};
    if (vx_fit_linear(x, y, 3, &slope, &offset, nullptr) != 0 || slope != 2.0) return 1;
    tevix_dev_t list[4];
    const int n = tevix_dev_list(list, 4);
    tevix_uninit();
    std::printf("consumer ok (%d cameras)\n", n);
    return n >= 0 ? 0 : 1;
}
