// A picture of a micrograph and its picking results, to look at instead of
// reading coordinate files: the micrograph binned down to 8-bit grey, the
// rejected cells tinted red and every pick circled in green.
#pragma once
#include <cstdint>
#include <vector>

struct ZkPicture {
  int nx = 0, ny = 0;
  std::vector<uint8_t> rgb;  // nx * ny pixels of red, green, blue; row 0 (micrograph row 0) on top
};

// The colours of the drawing.
constexpr uint8_t ZK_PICK_RGB[3] = {0, 255, 0};
constexpr uint8_t ZK_REJECT_RGB[3] = {255, 0, 0};

// The nx by ny micrograph binned by bin: pixel (i, j) is the mean of the
// samples x = i*bin .. i*bin+bin-1, y likewise (the last row and column of
// blocks take what is left), ceil(nx/bin) by ceil(ny/bin) pixels.  Black is
// the mean of the pixels less three deviations, white the mean plus three.
// Samples that are not finite count for nothing; a picture without contrast
// is mid grey.
ZkPicture pick_picture_grey(const float* raw, int nx, int ny, int bin);

// Half-tints red every pixel whose block centre lies in a rejected cell of
// the L by L cell mask of the working image (0 rejected, 1 good), whose
// pixels are shrink samples wide.
void pick_picture_shade_rejected(ZkPicture* pic, const float* mask, int L, int shrink, int bin);

// A green ring of the given diameter (samples) around the sample (x, y): the
// pixels whose centres lie less than one pixel from the circle.  A ring below
// two pixels across is drawn as its centre pixel.
void pick_picture_draw_circle(ZkPicture* pic, float x, float y, float diameter, int bin);
