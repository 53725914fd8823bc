/* blur_background: blurs the background behind the person in a photograph
 * or a camera frame, the way an application calls libhseg.
 *
 *   blur_background SIGMA IN.bmp OUT.bmp
 *   blur_background SIGMA IN OUT FORMAT WIDTHxHEIGHT
 *
 * The first form reads and writes a 24-bit BMP; the second one raw frame of
 * FORMAT yuy2, i420 or nv21 (planes one after the other, rows packed), kept
 * in its format as a camera pipeline passes it on. The network sees 473x473
 * pixels: enlarge smaller pictures first (Hseg does not; see its header).
 * Build: cc blur_background.c $(pkg-config --cflags --libs hseg) */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <hseg/hseg.h>

/* Segments `frame` and blurs its background, in place: one call does it,
 * with the default network (NULL options), the frame also as the output. */
static int blur_in_place(OffscreenImage *frame, float sigma) {
  HsegBackgroundEffect effect = {.size = sizeof effect, .kind = HSEG_BACKGROUND_BLUR,
                                 .sigma = sigma};
  MRESULT s = HsegSegmentBackground(NULL, frame, NULL, &effect, frame);
  if (s != HSEG_OK) fprintf(stderr, "blur_background: failed with status %u\n", (unsigned)s);
  return s == HSEG_OK ? 0 : 1;
}

static int blur_bmp(float sigma, const char *in, const char *out) {
  Image *img = NULL;
  MRESULT s = LoadBMP(NULL, in, &img);
  if (s != HSEG_OK || img->channels != 3) {
    fprintf(stderr, "blur_background: %s is not a readable colour BMP (status %u)\n", in,
            (unsigned)s);
    release_img(NULL, &img);
    return 1;
  }
  OffscreenImage frame = {HSEG_PIXFMT_BGR24, (int32_t)img->width, (int32_t)img->height,
                          {img->data}, {(int32_t)img->pitch}};
  int rc = blur_in_place(&frame, sigma);
  if (rc == 0 && SaveBmp(out, img) != HSEG_OK) {
    fprintf(stderr, "blur_background: cannot write %s\n", out);
    rc = 1;
  }
  release_img(NULL, &img);
  return rc;
}

/* Lays out one raw frame of `format` at `data`; returns its size in bytes,
 * or 0 for an unknown format name or an odd YUY2 width. */
static size_t describe(const char *format, int w, int h, unsigned char *data,
                       OffscreenImage *f) {
  size_t luma = (size_t)w * h, cw = (size_t)(w + 1) / 2, ch = (size_t)(h + 1) / 2;
  memset(f, 0, sizeof *f);
  f->width = w;
  f->height = h;
  f->planes[0] = data;
  f->pitches[0] = w;
  if (strcmp(format, "yuy2") == 0 && w % 2 == 0) {
    f->format = HSEG_PIXFMT_YUY2; /* Y0 U Y1 V */
    f->pitches[0] = 2 * w;
    return 2 * luma;
  }
  if (strcmp(format, "nv21") == 0) {
    f->format = HSEG_PIXFMT_NV21; /* Y, then V,U pairs */
    f->planes[1] = data ? data + luma : NULL;
    f->pitches[1] = (int32_t)(2 * cw);
    return luma + 2 * cw * ch;
  }
  if (strcmp(format, "i420") == 0) {
    f->format = HSEG_PIXFMT_I420; /* Y, then U, then V */
    f->planes[1] = data ? data + luma : NULL;
    f->planes[2] = data ? data + luma + cw * ch : NULL;
    f->pitches[1] = f->pitches[2] = (int32_t)cw;
    return luma + 2 * cw * ch;
  }
  return 0;
}

static int blur_raw(float sigma, const char *in, const char *out, const char *format,
                    const char *size) {
  int w = 0, h = 0;
  OffscreenImage frame;
  size_t bytes = 0; /* stays 0 for a bad size */
  if (sscanf(size, "%dx%d", &w, &h) == 2 && w >= 1 && h >= 1 && w <= 65535 && h <= 65535)
    bytes = describe(format, w, h, NULL, &frame);
  if (bytes == 0) {
    fprintf(stderr, "blur_background: bad frame format or size: %s %s\n", format, size);
    return 2;
  }
  unsigned char *data = malloc(bytes);
  FILE *f = fopen(in, "rb");
  int rc = data == NULL || f == NULL || fread(data, 1, bytes, f) != bytes;
  if (f != NULL) fclose(f);
  if (rc) fprintf(stderr, "blur_background: cannot read a %s %s frame from %s\n", size, format,
                  in);
  if (rc == 0) {
    describe(format, w, h, data, &frame);
    rc = blur_in_place(&frame, sigma);
  }
  if (rc == 0) {
    FILE *o = fopen(out, "wb");
    rc = o == NULL || fwrite(data, 1, bytes, o) != bytes;
    if (o != NULL && fclose(o) != 0) rc = 1;
    if (rc) fprintf(stderr, "blur_background: cannot write %s\n", out);
  }
  free(data);
  return rc;
}

int main(int argc, char **argv) {
  float sigma = argc > 1 ? strtof(argv[1], NULL) : 0.0f;
  if ((argc != 4 && argc != 6) || !(sigma > 0.0f)) {
    fprintf(stderr, "usage: blur_background SIGMA IN.bmp OUT.bmp\n"
                    "       blur_background SIGMA IN OUT yuy2|i420|nv21 WIDTHxHEIGHT\n");
    return 2;
  }
  return argc == 4 ? blur_bmp(sigma, argv[2], argv[3])
                   : blur_raw(sigma, argv[2], argv[3], argv[4], argv[5]);
}
