// gst_pvr_tools.cpp - path helpers, a millisecond tick, and a log of the free space around a
// recording.
//
// Refused with a message: a null path, a path without the character that it is split at. Every
// function may be called from any thread.
#include "gst-plexa/gst_pvr_tools.h"

#include <fcntl.h>
#include <sys/times.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "gst_pvr_tools_internal.h"

#define PLEXA_LOG_AREA "EXT_TOOL"
#include "plexa_log.h"

namespace {

constexpr char kContentFolder[] = "CONTENT";
constexpr size_t kMaxDirectory = 128;
constexpr size_t kMaxLine = 200;
constexpr long kUsualTicksPerSecond = 100;

gchar *_copy(const gchar *text, size_t length) {
  gchar *const copy = static_cast<gchar *>(malloc(length + 1));
  if (copy == nullptr) return nullptr;
  memcpy(copy, text, length);
  copy[length] = '\0';
  return copy;
}

gchar *_join(const gchar *head, const gchar *tail) {
  const size_t head_length = strlen(head);
  const size_t tail_size = strlen(tail) + 1;
  gchar *const joined = static_cast<gchar *>(malloc(head_length + tail_size));
  if (joined == nullptr) return nullptr;
  memcpy(joined, head, head_length);
  memcpy(joined + head_length, tail, tail_size);
  return joined;
}

// Characters that mean nothing but themselves to a shell, wherever they stand in an argument.
constexpr char kPlain[] =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./+,:@%=";

// An ordinary directory goes into the command as it is, any other as one quoted word. One of no
// length leaves "df " alone, which then lists every file system.
FILE *_open_df(const gchar *directory) {
  const bool is_plain = directory[strspn(directory, kPlain)] == '\0';
  g_autofree gchar *word = is_plain ? g_strdup(directory) : g_shell_quote(directory);
  g_autofree gchar *command = g_strdup_printf("df %s", word);
  FILE *const pipe = popen(command, "r");
  // Programs that the process starts meanwhile have no business with the pipe.
  if (pipe != nullptr) fcntl(fileno(pipe), F_SETFD, FD_CLOEXEC);
  return pipe;
}

// One line without its newline; what a longer line has beyond the buffer is dropped.
bool _read_line(FILE *pipe, gchar (&line)[kMaxLine + 1]) {
  if (fgets(line, sizeof line, pipe) == nullptr) return false;
  gchar *const newline = strchr(line, '\n');
  if (newline != nullptr) {
    *newline = '\0';
    return true;
  }
  for (int c = getc(pipe); c != '\n' && c != EOF;) c = getc(pipe);
  return true;
}

}  // namespace

namespace plexa {

guint32 tick_milliseconds(clock_t ticks, long ticks_per_second) noexcept {
  const long per_second = ticks_per_second > 0 ? ticks_per_second : kUsualTicksPerSecond;
  return static_cast<guint32>(ticks) * static_cast<guint32>(1000 / per_second);
}

}  // namespace plexa

gchar *gst_pvr_tool_extract_filepath_no_ext(const gchar *path) {
  if (path == nullptr) {
    PLX_ERROR("[PLG_ERR] path is NULL");
    return nullptr;
  }
  const gchar *const dot = strrchr(path, '.');
  if (dot == nullptr) {
    PLX_ERROR("[PLG_ERR] can not find char of [.]");
    return nullptr;
  }
  return _copy(path, static_cast<size_t>(dot - path));
}

gchar *gst_pvr_tool_change_extension(const gchar *path, const gchar *ext) {
  if (ext == nullptr) return nullptr;
  gchar *const path_no_ext = gst_pvr_tool_extract_filepath_no_ext(path);
  if (path_no_ext == nullptr) return nullptr;
  gchar *const changed = _join(path_no_ext, ext);
  free(path_no_ext);
  if (changed != nullptr) PLX_ERROR("[PLG_ERR] the ext file name [%s]", changed);
  return changed;
}

gchar *gst_pvr_tool_extract_filepath_base(const gchar *path) {
  if (path == nullptr) {
    PLX_ERROR("[PLG_ERR] path is NULL");
    return nullptr;
  }
  PLX_INFO("path = [%s]", path);
  const gchar *const slash = strrchr(path, '/');
  if (slash == nullptr) {
    PLX_ERROR("[PLG_ERR] can not find char of [/]");
    return nullptr;
  }
  return _copy(path, static_cast<size_t>(slash - path));
}

gchar *gst_pvr_tool_extract_filepath_del_base(const gchar *path) {
  if (path == nullptr) {
    PLX_ERROR("[PLG_ERR] [dorvik]path is NULL");
    return nullptr;
  }
  PLX_INFO("[dorvik]path = [%s]", path);
  const gchar *const slash = strrchr(path, '/');
  if (slash == nullptr) {
    PLX_ERROR("[PLG_ERR] can not find char of [/]");
    return nullptr;
  }
  return _copy(slash + 1, strlen(slash + 1));
}

const gchar *gst_pvr_tool_remove_prefix(const gchar *prefix, const gchar *text) {
  if (prefix == nullptr || text == nullptr) return nullptr;
  const gchar *const found = strstr(text, prefix);
  return found == nullptr ? nullptr : found + strlen(prefix);
}

gboolean gst_pvr_tool_is_include_string(const gchar *needle, const gchar *text) {
  return needle != nullptr && text != nullptr && strstr(text, needle) != nullptr;
}

guint32 gst_pvr_tool_tick(void) {
  tms unused;
  return plexa::tick_milliseconds(times(&unused), sysconf(_SC_CLK_TCK));
}

void gst_pvr_tool_check_filesystem_size(const gchar *path) {
  if (path == nullptr) {
    PLX_ERROR("[PLG_ERR] path is NULL");
    return;
  }
  const gchar *const content = strstr(path, kContentFolder);
  if (content == nullptr) {
    PLX_ERROR("[PLG_ERR] can not find dir CONTENT in path. path = [%s]", path);
    return;
  }
  // The character before the name is the slash; a path that begins with the name has none.
  const size_t before = static_cast<size_t>(content - path);
  gchar directory[kMaxDirectory + 1] = {};
  if (before > 0) memcpy(directory, path, std::min(before - 1, kMaxDirectory));

  FILE *const pipe = _open_df(directory);
  if (pipe == nullptr) {
    PLX_ERROR("[PLG_ERR] popen failed. path = [%s]", path);
    return;
  }
  PLX_INFO("recording path=[%s]", path);
  gchar line[kMaxLine + 1];
  for (int i = 0; i < 2 && _read_line(pipe, line); ++i) PLX_INFO("%s", line);
  pclose(pipe);
}
