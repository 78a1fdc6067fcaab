// plexa-box as its clients meet it: what it does for them, and what it survives.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>

#include "box_support.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using namespace plexa;  // the commands
using ::testing::HasSubstr;
using ::testing::IsEmpty;

Bytes joined(Bytes first, const Bytes &second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

class PlexaBoxServerTest : public ::testing::Test {
 protected:
  void start(const BoxOptions &options = {}) {
    box_ = std::make_unique<RunningBox>(dir_.path(), options);
  }
  void SetUp() override { start(); }

  std::string file(const std::string &name) const { return dir_.file(name); }
  RunningBox &box() { return *box_; }

  // The box takes clients and serves them.
  void expect_alive() {
    write_file(file("alive.kvf"), counting_bytes(1000));
    RawClient client(box());
    EXPECT_TRUE(client.open("/alive.kvf", kToRead));
    EXPECT_EQ(client.read(2000), counting_bytes(1000));
  }

  TempDir dir_;

 private:
  std::unique_ptr<RunningBox> box_;
};

// ---- Operations ----

TEST_F(PlexaBoxServerTest, APathBeginsInTheRootWithOrWithoutASlash) {
  write_file(file("film.kvf"), counting_bytes(10));
  for (const char *const path : {"/film.kvf", "film.kvf", "//film.kvf", "/./film.kvf"}) {
    RawClient client(box());
    EXPECT_TRUE(client.open(path, kToRead)) << path;
    EXPECT_EQ(client.read(10), counting_bytes(10)) << path;
  }
}

TEST_F(PlexaBoxServerTest, FoldersAreMadeForWhatIsWrittenAndForNothingElse) {
  RawClient writer(box());
  EXPECT_TRUE(writer.open("/a/b/c/film.kvf", kToWrite));
  EXPECT_TRUE(exists(file("a/b/c/film.kvf")));
  RawClient reader(box());
  EXPECT_FALSE(reader.open("/d/film.kvf", kToRead));
  EXPECT_FALSE(reader.succeeds(rename_request("/a/b/c/film.kvf", "/d/film.kvf")));
  EXPECT_FALSE(exists(file("d")));
}

TEST_F(PlexaBoxServerTest, AnswersCarryTheResult) {
  RawClient client(box());
  ASSERT_TRUE(client.open("/film.kvf", kToWrite));
  EXPECT_EQ(client.ask(write_packet(1000, counting_bytes(1000)))->lld_return, 1000);
  EXPECT_EQ(client.ask(bare_request(COMMAND_TYPE_TELL))->lld_return, 1000);
  EXPECT_EQ(client.ask(bare_request(COMMAND_TYPE_SIZE))->lld_return, 1000);
  EXPECT_EQ(client.ask(seek_request(-10, SEEK_END))->lld_return, 990);
  EXPECT_TRUE(client.succeeds(bare_request(COMMAND_TYPE_FSYNC)));
  EXPECT_TRUE(client.succeeds(bare_request(COMMAND_TYPE_CLOSE)));
}

TEST_F(PlexaBoxServerTest, ThePacketsOfAWriteMayHaveAnySize) {
  const Bytes data = counting_bytes(200000);
  for (const size_t size :
       {size_t{1000}, size_t{32736}, size_t{49152}, size_t{49153}, size_t{199999}}) {
    RawClient client(box());
    ASSERT_TRUE(client.open("/film.kvf", kToWrite));
    for (size_t at = 0; at < data.size(); at += size) {
      const auto end = data.begin() + static_cast<std::ptrdiff_t>(std::min(at + size, data.size()));
      client.send(write_packet(200000, {data.begin() + static_cast<std::ptrdiff_t>(at), end}));
    }
    EXPECT_EQ(client.answer()->lld_return, 200000) << size;
    EXPECT_TRUE(client.succeeds(bare_request(COMMAND_TYPE_CLOSE)));
    EXPECT_EQ(read_file(file("film.kvf")), data) << size;
  }
}

TEST_F(PlexaBoxServerTest, RequestsThatDribbleAreRequests) {
  RawClient client(box());
  const Bytes requests =
      joined(open_request("/film.kvf", kToWrite), write_packet(300, counting_bytes(300)));
  for (const uint8_t byte : requests) client.send({byte});
  EXPECT_EQ(client.answer()->command, COMMAND_TYPE_IO_OK);
  EXPECT_EQ(client.answer()->lld_return, 300);
}

TEST_F(PlexaBoxServerTest, AReadOfNothingHasNoAnswer) {
  write_file(file("film.kvf"), counting_bytes(10));
  RawClient client(box());
  ASSERT_TRUE(client.open("/film.kvf", kToRead));
  client.send(read_request(0));
  EXPECT_EQ(client.ask(bare_request(COMMAND_TYPE_SIZE))->lld_return, 10);
}

TEST_F(PlexaBoxServerTest, AReadAcrossTheEndIsStopped) {
  write_file(file("film.kvf"), counting_bytes(100000));
  RawClient client(box());
  ASSERT_TRUE(client.open("/film.kvf", kToRead));
  EXPECT_EQ(client.read(4000000000), counting_bytes(100000));
  EXPECT_EQ(client.read(1), Bytes());
}

TEST_F(PlexaBoxServerTest, AWriteOfNothingWritesNothing) {
  RawClient client(box());
  ASSERT_TRUE(client.open("/film.kvf", kToWrite));
  const auto answer = client.ask(write_packet(0, {}));
  EXPECT_EQ(answer->command, COMMAND_TYPE_IO_OK);
  EXPECT_EQ(answer->lld_return, 0);
}

TEST_F(PlexaBoxServerTest, OnlyATimeShiftStreamHasAMaximumTime) {
  write_file(file("film.mdb"), Bytes(954360));
  RawClient client(box());
  ASSERT_TRUE(client.open("/film.kvf", {0, 1, 1, 0}));
  EXPECT_EQ(client.ask(max_time_request(360000))->lld_return, 1);
  EXPECT_EQ(client.ask(bare_request(COMMAND_TYPE_GET_MAX_TIME))->lld_return, 300000);
  EXPECT_EQ(client.ask(wrote_time_request(5))->lld_return, 1);
  const auto written = client.ask(write_packet(4096, counting_bytes(4096)));
  EXPECT_EQ(written->fixed_duration, 300000);
  EXPECT_EQ(written->accumulated_time, 0);
  RawClient other(box());
  ASSERT_TRUE(other.open("/normal.kvf", kToWrite));
  const auto set = other.ask(max_time_request(360000));
  EXPECT_EQ(set->command, COMMAND_TYPE_IO_OK);
  EXPECT_EQ(set->lld_return, -1);
}

TEST_F(PlexaBoxServerTest, ASecondTimeShiftRecordingIsRefusedUntilTheFirstIsClosed) {
  RawClient first(box());
  RawClient reader(box());
  RawClient second(box());
  ASSERT_TRUE(first.open("/one.kvf", {0, 1, 1, 0}));
  EXPECT_TRUE(reader.open("/one.kvf", {1, 1, 1, 0}));
  EXPECT_FALSE(second.open("/two.kvf", {0, 1, 1, 0}));
  EXPECT_TRUE(first.succeeds(bare_request(COMMAND_TYPE_CLOSE)));
  EXPECT_FALSE(second.open("/two.kvf", {0, 1, 1, 0}));
  EXPECT_TRUE(reader.succeeds(bare_request(COMMAND_TYPE_CLOSE)));
  EXPECT_TRUE(second.open("/two.kvf", {0, 1, 1, 0}));
}

TEST_F(PlexaBoxServerTest, CutsARangeOutOfAFileAndGivesItANewName) {
  constexpr int64_t kUnit = 192512;
  const Bytes data = counting_bytes(4 * kUnit);
  write_file(file("film.kvf"), data);
  Bytes expected(data.begin(), data.begin() + kUnit);
  expected.insert(expected.end(), data.begin() + 3 * kUnit, data.end());
  RawClient client(box());
  EXPECT_TRUE(client.succeeds(cut_request("/film.kvf", kUnit, 3 * kUnit, "/short.kvf")));
  EXPECT_EQ(read_file(file("short.kvf")), expected);
  EXPECT_FALSE(exists(file("film.kvf")));
  EXPECT_FALSE(client.succeeds(cut_request("/film.kvf", 0, kUnit)));
  EXPECT_FALSE(exists(file("film.kvf")));
  EXPECT_FALSE(client.succeeds(cut_request("/short.kvf", 0, kUnit, "/../out.kvf")));
  EXPECT_EQ(read_file(file("short.kvf")), expected);
}

TEST_F(PlexaBoxServerTest, RemovesAFileThatNobodyHasOpen) {
  write_file(file("film.kvf"), counting_bytes(10));
  RawClient reader(box());
  RawClient client(box());
  ASSERT_TRUE(reader.open("/film.kvf", kToRead));
  EXPECT_FALSE(client.succeeds(remove_request("/film.kvf")));
  ASSERT_TRUE(reader.succeeds(bare_request(COMMAND_TYPE_CLOSE)));
  EXPECT_TRUE(client.succeeds(remove_request("/film.kvf")));
  EXPECT_FALSE(exists(file("film.kvf")));
  EXPECT_FALSE(client.succeeds(remove_request("/film.kvf")));
}

TEST_F(PlexaBoxServerTest, IoctlAndChownAndUnknownCommandsFailAndTheConnectionGoesOn) {
  RawClient client(box());
  for (const int32_t command : {int32_t{COMMAND_TYPE_IOCTL}, int32_t{COMMAND_TYPE_CHOWN}, 0, 9, 26,
                                -1, INT32_MAX, INT32_MIN}) {
    for (const size_t size : {size_t{28}, size_t{29}, size_t{100000}, size_t{1966080}}) {
      const auto answer = client.ask(of_size(command, static_cast<int32_t>(size), size));
      ASSERT_TRUE(answer) << command;
      EXPECT_EQ(answer->command, COMMAND_TYPE_IO_NG);
    }
  }
  EXPECT_TRUE(client.open("/film.kvf", kToWrite));
}

// ---- Requests at the wrong time ----

TEST_F(PlexaBoxServerTest, WithoutAnOpenFileEveryOperationFails) {
  RawClient client(box());
  for (int round = 0; round < 2; ++round) {
    for (const Bytes &request :
         {bare_request(COMMAND_TYPE_CLOSE), read_request(10), write_packet(3, Bytes(3)),
          seek_request(0, 0), bare_request(COMMAND_TYPE_TELL), bare_request(COMMAND_TYPE_SIZE),
          bare_request(COMMAND_TYPE_FSYNC), max_time_request(400000),
          bare_request(COMMAND_TYPE_GET_MAX_TIME), wrote_time_request(1)}) {
      const auto answer = client.ask(request);
      ASSERT_TRUE(answer);
      EXPECT_EQ(answer->command, COMMAND_TYPE_IO_NG);
    }
    client.send(read_request(0));  // has no answer here, either
    // Nor behind a close.
    EXPECT_TRUE(client.open("/film.kvf", kToWrite));
    EXPECT_TRUE(client.succeeds(bare_request(COMMAND_TYPE_CLOSE)));
  }
}

TEST_F(PlexaBoxServerTest, ASecondOpenIsRefusedAndTheFirstFileStaysOpen) {
  write_file(file("film.kvf"), counting_bytes(10));
  write_file(file("other.kvf"), counting_bytes(20));
  RawClient client(box());
  ASSERT_TRUE(client.open("/film.kvf", kToRead));
  EXPECT_FALSE(client.open("/other.kvf", kToRead));
  EXPECT_EQ(client.read(100), counting_bytes(10));
}

TEST_F(PlexaBoxServerTest, AFifthRecordingIsRefused) {
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 4; ++i) {
    clients.push_back(std::make_unique<RawClient>(box()));
    EXPECT_TRUE(clients.back()->open("/film" + std::to_string(i) + ".kvf", kToWrite));
  }
  RawClient fifth(box());
  EXPECT_FALSE(fifth.open("/film4.kvf", kToWrite));
  EXPECT_TRUE(clients[0]->succeeds(bare_request(COMMAND_TYPE_CLOSE)));
  EXPECT_TRUE(fifth.open("/film4.kvf", kToWrite));
}

// The library counts a recording's files together, and a refusal there costs one that is open its
// count: after a few of them it would take the recording for closed.
TEST_F(PlexaBoxServerTest, ARefusedWriterTakesNothingFromThoseThatAreOpen) {
  std::vector<std::unique_ptr<RawClient>> writers;
  for (int i = 0; i < 3; ++i) {
    writers.push_back(std::make_unique<RawClient>(box()));
    EXPECT_TRUE(writers.back()->open("/film.kvf", kToWrite));
  }
  RawClient another(box());
  for (const char *const path : {"/film.kvf", "/film.mdb", "/film.kvf", "/film.mdb"}) {
    EXPECT_FALSE(another.open(path, kToWrite)) << path;
  }
  EXPECT_TRUE(writers[0]->succeeds(bare_request(COMMAND_TYPE_CLOSE)));
  EXPECT_TRUE(another.open("/film.mdb", kToWrite));
  EXPECT_FALSE(writers[0]->open("/film.kvf", kToWrite));
}

// The library's own readers are those of the writers that cut: each looks into the index.
TEST_F(PlexaBoxServerTest, ClientsLeaveReadersToTheLibrary) {
  write_file(file("film.kvf"), counting_bytes(10));
  std::vector<std::unique_ptr<RawClient>> readers;
  for (int i = 0; i < 97; ++i) {
    readers.push_back(std::make_unique<RawClient>(box()));
    EXPECT_TRUE(readers.back()->open("/film.kvf", kToRead)) << i;
  }
  RawClient another(box());
  EXPECT_FALSE(another.open("/film.kvf", kToRead));
  EXPECT_FALSE(another.open("/film.kvf", kToRead));
  EXPECT_TRUE(readers[0]->succeeds(bare_request(COMMAND_TYPE_CLOSE)));
  EXPECT_TRUE(another.open("/film.kvf", kToRead));
}

// ---- What is no request ----

TEST_F(PlexaBoxServerTest, APacketOfAnImpossibleSizeEndsTheConnection) {
  for (const int32_t size : {INT32_MIN, -1, 0, 1, 27, 1966081, INT32_MAX}) {
    RawClient client(box());
    client.send(of_size(COMMAND_TYPE_TELL, size, 28));
    EXPECT_EQ(client.answer()->command, COMMAND_TYPE_IO_NG) << size;
    EXPECT_TRUE(client.is_closed()) << size;
  }
  RawClient client(box());  // also where the command would not look at what follows
  client.send(of_size(COMMAND_TYPE_CHOWN, 1966081, 28));
  EXPECT_EQ(client.answer()->command, COMMAND_TYPE_IO_NG);
  EXPECT_TRUE(client.is_closed());
  expect_alive();
}

TEST_F(PlexaBoxServerTest, ARequestOfAnotherSizeThanItsCommandHasEndsTheConnection) {
  for (const int32_t command : {10, 11, 12, 14, 15, 16, 17, 19, 20, 21, 22, 23, 25}) {
    for (const int32_t size : {29, 33, 546, 561, 1000000}) {
      RawClient client(box());
      const auto answer = client.ask(of_size(command, size, 28));
      if (answer) {
        EXPECT_EQ(answer->command, COMMAND_TYPE_IO_NG) << command;
      }
      EXPECT_TRUE(client.is_closed()) << command << ", " << size;
    }
  }
  expect_alive();
}

TEST_F(PlexaBoxServerTest, PacketsOfAWriteThatDoNotAgreeEndTheConnection) {
  const std::vector<std::vector<Bytes>> calls = {
      {write_packet(10, Bytes(11))},                             // more than announced
      {write_packet(10, Bytes(4)), write_packet(10, Bytes(7))},  // more in the end
      {write_packet(10, Bytes(4)), write_packet(11, Bytes(6))},  // another total
      {write_packet(10, Bytes(4)), bare_request(COMMAND_TYPE_TELL), Bytes(4)},
      {write_packet(10, Bytes(4)), write_packet(10, {})},  // would never end
      {write_packet(10, {})},
      {write_packet(10, Bytes(4)), of_size(COMMAND_TYPE_WRITE, 28, 32)},
  };
  for (size_t i = 0; i < calls.size(); ++i) {
    RawClient client(box());
    ASSERT_TRUE(client.open("/film.kvf", kToWrite));
    for (const Bytes &packet : calls[i]) client.send(packet);
    const auto answer = client.answer();
    if (answer) {
      EXPECT_EQ(answer->command, COMMAND_TYPE_IO_NG) << i;
    }
    EXPECT_TRUE(client.is_closed()) << i;
  }
  expect_alive();
}

TEST_F(PlexaBoxServerTest, AnythingMayComeAndTheBoxGoesOn) {
  uint32_t state = 1;
  for (int round = 0; round < 200; ++round) {
    Bytes noise(200);
    for (uint8_t &byte : noise)
      byte = static_cast<uint8_t>((state = state * 1664525 + 1013904223) >> 24);
    if (round % 2 == 0) {  // what looks like a request
      const Bytes head = of_size(static_cast<int32_t>(10 + state % 16), 200, 28);
      std::copy(head.begin(), head.end(), noise.begin());
    }
    RawClient client(box());
    client.send(noise);
  }
  box().wait_until_idle();
  expect_alive();
}

TEST_F(PlexaBoxServerTest, AWriteWithoutItsTotalEndsTheConnection) {
  for (const size_t size : {size_t{28}, size_t{29}, size_t{31}}) {
    RawClient client(box());
    ASSERT_TRUE(client.open("/film.kvf", kToWrite));
    client.send(joined(of_size(COMMAND_TYPE_WRITE, static_cast<int32_t>(size), size),
                       bare_request(COMMAND_TYPE_TELL)));
    const auto refusal = client.answer();  // unless the closing was quicker
    if (refusal) {
      EXPECT_EQ(refusal->command, COMMAND_TYPE_IO_NG) << size;
    }
    EXPECT_FALSE(client.answer()) << size;
    box().wait_until_idle();
  }
  expect_alive();
}

TEST_F(PlexaBoxServerTest, ADisconnectInTheMiddleOfAnyRequestClosesTheFile) {
  write_file(file("film.kvf"), counting_bytes(100000));
  write_file(file("mine.kvf"), counting_bytes(10));
  const std::vector<Bytes> requests = {open_request("/film.kvf", kToRead),
                                       bare_request(COMMAND_TYPE_CLOSE),
                                       read_request(100000),
                                       write_packet(70000, counting_bytes(32736)),
                                       seek_request(1, 0),
                                       bare_request(COMMAND_TYPE_SIZE),
                                       max_time_request(400000),
                                       wrote_time_request(7),
                                       rename_request("/film.kvf", "/new.kvf"),
                                       remove_request("/film.kvf"),
                                       cut_request("/film.kvf", 0, 192512)};
  for (const Bytes &request : requests) {
    for (const size_t part : {size_t{1}, size_t{27}, size_t{28}, size_t{31}, size_t{33},
                              request.size() / 2, request.size() - 1}) {
      RawClient client(box());
      ASSERT_TRUE(client.open("/mine.kvf", kToWrite));
      client.send({request.begin(), request.begin() + static_cast<std::ptrdiff_t>(
                                                          std::min(part, request.size() - 1))});
      client.hang_up();
      box().wait_until_idle();
    }
  }
  box().wait_until_idle();
  EXPECT_EQ(read_file(file("film.kvf")), counting_bytes(100000));
  expect_alive();
}

TEST_F(PlexaBoxServerTest, AClientThatLeavesItsAnswerUnreadIsLeft) {
  write_file(file("film.kvf"), {});
  std::filesystem::resize_file(file("film.kvf"), 100000000);  // more than sockets hold
  start({.arguments = {"--patience", "1"}});
  RawClient client(box());
  ASSERT_TRUE(client.open("/film.kvf", kToRead));
  client.send(read_request(100000000));
  box().wait_until_idle();  // although the client stays
  expect_alive();
}

TEST_F(PlexaBoxServerTest, AHalfSentRequestIsWaitedForOnlySoLong) {
  start({.arguments = {"--patience", "1"}});
  for (const size_t part : {size_t{1}, size_t{28}, size_t{300}}) {
    const Bytes request = open_request("/film.kvf", kToWrite);
    RawClient client(box());
    client.send({request.begin(), request.begin() + static_cast<std::ptrdiff_t>(part)});
    EXPECT_TRUE(client.is_closed());
  }
  RawClient writer(box());
  ASSERT_TRUE(writer.open("/film.kvf", kToWrite));
  writer.send(write_packet(70000, Bytes(32736)));
  EXPECT_TRUE(writer.is_closed());
}

TEST_F(PlexaBoxServerTest, ASilentClientKeepsItsConnection) {
  start({.arguments = {"--patience", "1"}});
  RawClient client(box());
  ASSERT_TRUE(client.open("/film.kvf", kToWrite));
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_TRUE(client.succeeds(bare_request(COMMAND_TYPE_TELL)));
}

// It would keep the place of one that has something to ask.
TEST_F(PlexaBoxServerTest, ASilentClientWithoutAFileIsLeft) {
  start({.arguments = {"--patience", "1"}});
  RawClient newcomer(box());
  RawClient done(box());
  ASSERT_TRUE(done.open("/film.kvf", kToWrite));
  ASSERT_TRUE(done.succeeds(bare_request(COMMAND_TYPE_CLOSE)));
  EXPECT_TRUE(newcomer.is_closed());
  EXPECT_TRUE(done.is_closed());
}

// ---- The root ----

TEST_F(PlexaBoxServerTest, NoPathLeadsOutOfTheRoot) {
  TempDir outside;
  write_file(outside.file("secret.kvf"), counting_bytes(10));
  write_file(file("film.kvf"), counting_bytes(10));
  std::filesystem::create_directory(file("folder.d"));
  std::filesystem::create_symlink(outside.file("secret.kvf"), file("link.kvf"));
  std::filesystem::create_symlink(outside.path(), file("way"));
  std::filesystem::create_symlink(file("film.kvf"), file("inside.kvf"));
  std::filesystem::create_symlink("folder.d", file("other"));
  std::filesystem::create_symlink(outside.file("new.kvf"), file("dangling.kvf"));
  ASSERT_EQ(::mkfifo(file("pipe.kvf").c_str(), 0600), 0);
  const std::string up = "/../" + outside.path().substr(outside.path().rfind('/') + 1);
  std::vector<std::string> paths = {"",
                                    "/",
                                    ".",
                                    "/.",
                                    "..",
                                    "/..",
                                    "../",
                                    "/folder.d",
                                    "/folder.d/",
                                    "/film.kvf/",
                                    "/film.kvf/x.kvf",
                                    up + "/secret.kvf",
                                    "/folder.d/.." + up + "/secret.kvf",
                                    "/folder.d/../film.kvf",
                                    "/link.kvf",
                                    "/way/secret.kvf",
                                    "/way/new.kvf",
                                    "/inside.kvf",
                                    "/other/film.kvf",
                                    "/dangling.kvf",
                                    "/pipe.kvf",
                                    outside.file("secret.kvf"),
                                    std::string(255, 'x'),
                                    "/" + std::string(254, 'y'),
                                    std::string(256, 'z'),
                                    std::string("/film.kvf\0x", 11)};
  paths.back().resize(256);
  for (const std::string &path : paths) {
    RawClient client(box());
    EXPECT_FALSE(client.open(path, kToRead)) << path;
    if (path != outside.file("secret.kvf")) {
      EXPECT_FALSE(client.open(path, kToWrite)) << path;
    }
    EXPECT_FALSE(client.succeeds(rename_request(path, "/gone.kvf"))) << path;
    EXPECT_FALSE(client.succeeds(remove_request(path.substr(0, 256)))) << path;
    EXPECT_FALSE(client.succeeds(cut_request(path, 0, 192512))) << path;
    if (path != "/film.kvf/x.kvf" && path != outside.file("secret.kvf")) {
      EXPECT_FALSE(client.succeeds(rename_request("/film.kvf", path))) << path;
    }
  }
  EXPECT_EQ(read_file(outside.file("secret.kvf")), counting_bytes(10));
  EXPECT_FALSE(exists(outside.file("new.kvf")));
  EXPECT_FALSE(exists(outside.file("gone.kvf")));
  EXPECT_EQ(read_file(file("film.kvf")), counting_bytes(10));
}

// The library reads it, by a name of its own making.
TEST_F(PlexaBoxServerTest, NorDoesTheIndexOfAStreamThatIsCut) {
  constexpr GstSocketOpenFlags kToCut{0, 1, 1, 0};
  TempDir outside;
  write_file(outside.file("secret.mdb"), Bytes(954360));
  std::filesystem::create_symlink(outside.file("secret.mdb"), file("film.mdb"));
  RawClient client(box());
  EXPECT_FALSE(client.open("/film.kvf", kToCut));
  EXPECT_TRUE(client.open("/other.kvf", kToCut));
  EXPECT_TRUE(client.succeeds(bare_request(COMMAND_TYPE_CLOSE)));
  // A name without a dot behind a folder with one: the index would lie beside the root.
  std::filesystem::create_directory(file("box.d"));
  RunningBox dotted(file("box.d"));
  RawClient other(dotted);
  EXPECT_FALSE(other.open("/film", kToCut));
  EXPECT_FALSE(other.open("/folder/film", kToCut));
  EXPECT_TRUE(other.open("/folder/film.kvf", kToCut));
  EXPECT_TRUE(other.succeeds(bare_request(COMMAND_TYPE_CLOSE)));
  EXPECT_TRUE(other.open("/film", kToWrite));
}

TEST_F(PlexaBoxServerTest, TheTwoPathsOfAnOpenMustBeTheSame) {
  write_file(file("film.kvf"), counting_bytes(10));
  Bytes request = open_request("/film.kvf", kToRead);
  request[284] = 'x';
  RawClient client(box());
  EXPECT_FALSE(client.succeeds(request));
  EXPECT_TRUE(client.open("/film.kvf", kToRead));
}

// ---- Many clients, little room ----

TEST_F(PlexaBoxServerTest, SixtyFourConnectionsAtOnceAreServed) {
  constexpr int kClients = 64;
  for (int film = 0; film < 4; ++film) {
    write_file(file("film" + std::to_string(film) + ".kvf"),
               counting_bytes(300000, static_cast<size_t>(film)));
  }
  std::atomic<int> served{0};
  std::vector<std::thread> threads;
  std::atomic<int> opened{0};
  for (int i = 0; i < kClients; ++i) {
    threads.emplace_back([&, i] {
      const int film = i % 4;
      RawClient client(box());
      const bool is_open = client.open("/film" + std::to_string(film) + ".kvf", kToRead);
      ++opened;
      while (opened < kClients) std::this_thread::yield();  // all of them at the same time
      bool good = is_open;
      for (int round = 0; round < 10 && good; ++round) {
        const int64_t at = (i * 7919 + round * 104729) % 200000;
        good = client.ask(seek_request(at, SEEK_SET))->lld_return == at &&
               client.read(90000) == counting_bytes(90000, static_cast<size_t>(at + film));
      }
      if (good) ++served;
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(served, kClients);
  box().wait_until_idle();
}

TEST_F(PlexaBoxServerTest, OneClientTooManyIsRefusedInTheProtocolsWords) {
  start({.arguments = {"--clients", "2"}});
  write_file(file("film.kvf"), counting_bytes(10));
  RawClient first(box());
  auto second = std::make_unique<RawClient>(box());
  ASSERT_TRUE(first.open("/film.kvf", kToRead));
  ASSERT_TRUE(second->open("/film.kvf", kToRead));
  {
    RawClient third(box());
    const auto answer = third.ask(open_request("/film.kvf", kToRead));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->command, COMMAND_TYPE_IO_NG);
    EXPECT_TRUE(third.is_closed());
  }
  second.reset();
  while (!RawClient(box()).open("/film.kvf", kToRead)) {  // until the box has seen it leave
  }
}

TEST_F(PlexaBoxServerTest, WithoutDescriptorsNewClientsAreRefusedAndTheOthersServed) {
  write_file(file("film.kvf"), counting_bytes(10));
  start({.descriptors = 24});
  std::vector<std::unique_ptr<RawClient>> clients;
  std::vector<bool> opened;
  for (int i = 0; i < 40; ++i) {
    clients.push_back(std::make_unique<RawClient>(box()));
    opened.push_back(clients.back()->open("/film.kvf", kToRead));
  }
  EXPECT_TRUE(opened.front());
  EXPECT_FALSE(opened.back());
  EXPECT_EQ(clients.front()->read(10), counting_bytes(10));
  clients.clear();
  box().wait_until_idle();
  expect_alive();
}

TEST_F(PlexaBoxServerTest, AFullDiskIsAShortWriteAndThenAFailure) {
  start({.file_limit = 100000});
  RawClient client(box());
  ASSERT_TRUE(client.open("/film.kvf", kToWrite));
  EXPECT_EQ(client.ask(write_packet(150000, counting_bytes(150000)))->lld_return, 100000);
  EXPECT_EQ(client.ask(write_packet(10, Bytes(10)))->command, COMMAND_TYPE_IO_NG);
  EXPECT_EQ(client.ask(bare_request(COMMAND_TYPE_SIZE))->lld_return, 100000);
  EXPECT_TRUE(client.succeeds(bare_request(COMMAND_TYPE_CLOSE)));
  EXPECT_EQ(read_file(file("film.kvf")), counting_bytes(100000));
  expect_alive();
}

// ---- The end ----

TEST_F(PlexaBoxServerTest, ASignalEndsItWhenEveryFileIsClosed) {
  for (const int signal : {SIGINT, SIGTERM}) {
    start();
    RawClient idle(box());
    RawClient writer(box());
    RawClient half(box());
    ASSERT_TRUE(writer.open("/film.kvf", kToWrite));
    EXPECT_EQ(writer.ask(write_packet(5000, counting_bytes(5000)))->lld_return, 5000);
    half.send({1, 2, 3});
    EXPECT_EQ(box().stop(signal), 0);
    EXPECT_THAT(box().errors(), IsEmpty());
    EXPECT_TRUE(writer.is_closed());
    EXPECT_EQ(read_file(file("film.kvf")), counting_bytes(5000));
  }
}

TEST_F(PlexaBoxServerTest, VerboseTellsEveryRequestWithoutItsControlCharacters) {
  start({.arguments = {"--verbose"}, .environment = {"PLEXA_HOST_LOG=off"}});
  {
    RawClient client(box());
    client.open("/none\x1b[2J.kvf", kToRead);
    client.open("/film.kvf", kToWrite);
    client.succeeds(bare_request(COMMAND_TYPE_CLOSE));
  }
  box().wait_until_idle();
  EXPECT_EQ(box().stop(SIGTERM), 0);
  EXPECT_THAT(box().errors(), HasSubstr(" connected\n"));
  EXPECT_THAT(box().errors(), HasSubstr("COMMAND_TYPE_OPEN refused: /none\\033[2J.kvf: "));
  EXPECT_THAT(box().errors(), HasSubstr("film.kvf to write: open\n"));
  EXPECT_THAT(box().errors(), HasSubstr(" left\n"));
}

TEST_F(PlexaBoxServerTest, VerboseTellsWhyAnOpenFailed) {
  start({.arguments = {"--verbose"}, .environment = {"PLEXA_HOST_LOG=off"}});
  {
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 5; ++i) {
      clients.push_back(std::make_unique<RawClient>(box()));
      clients.back()->open("/film" + std::to_string(i) + ".kvf",
                           {0, 1, static_cast<guint8>(i == 0), 0});
    }
    RawClient(box()).open("/film1.kvf", {0, 1, 1, 0});
  }
  box().wait_until_idle();
  EXPECT_EQ(box().stop(SIGTERM), 0);
  EXPECT_THAT(box().errors(), HasSubstr("film4.kvf to write: failed: Device or resource busy\n"));
  EXPECT_THAT(box().errors(), HasSubstr("film1.kvf to write: failed: Device or resource busy\n"));
}

// With the detection before it, that says yes, it would ask itself without end.
TEST_F(PlexaBoxServerTest, ABoxNeverTakesItselfForATelevision) {
  start({.environment = {"PLEXA_BOX=1", "PLEXA_HOST_TV_YEAR=2014", "LD_PRELOAD=" PLEXA_BOX_DETECT,
                         "ASAN_OPTIONS=verify_asan_link_order=0"}});
  expect_alive();
}

// ---- The command line ----

TEST(PlexaBoxCommandLineTest, TellsAboutItself) {
  const BoxRun help = run_box({"--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_THAT(help.out, HasSubstr("--root=DIR"));
  EXPECT_THAT(help.out, HasSubstr("Examples:\n  plexa-box --root /srv/recordings\n"));
  const BoxRun version = run_box({"--version"});
  EXPECT_EQ(version.exit_code, 0);
  EXPECT_EQ(version.out, "plexa-box " PLEXA_BOX_TEST_VERSION "\n");
}

TEST(PlexaBoxCommandLineTest, WrongUsageIsExitStatus2) {
  const std::vector<std::vector<std::string>> lines = {{},
                                                       {"--root"},
                                                       {"--root", ""},
                                                       {"--root", ".", "more"},
                                                       {"--nonsense"},
                                                       {"--root", ".", "--port", "65536"},
                                                       {"--root", ".", "--port", "-1"},
                                                       {"--root", ".", "--port", "x"},
                                                       {"--root", ".", "--address", "localhost"},
                                                       {"--root", ".", "--address", "127.1"},
                                                       {"--root", ".", "--clients", "0"},
                                                       {"--root", ".", "--patience", "0"}};
  for (const auto &line : lines) {
    const BoxRun run = run_box(line);
    EXPECT_EQ(run.exit_code, 2) << ::testing::PrintToString(line);
    EXPECT_THAT(run.err, HasSubstr("Try 'plexa-box --help'.\n"));
    EXPECT_THAT(run.out, IsEmpty());
  }
}

TEST(PlexaBoxCommandLineTest, WhatCannotBeServedIsExitStatus1) {
  TempDir dir;
  const BoxRun missing = run_box({"--root", dir.file("none"), "--port", "0"});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_EQ(missing.err, "plexa-box: " + dir.file("none") + ": No such file or directory\n");
  RunningBox box(dir.path());
  const std::string port = std::to_string(box.port());
  const BoxRun taken = run_box({"--root", dir.path(), "--port", port});
  EXPECT_EQ(taken.exit_code, 1);
  EXPECT_EQ(taken.err, "plexa-box: 127.0.0.1:" + port + ": Address already in use\n");
}

}  // namespace
}  // namespace plexa_test
