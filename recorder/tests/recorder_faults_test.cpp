// What a disk can do to a recording: full at any write, slow, short, failing. Whatever it does,
// what is left is a usable recording, or nothing.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>

#include "recording_fixture.h"
#include "stream_writer.h"

namespace plexa_test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

class FaultTest : public RecordingTest {
 protected:
  static Bytes many_gops(unsigned gops) {
    TestStream stream(Codec::kMpeg2);
    stream.tables();
    for (unsigned i = 0; i < gops; ++i) stream.gop(12, {.size = 1500});
    return stream.bytes();
  }

  // A recording that met a fault: usable as far as it goes, or refused and gone.
  void expect_usable_or_gone(const Outcome &outcome, const std::string &when) {
    if (outcome.ok) {
      EXPECT_TRUE(is_usable(stream())) << when;
      EXPECT_EQ(outcome.summary.bytes, read_file(stream()).size()) << when;
    } else {
      EXPECT_FALSE(outcome.error.empty()) << when;
      EXPECT_THAT(files(), IsEmpty()) << when;
    }
  }
};

struct Sweep {
  int error;
  bool direct;
  bool stays;  // the disk takes nothing any more
};

class FaultySweep : public FaultTest, public ::testing::WithParamInterface<Sweep> {};

INSTANTIATE_TEST_SUITE_P(Errors, FaultySweep,
                         ::testing::Values(Sweep{ENOSPC, false, false}, Sweep{ENOSPC, false, true},
                                           Sweep{EIO, false, false}, Sweep{EIO, false, true},
                                           Sweep{ENOSPC, true, false}, Sweep{ENOSPC, true, true}));

// From the n-th write on no write succeeds, for every n (a full disk stays full), or only the n-th
// fails.
TEST_P(FaultySweep, AnyFailedWriteLeavesAUsableRecordingOrNothing) {
  const auto [error, direct, stays] = GetParam();
  // In direct mode writes are of a mebibyte.
  write_file(input(), many_gops(direct ? 60 : 15));
  Options options;
  options.direct = direct;
  for (int nth = 1;; ++nth) {
    remove_recording();
    const OpenFile in(input());
    Outcome outcome;
    bool fired = false;
    {
      Faults faults;
      faults.all_threads();
      int seen = 0;
      if (stays) {
        faults.before("write", [&, error = error] {
          if (++seen == nth) faults.fail_all("write", error);
        });
        // The hook runs behind the judgement of its own call, so that call nth + 1 fails first.
      } else {
        faults.fail("write", error, nth);
      }
      outcome = plexa::rec::record(in.fd(), stream(), options);
      fired = faults.count("write") > (stays ? nth : nth - 1);
    }
    if (!fired) break;
    if (!outcome.ok && !files().empty()) {
      // It was the end time that could not be entered: the index looks as if recording went on.
      EXPECT_THAT(outcome.error, HasSubstr("index cannot be completed"));
      EXPECT_TRUE(is_usable(stream(), false)) << nth;
      EXPECT_EQ(index_file().torn_bytes, 0u) << nth;
    } else {
      expect_usable_or_gone(outcome, "write " + std::to_string(nth));
    }
    if (outcome.ok) {
      EXPECT_EQ(outcome.summary.disk_full, error == ENOSPC) << nth;
      EXPECT_THAT(outcome.summary.note, HasSubstr("takes no more")) << nth;
    }
    ASSERT_LT(nth, 200);
  }
}

// A write that stores a part and then nothing more, for every write: neither a torn packet nor a
// torn record is left.
TEST_F(FaultTest, AWriteThatEndsHalfWayLeavesNothingTorn) {
  write_file(input(), many_gops(15));
  for (int nth = 1;; ++nth) {
    remove_recording();
    const OpenFile in(input());
    Outcome outcome;
    bool fired = false;
    {
      Faults faults;
      faults.all_threads();
      faults.shorten("write", 50, nth);
      faults.fail("write", EDQUOT, nth + 1);
      outcome = plexa::rec::record(in.fd(), stream(), {});
      fired = faults.count("write") > nth;
    }
    if (!fired) break;
    if (exists(index())) {
      EXPECT_EQ(index_file().torn_bytes, 0u) << nth;
      EXPECT_EQ(read_file(stream()).size() % kPacketSize, 0u) << nth;
      EXPECT_TRUE(is_usable(stream(), outcome.ok)) << nth;
    }
    ASSERT_LT(nth, 200);
  }
}

TEST_F(FaultTest, AShortWriteIsCompleted) {
  const Bytes bytes = many_gops(30);
  write_file(input(), bytes);
  for (const long size : {1L, 100L, 4096L}) {
    for (int nth = 1; nth <= 6; ++nth) {
      remove_recording();
      const OpenFile in(input());
      Outcome outcome;
      {
        Faults faults;
        faults.all_threads();
        faults.shorten("write", size, nth);
        outcome = plexa::rec::record(in.fd(), stream(), {});
      }
      ASSERT_TRUE(outcome.ok) << outcome.error;
      EXPECT_EQ(read_file(stream()), bytes);
      EXPECT_TRUE(is_usable(stream()));
    }
  }
}

TEST_F(FaultTest, AnInterruptedWriteIsRepeated) {
  const Bytes bytes = many_gops(5);
  write_file(input(), bytes);
  for (int nth = 1; nth <= 8; ++nth) {
    remove_recording();
    const OpenFile in(input());
    Outcome outcome;
    {
      Faults faults;
      faults.all_threads();
      faults.fail("write", EINTR, nth);
      outcome = plexa::rec::record(in.fd(), stream(), {});
    }
    ASSERT_TRUE(outcome.ok) << outcome.error;
    EXPECT_EQ(outcome.summary.gops, 5u);
    EXPECT_EQ(read_file(stream()), bytes);
  }
}

TEST_F(FaultTest, AFileThatReachesItsLimitEndsTheRecordingWithWholePackets) {
  // The limit holds for every file of the process: well above the index, well below the stream.
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const Bytes bytes = many_gops(100);
  ASSERT_GT(bytes.size(), 1700000u);
  write_file(input(), bytes);
  const OpenFile in(input());
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{1500000, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  const Outcome outcome = plexa::rec::record(in.fd(), stream(), {});
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, handler);
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_TRUE(outcome.summary.disk_full);
  EXPECT_EQ(outcome.summary.note, "the stream file takes no more: File too large");
  EXPECT_EQ(read_file(stream()).size(), 1500000 / kPacketSize * kPacketSize);
  EXPECT_TRUE(is_usable(stream()));
  EXPECT_GT(outcome.summary.gops, 50u);
}

TEST_F(FaultTest, AnOpenThatFailsLeavesNothing) {
  write_file(input(), many_gops(3));
  for (const std::string &refused : {stream(), index()}) {
    const OpenFile in(input());
    Outcome outcome;
    {
      Faults faults;
      faults.watch("open64", [&](int, const char *path, long long flags) {
        const bool is_library = (flags & O_CREAT) != 0 && (flags & O_EXCL) == 0;
        if (is_library && refused == path) faults.fail("open64", EACCES, 0);
      });
      outcome = plexa::rec::record(in.fd(), stream(), {});
    }
    EXPECT_EQ(outcome.error, "cannot write '" + refused + "': Permission denied");
    EXPECT_THAT(files(), IsEmpty());
  }
}

TEST_F(FaultTest, AStreamThatCannotBeMadeDurableIsReported) {
  write_file(input(), many_gops(3));
  const OpenFile in(input());
  Outcome outcome;
  {
    Faults faults;
    faults.fail("fsync", EIO);
    outcome = plexa::rec::record(in.fd(), stream(), {});
  }
  ASSERT_TRUE(outcome.ok);
  EXPECT_EQ(outcome.summary.note, "the stream file takes no more: Input/output error");
}

TEST_F(FaultTest, AnInputThatFailsEndsTheRecording) {
  const Bytes bytes = many_gops(60);
  write_file(input(), bytes);
  const OpenFile in(input());
  Outcome outcome;
  {
    Faults faults;
    faults.fail("read", EIO, 3);
    outcome = plexa::rec::record(in.fd(), stream(), {});
  }
  ASSERT_TRUE(outcome.ok) << outcome.error;
  EXPECT_EQ(outcome.summary.note, "the input cannot be read: Input/output error");
  EXPECT_TRUE(is_usable(stream()));
  EXPECT_LT(outcome.summary.bytes, bytes.size());
}

TEST_F(FaultTest, AnInterruptedReadIsRepeated) {
  const Bytes bytes = many_gops(5);
  write_file(input(), bytes);
  const OpenFile in(input());
  Faults faults;
  faults.fail("read", EINTR);
  EXPECT_EQ(plexa::rec::record(in.fd(), stream(), {}).summary.gops, 5u);
}

// The order of the writes is what a crash meets: at every write of the index, the packets that its
// records speak of are in the stream file.
TEST_F(FaultTest, AtEveryWriteTheIndexSpeaksOfStoredPacketsOnly) {
  write_file(input(), many_gops(40));
  for (const bool direct : {false, true}) {
    remove_recording();
    const OpenFile in(input());
    Options options;
    options.direct = direct;
    int looks = 0;
    Outcome outcome;
    {
      Faults faults;
      faults.all_threads();
      faults.before("write", [&] {
        ++looks;
        if (exists(index())) {
          EXPECT_TRUE(is_usable(stream(), false)) << "before write " << looks;
        }
      });
      outcome = plexa::rec::record(in.fd(), stream(), options);
    }
    ASSERT_TRUE(outcome.ok) << outcome.error;
    EXPECT_GT(looks, 40);
  }
}

// --- the stream writer by itself

class StreamWriterTest : public FaultTest {
 protected:
  void create(bool direct) {
    write_file(stream(), {});
    ASSERT_TRUE(writer_.create(stream(), direct));
  }
  plexa::rec::StreamWriter writer_;
};

TEST_F(StreamWriterTest, DirectWritesAreWholeBlocksButForTheLast) {
  create(true);
  const Bytes packets = counting_bytes(188 * 20000);
  std::vector<long long> sizes;
  {
    Faults faults;
    faults.watch("write", [&](int, const char *, long long size) { sizes.push_back(size); });
    for (size_t at = 0; at < packets.size(); at += 188 * 100) {
      ASSERT_TRUE(writer_.write(packets.data() + at, 188 * 100));
    }
    ASSERT_TRUE(writer_.finish());
  }
  ASSERT_GT(sizes.size(), 2u);
  for (size_t i = 0; i + 1 < sizes.size(); ++i) EXPECT_EQ(sizes[i] % 4096, 0);
  EXPECT_EQ(read_file(stream()), packets);
}

TEST_F(StreamWriterTest, ATornPacketIsCutOff) {
  create(false);
  const Bytes packets = counting_bytes(188 * 100);
  {
    Faults faults;
    faults.shorten("write", 1000);
    faults.fail("write", ENOSPC, 2);
    EXPECT_FALSE(writer_.write(packets.data(), packets.size()));
    EXPECT_EQ(writer_.stored(), 1000u);
    EXPECT_FALSE(writer_.write(packets.data(), packets.size()));
    EXPECT_FALSE(writer_.finish());
  }
  EXPECT_EQ(writer_.error(), ENOSPC);
  EXPECT_EQ(writer_.packets(), 5u);
  EXPECT_EQ(read_file(stream()).size(), 5u * 188);
}

TEST_F(StreamWriterTest, AShortDirectWriteInsideABlockEndsTheStream) {
  create(true);
  const Bytes packets = counting_bytes(188 * 8000);
  Faults faults;
  faults.shorten("write", 4096 * 3);
  faults.answer("write", 1000);
  EXPECT_FALSE(writer_.write(packets.data(), packets.size()));
  EXPECT_EQ(writer_.error(), ENOSPC);
}

}  // namespace
}  // namespace plexa_test
