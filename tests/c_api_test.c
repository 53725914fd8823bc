/* Compiled as C: every public header must be valid C, and the shared library
 * must link and run from a C program. Its allocation services are the
 * library's own here (the other tests replace them with a counting one). */
#include <stdio.h>
#include <string.h>

#include "hseg/hseg.h"

int main(void) {
  MHandle mem = 0;
  Image *img = createimg(mem, 5, 2, 8, 3);
  MMemFree(mem, NULL);
  if (img == NULL || img->pitch != 16 || img->size != 32 || MMemAlloc(mem, -5) != NULL) {
    fprintf(stderr, "createimg or MMemAlloc from C gave a wrong result\n");
    return 1;
  }
  release_img(mem, &img);
  if (img != NULL) return 1;
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
  {
    /* A blur and a background effect called from C. */
    uint8_t px[4 * 3] = {0, 30, 60, 90, 120, 150, 180, 210, 240, 10, 20, 30};
    uint8_t out[4 * 3];
    uint8_t mask[1] = {0};
    OffscreenImage s = {HSEG_PIXFMT_BGR24, 4, 1, {px}, {12}};
    OffscreenImage d = {HSEG_PIXFMT_BGR24, 4, 1, {out}, {12}};
    OffscreenImage m = {HSEG_PIXFMT_GRAY, 1, 1, {mask}, {1}};
    if (GB_BoxBlur(mem, &s, &d, 0) != HSEG_OK || memcmp(px, out, sizeof px) != 0 ||
        GB_GaussianBlurRows(mem, &s, &d, 1.5f, 0, 1) != HSEG_OK ||
        HsegBlurBackground(mem, &s, &m, 2.0f, &d) != HSEG_OK) {
      fprintf(stderr, "blur from C failed\n");
      return 1;
    }
  }
  return 0;
}
