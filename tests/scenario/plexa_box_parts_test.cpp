// The walls around what plexa-box serves, without the program around them.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "plexa-box/confine.h"
#include "plexa-box/root.h"
#include "temp_dir.h"

namespace plexa_test {
namespace {

using plexa::box::Root;

class PlexaBoxRootTest : public ::testing::Test {
 protected:
  std::string locate(const std::string &path, Root::File file = Root::File::kExists) const {
    return root_.locate(path, file);
  }
  int refusal(const std::string &path, Root::File file = Root::File::kExists) const {
    errno = 0;
    return locate(path, file).empty() ? errno : 0;
  }

  TempDir dir_;
  const Root root_{dir_.path()};
};

TEST_F(PlexaBoxRootTest, AFileLiesBelowTheRoot) {
  std::filesystem::create_directories(dir_.file("a/b"));
  write_file(dir_.file("a/b/film.kvf"), {1});
  for (const char *const path : {"/a/b/film.kvf", "a/b/film.kvf", "///a//b/./film.kvf"}) {
    EXPECT_EQ(locate(path), dir_.file("a/b/film.kvf")) << path;
  }
}

TEST_F(PlexaBoxRootTest, ToldWhyNot) {
  std::filesystem::create_directories(dir_.file("a/b"));
  write_file(dir_.file("film.kvf"), {1});
  std::filesystem::create_symlink("film.kvf", dir_.file("link.kvf"));
  std::filesystem::create_symlink("a", dir_.file("way"));
  EXPECT_EQ(refusal(""), EINVAL);
  EXPECT_EQ(refusal("/film.kvf/"), EINVAL);
  EXPECT_EQ(refusal(std::string("film.kvf\0", 9)), EINVAL);
  EXPECT_EQ(refusal("/a/../film.kvf"), EXDEV);
  EXPECT_EQ(refusal("/none.kvf"), ENOENT);
  EXPECT_EQ(refusal("/a"), EISDIR);
  EXPECT_EQ(refusal("/film.kvf/x"), ENOTDIR);
  EXPECT_EQ(refusal("/link.kvf"), ELOOP);
  EXPECT_EQ(refusal("/way/b"), ENOTDIR);
  EXPECT_EQ(refusal("/" + std::string(255 - dir_.path().size(), 'x')), ENAMETOOLONG);
  EXPECT_EQ(refusal("/" + std::string(254 - dir_.path().size(), 'x'), Root::File::kMayExist), 0);
}

TEST_F(PlexaBoxRootTest, MissingFoldersAreMadeOnlyWhenAskedFor) {
  EXPECT_EQ(refusal("/a/b/film.kvf", Root::File::kMayExist), ENOENT);
  EXPECT_FALSE(exists(dir_.file("a")));
  EXPECT_EQ(locate("/a/b/film.kvf", Root::File::kIsMade), dir_.file("a/b/film.kvf"));
  EXPECT_TRUE(std::filesystem::is_directory(dir_.file("a/b")));
  EXPECT_FALSE(exists(dir_.file("a/b/film.kvf")));
}

TEST_F(PlexaBoxRootTest, WhatIsNoFolderIsNoRoot) {
  write_file(dir_.file("film.kvf"), {1});
  EXPECT_THROW(Root(dir_.file("film.kvf")), std::system_error);
  EXPECT_THROW(Root(dir_.file("none")), std::system_error);
}

// In a child, since there is no way back: bit by bit, what it could do.
TEST_F(PlexaBoxRootTest, BehindTheWallOnlyTheRootIsReached) {
  TempDir outside;
  write_file(outside.file("secret"), {1});
  write_file(dir_.file("film.kvf"), {1});
  const pid_t child = ::fork();
  if (child == 0) {
    if (!plexa::box::confine(root_.folder())) ::_exit(255);
    const auto opens = [](const std::string &path, int flags) {
      return ::open(path.c_str(), flags | O_CLOEXEC, 0600) >= 0;
    };
    int reached = 0;
    reached |= opens(dir_.file("film.kvf"), O_RDWR | O_TRUNC) ? 1 : 0;
    reached |= opens(dir_.file("new.kvf"), O_WRONLY | O_CREAT) ? 2 : 0;
    reached |= ::mkdir(dir_.file("folder").c_str(), 0700) == 0 ? 4 : 0;
    reached |= ::rename(dir_.file("new.kvf").c_str(), dir_.file("folder/x").c_str()) == 0 ? 8 : 0;
    reached |= opens(outside.file("secret"), O_RDONLY) ? 16 : 0;
    reached |= opens(outside.file("new"), O_WRONLY | O_CREAT) ? 32 : 0;
    reached |= ::symlink("x", dir_.file("link").c_str()) == 0 ? 64 : 0;
    ::_exit(reached);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  if (WEXITSTATUS(status) == 255) GTEST_SKIP() << "this kernel has no Landlock";
  EXPECT_EQ(WEXITSTATUS(status), 1 + 2 + 4 + 8);
}

}  // namespace
}  // namespace plexa_test
