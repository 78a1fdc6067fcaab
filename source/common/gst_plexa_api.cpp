// gst_plexa_api.cpp - the public thumbnail entry, and the tuner, demultiplexer and
// emergency-warning requests that are passed on to the platform.
//
// Each request opens a platform handle, makes one call, closes the handle and returns the
// platform's result; nothing is refused and nothing is kept. Every function may be called from any
// thread.
#include "gst-plexa/gst_plexa_api.h"

#include "demux_control.h"
#include "gst-plexa/gst_thumbnail_common.h"
#include "tuner_control.h"
#include "tv_system.h"

#define PLEXA_LOG_AREA "EXT_API"
#include "plexa_log.h"

namespace {

// Device, mode and function selectors of the platform.
constexpr int kDemuxDevice = 0;
constexpr int kDemuxMode = 0x802;
constexpr int kTunerDevice = 0x30000;
constexpr int kTunerMode = 0;
constexpr int kTunerStatus = 0x80000;
constexpr int kTunerEwbs = 2;

constexpr int kAntennaUnknown = 255;
constexpr int kSignalUnknown = 2;

class DemuxHandle {
 public:
  DemuxHandle() : handle_(demux_control_CreateHandle(kDemuxDevice, kDemuxMode, &id_)) {}
  ~DemuxHandle() { demux_control_DestroyHandle(handle_, id_); }
  DemuxHandle(const DemuxHandle &) = delete;
  DemuxHandle &operator=(const DemuxHandle &) = delete;

  int set_pwm(guint32 value) { return demux_control_setPWMInfo(handle_, id_, value); }
  int get_pwm(guint32 *value) { return demux_control_getPWMInfo(handle_, id_, value); }
  int get_stc(guint64 *stc) { return demux_control_getSTC(handle_, id_, stc); }

 private:
  int id_ = -1;
  void *handle_;
};

class TunerHandle {
 public:
  explicit TunerHandle(int selector)
      : handle_(tuner_control_CreateHandle(kTunerDevice, kTunerMode, &id_, selector)) {}
  ~TunerHandle() { tuner_control_DestroyHandle(handle_); }
  TunerHandle(const TunerHandle &) = delete;
  TunerHandle &operator=(const TunerHandle &) = delete;

  int get_antenna(int *status) { return tuner_control_getAntennaConnectionStatus(handle_, status); }
  int get_signal(int *status) { return tuner_control_getDigitalSignalStatus(handle_, status); }
  int set_frequency(int frequency) { return tuner_control_setEwbsFrequency(handle_, frequency); }

 private:
  int id_ = -1;
  void *handle_;
};

gint32 _antenna_combination(int raw) {
  return (raw & 0xFF) == kAntennaUnknown ? raw & 0xFF : raw & 0x0F;
}

gint32 _signal_state(int raw) { return raw == 0 || raw == 1 ? raw : kSignalUnknown; }

}  // namespace

gint32 gst_plexa_api_make_thumbnail_file(const gchar *path, guint32 *sizes, gint32 *codes) {
  if (path == nullptr) {
    PLX_ERROR("[PLG_ERR] kvf_file_name is NULL");
    return 0;
  }
  return gst_thumbnail_make_recorded_frame_file(path, sizes, codes);
}

gint32 gst_plexa_api_set_tsd_pwm_reg(guint32 value) {
  const gint32 result = DemuxHandle().set_pwm(value);
  PLX_ERROR("demux_control_setPWMInfo regvalue[%u], ret[%d]", value, result);
  return result;
}

gint32 gst_plexa_api_get_tsd_pwm_reg(guint32 *value) {
  const gint32 result = DemuxHandle().get_pwm(value);
  PLX_ERROR("demux_control_getPWMInfo regvalue[%u], ret[%d]", *value, result);
  return result;
}

gint32 gst_plexa_api_get_tsd_stc(guint64 *stc) { return DemuxHandle().get_stc(stc); }

gint32 gst_plexa_api_get_tuner_Antenna_status(gint32 *combination) {
  int raw = kAntennaUnknown;
  const gint32 result = TunerHandle(kTunerStatus).get_antenna(&raw);
  PLX_ERROR("tuner_control_getAntennaConnectionStatus antenna_status[%d], ret[%d]", raw, result);
  const gint32 value = _antenna_combination(raw);
  PLX_ERROR("combination values [%d]", value);
  *combination = value;
  return result;
}

gint32 gst_plexa_api_get_tuner_signal_status(gint32 *state) {
  int raw = kSignalUnknown;
  const gint32 result = TunerHandle(kTunerStatus).get_signal(&raw);
  PLX_ERROR("tuner_control_getDigitalSignalStatus signal_status[%d], ret[%d]", raw, result);
  *state = _signal_state(raw);
  return result;
}

gint32 gst_plexa_api_set_tuner_ewbs_freq(gint32 frequency) {
  const gint32 result = TunerHandle(kTunerEwbs).set_frequency(frequency);
  PLX_ERROR("tuner_control_setEwbsFrequency freq[%d], ret[%d]", frequency, result);
  return result;
}

gint32 gst_plexa_api_set_EWBS_pm_mode(gint32 mode) { return tv_system_set_EWBS_pm_mode(mode); }
