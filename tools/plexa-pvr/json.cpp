// json.cpp - see json.h.
#include "json.h"

#include <cstdio>

#include "text.h"

namespace plexa::pvr {
namespace {

// The members of an object without its braces.
std::string inner(const Json &object) {
  const std::string text = object.text(false);
  return text.substr(1, text.size() - 2);
}

}  // namespace

Json::Json() : builder_(json_builder_new()) {}

void Json::name(const char *member) {
  if (member != nullptr) json_builder_set_member_name(builder_.get(), member);
}

Json &Json::object(const char *member) {
  name(member);
  json_builder_begin_object(builder_.get());
  is_object_.push_back(true);
  return *this;
}

Json &Json::array(const char *member) {
  name(member);
  json_builder_begin_array(builder_.get());
  is_object_.push_back(false);
  return *this;
}

Json &Json::end() {
  if (is_object_.back()) {
    json_builder_end_object(builder_.get());
  } else {
    json_builder_end_array(builder_.get());
  }
  is_object_.pop_back();
  return *this;
}

Json &Json::add(const char *member, bool value) {
  name(member);
  json_builder_add_boolean_value(builder_.get(), value);
  return *this;
}

Json &Json::add(const char *member, int64_t value) {
  name(member);
  json_builder_add_int_value(builder_.get(), value);
  return *this;
}

Json &Json::add(const char *member, uint64_t value) {
  if (value <= uint64_t{G_MAXINT64}) return add(member, static_cast<int64_t>(value));
  return add(member, format("%llu", static_cast<unsigned long long>(value)));
}

Json &Json::add(const char *member, const std::string &value) {
  name(member);
  json_builder_add_string_value(builder_.get(), value.c_str());
  return *this;
}

Json &Json::add_null(const char *member) {
  name(member);
  json_builder_add_null_value(builder_.get());
  return *this;
}

std::string Json::text(bool pretty) const {
  const std::unique_ptr<JsonGenerator, Unref> generator(json_generator_new());
  JsonNode *const root = json_builder_get_root(builder_.get());
  json_generator_set_root(generator.get(), root);
  json_generator_set_pretty(generator.get(), pretty);
  gchar *const text = json_generator_to_data(generator.get(), nullptr);
  json_node_unref(root);
  std::string copy(text);
  g_free(text);
  if (pretty) copy += '\n';
  return copy;
}

JsonStream::JsonStream(const Json &head, const char *array_name) {
  const std::string members = inner(head);
  std::printf("{%s%s\"%s\":[", members.c_str(), members.empty() ? "" : ",", array_name);
}

void JsonStream::element(const Json &value) {
  std::printf("%s\n%s", first_ ? "" : ",", value.text(false).c_str());
  first_ = false;
}

void JsonStream::finish(const Json &tail) {
  const std::string members = inner(tail);
  std::printf("\n]%s%s}\n", members.empty() ? "" : ",", members.c_str());
}

}  // namespace plexa::pvr
