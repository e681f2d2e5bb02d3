#include "formats/pngfile.h"

#include <png.h>

#include <cstring>

#include "core/report.h"
#include "formats/safe_output.h"

void pngf_write_rgb(const char* name, const uint8_t* rgb, int nx, int ny) {
  if (nx < 1 || ny < 1) ZK_FATAL("a picture needs at least one pixel");
  ZkOutFile out;
  FILE* fp = zk_out_open(out, name);
  png_image image;
  memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  image.width = (png_uint_32)nx;
  image.height = (png_uint_32)ny;
  image.format = PNG_FORMAT_RGB;
  // A failed write (a full disk) is caught here or by the commit's checks;
  // either way the temporary file goes and the final name stays untouched.
  if (!png_image_write_to_stdio(&image, fp, 0, rgb, 0, nullptr))
    ZK_FATAL_AFTER(zk_format("Cannot write to file %s. Permission denied or no space left!\n", name),
                   zk_format("PNG encoding failed (%s)", image.message).c_str());
  zk_out_commit(out);
}

int pngf_read_rgb(const char* name, std::vector<uint8_t>& rgb, int& nx, int& ny) {
  png_image image;
  memset(&image, 0, sizeof image);
  image.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&image, name)) return -1;
  image.format = PNG_FORMAT_RGB;
  std::vector<uint8_t> data(PNG_IMAGE_SIZE(image));
  if (!png_image_finish_read(&image, nullptr, data.data(), 0, nullptr)) {
    png_image_free(&image);
    return -1;
  }
  rgb.swap(data);
  nx = (int)image.width;
  ny = (int)image.height;
  return 0;
}
