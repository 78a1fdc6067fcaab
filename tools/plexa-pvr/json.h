// json.h - a JSON document, built member by member with json-glib.
//
//   Json json;
//   json.object().add("gops", 3).array("frames")...end().end();
//   fputs(json.text().c_str(), stdout);
//
// Not for use from several threads.
#pragma once

#include <json-glib/json-glib.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace plexa::pvr {

class Json {
 public:
  Json();

  // Opens an object or an array; the name only inside an object.
  Json &object(const char *name = nullptr);
  Json &array(const char *name = nullptr);
  // Closes what was opened last.
  Json &end();

  Json &add(const char *name, bool value);
  Json &add(const char *name, int value) { return add(name, int64_t{value}); }
  Json &add(const char *name, unsigned value) { return add(name, int64_t{value}); }
  Json &add(const char *name, int64_t value);
  // JSON readers take 64-bit signed numbers at best: a greater value becomes a string of digits.
  Json &add(const char *name, uint64_t value);
  Json &add(const char *name, const std::string &value);
  Json &add(const char *name, const char *value) { return add(name, std::string(value)); }
  Json &add_null(const char *name);

  // The document; pretty: indented, and ended by a newline.
  std::string text(bool pretty = true) const;

 private:
  void name(const char *member);

  struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
  };
  std::unique_ptr<JsonBuilder, Unref> builder_;
  std::vector<bool> is_object_;  // of what is open
};

// An array member that is too long to be built in memory, printed element by element:
//
//   {"recording": "...", "frames": [
//   {...},
//   {...}
//   ], "complete": true}
class JsonStream {
 public:
  // `head` is a finished object; its members come first.
  JsonStream(const Json &head, const char *array_name);
  void element(const Json &value);
  // `tail` is a finished object; its members come last.
  void finish(const Json &tail);

 private:
  bool first_ = true;
};

}  // namespace plexa::pvr
