// PNG files of 8-bit images for the tool's exports.
#pragma once

#include <cstdint>
#include <string>

// Writes a w x h image of 1 (grey) or 3 (RGB) bytes per pixel, rows top to bottom.
bool png_write(const std::string &path, const uint8_t *pixels, uint32_t w, uint32_t h,
               int channels);
