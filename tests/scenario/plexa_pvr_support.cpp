// plexa_pvr_support.cpp - see plexa_pvr_support.h.
#include "plexa_pvr_support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

// Behind the system's own headers, which use the same names.
#include <linux/capability.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <thread>

#include "temp_dir.h"

namespace plexa_test {
namespace {

constexpr char kProgram[] = PLEXA_PVR_PROGRAM;
constexpr char kStreamFolder[] = PLEXA_TEST_STREAM_FOLDER;

[[noreturn]] void fail(const std::string &what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

struct Pipe {
  Pipe() {
    int both[2];
    if (::pipe2(both, O_CLOEXEC) != 0) fail("pipe");
    read = both[0];
    write = both[1];
  }
  int read;
  int write;
};

std::string read_all(int descriptor) {
  std::string all;
  char block[65536];
  for (;;) {
    const ssize_t got = ::read(descriptor, block, sizeof block);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    all.append(block, static_cast<size_t>(got));
  }
  ::close(descriptor);
  return all;
}

void write_all(int descriptor, const char *data, size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(descriptor, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return;  // the reader has gone
    data += written;
    size -= static_cast<size_t>(written);
  }
}

std::vector<char *> pointers(const std::vector<std::string> &texts) {
  std::vector<char *> out;
  for (const std::string &text : texts) out.push_back(const_cast<char *>(text.c_str()));
  out.push_back(nullptr);
  return out;
}

// Root passes every permission; without these two capabilities it obeys them like everyone.
void give_up_overriding_permissions() {
  ::prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0);
  ::prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0);
}

// Of a build with sanitizers: whole call stacks, so that what GLib keeps on purpose can be told
// from what the program leaks, and an exit code that no command has.
void set_sanitizer_options() {
  ::setenv("ASAN_OPTIONS", "fast_unwind_on_malloc=0:exitcode=99", 1);
  ::setenv("UBSAN_OPTIONS", "print_stacktrace=1:exitcode=99", 1);
  ::setenv("LSAN_OPTIONS", "print_suppressions=0:suppressions=" PLEXA_LEAK_SUPPRESSIONS, 1);
}

// In the child, before it becomes the program.
void prepare_child(const RunOptions &options) {
  set_sanitizer_options();
  std::signal(SIGPIPE, SIG_DFL);
  if (!options.folder.empty() && ::chdir(options.folder.c_str()) != 0) ::_exit(126);
  if (options.file_limit >= 0) {
    const rlimit limit{static_cast<rlim_t>(options.file_limit),
                       static_cast<rlim_t>(options.file_limit)};
    ::setrlimit(RLIMIT_FSIZE, &limit);
  }
  if (options.obey_permissions) give_up_overriding_permissions();
  for (const std::string &variable : options.environment) {
    ::putenv(const_cast<char *>(variable.c_str()));
  }
}

pid_t start(const std::vector<std::string> &command, const RunOptions &options, int in, int out,
            int err) {
  const std::vector<char *> arguments = pointers(command);
  std::signal(SIGPIPE, SIG_IGN);  // a child may end before it has read all its input
  const pid_t child = ::fork();
  if (child < 0) fail("fork");
  if (child > 0) return child;
  ::dup2(in, STDIN_FILENO);
  ::dup2(out, STDOUT_FILENO);
  ::dup2(err, STDERR_FILENO);
  prepare_child(options);
  ::execvp(arguments[0], arguments.data());
  ::_exit(127);
}

void wait_for(pid_t child, Ended &result) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
}

std::vector<std::string> pvr_command(const std::vector<std::string> &arguments) {
  std::vector<std::string> command{kProgram};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

// Encodes with gst-launch-1.0 unless an earlier run has left the stream; the name tells the
// command.
std::string encoded(const std::string &name, const std::string &pipeline) {
  std::filesystem::create_directories(kStreamFolder);
  const std::string path = std::string(kStreamFolder) + "/" + name + "-" +
                           std::to_string(std::hash<std::string>{}(pipeline)) + ".ts";
  if (std::filesystem::exists(path)) return path;
  const std::string unfinished = path + "." + std::to_string(::getpid());
  const Ended made = run({"sh", "-c",
                          "timeout 120 gst-launch-1.0 -q " + pipeline + " ! filesink location=\"" +
                              unfinished + "\""});
  if (made.exit_code != 0) throw std::runtime_error("encoding " + name + " failed: " + made.err);
  std::filesystem::rename(unfinished, path);
  return path;
}

std::fstream open_in_place(const std::string &path) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  if (!file) fail(path);
  return file;
}

constexpr std::streamoff kGopTable = GST_INDEX_BASE_TABLE_SIZE + GST_INDEX_CHANNEL_SLOTS * 232;

}  // namespace

Ended run(const std::vector<std::string> &command, const RunOptions &options) {
  const Pipe in;
  const Pipe out;
  const Pipe err;
  int target = out.write;
  if (!options.output.empty()) target = ::open(options.output.c_str(), O_WRONLY | O_CLOEXEC);
  if (target < 0) fail(options.output);
  const pid_t child = start(command, options, in.read, target, err.write);
  for (const int descriptor : {in.read, out.write, err.write}) ::close(descriptor);
  if (target != out.write) ::close(target);

  Ended result;
  std::thread feeder([&] {
    write_all(in.write, options.input.data(), options.input.size());
    ::close(in.write);
  });
  std::thread listener([&] { result.err = read_all(err.read); });
  result.out = read_all(out.read);
  feeder.join();
  listener.join();
  wait_for(child, result);
  return result;
}

Ended pvr(const std::vector<std::string> &arguments, const RunOptions &options) {
  return run(pvr_command(arguments), options);
}

RunningPvr::RunningPvr(const std::vector<std::string> &arguments, bool error_is_terminal) {
  const Pipe in;
  const Pipe out;
  int child_error = -1;
  if (error_is_terminal) {
    const winsize size{24, 100, 0, 0};
    if (::openpty(&error_, &child_error, nullptr, nullptr, &size) != 0) fail("openpty");
    for (const int end : {error_, child_error}) ::fcntl(end, F_SETFD, FD_CLOEXEC);
  } else {
    const Pipe err;
    error_ = err.read;
    child_error = err.write;
  }
  child_ = start(pvr_command(arguments), {}, in.read, out.write, child_error);
  for (const int descriptor : {in.read, out.write, child_error}) ::close(descriptor);
  input_ = in.write;
  output_ = out.read;
}

RunningPvr::~RunningPvr() {
  if (child_ <= 0) return;
  ::kill(child_, SIGKILL);
  finish();
}

void RunningPvr::feed(const std::vector<uint8_t> &data, size_t from, size_t to) {
  write_all(input_, reinterpret_cast<const char *>(data.data()) + from, to - from);
}

void RunningPvr::close_input() {
  if (input_ >= 0) ::close(input_);
  input_ = -1;
}

void RunningPvr::interrupt() const { ::kill(child_, SIGINT); }

const std::string &RunningPvr::errors(int milliseconds) {
  pollfd waiting{error_, POLLIN, 0};
  char block[4096];
  while (::poll(&waiting, 1, milliseconds) > 0) {
    const ssize_t got = ::read(error_, block, sizeof block);
    if (got <= 0) break;
    err_.append(block, static_cast<size_t>(got));
  }
  return err_;
}

Ended RunningPvr::finish(bool with_open_input) {
  if (!with_open_input) close_input();
  Ended result;
  std::thread listener([this] { err_ += read_all(error_); });
  result.out = read_all(output_);
  listener.join();
  result.err = err_;
  wait_for(child_, result);
  child_ = -1;
  close_input();
  return result;
}

bool complains_once(const Ended &run, const std::string &words) {
  const bool one_line = !run.err.empty() && run.err.find('\n') == run.err.size() - 1;
  return one_line && run.err.starts_with("plexa-pvr: ") && run.err.find(words) != std::string::npos;
}

std::string h264_stream() {
  return encoded("h264",
                 "videotestsrc num-buffers=150 "
                 "! video/x-raw,format=I420,width=320,height=240,framerate=25/1 "
                 "! x264enc key-int-max=12 bframes=2 b-adapt=false option-string=scenecut=0 "
                 "! h264parse config-interval=-1 ! mux. "
                 "audiotestsrc num-buffers=260 ! audio/x-raw,rate=44100 ! avenc_mp2 ! mux. "
                 "mpegtsmux name=mux");
}

std::string mpeg2_stream() {
  return encoded("mpeg2",
                 "videotestsrc num-buffers=150 "
                 "! video/x-raw,format=I420,width=320,height=240,framerate=25/1 "
                 "! mpeg2enc format=3 min-gop-size=12 max-gop-size=12 b-per-refframe=2 "
                 "bitrate=1500 ! mpegvideoparse ! mpegtsmux");
}

std::string h265_stream() {
  return encoded("h265",
                 "videotestsrc num-buffers=150 pattern=ball "
                 "! video/x-raw,format=I420,width=320,height=240,framerate=25/1 "
                 "! x265enc key-int-max=12 option-string=scenecut=0 "
                 "! h265parse config-interval=-1 ! mpegtsmux");
}

std::string ten_minutes_stream() {
  return encoded("ten-minutes",
                 "videotestsrc num-buffers=1200 pattern=ball "
                 "! video/x-raw,format=I420,width=160,height=120,framerate=2/1 "
                 "! x264enc key-int-max=10 bitrate=200 speed-preset=ultrafast "
                 "option-string=scenecut=0 ! h264parse config-interval=-1 "
                 "! mpegtsmux bitrate=400000");
}

RecordingFiles record(const std::string &input, const std::string &stream,
                      const std::vector<std::string> &options) {
  std::vector<std::string> arguments{"record", input, stream};
  arguments.insert(arguments.end(), options.begin(), options.end());
  const Ended run = pvr(arguments);
  EXPECT_EQ(run.exit_code, 0) << run.err;
  return {stream, stream.substr(0, stream.rfind('.')) + ".mdb"};
}

std::vector<pvr_gop_info_s> gop_records(const std::string &index) {
  const std::vector<uint8_t> bytes = read_file(index);
  std::vector<pvr_gop_info_s> records((bytes.size() - kGopTable) / sizeof(pvr_gop_info_s));
  std::memcpy(records.data(), bytes.data() + kGopTable, records.size() * sizeof records[0]);
  return records;
}

void write_gop(const std::string &index, size_t number, const pvr_gop_info_s &record) {
  const auto *const bytes = reinterpret_cast<const uint8_t *>(&record);
  poke(index, kGopTable + static_cast<int64_t>(number * sizeof record),
       {bytes, bytes + sizeof record});
}

void change_base(const std::string &index, void (*change)(pvr_base_table_s &)) {
  pvr_base_table_s table{};
  const std::vector<uint8_t> bytes = read_file(index);
  std::memcpy(&table, bytes.data(), sizeof table);
  change(table);
  const auto *const changed = reinterpret_cast<const uint8_t *>(&table);
  poke(index, 0, {changed, changed + sizeof table});
}

void poke(const std::string &path, int64_t at, const std::vector<uint8_t> &bytes) {
  std::fstream file = open_in_place(path);
  file.seekp(at);
  file.write(reinterpret_cast<const char *>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

void append(const std::string &path, const std::vector<uint8_t> &bytes) {
  poke(path, size_of(path), bytes);
}

void truncate_to(const std::string &path, int64_t size) {
  std::filesystem::resize_file(path, static_cast<uintmax_t>(size));
}

void copy_file(const std::string &from, const std::string &to) {
  std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
}

int64_t size_of(const std::string &path) {
  return static_cast<int64_t>(std::filesystem::file_size(path));
}

std::string kilobytes(int64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f kB", static_cast<double>(bytes) / 1000);
  return text;
}

JsonText::JsonText(const std::string &text) : parser_(json_parser_new()) {
  GError *error = nullptr;
  if (!json_parser_load_from_data(parser_.get(), text.data(), static_cast<gssize>(text.size()),
                                  &error)) {
    ADD_FAILURE() << "no JSON: " << error->message << "\n" << text;
    g_error_free(error);
    return;
  }
  root_ = json_parser_get_root(parser_.get());
}

JsonNode *JsonText::find(const std::string &path) const {
  JsonNode *node = root_;
  for (size_t at = 0; node != nullptr && at <= path.size() && !path.empty();) {
    const size_t dot = std::min(path.find('.', at), path.size());
    const std::string name = path.substr(at, dot - at);
    at = dot + 1;
    if (JSON_NODE_HOLDS_OBJECT(node)) {
      node = json_object_get_member(json_node_get_object(node), name.c_str());
    } else if (JSON_NODE_HOLDS_ARRAY(node)) {
      JsonArray *const array = json_node_get_array(node);
      const auto index = static_cast<guint>(std::stoul(name));
      node = index < json_array_get_length(array) ? json_array_get_element(array, index) : nullptr;
    } else {
      node = nullptr;
    }
  }
  if (node == nullptr) ADD_FAILURE() << "the JSON has no " << path;
  return node;
}

int64_t JsonText::number(const std::string &path) const {
  JsonNode *const node = find(path);
  if (node == nullptr || json_node_get_value_type(node) != G_TYPE_INT64) {
    ADD_FAILURE() << path << " is no number";
    return 0;
  }
  return json_node_get_int(node);
}

std::string JsonText::text(const std::string &path) const {
  JsonNode *const node = find(path);
  if (node == nullptr || json_node_get_string(node) == nullptr) {
    ADD_FAILURE() << path << " is no text";
    return "";
  }
  return json_node_get_string(node);
}

bool JsonText::flag(const std::string &path) const {
  JsonNode *const node = find(path);
  if (node == nullptr || json_node_get_value_type(node) != G_TYPE_BOOLEAN) {
    ADD_FAILURE() << path << " is no flag";
    return false;
  }
  return json_node_get_boolean(node) != FALSE;
}

bool JsonText::is_null(const std::string &path) const {
  JsonNode *const node = find(path);
  return node != nullptr && JSON_NODE_HOLDS_NULL(node);
}

size_t JsonText::count(const std::string &path) const {
  JsonNode *const node = find(path);
  if (node == nullptr || !JSON_NODE_HOLDS_ARRAY(node)) return 0;
  return json_array_get_length(json_node_get_array(node));
}

std::vector<int64_t> JsonText::numbers(const std::string &array, const std::string &member) const {
  std::vector<int64_t> out;
  for (size_t i = 0; i < count(array); ++i) {
    out.push_back(number(array + "." + std::to_string(i) + "." + member));
  }
  return out;
}

std::vector<std::string> JsonText::texts(const std::string &array,
                                         const std::string &member) const {
  std::vector<std::string> out;
  for (size_t i = 0; i < count(array); ++i) {
    out.push_back(text(array + "." + std::to_string(i) + "." + member));
  }
  return out;
}

}  // namespace plexa_test
