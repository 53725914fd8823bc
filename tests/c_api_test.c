/* Compiled as C: every public header must be valid C, and the shared library
 * must link and run from a C program. */
#include <stdio.h>
#include <string.h>

#include "hseg/hseg.h"

int main(void) {
  MHandle mem = 0;
  Image *img = createimg(mem, 5, 2, 8, 3);
  if (img == NULL || img->pitch != 16 || img->size != 32) {
    fprintf(stderr, "createimg from C gave a wrong record\n");
    return 1;
  }
  release_img(mem, &img);
  if (img != NULL) return 1;
  {
    OffscreenImage o;
    memset(&o, 0, sizeof o);
    o.format = HSEG_PIXFMT_BGR24;
    (void)o;
  }
  {
    double m[4] = {2, 0, 0, 4};
    ImgRect box = {1, 1, 1, 1};
    Image *mask = createimg(mem, 3, 2, 8, 1);
    if (mask == NULL || img_mask_bbox(mask, &box) != HSEG_OK || box.width != 0 ||
        matrix_inverse(m, m, 2) != HSEG_OK || m[0] != 0.5 || m[3] != 0.25) {
      fprintf(stderr, "image toolkit from C gave a wrong result\n");
      return 1;
    }
    release_img(mem, &mask);
  }
  return 0;
}
