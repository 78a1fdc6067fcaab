// gst_zeb.cpp - is there a companion box, and of which board type is the television?
//
// The library itself knows no way to find a box, so it reports none. An integrator who has one
// links his own gst_zeb_is_connected() into his program; that is why the one here is weak and only
// ever called through its symbol. Stateless; any thread may call.
#include "gst-plexa/gst_zeb.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "system_info.h"

#define PLEXA_LOG_AREA "EXT_ZEB"
#include "plexa_log.h"

namespace {

struct FreeText {
  void operator()(char *text) const noexcept { std::free(text); }
};
using Text = std::unique_ptr<char, FreeText>;

bool begins_with_year(const Text &text, const char (&year)[5]) {
  return std::strncmp(text.get(), year, 4) == 0;
}

}  // namespace

guint32 gst_zeb_get_board_type(void) {
  char *value = nullptr;
  const int result = system_info_get_value_string(SYSTEM_INFO_KEY_FHD_QRT_TV_YEAR, &value);
  const Text year(value);  // a failure may come with a string; it is freed like any other
  if (result != 0 || year == nullptr) {
    PLX_ERROR(
        "[PLG_ERR] system_info_get_value_string: SYSTEM_INFO_KEY_FHD_QRT_TV_YEAR failed, "
        "ret = [%d]",
        result);
    return ZEB_BOARD_TYPE_NONE;
  }
  PLX_INFO("string = [%s]", year.get());
  if (begins_with_year(year, "2012")) {
    PLX_INFO("ZEB_BOARD_TYPE_TALM");
    return ZEB_BOARD_TYPE_TALM;
  }
  if (begins_with_year(year, "2013")) {
    PLX_INFO("ZEB_BOARD_TYPE_VERN");
    return ZEB_BOARD_TYPE_VERN;
  }
  if (begins_with_year(year, "2014")) {
    PLX_INFO("ZEB_BOARD_TYPE_WISP");
    return ZEB_BOARD_TYPE_WISP;
  }
  PLX_ERROR("[PLG_ERR] ZEB_BOARD_TYPE_NONE");
  return ZEB_BOARD_TYPE_NONE;
}

__attribute__((weak)) gint32 gst_zeb_is_connected(void) { return 0; }

gint32 gst_zeb_is_need_socket(void) {
  if (gst_zeb_is_connected() != 1) return 0;
  const guint32 board = gst_zeb_get_board_type();
  return board == ZEB_BOARD_TYPE_VERN || board == ZEB_BOARD_TYPE_WISP ? 1 : 0;
}
