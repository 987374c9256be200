/* Thumbnails of pictures: a program that knows nothing of libvarn, to be traced as it is. Nearly
 * all of its code is the picture library's; the compiler instruments that and this file.
 *
 *   varn run --functions -- thumbnail DIRECTORY [PICTURE...]
 *
 * Writes three sizes of each picture into the directory; of a picture that it draws itself when
 * none is given. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <stb/stb_image.h>
#include <stb/stb_image_resize.h>
#include <stb/stb_image_write.h>

enum { COLOURS = 3, JPEG_QUALITY = 85, PATH_SIZE = 1024, DRAWN_SIZE = 128 };

static const int longest_sides[] = {64, 32, 16};

struct picture {
  int width, height;
  unsigned char* pixels; /* COLOURS bytes each, row by row */
};

static int complain(const char* what, const char* why) {
  fprintf(stderr, "thumbnail: %s: %s\n", what, why);
  return 0;
}

/* ---- A picture of its own ---- */

static void draw_sky(struct picture* picture) {
  for (int y = 0; y < picture->height; ++y)
    for (int x = 0; x < picture->width; ++x) {
      unsigned char* const pixel = picture->pixels + (y * picture->width + x) * COLOURS;
      pixel[0] = (unsigned char)(40 + 120 * y / picture->height);
      pixel[1] = (unsigned char)(80 + 120 * y / picture->height);
      pixel[2] = 220;
    }
}

static void draw_sun(struct picture* picture, int centre_x, int centre_y, int radius) {
  for (int y = 0; y < picture->height; ++y)
    for (int x = 0; x < picture->width; ++x) {
      const int dx = x - centre_x, dy = y - centre_y;
      if (dx * dx + dy * dy > radius * radius) continue;
      memcpy(picture->pixels + (y * picture->width + x) * COLOURS, "\xff\xd0\x30", COLOURS);
    }
}

static int draw(struct picture* picture) {
  picture->width = picture->height = DRAWN_SIZE;
  picture->pixels = malloc(DRAWN_SIZE * DRAWN_SIZE * COLOURS);
  if (picture->pixels == NULL) return complain("drawing", strerror(errno));
  draw_sky(picture);
  draw_sun(picture, DRAWN_SIZE / 3, DRAWN_SIZE / 3, DRAWN_SIZE / 6);
  return 1;
}

static int draw_into(const char* path) {
  struct picture picture = {0};
  if (!draw(&picture)) return 0;
  const int written = stbi_write_png(path, picture.width, picture.height, COLOURS, picture.pixels,
                                     picture.width * COLOURS);
  free(picture.pixels);
  return written ? 1 : complain(path, "cannot be written");
}

/* ---- Thumbnails ---- */

static int load(const char* path, struct picture* picture) {
  int channels = 0;
  picture->pixels = stbi_load(path, &picture->width, &picture->height, &channels, COLOURS);
  return picture->pixels != NULL ? 1 : complain(path, stbi_failure_reason());
}

static int at_least_one(int n) { return n > 0 ? n : 1; }

/* Pictures smaller than that keep their size. */
static int shrink(const struct picture* picture, int longest_side, struct picture* thumbnail) {
  const int longest = picture->width > picture->height ? picture->width : picture->height;
  const int side = longest < longest_side ? longest : longest_side;
  thumbnail->width = at_least_one((int)((long long)picture->width * side / longest));
  thumbnail->height = at_least_one((int)((long long)picture->height * side / longest));
  thumbnail->pixels = malloc((size_t)thumbnail->width * (size_t)thumbnail->height * COLOURS);
  if (thumbnail->pixels == NULL) return complain("shrinking", strerror(errno));
  if (stbir_resize_uint8(picture->pixels, picture->width, picture->height, 0, thumbnail->pixels,
                         thumbnail->width, thumbnail->height, 0, COLOURS))
    return 1;
  free(thumbnail->pixels);
  return complain("shrinking", "failed");
}

/* "pictures/cat.png" gives "cat". */
static void stem_of(const char* path, char* stem, size_t size) {
  const char* const slash = strrchr(path, '/');
  snprintf(stem, size, "%s", slash != NULL ? slash + 1 : path);
  char* const dot = strrchr(stem, '.');
  if (dot != NULL && dot != stem) *dot = '\0';
}

static int save(const char* directory, const char* source, const struct picture* thumbnail) {
  char stem[PATH_SIZE / 2], path[PATH_SIZE];
  stem_of(source, stem, sizeof stem);
  const int length = snprintf(path, sizeof path, "%s/%s-%dx%d.jpg", directory, stem,
                              thumbnail->width, thumbnail->height);
  if (length >= (int)sizeof path) return complain(directory, "too long a name");
  if (!stbi_write_jpg(path, thumbnail->width, thumbnail->height, COLOURS, thumbnail->pixels,
                      JPEG_QUALITY))
    return complain(path, "cannot be written");
  printf("%s\n", path);
  return 1;
}

static int make_thumbnail(const char* directory, const char* source, const struct picture* picture,
                          int longest_side) {
  struct picture thumbnail = {0};
  if (!shrink(picture, longest_side, &thumbnail)) return 0;
  const int saved = save(directory, source, &thumbnail);
  free(thumbnail.pixels);
  return saved;
}

static int make_thumbnails(const char* directory, const char* source) {
  struct picture picture = {0};
  if (!load(source, &picture)) return 0;
  int made = 1;
  for (size_t i = 0; i < sizeof longest_sides / sizeof *longest_sides; ++i)
    made = make_thumbnail(directory, source, &picture, longest_sides[i]) && made;
  stbi_image_free(picture.pixels);
  return made;
}

static int make_thumbnails_of_drawing(const char* directory) {
  char path[PATH_SIZE];
  if (snprintf(path, sizeof path, "%s/drawing.png", directory) >= (int)sizeof path)
    return complain(directory, "too long a name");
  return draw_into(path) && make_thumbnails(directory, path);
}

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: thumbnail DIRECTORY [PICTURE...]\n");
    return 2;
  }
  if (argc == 2) return make_thumbnails_of_drawing(argv[1]) ? 0 : 1;
  int made = 1;
  for (int i = 2; i < argc; ++i) made = make_thumbnails(argv[1], argv[i]) && made;
  return made ? 0 : 1;
}
