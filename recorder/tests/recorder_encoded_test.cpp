// Streams that real encoders made, held against what GStreamer's own parsers find in them.
#include <gmock/gmock.h>
#include <gst/gst.h>

#include <cstdlib>

#include "recording_fixture.h"
#include "session.h"

namespace plexa_test {
namespace {

struct Encoding {
  const char *name;
  const char *encoder;
  const char *parser;
  const char *caps = "";
};

void PrintTo(const Encoding &encoding, std::ostream *out) { *out << encoding.name; }

class EncodedTest : public RecordingTest, public ::testing::WithParamInterface<Encoding> {
 protected:
  EncodedTest() { plexa::rec::prepare_gstreamer(); }

  // Runs a pipeline to its end.
  static void run(GstElement *pipeline) {
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus *const bus = gst_element_get_bus(pipeline);
    GstMessage *const message = gst_bus_timed_pop_filtered(
        bus, 120 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    ASSERT_NE(message, nullptr) << "the pipeline hangs";
    EXPECT_EQ(GST_MESSAGE_TYPE(message), GST_MESSAGE_EOS);
    gst_message_unref(message);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
  }

  static GstElement *pipeline_of(const std::string &description) {
    GError *error = nullptr;
    GstElement *const pipeline = gst_parse_launch(description.c_str(), &error);
    EXPECT_EQ(error, nullptr) << error->message;
    return pipeline;
  }

  // In a process of its own: encoders are not what is tested.
  void encode() {
    const std::string command =
        std::string(
            "gst-launch-1.0 -q videotestsrc num-buffers=100 pattern=ball ! "
            "video/x-raw,width=320,height=192,framerate=25/1") +
        GetParam().caps + " ! videoconvert ! " + GetParam().encoder + " ! " + GetParam().parser +
        " ! mux. audiotestsrc num-buffers=170 ! avenc_mp2 ! mux. mpegtsmux name=mux ! " +
        "filesink location='" + input() + "'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
  }

  // PTS in milliseconds from the first one of all pictures that GStreamer calls key pictures.
  std::vector<int> key_times() {
    GstElement *const pipeline =
        pipeline_of("filesrc location=" + input() + " ! tsdemux ! " + GetParam().parser +
                    " ! fakesink name=sink signal-handoffs=true sync=false");
    std::vector<GstClockTime> stamps;
    GstElement *const sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    const auto take = +[](GstElement *, GstBuffer *buffer, GstPad *, gpointer out) {
      if (!GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT)) {
        static_cast<std::vector<GstClockTime> *>(out)->push_back(GST_BUFFER_PTS(buffer));
      }
    };
    g_signal_connect(sink, "handoff", G_CALLBACK(take), &stamps);
    gst_object_unref(sink);
    run(pipeline);
    std::vector<int> out;
    for (const GstClockTime stamp : stamps) {
      out.push_back(static_cast<int>((stamp - stamps.front() + 500000) / GST_MSECOND));
    }
    return out;
  }
};

INSTANTIATE_TEST_SUITE_P(
    Encoders, EncodedTest,
    ::testing::Values(
        Encoding{"H264Progressive", "x264enc key-int-max=15 speed-preset=ultrafast bframes=2",
                 "h264parse"},
        Encoding{"H264Interlaced", "x264enc key-int-max=15 speed-preset=ultrafast interlaced=true",
                 "h264parse", ",interlace-mode=interleaved"},
        Encoding{"H264OpenGop",
                 "x264enc key-int-max=15 speed-preset=veryfast bframes=3 option-string=open-gop=1",
                 "h264parse"},
        Encoding{"H264Slices",
                 "x264enc key-int-max=15 speed-preset=ultrafast option-string=slices=4",
                 "h264parse"},
        Encoding{"Mpeg2", "mpeg2enc format=3 bitrate=1500", "mpegvideoparse"},
        Encoding{"H265",
                 "x265enc key-int-max=15 speed-preset=ultrafast option-string=repeat-headers=1",
                 "h265parse"}),
    [](const auto &encoding) { return encoding.param.name; });

TEST_P(EncodedTest, EveryKeyPictureIsAGopAtItsTime) {
  ASSERT_NO_FATAL_FAILURE(encode());
  const std::vector<int> expected = key_times();
  ASSERT_GT(expected.size(), 4u);
  const OpenFile in(input());
  const Outcome outcome = plexa::rec::record(in.fd(), stream(), {});
  ASSERT_TRUE(outcome.ok) << outcome.error;
  std::vector<int> found;
  for (const pvr_gop_info_s &gop : index_file().gops)
    found.push_back(static_cast<int>(gop.time_code));
  ASSERT_EQ(found.size(), expected.size());
  for (size_t i = 0; i < found.size(); ++i) EXPECT_NEAR(found[i], expected[i], 1) << i;
  EXPECT_EQ(index_file().gops[0].exist_seq_header, 1);
  EXPECT_EQ(outcome.summary.duration_ms, 4000u);
  EXPECT_EQ(outcome.summary.continuity_errors, 0u);
  EXPECT_EQ(outcome.summary.discontinuities, 0u);
  EXPECT_TRUE(is_usable(stream()));
  EXPECT_TRUE(lookups_find_every_gop(stream()));
}

TEST_P(EncodedTest, TheIndexMadeAnewIsTheSame) {
  ASSERT_NO_FATAL_FAILURE(encode());
  const OpenFile in(input());
  ASSERT_TRUE(plexa::rec::record(in.fd(), stream(), {}).ok);
  const Bytes made = read_file(index());
  ASSERT_TRUE(plexa::rec::rebuild_index(stream(), {}).ok);
  EXPECT_EQ(read_file(index()), made);
}

}  // namespace
}  // namespace plexa_test
