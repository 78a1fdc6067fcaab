// The vector: untyped pointers in order, never owned.
#include "gst-plexa/gst_vector.h"

#include <gmock/gmock.h>

#include <initializer_list>
#include <vector>

#include "log_capture.h"

namespace plexa_test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class VectorTest : public ::testing::Test {
 protected:
  VectorTest() {
    // A call that GLib would have to refuse ends the program.
    g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_FATAL_MASK));
    LogCapture::clear();
  }
  ~VectorTest() override { gst_vector_free(vector_); }

  void fill(std::initializer_list<int *> elements) {
    for (int *const element : elements) gst_vector_push_back(vector_, element);
  }
  std::vector<int *> contents() const {
    std::vector<int *> out;
    for (gint32 i = 0; i < gst_vector_size(vector_); ++i) {
      out.push_back(static_cast<int *>(gst_vector_index(vector_, i)));
    }
    return out;
  }

  int numbers_[4] = {1, 2, 3, 4};
  int *const a_ = &numbers_[0];
  int *const b_ = &numbers_[1];
  int *const c_ = &numbers_[2];
  int *const d_ = &numbers_[3];
  GPtrArray *const vector_ = gst_vector_new();
};

TEST_F(VectorTest, IsEmptyAtFirst) { EXPECT_EQ(gst_vector_size(vector_), 0); }

TEST_F(VectorTest, WithoutAVectorHasNoEntries) { EXPECT_EQ(gst_vector_size(nullptr), 0); }

TEST_F(VectorTest, KeepsElementsInTheOrderOfPushing) {
  fill({b_, a_, b_});
  EXPECT_THAT(contents(), ElementsAre(b_, a_, b_));
  EXPECT_EQ(gst_vector_front(vector_), b_);
  EXPECT_EQ(gst_vector_index(vector_, 1), a_);
}

TEST_F(VectorTest, FrontAndBackAreTheEnds) {
  fill({a_, b_, c_});
  EXPECT_EQ(gst_vector_front(vector_), a_);
  EXPECT_EQ(gst_vector_back(vector_), c_);
}

TEST_F(VectorTest, EraseRemovesTheFirstEqualEntryAndMovesTheRestUp) {
  fill({a_, b_, c_, b_});
  EXPECT_TRUE(gst_vector_erase(vector_, b_));
  EXPECT_THAT(contents(), ElementsAre(a_, c_, b_));
}

TEST_F(VectorTest, EraseOfAnElementThatIsNotThereChangesNothing) {
  fill({a_, b_});
  EXPECT_FALSE(gst_vector_erase(vector_, c_));
  EXPECT_THAT(contents(), ElementsAre(a_, b_));
}

TEST_F(VectorTest, EraseByIndexGivesTheElementAndMovesTheRestUp) {
  fill({a_, b_, c_});
  EXPECT_EQ(gst_vector_erase_index(vector_, 1), b_);
  EXPECT_THAT(contents(), ElementsAre(a_, c_));
}

TEST_F(VectorTest, EraseByAnIndexOutOfRangeChangesNothing) {
  fill({a_, b_});
  EXPECT_EQ(gst_vector_erase_index(vector_, 2), nullptr);
  EXPECT_EQ(gst_vector_erase_index(vector_, -1), nullptr);
  EXPECT_THAT(contents(), ElementsAre(a_, b_));
}

TEST_F(VectorTest, NeverTouchesItsElements) {
  fill({a_, b_, c_, d_});
  gst_vector_erase(vector_, a_);
  gst_vector_clear(vector_);
  EXPECT_THAT(numbers_, ElementsAre(1, 2, 3, 4));
}

TEST_F(VectorTest, ClearLeavesTheEntriesAtOddPositions) {
  fill({a_, b_, c_, d_});
  gst_vector_clear(vector_);
  EXPECT_THAT(contents(), ElementsAre(b_, d_));
}

TEST_F(VectorTest, ClearOfAnOddNumberLeavesHalfRoundedDown) {
  fill({a_, b_, c_, d_, a_});
  gst_vector_clear(vector_);
  EXPECT_THAT(contents(), ElementsAre(b_, d_));
}

TEST_F(VectorTest, ClearOfOneEntryLeavesNone) {
  fill({a_});
  gst_vector_clear(vector_);
  EXPECT_THAT(contents(), IsEmpty());
}

TEST_F(VectorTest, ClearOfAnEmptyVectorDoesNothing) {
  gst_vector_clear(vector_);
  EXPECT_THAT(contents(), IsEmpty());
  EXPECT_THAT(LogCapture::messages(), IsEmpty());
}

TEST_F(VectorTest, ClearWithoutAVectorIsRefused) {
  gst_vector_clear(nullptr);
  EXPECT_LOGGED(kError, "[EXT_TOOL] [PLG_ERR] vector == NULL");
}

}  // namespace
}  // namespace plexa_test
