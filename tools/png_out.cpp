#include "png_out.h"

#include <png.h>

#include <cstdio>

namespace {

// libpng reports errors by longjmp; nothing with a destructor lives in this frame.
bool _png_rows(png_structp png, png_infop info, std::FILE *fp, const uint8_t *pixels, uint32_t w,
               uint32_t h, int channels) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_init_io(png, fp);
    png_set_IHDR(png, info, w, h, 8, channels == 3 ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    for (uint32_t y = 0; y < h; ++y)
        png_write_row(png, const_cast<uint8_t *>(pixels) + size_t{y} * w * channels);
    png_write_end(png, nullptr);
    return true;
}

}  // namespace

bool png_write(const std::string &path, const uint8_t *pixels, uint32_t w, uint32_t h,
               int channels) {
    if (!pixels || w == 0 || h == 0 || (channels != 1 && channels != 3)) return false;
    std::FILE *fp = std::fopen(path.c_str(), "wb");
    if (!fp) return false;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    bool ok = info && _png_rows(png, info, fp, pixels, w, h, channels);
    png_destroy_write_struct(&png, &info);
    ok = std::fclose(fp) == 0 && ok;
    return ok;
}
