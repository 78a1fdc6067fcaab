// plexa-pvr thumbnail and plexa-pvr report: the pictures show the times that were asked for.
//
// The input is a film of grey frames, each a shade lighter than the one before, so that the colour
// in the middle of a picture tells which frame it is.
#include <cairo.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "plexa_pvr_support.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr int kNoiseLines = 16;  // at the bottom, so that all I-frames have about the same size
constexpr int kFrames = 150;     // at 25 a second: six seconds
constexpr int kFramesInGop = 12;
constexpr int kShade = 5;  // what encoding may change in a colour; GOPs are 14 apart

void write_film(const std::string &path) {
  std::vector<uint8_t> film;
  uint32_t noise = 1;
  for (int frame = 0; frame < kFrames; ++frame) {
    film.insert(film.end(), kWidth * (kHeight - kNoiseLines), static_cast<uint8_t>(16 + frame));
    for (int i = 0; i < kWidth * kNoiseLines; ++i) {
      noise = noise * 1103515245u + 12345u;
      film.push_back(static_cast<uint8_t>(noise >> 24));
    }
    film.insert(film.end(), kWidth * kHeight / 2, 128);
  }
  write_file(path, film);
}

// The grey of the I-frame at or before a time, as RGB.
int grey_at(int milliseconds) {
  const int frame = milliseconds / 40 / kFramesInGop * kFramesInGop;
  return frame * 255 / 219;
}

class Png {
 public:
  explicit Png(const std::string &path)
      : surface_(cairo_image_surface_create_from_png(path.c_str()), cairo_surface_destroy) {}
  bool ok() const { return cairo_surface_status(surface_.get()) == CAIRO_STATUS_SUCCESS; }
  int width() const { return cairo_image_surface_get_width(surface_.get()); }
  int height() const { return cairo_image_surface_get_height(surface_.get()); }
  // The green of a pixel.
  int green(int x, int y) const {
    return cairo_image_surface_get_data(
        surface_.get())[y * cairo_image_surface_get_stride(surface_.get()) + x * 4 + 1];
  }

 private:
  std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)> surface_;
};

class PlexaPvrPicturesTest : public ::testing::Test {
 protected:
  // Encoder: the elements that make H.264 or MPEG-2 of the grey film.
  RecordingFiles film(const std::vector<std::string> &encoder) {
    write_film(dir_.file("film.yuv"));
    std::vector<std::string> command = {"gst-launch-1.0",
                                        "-q",
                                        "filesrc",
                                        "location=" + dir_.file("film.yuv"),
                                        "!",
                                        "rawvideoparse",
                                        "format=i420",
                                        "width=64",
                                        "height=48",
                                        "framerate=25/1",
                                        "!"};
    command.insert(command.end(), encoder.begin(), encoder.end());
    for (const char *word : {"!", "mpegtsmux", "!", "filesink"}) command.emplace_back(word);
    command.push_back("location=" + dir_.file("film.ts"));
    const auto encoding = plexa_test::run(command);
    EXPECT_EQ(encoding.exit_code, 0) << encoding.err;
    return record(dir_.file("film.ts"), dir_.file("film.kvf"));
  }

  RecordingFiles h264_film() {
    return film({"x264enc", "key-int-max=12", "speed-preset=ultrafast", "option-string=scenecut=0",
                 "!", "h264parse"});
  }

  RecordingFiles mpeg2_film() {
    return film({"mpeg2enc", "format=3", "bitrate=2000", "b-per-refframe=2", "min-gop-size=12",
                 "max-gop-size=12", "sequence-header-every-gop=true", "!", "mpegvideoparse"});
  }

  void expect_sheet_of_right_times(const std::string &path) {
    const Png sheet(path);
    ASSERT_TRUE(sheet.ok());
    const int picture = (sheet.width() - 12) / 5;  // with the margin behind it
    for (int i = 0; i < 5; ++i) {
      const int time = i * 6000 / 5 / 1000 * 1000;
      EXPECT_NEAR(sheet.green(12 + i * picture + picture / 2, 28 + 72), grey_at(time), kShade)
          << "picture " << i;
    }
  }

  TempDir dir_;
};

TEST_F(PlexaPvrPicturesTest, TheSheetShowsTheTimesOfAnH264Recording) {
  const RecordingFiles recording = h264_film();
  const auto run = pvr({"thumbnail", recording.stream, "--sheet", dir_.file("sheet.png")});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.err, IsEmpty());
  expect_sheet_of_right_times(dir_.file("sheet.png"));
}

// Groups of pictures of MPEG-2 differ a little in length, so the index is asked where they begin.
TEST_F(PlexaPvrPicturesTest, TheStripShowsTheIFramesOfAnMpeg2Recording) {
  const RecordingFiles recording = mpeg2_film();
  const auto run =
      pvr({"thumbnail", recording.stream, "--every", "1", "--dir", dir_.file("strip"), "--png"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  for (int second = 0; second < 6; ++second) {
    const JsonText seek(
        pvr({"seek", recording.stream, "--time", std::to_string(second), "--json"}).out);
    const auto frame = static_cast<int>(seek.number("frame.time_ms") / 40);
    const Png picture(dir_.file("strip/00-00-0" + std::to_string(second) + ".png"));
    ASSERT_TRUE(picture.ok()) << second;
    EXPECT_NEAR(picture.green(picture.width() / 2, picture.height() / 3), frame * 255 / 219, kShade)
        << second;
  }
}

TEST_F(PlexaPvrPicturesTest, TheThumbnailFileHoldsWhatItsSizesSay) {
  const RecordingFiles recording = h264_film();
  const auto run = pvr({"thumbnail", recording.stream, "--json"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  const JsonText json(run.out);
  EXPECT_EQ(json.text("thumbnails"), dir_.file("film.thm"));
  EXPECT_THAT(json.numbers("pictures", "time_ms"),
              ::testing::ElementsAre(0, 1000, 2000, 3000, 4000));
  int64_t sum = 0;
  for (const int64_t size : json.numbers("pictures", "size")) {
    EXPECT_GT(size, 0);
    sum += size;
  }
  EXPECT_EQ(size_of(dir_.file("film.thm")), sum);
  struct stat thm {};
  struct stat tm {};
  ASSERT_EQ(stat(dir_.file("film.thm").c_str(), &thm), 0);
  ASSERT_EQ(stat(dir_.file("film.tm").c_str(), &tm), 0);
  EXPECT_EQ(thm.st_ino, tm.st_ino) << "the completion mark is a second name of the file";
}

TEST_F(PlexaPvrPicturesTest, AStripIsMadeWhileTheRecordingRuns) {
  h264_film();
  const std::vector<uint8_t> packets = read_file(dir_.file("film.ts"));
  RunningPvr recorder({"record", "-", dir_.file("live.kvf")});
  recorder.feed(packets, 0, packets.size() / 188 * 2 / 3 * 188);
  for (int i = 0;
       i < 500 && (!exists(dir_.file("live.mdb")) || gop_records(dir_.file("live.mdb")).size() < 5);
       ++i) {
    recorder.errors(20);
  }
  const auto strip = pvr({"thumbnail", dir_.file("live.kvf"), "--every", "500ms", "--dir",
                          dir_.file("strip"), "--json"});
  EXPECT_EQ(strip.exit_code, 0) << strip.err;
  EXPECT_GE(JsonText(strip.out).number("pictures"), 4);
  EXPECT_TRUE(exists(dir_.file("strip/00-00-01.500.jpg")));
  recorder.feed(packets, packets.size() / 188 * 2 / 3 * 188, packets.size());
  recorder.close_input();
  EXPECT_EQ(recorder.finish().exit_code, 0);
}

TEST_F(PlexaPvrPicturesTest, AnExistingSheetIsKeptUnlessToldOtherwise) {
  const RecordingFiles recording = h264_film();
  write_file(dir_.file("sheet.png"), {1, 2, 3});
  const std::vector<std::string> command = {"thumbnail", recording.stream, "--sheet",
                                            dir_.file("sheet.png")};
  const auto refused = pvr(command);
  EXPECT_EQ(refused.exit_code, 1);
  EXPECT_TRUE(complains_once(refused, "exists already")) << refused.err;
  EXPECT_EQ(size_of(dir_.file("sheet.png")), 3);
  EXPECT_FALSE(exists(dir_.file("film.thm"))) << "refused before any work";
  std::vector<std::string> again = command;
  again.emplace_back("--overwrite");
  EXPECT_EQ(pvr(again).exit_code, 0);
  EXPECT_TRUE(Png(dir_.file("sheet.png")).ok());
}

TEST_F(PlexaPvrPicturesTest, TheRecordingItselfIsNeverReplaced) {
  const RecordingFiles recording = h264_film();
  ASSERT_EQ(pvr({"thumbnail", recording.stream}).exit_code, 0);
  for (const std::string &own :
       {recording.stream, recording.index, dir_.file("film.thm"), dir_.file("film.tm")}) {
    const auto before = read_file(own);
    for (const std::vector<std::string> &command :
         {std::vector<std::string>{"thumbnail", recording.stream, "--sheet", own, "--overwrite"},
          std::vector<std::string>{"report", recording.stream, own, "--overwrite"}}) {
      const auto run = pvr(command);
      EXPECT_EQ(run.exit_code, 1) << own;
      EXPECT_TRUE(complains_once(run, "a file of the recording itself")) << run.err;
      EXPECT_EQ(read_file(own), before) << own;
    }
  }
}

TEST_F(PlexaPvrPicturesTest, ACodecWithoutADecoderIsNamed) {
  const RecordingFiles recording = h264_film();
  poke(recording.index, 4088 + 176, {3});
  const auto run = pvr({"thumbnail", recording.stream, "--sheet", dir_.file("sheet.png")});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_TRUE(complains_once(run, "codec AVS cannot be decoded")) << run.err;
  EXPECT_FALSE(exists(dir_.file("sheet.png")));
}

TEST_F(PlexaPvrPicturesTest, APictureThatIsDamagedFailsWithOneLine) {
  const RecordingFiles recording = h264_film();
  for (const pvr_gop_info_s &gop : gop_records(recording.index)) {
    poke(recording.stream, static_cast<int64_t>(gop.packet_count) * 188 + 30,
         std::vector<uint8_t>(150, 0xff));
  }
  const auto run = pvr({"thumbnail", recording.stream, "--sheet", dir_.file("sheet.png")});
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_TRUE(complains_once(run, "")) << run.err;
  EXPECT_FALSE(exists(dir_.file("sheet.png")));
}

TEST_F(PlexaPvrPicturesTest, CtrlCLeavesNothingUnfinishedWheneverItComes) {
  const RecordingFiles recording = h264_film();
  const std::vector<std::vector<std::string>> commands = {
      {"report", recording.stream, dir_.file("film.html"), "--overwrite"},
      {"thumbnail", recording.stream, "--sheet", dir_.file("sheet.png"), "--overwrite"}};
  for (const auto &command : commands) {
    for (const int milliseconds : {20, 40, 60, 80, 100, 140}) {
      RunningPvr child(command);
      child.errors(milliseconds);
      child.interrupt();
      child.finish();
    }
  }
  for (const auto &entry : std::filesystem::directory_iterator(dir_.path())) {
    EXPECT_THAT(entry.path().filename().string(), Not(HasSubstr(".plexa-pvr-")));
  }
}

TEST_F(PlexaPvrPicturesTest, AFolderThatTakesNoThumbnailsIsTold) {
  const RecordingFiles recording = h264_film();
  ::chmod(dir_.path().c_str(), 0555);
  const auto run = pvr({"thumbnail", recording.stream}, {.obey_permissions = true});
  ::chmod(dir_.path().c_str(), 0755);
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_TRUE(complains_once(run, "film.thm: the thumbnails could not be made: Permission denied"))
      << run.err;
}

TEST_F(PlexaPvrPicturesTest, ADamagedPictureDoesNotTakeTheOthersWithIt) {
  const RecordingFiles recording = h264_film();
  const auto gops = gop_records(recording.index);
  poke(recording.stream, static_cast<int64_t>(gops[0].packet_count) * 188 + 30,
       std::vector<uint8_t>(150, 0xff));
  const auto sheet = pvr({"thumbnail", recording.stream, "--sheet", dir_.file("sheet.png")});
  EXPECT_EQ(sheet.exit_code, 1);
  EXPECT_TRUE(complains_once(sheet, "1 of 5 pictures are missing: ")) << sheet.err;
  EXPECT_TRUE(Png(dir_.file("sheet.png")).ok());
  const auto strip =
      pvr({"thumbnail", recording.stream, "--every", "2", "--dir", dir_.file("strip"), "--json"});
  EXPECT_EQ(strip.exit_code, 1);
  EXPECT_TRUE(complains_once(strip, "1 of 3 pictures are missing: ")) << strip.err;
  EXPECT_EQ(JsonText(strip.out).number("pictures"), 2);
  EXPECT_EQ(JsonText(strip.out).number("missing"), 1);
  EXPECT_TRUE(exists(dir_.file("strip/00-00-02.jpg")));
  EXPECT_FALSE(exists(dir_.file("strip/00-00-00.jpg")));
  const auto report = pvr({"report", recording.stream, dir_.file("film.html")});
  EXPECT_EQ(report.exit_code, 1);
  EXPECT_TRUE(complains_once(report, "1 of 5 pictures are missing: ")) << report.err;
  EXPECT_TRUE(exists(dir_.file("film.html")));
}

TEST_F(PlexaPvrPicturesTest, OptionsThatMakeNoSenseTogetherAreUsageErrors) {
  const RecordingFiles recording = h264_film();
  for (const std::vector<std::string> &options :
       std::vector<std::vector<std::string>>{{"--every", "1"},
                                             {"--dir", "d"},
                                             {"--every", "1", "--dir", "d", "--sheet", "s.png"},
                                             {"--png"},
                                             {"--every", "0", "--dir", "d"}}) {
    std::vector<std::string> command = {"thumbnail", recording.stream};
    command.insert(command.end(), options.begin(), options.end());
    RunOptions in_folder;
    in_folder.folder = dir_.path();
    EXPECT_EQ(pvr(command, in_folder).exit_code, 2) << options[0];
    EXPECT_FALSE(exists(dir_.file("d")));
  }
}

TEST_F(PlexaPvrPicturesTest, TheReportIsOnePageThatNeedsNothingElse) {
  const RecordingFiles recording = h264_film();
  const auto run = pvr({"report", recording.stream, dir_.file("film.html")});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  EXPECT_THAT(run.out, IsEmpty());
  const std::vector<uint8_t> bytes = read_file(dir_.file("film.html"));
  const std::string html(bytes.begin(), bytes.end());
  EXPECT_THAT(
      html,
      HasSubstr("<img alt=\"Five pictures of the recording\" src=\"data:image/png;base64,iVBOR"));
  EXPECT_THAT(html, HasSubstr("aria-label=\"Bit rate\""));
  EXPECT_THAT(html, HasSubstr("aria-label=\"GOP length\""));
  EXPECT_THAT(html, HasSubstr("<tr><th>Duration</th><td>00:00:06.000</td></tr>"));
  EXPECT_THAT(html, HasSubstr("<td>H.264</td>"));
  EXPECT_THAT(html, Not(HasSubstr("http")));
  EXPECT_EQ(pvr({"report", recording.stream, dir_.file("film.html")}).exit_code, 1);
  EXPECT_EQ(pvr({"report", recording.stream, dir_.file("film.html"), "--overwrite"}).exit_code, 0);
}

TEST_F(PlexaPvrPicturesTest, TheReportIsSafeAgainstTheRecordingsName) {
  h264_film();
  const RecordingFiles recording = record(dir_.file("film.ts"), dir_.file("a<b>&c.kvf"));
  ASSERT_EQ(pvr({"report", recording.stream, dir_.file("page.html")}).exit_code, 0);
  const std::vector<uint8_t> bytes = read_file(dir_.file("page.html"));
  const std::string html(bytes.begin(), bytes.end());
  EXPECT_THAT(html, HasSubstr("a&lt;b&gt;&amp;c.kvf"));
  EXPECT_THAT(html, Not(HasSubstr("a<b>")));
}

}  // namespace
}  // namespace plexa_test
