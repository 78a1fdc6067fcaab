// The slot manager: one of four slots for each recording, whatever its file's extension.
#include "gst-plexa/gst_file_key_mgr.h"

#include <gmock/gmock.h>

#include <cstring>
#include <string>

#include "faults.h"
#include "gst-plexa/gst_file_shared_info.h"
#include "log_capture.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class KeyManagerTest : public ::testing::Test {
 protected:
  KeyManagerTest() {
    gst_key_mgr_init_all_key_info(&table_);
    LogCapture::clear();
  }

  gint32 allocate(const std::string &path) {
    return gst_key_mgr_allocate_key(&table_, path.c_str());
  }
  gint32 pre_allocate(const std::string &path) {
    return gst_key_mgr_pre_allocate_key(&table_, path.c_str());
  }
  // a.kvf, b.kvf, ... in the slots 0, 1, ...
  void take(int slots) {
    for (int i = 0; i < slots; ++i)
      allocate("/" + std::string(1, static_cast<char>('a' + i)) + ".kvf");
    LogCapture::clear();
  }

  GstSharedInfo table_ = {};
};

TEST_F(KeyManagerTest, TakesTheFirstFreeSlotAndStoresThePathWithoutExtension) {
  EXPECT_EQ(allocate("/rec/one.kvf"), 0);
  EXPECT_EQ(table_.slots[0].used, 1);
  EXPECT_STREQ(table_.slots[0].path, "/rec/one");
  EXPECT_EQ(allocate("/rec/two.kvf"), 1);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(KeyManagerTest, GivesTheFilesOfOneRecordingTheSameKey) {
  take(1);
  EXPECT_EQ(allocate("/a.mdb"), 0);
  EXPECT_THAT(LogCapture::messages(kInfo), ElementsAre("[EXT_FMG] Already be used, index:0"));
  EXPECT_EQ(table_.slots[1].used, 0);
}

TEST_F(KeyManagerTest, FindsARecordingBehindAFreeSlot) {
  take(3);
  gst_key_mgr_init_key_info(&table_, 0);
  EXPECT_EQ(allocate("/c.mdb"), 2);
  EXPECT_EQ(pre_allocate("/c.mdb"), 2);
  EXPECT_EQ(table_.slots[0].used, 0);
}

TEST_F(KeyManagerTest, IgnoresThePathOfAFreeSlot) {
  take(2);
  table_.slots[1].used = 0;  // its path still stands there
  EXPECT_EQ(pre_allocate("/b.kvf"), 1);
  gst_key_mgr_init_key_info(&table_, 0);
  EXPECT_EQ(pre_allocate("/b.kvf"), 0);
}

TEST_F(KeyManagerTest, LeavesNothingOfAnOldPathBehindANewOne) {
  allocate("/a-long-name.kvf");
  table_.slots[0].used = 0;
  EXPECT_EQ(allocate("/b.kvf"), 0);
  EXPECT_STREQ(table_.slots[0].path, "/b");
}

TEST_F(KeyManagerTest, RefusesAFifthRecording) {
  take(4);
  EXPECT_EQ(allocate("/e.kvf"), -1);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [PLG_ERR] Range error !!, index=[-1]",
                          "[EXT_FMG] [PLG_ERR] allocate key failed"));
  EXPECT_EQ(allocate("/d.mdb"), 3);
}

TEST_F(KeyManagerTest, PreAllocateMarksNothing) {
  EXPECT_EQ(pre_allocate("/a.kvf"), 0);
  EXPECT_EQ(table_.slots[0].used, 0);
  EXPECT_STREQ(table_.slots[0].path, "");
  take(4);
  EXPECT_EQ(pre_allocate("/e.kvf"), -1);
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(KeyManagerTest, RefusesAPathWithoutADot) {
  EXPECT_EQ(allocate("/rec"), -1);
  EXPECT_EQ(pre_allocate("/rec"), -1);
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_TOOL] [PLG_ERR] can not find char of [.]",
                          "[EXT_FMG] [PLG_ERR] path_no_ext is NULL",
                          "[EXT_TOOL] [PLG_ERR] can not find char of [.]",
                          "[EXT_FMG] [PLG_ERR] path_no_ext is NULL"));
  EXPECT_EQ(table_.slots[0].used, 0);
}

TEST_F(KeyManagerTest, RefusesANullPath) {
  EXPECT_EQ(gst_key_mgr_allocate_key(&table_, nullptr), -1);
  EXPECT_EQ(gst_key_mgr_pre_allocate_key(&table_, nullptr), -1);
  EXPECT_EQ(LogCapture::count(kError, "[EXT_FMG] [PLG_ERR] path_no_ext is NULL"), 2);
}

TEST_F(KeyManagerTest, FailsWithoutMemory) {
  Faults faults;
  faults.fail("malloc", ENOMEM);
  EXPECT_EQ(allocate("/a.kvf"), -1);
  EXPECT_EQ(table_.slots[0].used, 0);
}

TEST_F(KeyManagerTest, StoresAPathOf255CharactersWhole) {
  const std::string stem = "/" + std::string(254, 'x');
  EXPECT_EQ(allocate(stem + ".kvf"), 0);
  EXPECT_EQ(table_.slots[0].path, stem);
  EXPECT_EQ(allocate(stem + ".mdb"), 0);
}

TEST_F(KeyManagerTest, CutsALongerPathSoThatItNeverFindsItsSlotAgain) {
  const std::string stem = "/" + std::string(254, 'x');
  EXPECT_EQ(allocate(stem + "y.kvf"), 0);
  EXPECT_EQ(table_.slots[0].path, stem);
  EXPECT_EQ(allocate(stem + "y.mdb"), 1);
  EXPECT_EQ(allocate(stem + ".mdb"), 0) << "the cut copy is a path like any other";
}

TEST_F(KeyManagerTest, ComparesWholePathsByteForByte) {
  take(1);
  EXPECT_EQ(allocate("/A.kvf"), 1);
  EXPECT_EQ(allocate("/aa.kvf"), 2);
  EXPECT_EQ(allocate("/.kvf"), 3);
}

TEST_F(KeyManagerTest, ClearsOneSlotByKey) {
  take(2);
  gst_key_mgr_init_key_info(&table_, 1);
  EXPECT_EQ(table_.slots[0].used, 1);
  EXPECT_EQ(table_.slots[1].used, 0);
  EXPECT_STREQ(table_.slots[1].path, "");
}

TEST_F(KeyManagerTest, FreesAKeyInTheSameWay) {
  take(4);
  EXPECT_TRUE(gst_key_mgr_free_key(&table_, 3));
  EXPECT_EQ(table_.slots[3].used, 0);
  EXPECT_STREQ(table_.slots[3].path, "");
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(KeyManagerTest, RefusesToClearAKeyAbove3) {
  take(4);
  const GstSharedInfo before = table_;
  gst_key_mgr_init_key_info(&table_, 4);
  EXPECT_TRUE(gst_key_mgr_free_key(&table_, static_cast<guint32>(-1)));
  EXPECT_THAT(LogCapture::messages(kError),
              ElementsAre("[EXT_FMG] [PLG_ERR] wrong key[4]", "[EXT_FMG] [PLG_ERR] wrong key[-1]"));
  EXPECT_EQ(memcmp(&before.slots, &table_.slots, sizeof table_.slots), 0);
}

TEST_F(KeyManagerTest, ClearsAllSlots) {
  take(4);
  gst_key_mgr_init_all_key_info(&table_);
  const GstKeyInfo empty = {};
  for (const GstKeyInfo &slot : table_.slots) EXPECT_EQ(memcmp(&slot, &empty, sizeof slot), 0);
}

}  // namespace
}  // namespace plexa_test
