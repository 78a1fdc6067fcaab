/* first_recording.c - writes a file through the installed library and reads it back.
 * usage: first_recording PATH */
#include <gst-plexa/gst_plexa.h>
#include <stdio.h>
#include <string.h>

static int fail(const char *what) {
  fprintf(stderr, "first_recording: %s\n", what);
  return 1;
}

int main(int argc, char **argv) {
  static const char text[] = "one line of a recording";
  char answer[sizeof text] = "";
  GstPvrFile file;

  if (argc != 2) return fail("usage: first_recording PATH");
  gst_pvr_file_init(&file);

  if (gst_pvr_file_open(&file, argv[1], GST_PVR_FILE_WRITE, GST_PVR_FILE_BUFFER_IO,
                        GST_PVR_FILE_NORMAL, GST_PVR_FILE_STREAM, 0, 0) < 0)
    return fail("cannot open for writing");
  if (gst_pvr_file_write(&file, text, sizeof text) != (gint64)sizeof text)
    return fail("cannot write");
  if (gst_pvr_file_close(&file) < 0) return fail("cannot close the written file");

  if (gst_pvr_file_open(&file, argv[1], GST_PVR_FILE_READ, GST_PVR_FILE_BUFFER_IO,
                        GST_PVR_FILE_NORMAL, GST_PVR_FILE_STREAM, 0, 0) < 0)
    return fail("cannot open for reading");
  if (gst_pvr_file_read(&file, answer, sizeof answer) != (gint64)sizeof answer)
    return fail("cannot read");
  if (gst_pvr_file_close(&file) < 0) return fail("cannot close the read file");
  gst_pvr_file_deinit(&file);

  if (memcmp(answer, text, sizeof text) != 0) return fail("read something else than was written");
  puts("written and read back");
  return 0;
}
