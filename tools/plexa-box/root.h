// root.h - the folder that the box serves, and where a client's path lies in it.
//
// A client's path is taken as if the folder were "/": "/films/a.kvf" and "films/a.kvf" are the same
// file. Refused are "..", every symbolic link, whatever is not a regular file, empty names, and
// paths that are longer on this disk than the library takes. Immutable: any thread may call.
#pragma once

#include <string>
#include <string_view>

namespace plexa::box {

class Root {
 public:
  enum class File {
    kExists,    // it must
    kMayExist,  // the folder must
    kIsMade,    // missing folders are made
  };

  // Throws a std::system_error when there is no such folder.
  explicit Root(const std::string &folder);
  ~Root();
  Root(const Root &) = delete;
  Root &operator=(const Root &) = delete;

  // The file's path on this disk; empty, with errno, when it is refused.
  std::string locate(std::string_view path, File file) const;
  const std::string &path() const { return path_; }  // real, without a "/" at its end
  int folder() const { return folder_; }

 private:
  std::string path_;
  int folder_ = -1;
};

}  // namespace plexa::box
