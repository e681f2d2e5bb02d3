// 8-bit RGB pictures as PNG files, through libpng's simplified interface.
// Row 0 of the buffer is the top row of the picture; each pixel is three bytes,
// red, green, blue.
#pragma once
#include <cstdint>
#include <vector>

// Writes nx by ny pixels to name, beside the final name first and renamed into
// place when complete.  A failure throws "Cannot write to file %s. Permission
// denied or no space left!" and the fatal report, and leaves no file.
void pngf_write_rgb(const char* name, const uint8_t* rgb, int nx, int ny);

// Reads any PNG file as 8-bit RGB.  Returns 0, or -1 (nothing changed) when the
// file does not open or does not decode.
int pngf_read_rgb(const char* name, std::vector<uint8_t>& rgb, int& nx, int& ny);
