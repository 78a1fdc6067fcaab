// The registry of open recordings, and the record of what was cut off the time-shift recording.
#include "gst-plexa/gst_file_shared_info.h"

#include <gmock/gmock.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "faults.h"
#include "gst-plexa/gst_vector.h"
#include "gst_file_shared_info_internal.h"
#include "log_capture.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr guint8 kReader = 1;
constexpr guint8 kWriter = 0;
constexpr guint8 kListed = 1;
constexpr guint8 kUnlisted = 0;
constexpr guint32 kNoKey = static_cast<guint32>(-1);

class RegistryTest : public ::testing::Test {
 protected:
  RegistryTest() {
    gst_shared_info_remove(g_lib_shared_info.registry);
    table_ = gst_shared_info_get();
    LogCapture::clear();
  }
  ~RegistryTest() override { gst_shared_info_remove(g_lib_shared_info.registry); }

  gint32 add(const std::string &path, guint8 reader, guint8 list = kUnlisted,
             GstPvrFile *handle = nullptr) {
    return gst_shared_info_add_item(table_, path.c_str(), reader, list, handle);
  }
  gboolean remove(guint32 key, guint8 reader, guint8 list = kUnlisted,
                  GstPvrFile *handle = nullptr) {
    return gst_shared_info_delete_item(table_, key, reader, list, handle);
  }
  void add_many(int count, guint8 reader) {
    for (int i = 0; i < count; ++i) ASSERT_EQ(add("/rec.kvf", reader), 0);
    LogCapture::clear();
  }
  GstFileInfo &item(guint32 key = 0) { return *gst_shared_info_get_item(table_, key); }
  const GstKeyInfo &slot(guint32 key = 0) { return table_->slots[key]; }

  std::vector<GstPvrFile *> listed(guint32 key = 0) {
    std::vector<GstPvrFile *> out;
    for (gint32 i = 0; i < gst_vector_size(item(key).handle_list); ++i) {
      out.push_back(static_cast<GstPvrFile *>(gst_vector_index(item(key).handle_list, i)));
    }
    return out;
  }

  GstSharedInfo *table_ = nullptr;
  GstPvrFile files_[3] = {};
  GstPvrFile *const a_ = &files_[0];
  GstPvrFile *const b_ = &files_[1];
  GstPvrFile *const c_ = &files_[2];
};

// --- the table

static_assert(sizeof(GstKeyInfo) == 257);
static_assert(sizeof(((GstSharedInfo *)nullptr)->slots) == 4 * 257);
static_assert(offsetof(GstFileInfo, write_count) == sizeof(void *));
static_assert(offsetof(GstFileInfo, actioncount) == sizeof(void *) + 12);

TEST_F(RegistryTest, IsMadeEmptyByTheFirstGet) {
  EXPECT_EQ(g_lib_shared_info.registry, table_);
  EXPECT_EQ(gst_shared_info_get(), table_);
  for (guint32 key = 0; key < 4; ++key) {
    EXPECT_EQ(slot(key).used, 0);
    EXPECT_EQ(item(key).handle_list, nullptr);
    EXPECT_EQ(item(key).read_count + item(key).write_count, 0);
    EXPECT_EQ(item(key).cut_mode, 0);
    EXPECT_EQ(item(key).actioncount, 0u);
  }
}

TEST_F(RegistryTest, IsNullWithoutMemoryAndMadeLater) {
  gst_shared_info_remove(table_);
  {
    Faults faults;
    faults.fail("calloc", ENOMEM);
    EXPECT_EQ(gst_shared_info_get(), nullptr);
  }
  EXPECT_NE(gst_shared_info_get(), nullptr);
}

TEST_F(RegistryTest, RemoveForgetsEverything) {
  add("/a.kvf", kReader, kListed, a_);
  add("/b.kvf", kWriter, kListed, b_);
  gst_shared_info_remove(table_);
  EXPECT_EQ(g_lib_shared_info.registry, nullptr);
  table_ = gst_shared_info_get();
  EXPECT_EQ(slot(0).used, 0);
  EXPECT_EQ(item(1).write_count, 0);
}

TEST_F(RegistryTest, RemoveOfNoTableDoesNothing) {
  gst_shared_info_remove(nullptr);
  EXPECT_EQ(g_lib_shared_info.registry, table_);
}

// Whatever is asked of a table that does not live, nothing of it is read or written.
void expect_dead(GstSharedInfo *table) {
  EXPECT_EQ(gst_shared_info_pre_add_item(table, "/rec.kvf"), -1);
  EXPECT_EQ(gst_shared_info_add_item(table, "/rec.kvf", kReader, kListed, nullptr), -1);
  EXPECT_FALSE(gst_shared_info_delete_item(table, 0, kReader, kListed, nullptr));
  EXPECT_EQ(gst_shared_info_get_item(table, 0), nullptr);
  gst_shared_info_increase_actioncount(table, 0);
  gst_shared_info_decrease_actioncount(table, 0);
  EXPECT_EQ(gst_shared_info_get_actioncount(table, 0), -1);
  gst_shared_info_update_cut_mode(table, 0, TRUE);
  EXPECT_FALSE(gst_shared_info_is_progressing_cut(table, 0));
  gst_shared_info_remove(table);
}

TEST_F(RegistryTest, NothingHappensToANullTable) {
  expect_dead(nullptr);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
  EXPECT_EQ(slot(0).used, 0);
}

TEST_F(RegistryTest, NothingHappensToARemovedTable) {
  gst_shared_info_remove(table_);
  expect_dead(table_);
  EXPECT_EQ(g_lib_shared_info.registry, nullptr);
}

// --- pre-add

TEST_F(RegistryTest, PreAddTellsTheKeyAndMarksNothing) {
  add("/a.kvf", kReader);
  EXPECT_EQ(gst_shared_info_pre_add_item(table_, "/a.mdb"), 0);
  EXPECT_EQ(gst_shared_info_pre_add_item(table_, "/b.kvf"), 1);
  EXPECT_EQ(slot(1).used, 0);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(RegistryTest, PreAddRefusesAFifthRecording) {
  for (const char *const path : {"/a.kvf", "/b.kvf", "/c.kvf", "/d.kvf"}) add(path, kReader);
  EXPECT_EQ(gst_shared_info_pre_add_item(table_, "/e.kvf"), -1);
  EXPECT_THAT(
      LogCapture::messages(kError),
      ElementsAre("[EXT_FMG] [PLG_ERR] gst_shared_info_pre_add_item out of range:key=[-1]"));
}

TEST_F(RegistryTest, PreAddRefusesAPathWithoutAnExtension) {
  EXPECT_EQ(gst_shared_info_pre_add_item(table_, "/rec"), -1);
  EXPECT_TRUE(
      logged_in_order({"[EXT_FMG] [PLG_ERR] path_no_ext is NULL",
                       "[EXT_FMG] [PLG_ERR] gst_shared_info_pre_add_item out of range:key=[-1]"}));
}

// --- add

TEST_F(RegistryTest, AddCountsReadersAndWritersOfOneRecordingOnOneKey) {
  EXPECT_EQ(add("/rec.kvf", kWriter), 0);
  EXPECT_EQ(add("/rec.mdb", kWriter), 0);
  EXPECT_EQ(add("/rec.kvf", kReader), 0);
  EXPECT_EQ(item().write_count, 2);
  EXPECT_EQ(item().read_count, 1);
  EXPECT_STREQ(slot().path, "/rec");
  EXPECT_EQ(LogCapture::count(kInfo, "[EXT_FMG] Already be used, index:0"), 2);
}

TEST_F(RegistryTest, AddTakesAnyNonZeroFlag) {
  add("/rec.kvf", 2, 0x80, a_);
  EXPECT_EQ(item().read_count, 1);
  EXPECT_THAT(listed(), ElementsAre(a_));
}

TEST_F(RegistryTest, FourRecordingsAreAddedAndAFifthIsRefused) {
  EXPECT_EQ(add("/a.kvf", kReader), 0);
  EXPECT_EQ(add("/b.kvf", kReader), 1);
  EXPECT_EQ(add("/c.kvf", kReader), 2);
  EXPECT_EQ(add("/d.kvf", kReader), 3);
  EXPECT_EQ(add("/e.kvf", kReader), -1);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [PLG_ERR] Range error !!, index=[-1]",
                          "[EXT_FMG] [PLG_ERR] allocate key failed",
                          "[EXT_FMG] [PLG_ERR] key out of range,key =[-1]"));
}

TEST_F(RegistryTest, AddRefusesAPathWithoutAnExtension) {
  EXPECT_EQ(add("/rec", kReader), -1);
  EXPECT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] key out of range,key =[-1]");
  EXPECT_EQ(slot().used, 0);
}

TEST_F(RegistryTest, AddRefusesANullPath) {
  EXPECT_EQ(gst_shared_info_add_item(table_, nullptr, kReader, kUnlisted, nullptr), -1);
  EXPECT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] key out of range,key =[-1]");
}

TEST_F(RegistryTest, AThirdWriterIsAccepted) {
  add_many(2, kWriter);
  EXPECT_EQ(add("/rec.kvf", kWriter), 0);
  EXPECT_EQ(item().write_count, 3);
}

TEST_F(RegistryTest, AFourthWriterIsRefusedAndCostsOneWriter) {
  add_many(3, kWriter);
  EXPECT_EQ(add("/rec.kvf", kWriter), -1);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [PLG_ERR] Only 1 Write authority is possible"));
  EXPECT_EQ(item().write_count, 2);
  EXPECT_EQ(slot().used, 1);
}

TEST_F(RegistryTest, AHundredthReaderIsAccepted) {
  add_many(99, kReader);
  EXPECT_EQ(add("/rec.kvf", kReader), 0);
  EXPECT_EQ(item().read_count, 100);
}

TEST_F(RegistryTest, AHundredAndFirstReaderIsRefusedAndCostsOneReader) {
  add_many(100, kReader);
  EXPECT_EQ(add("/rec.kvf", kReader), -1);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [PLG_ERR] Read authority reach the maxity."));
  EXPECT_EQ(item().read_count, 99);
}

TEST_F(RegistryTest, ARefusedHandleIsTakenOutOfTheListAsByDelete) {
  add_many(98, kReader);
  add("/rec.kvf", kReader, kListed, a_);
  add("/rec.kvf", kReader, kListed, b_);
  EXPECT_EQ(add("/rec.kvf", kReader, kListed, c_), -1);
  EXPECT_THAT(listed(), ElementsAre(a_, b_)) << "the refused handle was never in it";
  add("/rec.kvf", kReader, kListed, c_);
  EXPECT_EQ(add("/rec.kvf", kReader, kListed, a_), -1);
  EXPECT_THAT(listed(), ElementsAre(b_, c_));
}

TEST_F(RegistryTest, LimitsCountForEachRecording) {
  add_many(3, kWriter);
  EXPECT_EQ(add("/other.kvf", kWriter), 1);
  EXPECT_EQ(item(1).write_count, 1);
}

TEST_F(RegistryTest, AddLeavesTheRunningOperationsAndTheCutMarkAlone) {
  gst_shared_info_increase_actioncount(table_, 0);  // the key was asked for before the add
  gst_shared_info_update_cut_mode(table_, 0, TRUE);
  add("/rec.kvf", kReader, kListed, a_);
  EXPECT_EQ(item().actioncount, 1u);
  EXPECT_EQ(item().cut_mode, 1);
}

// --- the list of handles

TEST_F(RegistryTest, TheListComesWithTheFirstListedHandle) {
  add("/rec.kvf", kWriter, kUnlisted, a_);
  EXPECT_EQ(item().handle_list, nullptr);
  add("/rec.kvf", kReader, kListed, b_);
  ASSERT_NE(item().handle_list, nullptr);
  add("/rec.kvf", kReader, kListed, c_);
  add("/rec.kvf", kReader, kUnlisted, a_);
  EXPECT_THAT(listed(), ElementsAre(b_, c_));
}

TEST_F(RegistryTest, DeleteTakesTheFirstEqualEntryOutOfTheList) {
  for (GstPvrFile *const file : {a_, b_, a_}) add("/rec.kvf", kReader, kListed, file);
  EXPECT_TRUE(remove(0, kReader, kListed, a_));
  EXPECT_THAT(listed(), ElementsAre(b_, a_));
}

TEST_F(RegistryTest, DeleteWithoutTheListFlagLeavesTheListAlone) {
  for (GstPvrFile *const file : {a_, b_}) add("/rec.kvf", kReader, kListed, file);
  EXPECT_TRUE(remove(0, kReader, kUnlisted, a_));
  EXPECT_THAT(listed(), ElementsAre(a_, b_));
}

TEST_F(RegistryTest, DeleteFromAListThatIsNotThereDoesNoHarm) {
  add_many(2, kReader);
  EXPECT_TRUE(remove(0, kReader, kListed, a_));
  EXPECT_EQ(item().read_count, 1);
}

// --- delete

TEST_F(RegistryTest, TheLastDeleteFreesTheSlot) {
  add("/rec.kvf", kWriter, kListed, a_);
  add("/rec.kvf", kReader, kListed, b_);
  gst_shared_info_update_cut_mode(table_, 0, TRUE);
  gst_shared_info_increase_actioncount(table_, 0);
  EXPECT_TRUE(remove(0, kWriter, kListed, a_));
  EXPECT_EQ(slot().used, 1);
  EXPECT_TRUE(remove(0, kReader, kUnlisted, b_));  // the list still holds b
  EXPECT_EQ(slot().used, 0);
  EXPECT_STREQ(slot().path, "");
  EXPECT_EQ(item().handle_list, nullptr);
  EXPECT_EQ(item().cut_mode, 0);
  EXPECT_EQ(item().actioncount, 0u);
}

TEST_F(RegistryTest, AFreedSlotIsGivenToTheNextRecording) {
  add("/a.kvf", kReader);
  add("/b.kvf", kReader);
  remove(0, kReader);
  EXPECT_EQ(add("/c.kvf", kReader), 0);
  EXPECT_EQ(add("/b.mdb", kReader), 1);
}

TEST_F(RegistryTest, OneDeleteTooManyLeavesTheCountAtZero) {
  add("/rec.kvf", kWriter);
  EXPECT_TRUE(remove(0, kReader));
  EXPECT_EQ(item().read_count, 0);
  EXPECT_EQ(item().write_count, 1);
  add("/rec.kvf", kReader);
  remove(0, kWriter);
  EXPECT_TRUE(remove(0, kWriter));
  EXPECT_EQ(item().write_count, 0);
  EXPECT_EQ(item().read_count, 1);
}

TEST_F(RegistryTest, DeleteOnAFreeSlotDoesNoHarm) {
  EXPECT_TRUE(remove(2, kReader, kListed, a_));
  EXPECT_EQ(slot(2).used, 0);
}

// --- per key

TEST_F(RegistryTest, CountsRunningOperationsForEachRecording) {
  gst_shared_info_increase_actioncount(table_, 2);
  gst_shared_info_increase_actioncount(table_, 2);
  EXPECT_EQ(gst_shared_info_get_actioncount(table_, 2), 2);
  EXPECT_EQ(gst_shared_info_get_actioncount(table_, 1), 0);
  gst_shared_info_decrease_actioncount(table_, 2);
  EXPECT_EQ(gst_shared_info_get_actioncount(table_, 2), 1);
}

TEST_F(RegistryTest, TheNumberOfRunningOperationsNeverFallsBelowZero) {
  gst_shared_info_decrease_actioncount(table_, 0);
  EXPECT_EQ(gst_shared_info_get_actioncount(table_, 0), 0);
}

TEST_F(RegistryTest, KeepsTheCutMarkForEachRecording) {
  gst_shared_info_update_cut_mode(table_, 3, TRUE);
  EXPECT_TRUE(gst_shared_info_is_progressing_cut(table_, 3));
  EXPECT_FALSE(gst_shared_info_is_progressing_cut(table_, 0));
  gst_shared_info_update_cut_mode(table_, 3, FALSE);
  EXPECT_FALSE(gst_shared_info_is_progressing_cut(table_, 3));
}

TEST_F(RegistryTest, AnyNonZeroModeIsACut) {
  gst_shared_info_update_cut_mode(table_, 0, 256);
  EXPECT_EQ(item().cut_mode, 1);
}

TEST_F(RegistryTest, EveryCallWithAKeyRefusesOneAbove3) {
  const std::vector<std::function<void(guint32)>> calls = {
      [this](guint32 key) { EXPECT_FALSE(remove(key, kReader)); },
      [this](guint32 key) { EXPECT_EQ(gst_shared_info_get_item(table_, key), nullptr); },
      [this](guint32 key) { gst_shared_info_increase_actioncount(table_, key); },
      [this](guint32 key) { gst_shared_info_decrease_actioncount(table_, key); },
      [this](guint32 key) { EXPECT_EQ(gst_shared_info_get_actioncount(table_, key), -1); },
      [this](guint32 key) { gst_shared_info_update_cut_mode(table_, key, TRUE); },
      [this](guint32 key) { EXPECT_FALSE(gst_shared_info_is_progressing_cut(table_, key)); }};
  for (size_t i = 0; i < calls.size(); ++i) {
    LogCapture::clear();
    calls[i](4);
    calls[i](kNoKey);
    EXPECT_THAT(LogCapture::messages(kError),
                ElementsAre("[EXT_FMG] [PLG_ERR] out of range. key=[4]",
                            "[EXT_FMG] [PLG_ERR] out of range. key=[-1]"))
        << "call " << i;
  }
}

TEST_F(RegistryTest, ReleaseOfASlotChecksItsKeyTwice) {
  plexa::_release_slot(table_, 4);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [PLG_ERR] wrong key[4]", "[EXT_FMG] [PLG_ERR] wrong key[4]"));
}

// --- the lock

int registry_lock_in_log = -1;
int cut_lock_in_log = -1;

int state_of(pthread_mutex_t &mutex) {
  const int state = pthread_mutex_trylock(&mutex);
  if (state == 0) pthread_mutex_unlock(&mutex);
  return state;
}

TEST_F(RegistryTest, HoldsItsOwnLockAloneAndOnlyDuringACall) {
  LogCapture::set_hook([] {
    registry_lock_in_log = state_of(g_lib_shared_info.registry_mutex);
    cut_lock_in_log = state_of(g_lib_shared_info.cut_info_mutex);
  });
  add("/rec.kvf", kReader);
  add("/rec.kvf", kReader);  // "Already be used" comes from inside
  LogCapture::set_hook(nullptr);
  EXPECT_EQ(registry_lock_in_log, EBUSY);
  EXPECT_EQ(cut_lock_in_log, 0);
  EXPECT_EQ(state_of(g_lib_shared_info.registry_mutex), 0);
}

TEST_F(RegistryTest, EveryCallLocksOnceAndUnlocks) {
  const std::vector<std::function<void()>> calls = {
      [] { gst_shared_info_get(); },
      [this] { gst_shared_info_pre_add_item(table_, "/rec.kvf"); },
      [this] { add("/rec.kvf", kReader, kListed, a_); },
      [this] { gst_shared_info_get_item(table_, 0); },
      [this] { gst_shared_info_increase_actioncount(table_, 0); },
      [this] { gst_shared_info_decrease_actioncount(table_, 0); },
      [this] { gst_shared_info_get_actioncount(table_, 0); },
      [this] { gst_shared_info_update_cut_mode(table_, 0, TRUE); },
      [this] { gst_shared_info_is_progressing_cut(table_, 0); },
      [this] { remove(0, kReader, kListed, a_); },
      [this] { gst_shared_info_remove(table_); }};
  for (size_t i = 0; i < calls.size(); ++i) {
    int locks = 0;
    {
      Faults faults;
      faults.before("pthread_mutex_lock", [&locks] { ++locks; });
      calls[i]();
      EXPECT_EQ(locks, 1) << "call " << i;
    }
    EXPECT_EQ(state_of(g_lib_shared_info.registry_mutex), 0) << "call " << i;
  }
}

// --- several threads

void run_together(int count, const std::function<void(int)> &work) {
  std::barrier start(count);
  std::vector<std::thread> threads;
  for (int number = 0; number < count; ++number) {
    threads.emplace_back([&, number] {
      start.arrive_and_wait();
      work(number);
    });
  }
  for (std::thread &thread : threads) thread.join();
}

TEST_F(RegistryTest, ThreadsThatComeTogetherGetOneTable) {
  gst_shared_info_remove(table_);
  std::vector<GstSharedInfo *> tables(8, nullptr);
  run_together(8, [&](int number) { tables[static_cast<size_t>(number)] = gst_shared_info_get(); });
  EXPECT_THAT(tables, ::testing::Each(gst_shared_info_get()));
}

TEST_F(RegistryTest, NoCountIsLostBetweenThreads) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 500;
  std::vector<GstPvrFile> files(kThreads);
  std::atomic<int> failures{0};
  add("/rec.kvf", kWriter);
  run_together(kThreads, [&](int number) {
    GstPvrFile *const file = &files[static_cast<size_t>(number)];
    for (int i = 0; i < kRounds; ++i) {
      if (add("/rec.mdb", kReader, kListed, file) != 0) ++failures;
      gst_shared_info_increase_actioncount(table_, 0);
      if (gst_shared_info_get_actioncount(table_, 0) < 1) ++failures;
      gst_shared_info_decrease_actioncount(table_, 0);
      gst_shared_info_update_cut_mode(table_, 0, TRUE);
      if (!gst_shared_info_is_progressing_cut(table_, 0)) ++failures;
      if (!remove(0, kReader, kListed, file)) ++failures;
    }
    add("/rec.mdb", kReader, kListed, file);
    gst_shared_info_increase_actioncount(table_, 0);
  });
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(item().write_count, 1);
  EXPECT_EQ(item().read_count, kThreads);
  EXPECT_EQ(item().actioncount, static_cast<guint32>(kThreads));
  std::vector<GstPvrFile *> expected;
  for (GstPvrFile &file : files) expected.push_back(&file);
  EXPECT_THAT(listed(), ::testing::UnorderedElementsAreArray(expected));
}

TEST_F(RegistryTest, RecordingsComeAndGoBetweenThreadsWithoutMixing) {
  std::atomic<int> failures{0};
  run_together(4, [&](int number) {
    const std::string path = "/rec" + std::to_string(number) + ".kvf";
    GstPvrFile file = {};
    for (int i = 0; i < 500; ++i) {
      const gint32 key = add(path, kWriter, kListed, &file);
      if (key < 0) {
        ++failures;
        continue;
      }
      const guint32 mine = static_cast<guint32>(key);
      gst_shared_info_update_cut_mode(table_, mine, TRUE);
      if (!gst_shared_info_is_progressing_cut(table_, mine)) ++failures;
      if (gst_shared_info_pre_add_item(table_, path.c_str()) != key) ++failures;
      if (!remove(mine, kWriter, kListed, &file)) ++failures;
    }
  });
  EXPECT_EQ(failures, 0);
  for (guint32 key = 0; key < 4; ++key) EXPECT_EQ(slot(key).used, 0);
}

// --- operations and cuts

using plexa::CutStart;
using plexa::Opening;

class OperationsTest : public RegistryTest {
 protected:
  ~OperationsTest() override {
    gst_shared_info_get();
    for (guint32 key = 0; key < GST_KEY_MGR_SLOTS; ++key) EXPECT_TRUE(may_cut(key)) << key;
  }

  bool may_cut(guint32 key = 0) {
    if (plexa::_begin_cut(key) != CutStart::kStarted) return false;
    plexa::_end_cut(key);
    return true;
  }
  gint32 running(guint32 key = 0) { return gst_shared_info_get_actioncount(table_, key); }
  void mark(bool is_cutting, guint32 key = 0) {
    gst_shared_info_update_cut_mode(table_, key, is_cutting);
  }
  bool is_marked(guint32 key = 0) { return gst_shared_info_is_progressing_cut(table_, key); }
  Opening open_item(const std::string &path, bool reader, GstPvrFile *handle) {
    return plexa::_open_item(path.c_str(), reader, handle, &key_);
  }

  gint32 key_ = 77;
};

TEST_F(OperationsTest, AnOperationIsCountedUntilItLeaves) {
  EXPECT_TRUE(plexa::_enter_operation(0));
  EXPECT_TRUE(plexa::_enter_operation(0));
  EXPECT_EQ(running(), 2);
  EXPECT_EQ(running(1), 0);
  plexa::_leave_operation(0);
  EXPECT_EQ(running(), 1);
  EXPECT_FALSE(may_cut());
  EXPECT_TRUE(may_cut(1));
  plexa::_leave_operation(0);
  EXPECT_EQ(running(), 0);
  EXPECT_TRUE(may_cut());
}

TEST_F(OperationsTest, AnOperationThatIsTakenBackTwiceLeavesTheOthersInside) {
  EXPECT_TRUE(plexa::_enter_operation(0));
  EXPECT_TRUE(plexa::_enter_operation(0));
  gst_shared_info_decrease_actioncount(table_, 0);
  plexa::_leave_operation(0);
  EXPECT_EQ(running(), 0);
  EXPECT_EQ(plexa::_begin_cut(0), CutStart::kBusy);
  plexa::_leave_operation(0);
  EXPECT_EQ(running(), 0);
  EXPECT_TRUE(may_cut());
}

TEST_F(OperationsTest, AnOperationOutlivesTheReleaseOfItsSlot) {
  add("/rec.kvf", kReader);
  EXPECT_TRUE(plexa::_enter_operation(0));
  remove(0, kReader);
  EXPECT_EQ(running(), 0);
  EXPECT_EQ(plexa::_begin_cut(0), CutStart::kBusy);
  plexa::_leave_operation(0);
}

TEST_F(OperationsTest, ABadKeyIsLetInAndCountedNowhere) {
  EXPECT_TRUE(plexa::_enter_operation(kNoKey));
  plexa::_leave_operation(kNoKey);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [PLG_ERR] out of range. key=[-1]",
                          "[EXT_FMG] [PLG_ERR] out of range. key=[-1]"));
}

TEST_F(OperationsTest, AnOperationThatBeganWithoutARegistryEndsWithOne) {
  gst_shared_info_remove(table_);
  EXPECT_TRUE(plexa::_enter_operation(0));
  table_ = gst_shared_info_get();
  EXPECT_EQ(plexa::_begin_cut(0), CutStart::kBusy);
  plexa::_leave_operation(0);
  EXPECT_EQ(running(), 0);
}

TEST_F(OperationsTest, ALongCutIsWaitedForTwoSecondsByEachOfThose) {
  for (int i = 0; i < 2; ++i) add("/rec.kvf", kReader);
  mark(true);
  ASSERT_EQ(plexa::_begin_cut(1), CutStart::kStarted);  // without a mark
  bool entered[2] = {true, true};
  Opening opening = Opening::kOpened;
  const auto begin = std::chrono::steady_clock::now();
  run_together(3, [&](int number) {
    if (number < 2) {
      entered[number] = plexa::_enter_operation(static_cast<guint32>(number));
    } else {
      opening = open_item("/rec.kvf", true, a_);
    }
  });
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1990));
  plexa::_end_cut(1);
  EXPECT_FALSE(entered[0]);
  EXPECT_FALSE(entered[1]);
  EXPECT_EQ(opening, Opening::kBusy);
  EXPECT_EQ(running(), 0);
  EXPECT_EQ(item().read_count, 2);
  mark(false);
}

// What ends a wait at once. Each of them is given a waiting operation.
class EndOfWaitTest : public OperationsTest, public ::testing::WithParamInterface<int> {};

TEST_P(EndOfWaitTest, LetsTheOperationIn) {
  add("/rec.kvf", kWriter);
  if (GetParam() == 1) {
    ASSERT_EQ(plexa::_begin_cut(0), CutStart::kStarted);
  } else {
    mark(true);
  }
  std::atomic<bool> is_in{false};
  const auto begin = std::chrono::steady_clock::now();
  std::thread thread([&] { is_in = plexa::_enter_operation(0); });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(is_in);
  if (GetParam() == 0) mark(false);
  if (GetParam() == 1) plexa::_end_cut(0);
  if (GetParam() == 2) remove(0, kWriter);
  if (GetParam() == 3) {
    gst_shared_info_remove(table_);
    table_ = gst_shared_info_get();
  }
  thread.join();
  EXPECT_TRUE(is_in);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1900));
  plexa::_leave_operation(0);
}

INSTANTIATE_TEST_SUITE_P(Ends, EndOfWaitTest, ::testing::Values(0, 1, 2, 3));

TEST_F(OperationsTest, AnOpenedItemIsCountedListedAndRunning) {
  EXPECT_EQ(open_item("/rec.kvf", false, a_), Opening::kOpened);
  EXPECT_EQ(key_, 0);
  EXPECT_EQ(open_item("/rec.kvf", true, b_), Opening::kOpened);
  EXPECT_EQ(item().write_count, 1);
  EXPECT_EQ(item().read_count, 1);
  EXPECT_EQ(running(), 2);
  EXPECT_THAT(listed(), ElementsAre(a_, b_));
  plexa::_leave_operation(0);
  plexa::_leave_operation(0);
}

TEST_F(OperationsTest, AnItemWithoutAKeyIsNotOpened) {
  EXPECT_EQ(open_item("/rec", false, a_), Opening::kNoKey);
  EXPECT_EQ(key_, -1);
  for (const char *const path : {"/a.kvf", "/b.kvf", "/c.kvf", "/d.kvf"}) add(path, kReader);
  EXPECT_EQ(open_item("/e.kvf", false, a_), Opening::kNoKey);
  EXPECT_LOGGED(kError, "[EXT_FMG] [PLG_ERR] gst_shared_info_pre_add_item out of range:key=[-1]");
}

TEST_F(OperationsTest, ARefusedItemIsNotRunning) {
  add_many(3, kWriter);
  EXPECT_EQ(open_item("/rec.kvf", false, a_), Opening::kRefused);
  EXPECT_EQ(key_, -1);
  EXPECT_EQ(running(), 0);
  EXPECT_EQ(item().write_count, 2) << "the ordinary delete";
  EXPECT_TRUE(may_cut());
}

TEST_F(OperationsTest, WithoutARegistryNoItemIsOpened) {
  gst_shared_info_remove(table_);
  Faults faults;
  faults.fail_all("calloc", ENOMEM);
  EXPECT_EQ(open_item("/rec.kvf", true, a_), Opening::kNoKey);
  EXPECT_EQ(key_, -1);
}

TEST_F(OperationsTest, AnItemIsLeftAndDeletedInOneStep) {
  ASSERT_EQ(open_item("/rec.kvf", false, a_), Opening::kOpened);
  ASSERT_EQ(open_item("/rec.kvf", true, b_), Opening::kOpened);
  int locks = 0;
  {
    Faults faults;
    faults.before("pthread_mutex_lock", [&locks] { ++locks; });
    plexa::_leave_and_delete_item(0, true, b_);
    EXPECT_EQ(locks, 1);
  }
  EXPECT_EQ(running(), 1);
  EXPECT_EQ(item().read_count, 0);
  EXPECT_THAT(listed(), ElementsAre(a_));
  plexa::_leave_and_delete_item(0, false, a_);
  EXPECT_EQ(slot().used, 0);
}

TEST_F(OperationsTest, AnItemOfARemovedRegistryIsOnlyLeft) {
  ASSERT_EQ(open_item("/rec.kvf", false, a_), Opening::kOpened);
  gst_shared_info_remove(table_);
  plexa::_leave_and_delete_item(0, false, a_);
  EXPECT_EQ(g_lib_shared_info.registry, nullptr);
}

TEST_F(OperationsTest, AHandleWhoseSlotIsAnothersByNowIsOnlyLeft) {
  ASSERT_EQ(open_item("/rec.kvf", false, a_), Opening::kOpened);
  remove(0, kWriter);
  ASSERT_EQ(open_item("/other.kvf", false, b_), Opening::kOpened);
  ASSERT_EQ(key_, 0);
  plexa::_leave_and_delete_item(0, false, a_);
  EXPECT_EQ(running(), 0) << "the other's operation was counted behind the release";
  EXPECT_EQ(item().write_count, 1);
  EXPECT_THAT(listed(), ElementsAre(b_));
  plexa::_leave_and_delete_item(0, false, b_);
  EXPECT_EQ(slot().used, 0);
}

TEST_F(OperationsTest, OneOfThreeWritersGetsTheCut) {
  add_many(3, kWriter);
  std::atomic<int> granted{0};
  int owners[3] = {};
  run_together(3, [&](int number) {
    if (plexa::_claim_cut(0, &owners[number])) ++granted;
  });
  EXPECT_EQ(granted, 1);
  EXPECT_TRUE(is_marked());
}

TEST_F(OperationsTest, AClaimStandsUntilItsOwnerGivesItBack) {
  int owner = 0;
  int another = 0;
  EXPECT_TRUE(plexa::_claim_cut(0, &owner));
  EXPECT_FALSE(plexa::_claim_cut(0, &owner));
  plexa::_give_back_cut(0, &another);
  mark(false);
  EXPECT_FALSE(plexa::_claim_cut(0, &another));
  EXPECT_FALSE(is_marked()) << "a refused claim sets no mark";
  EXPECT_TRUE(plexa::_claim_cut(1, &another)) << "another recording";
  plexa::_give_back_cut(0, &owner);
  EXPECT_TRUE(plexa::_claim_cut(0, &another));
  EXPECT_TRUE(is_marked());
}

TEST_F(OperationsTest, AClaimGoesWithItsSlot) {
  int owner = 0;
  add("/rec.kvf", kWriter);
  ASSERT_TRUE(plexa::_claim_cut(0, &owner));
  remove(0, kWriter);
  EXPECT_TRUE(plexa::_claim_cut(0, &owner));
}

TEST_F(OperationsTest, AClaimGoesWithTheRegistry) {
  int owner = 0;
  ASSERT_TRUE(plexa::_claim_cut(0, &owner));
  gst_shared_info_remove(table_);
  EXPECT_FALSE(plexa::_claim_cut(0, &owner)) << "there is nothing to cut";
  table_ = gst_shared_info_get();
  EXPECT_TRUE(plexa::_claim_cut(0, &owner));
}

TEST_F(OperationsTest, ATenancyEndsWithTheSlotAndWithTheRegistry) {
  int owner = 0;
  add("/rec.kvf", kWriter);
  const guint32 first = plexa::_tenancy(0);
  const guint32 other = plexa::_tenancy(1);
  EXPECT_NE(first, 0u);
  EXPECT_TRUE(plexa::_claim_cut(0, &owner, first));
  EXPECT_EQ(plexa::_begin_cut(0, first), CutStart::kStarted);
  plexa::_end_cut(0, &owner);
  remove(0, kWriter);
  const guint32 second = plexa::_tenancy(0);
  EXPECT_FALSE(plexa::_claim_cut(0, &owner, first));
  EXPECT_EQ(plexa::_begin_cut(0, first), CutStart::kNoRegistry);
  EXPECT_FALSE(is_marked());
  EXPECT_EQ(plexa::_begin_cut(0, second), CutStart::kStarted);
  plexa::_end_cut(0);
  EXPECT_EQ(plexa::_tenancy(1), other) << "another recording's";
  gst_shared_info_remove(table_);
  table_ = gst_shared_info_get();
  EXPECT_EQ(plexa::_begin_cut(0, second), CutStart::kNoRegistry);
  EXPECT_EQ(plexa::_begin_cut(1, other), CutStart::kNoRegistry);
}

TEST_F(OperationsTest, ACutBeginsWhenNothingRunsOnItsRecording) {
  gst_shared_info_increase_actioncount(table_, 0);
  EXPECT_EQ(plexa::_begin_cut(0), CutStart::kBusy);
  EXPECT_EQ(plexa::_begin_cut(1), CutStart::kStarted);
  plexa::_end_cut(1);
  gst_shared_info_decrease_actioncount(table_, 0);
  EXPECT_EQ(plexa::_begin_cut(0), CutStart::kStarted);
  EXPECT_EQ(plexa::_begin_cut(0), CutStart::kBusy) << "another cut is at work";
  plexa::_end_cut(0);
}

TEST_F(OperationsTest, ACutThatEndsTakesTheMarkBack) {
  mark(true);
  mark(true, 1);
  ASSERT_EQ(plexa::_begin_cut(0), CutStart::kStarted);
  EXPECT_TRUE(is_marked());
  plexa::_unmark_cut(0);
  EXPECT_FALSE(is_marked());
  EXPECT_TRUE(is_marked(1));
  EXPECT_EQ(plexa::_begin_cut(0), CutStart::kBusy) << "it is not over";
  mark(true);
  plexa::_end_cut(0);
  EXPECT_TRUE(is_marked()) << "another's by now";
  mark(false);
  EXPECT_TRUE(may_cut());
}

TEST_F(OperationsTest, ACutThatEndsGivesItsOwnersClaimBack) {
  int owner = 0;
  int another = 0;
  ASSERT_TRUE(plexa::_claim_cut(0, &owner));
  ASSERT_EQ(plexa::_begin_cut(0), CutStart::kStarted);
  plexa::_end_cut(0, &another);
  EXPECT_FALSE(plexa::_claim_cut(0, &another));
  ASSERT_EQ(plexa::_begin_cut(0), CutStart::kStarted);
  plexa::_end_cut(0, &owner);
  EXPECT_TRUE(plexa::_claim_cut(0, &another));
}

TEST_F(OperationsTest, AnOwnerThatGoesTakesItsMarkAlong) {
  int owner = 0;
  int another = 0;
  ASSERT_TRUE(plexa::_claim_cut(0, &owner));
  plexa::_abandon_cut(0, &another);
  EXPECT_TRUE(is_marked());
  plexa::_abandon_cut(0, &owner);
  EXPECT_FALSE(is_marked());
  EXPECT_TRUE(plexa::_claim_cut(0, &another));
  gst_shared_info_remove(table_);
  plexa::_abandon_cut(0, nullptr);
  table_ = gst_shared_info_get();
}

TEST_F(OperationsTest, ALastOperationWaitsForNoMark) {
  mark(true);
  plexa::_enter_last_operation(0);
  EXPECT_EQ(running(), 1);
  EXPECT_EQ(plexa::_begin_cut(0), CutStart::kBusy);
  plexa::_leave_operation(0);
  mark(false);
}

TEST_F(OperationsTest, NoCutBeginsWithoutARegistryOrAKey) {
  EXPECT_EQ(plexa::_begin_cut(4), CutStart::kNoRegistry);
  gst_shared_info_remove(table_);
  EXPECT_EQ(plexa::_begin_cut(0), CutStart::kNoRegistry);
}

TEST_F(OperationsTest, ACutAtWorkMayEndWithoutARegistry) {
  ASSERT_EQ(plexa::_begin_cut(0), CutStart::kStarted);
  gst_shared_info_remove(table_);
  plexa::_end_cut(0);
  table_ = gst_shared_info_get();
  EXPECT_TRUE(may_cut());
}

TEST_F(OperationsTest, TheWaitForOperationsEndsWithTheLastOne) {
  ASSERT_TRUE(plexa::_enter_operation(0));
  ASSERT_TRUE(plexa::_enter_operation(0));
  std::atomic<bool> is_over{false};
  std::thread thread([&] {
    plexa::_wait_for_operations(0, 60000);
    is_over = true;
  });
  plexa::_leave_operation(0);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(is_over);
  plexa::_leave_operation(0);
  thread.join();
}

TEST_F(OperationsTest, TheWaitForOperationsEndsWithItsTime) {
  ASSERT_TRUE(plexa::_enter_operation(0));
  plexa::_wait_for_operations(0, 1);
  plexa::_wait_for_operations(0, 999);
  EXPECT_EQ(running(), 1);
  plexa::_leave_operation(0);
  plexa::_wait_for_operations(0, 60000);
}

TEST_F(OperationsTest, ListedHandlesAreFoundByTheirPlace) {
  for (GstPvrFile *const file : {a_, b_}) add("/rec.kvf", kReader, kListed, file);
  EXPECT_EQ(plexa::_listed_handle(0, 0), a_);
  EXPECT_EQ(plexa::_listed_handle(0, 1), b_);
  EXPECT_EQ(plexa::_listed_handle(0, 2), nullptr);
  EXPECT_EQ(plexa::_listed_handle(1, 0), nullptr);
  gst_shared_info_remove(table_);
  EXPECT_EQ(plexa::_listed_handle(0, 0), nullptr);
}

TEST_F(OperationsTest, WhatAFileHasLostIsKnownUntilItIsEmptiedOrClosedByAll) {
  add("/a.kvf", kWriter);
  add("/b.kvf", kWriter);
  plexa::_add_bytes_cut_off(0, gint64{3} << 32);
  plexa::_add_bytes_cut_off(0, 5);
  plexa::_add_bytes_cut_off(1, 7);
  EXPECT_EQ(plexa::_bytes_cut_off(0), (gint64{3} << 32) + 5);
  plexa::_forget_bytes_cut_off(0);
  EXPECT_EQ(plexa::_bytes_cut_off(0), 0);
  EXPECT_EQ(plexa::_bytes_cut_off(1), 7);
  remove(1, kWriter);
  EXPECT_EQ(plexa::_bytes_cut_off(1), 0);
  plexa::_add_bytes_cut_off(2, 9);
  gst_shared_info_remove(table_);
  EXPECT_EQ(plexa::_bytes_cut_off(2), 0);
}

TEST_F(OperationsTest, EveryCallWithAKeyRefusesOneAbove3) {
  const std::vector<std::function<void(guint32)>> calls = {
      [](guint32 key) { EXPECT_TRUE(plexa::_enter_operation(key)); },
      [](guint32 key) { plexa::_leave_operation(key); },
      [this](guint32 key) { plexa::_leave_and_delete_item(key, true, a_); },
      [](guint32 key) { EXPECT_EQ(plexa::_tenancy(key), 0u); },
      [this](guint32 key) { EXPECT_FALSE(plexa::_claim_cut(key, this)); },
      [this](guint32 key) { plexa::_give_back_cut(key, this); },
      [](guint32 key) { EXPECT_EQ(plexa::_begin_cut(key), CutStart::kNoRegistry); },
      [](guint32 key) { plexa::_enter_last_operation(key); },
      [this](guint32 key) { plexa::_abandon_cut(key, this); },
      [](guint32 key) { plexa::_unmark_cut(key); },
      [](guint32 key) { plexa::_end_cut(key); },
      [](guint32 key) { plexa::_wait_for_operations(key, 60000); },
      [](guint32 key) { EXPECT_EQ(plexa::_listed_handle(key, 0), nullptr); },
      [](guint32 key) { EXPECT_EQ(plexa::_bytes_cut_off(key), 0); },
      [](guint32 key) { plexa::_add_bytes_cut_off(key, 1); },
      [](guint32 key) { plexa::_forget_bytes_cut_off(key); }};
  for (size_t i = 0; i < calls.size(); ++i) {
    LogCapture::clear();
    calls[i](4);
    calls[i](kNoKey);
    EXPECT_THAT(LogCapture::messages(kError),
                ElementsAre("[EXT_FMG] [PLG_ERR] out of range. key=[4]",
                            "[EXT_FMG] [PLG_ERR] out of range. key=[-1]"))
        << "call " << i;
  }
}

// The word stands for the handles: a cut changes it, operations look at it, and neither has a lock
// of its own.
TEST_F(OperationsTest, OperationsAndCutsExcludeEachOther) {
  constexpr int kRounds = 300;
  int handles = 0;
  std::atomic<int> torn{0};
  std::atomic<int> cuts{0};
  run_together(4, [&](int number) {
    int owner = 0;
    for (int i = 0; i < kRounds; ++i) {
      if (number != 0) {
        if (!plexa::_enter_operation(0)) continue;
        if (handles % 2 != 0) ++torn;
        plexa::_leave_operation(0);
      } else if (plexa::_claim_cut(0, &owner)) {
        if (i % 2 == 0) mark(false);  // as error processing does
        while (plexa::_begin_cut(0) != CutStart::kStarted) plexa::_wait_for_operations(0, 20);
        ++handles;
        std::this_thread::yield();
        ++handles;
        plexa::_unmark_cut(0);
        plexa::_end_cut(0, &owner);
        ++cuts;
      }
    }
  });
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(cuts, kRounds);
  EXPECT_EQ(handles, 2 * kRounds);
}

// --- what was cut off

class CutInfoTest : public ::testing::Test {
 protected:
  CutInfoTest() {
    gst_shared_cut_info_remove();
    info_ = gst_shared_cut_info_get();
    LogCapture::clear();
  }
  ~CutInfoTest() override { gst_shared_cut_info_remove(); }

  void set_all() {
    gst_shared_cut_info_set_accumulated_time(info_, -2);
    gst_shared_cut_info_set_accumulated_offset(info_, 0x123456789ALL);
    gst_shared_cut_info_set_total_cuttime(info_, 2147483647);
    gst_shared_cut_info_set_total_cutoffset(info_, -0x1000000000LL);
    gst_shared_cut_info_set_fixed_duration(info_, 360000);
  }
  std::vector<gint64> all(GstSharedCutInfo *info) {
    return {gst_shared_cut_info_get_accumulated_time(info),
            gst_shared_cut_info_get_accumulated_offset(info),
            gst_shared_cut_info_get_total_cuttime(info),
            gst_shared_cut_info_get_total_cutoffset(info),
            gst_shared_cut_info_get_fixed_duration(info)};
  }

  GstSharedCutInfo *info_;
};

#if defined(__i386__)
static_assert(sizeof(GstSharedCutInfo) == 7 * 4 && sizeof(GstFileInfo) == 5 * 4);
#endif

TEST_F(CutInfoTest, IsOneRecordOfZeros) {
  EXPECT_EQ(gst_shared_cut_info_get(), info_);
  EXPECT_THAT(all(info_), ElementsAre(0, 0, 0, 0, 0));
}

TEST_F(CutInfoTest, KeepsEachFieldByItself) {
  set_all();
  EXPECT_THAT(all(info_), ElementsAre(-2, 0x123456789ALL, 2147483647, -0x1000000000LL, 360000));
  EXPECT_EQ(info_->accumulated_time, -2);
  EXPECT_EQ(info_->accumulated_offset, 0x123456789ALL);
  EXPECT_EQ(info_->total_cuttime, 2147483647);
  EXPECT_EQ(info_->total_cutoffset, -0x1000000000LL);
  EXPECT_EQ(info_->fixed_duration, 360000);
}

TEST_F(CutInfoTest, LogsTheFixedDurationBeforeItStoresIt) {
  static gint32 seen = -1;
  LogCapture::set_hook([] { seen = gst_shared_cut_info_get_fixed_duration(nullptr); });
  gst_shared_cut_info_set_fixed_duration(info_, 360000);
  LogCapture::set_hook(nullptr);
  EXPECT_EQ(seen, 0);
  EXPECT_THAT(LogCapture::messages(kInfo), ElementsAre("[EXT_FMG] fixed_duration:360000"));
  EXPECT_EQ(LogCapture::lines().size(), 1u);
}

TEST_F(CutInfoTest, ReadsZeroAfterARemoveAlsoThroughTheOldRecord) {
  set_all();
  gst_shared_cut_info_remove();
  EXPECT_EQ(g_lib_shared_info.cut_info, nullptr);
  EXPECT_THAT(all(info_), ElementsAre(0, 0, 0, 0, 0));
  EXPECT_NE(g_lib_shared_info.cut_info, nullptr) << "a new record was made";
}

TEST_F(CutInfoTest, AnOldRecordStandsForTheOneThatLives) {
  gst_shared_cut_info_remove();
  GstSharedCutInfo *const other = gst_shared_cut_info_get();
  gst_shared_cut_info_set_total_cutoffset(other, 188);
  EXPECT_EQ(gst_shared_cut_info_get_total_cutoffset(info_), 188);
  gst_shared_cut_info_set_total_cutoffset(info_, 376);
  EXPECT_EQ(gst_shared_cut_info_get_total_cutoffset(other), 376);
  EXPECT_EQ(gst_shared_cut_info_get_total_cutoffset(nullptr), 376);
}

TEST_F(CutInfoTest, RemoveTwiceDoesNoHarm) {
  gst_shared_cut_info_remove();
  gst_shared_cut_info_remove();
  EXPECT_EQ(g_lib_shared_info.cut_info, nullptr);
}

TEST_F(CutInfoTest, WithoutMemoryGettersGiveZeroAndSettersDoNothing) {
  gst_shared_cut_info_remove();
  Faults faults;
  faults.fail_all("calloc", ENOMEM);
  EXPECT_EQ(gst_shared_cut_info_get(), nullptr);
  gst_shared_cut_info_set_total_cuttime(nullptr, 5);
  EXPECT_EQ(gst_shared_cut_info_get_total_cuttime(nullptr), 0);
  EXPECT_EQ(g_lib_shared_info.cut_info, nullptr);
}

TEST_F(CutInfoTest, HasALockOfItsOwn) {
  pthread_mutex_trylock(&g_lib_shared_info.registry_mutex);
  set_all();
  EXPECT_EQ(gst_shared_cut_info_get_total_cuttime(info_), 2147483647);
  gst_shared_cut_info_remove();
  pthread_mutex_unlock(&g_lib_shared_info.registry_mutex);
}

TEST_F(CutInfoTest, OldRecordsAreSafeWhileAnotherThreadRemoves) {
  std::atomic<int> failures{0};
  run_together(4, [&](int number) {
    for (int i = 0; i < 2000; ++i) {
      if (number == 0) {
        gst_shared_cut_info_remove();
        gst_shared_cut_info_set_accumulated_offset(info_, 0x100000001LL);
      } else {
        const gint64 offset = gst_shared_cut_info_get_accumulated_offset(info_);
        if (offset != 0 && offset != 0x100000001LL) ++failures;  // half of it would be a tear
      }
    }
  });
  EXPECT_EQ(failures, 0);
}

}  // namespace
}  // namespace plexa_test
