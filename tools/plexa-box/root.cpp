// root.cpp - see root.h.
//
// The path is walked folder by folder on descriptors, none of which follows a link, and what it
// names is looked at last. The library opens the file by its path afterwards. In between nobody
// can put a link there through the box: no request makes one, and no request moves anything but a
// regular file. Somebody else on this machine could; against him stands confine().
#include "root.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <system_error>
#include <vector>

namespace plexa::box {
namespace {

constexpr std::size_t kLongestPath = 255;  // what the library keeps of a path
constexpr int kFolder = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr mode_t kFolderMode = 0755;

class Descriptor {
 public:
  explicit Descriptor(int number = -1) noexcept : number_(number) {}
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  ~Descriptor() { reset(-1); }
  void reset(int number) noexcept {
    const int saved = errno;
    if (number_ >= 0) ::close(number_);
    errno = saved;
    number_ = number;
  }
  int get() const noexcept { return number_; }

 private:
  int number_;
};

std::string refused(int error_number) {
  errno = error_number;
  return {};
}

// "//" and "/./" mean nothing.
std::vector<std::string> names_of(std::string_view path) {
  std::vector<std::string> names;
  while (!path.empty()) {
    const std::string_view name = path.substr(0, path.find('/'));
    path.remove_prefix(name.size() + (name.size() < path.size() ? 1 : 0));
    if (!name.empty() && name != ".") names.emplace_back(name);
  }
  return names;
}

int open_folder(int parent, const std::string &name, bool make) {
  const int folder = ::openat(parent, name.c_str(), kFolder);
  if (folder >= 0 || errno != ENOENT || !make) return folder;
  if (::mkdirat(parent, name.c_str(), kFolderMode) != 0 && errno != EEXIST) return -1;
  return ::openat(parent, name.c_str(), kFolder);
}

bool is_sound(int folder, const std::string &name, Root::File file) {
  struct stat status = {};
  if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return errno == ENOENT && file != Root::File::kExists;
  }
  if (S_ISREG(status.st_mode)) return true;
  errno = S_ISDIR(status.st_mode) ? EISDIR : S_ISLNK(status.st_mode) ? ELOOP : EINVAL;
  return false;
}

}  // namespace

Root::Root(const std::string &folder) {
  const std::unique_ptr<char, decltype(&std::free)> real(::realpath(folder.c_str(), nullptr),
                                                         &std::free);
  if (real != nullptr) folder_ = ::open(real.get(), kFolder);
  if (folder_ < 0) throw std::system_error(errno, std::generic_category(), folder);
  path_ = real.get();
  if (path_ == "/") path_.clear();
}

Root::~Root() { ::close(folder_); }

std::string Root::locate(std::string_view path, File file) const {
  if (path.find('\0') != std::string_view::npos) return refused(EINVAL);
  if (path.empty() || path.ends_with('/')) return refused(EINVAL);
  const std::vector<std::string> names = names_of(path);
  if (names.empty()) return refused(EINVAL);
  std::string located = path_;
  for (const std::string &name : names) {
    if (name == "..") return refused(EXDEV);
    located += '/';
    located += name;
  }
  if (located.size() > kLongestPath) return refused(ENAMETOOLONG);
  Descriptor opened;
  int parent = folder_;
  for (std::size_t i = 0; i + 1 < names.size(); ++i) {
    const int folder = open_folder(parent, names[i], file == File::kIsMade);
    if (folder < 0) return {};
    opened.reset(folder);
    parent = folder;
  }
  return is_sound(parent, names.back(), file) ? located : std::string();
}

}  // namespace plexa::box
