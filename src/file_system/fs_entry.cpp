#include <csl/fs_entry.hpp>

#include <cdl/json_reader.hpp>
#include <cdl/json_values.hpp>
#include <cdl/text.hpp>

namespace csl {

fs_entry::fs_entry(const fs_entry& other)
    : cdl::json_object(),
      path(other.path),
      key(other.key),
      creation_ts(other.creation_ts),
      start_ts(other.start_ts),
      end_ts(other.end_ts),
      file_size(other.file_size),
      deletion(other.deletion.load()) {}

fs_entry& fs_entry::operator=(const fs_entry& other) {
  path = other.path;
  key = other.key;
  creation_ts = other.creation_ts;
  start_ts = other.start_ts;
  end_ts = other.end_ts;
  file_size = other.file_size;
  deletion.store(other.deletion.load());
  return *this;
}

fs_entry::~fs_entry() = default;

namespace {

std::string nullable_text(const cdl::nullable<unsigned long>& value) {
  return value.is_null() ? std::string("null") : cdl::to_str(*value);
}

}  // namespace

std::string fs_entry::to_str() {
  std::string text;
  text += "path: " + path + ", ";
  text += "key: " + (key.is_null() ? std::string("null") : *key) + ", ";
  text += "creation_ts: " + cdl::to_str(creation_ts) + ", ";
  text += "start_ts: " + nullable_text(start_ts) + ", ";
  text += "end_ts: " + nullable_text(end_ts) + ", ";
  text += "file_size: " + cdl::to_str(file_size) + ", ";
  return text;
}

// The api version and print type are deliberately not passed on: the
// record's JSON form is the same for all of them.
void fs_entry::to_json(cdl::json_writer& writer, cdl::api_version_t<int>, cdl::print_type_t<int>) const {
  const cdl::api_version_t<int> version;
  const cdl::print_type_t<int> print;
  writer.begin_object();
  writer.key("path", true);
  writer.value(path, version, print);
  writer.key("key", true);
  writer.value(key, version, print);
  writer.key("creation_ts", true);
  writer.value(creation_ts, version, print);
  writer.key("start_ts", true);
  writer.value(start_ts, version, print);
  writer.key("end_ts", true);
  writer.value(end_ts, version, print);
  writer.key("file_size", true);
  writer.value(file_size, version, print);
  writer.key("pending_deletion", true);
  writer.value(is_deletion_pending(), version, print);
  writer.end_object();
}

// Members are read in order and none is mandatory. A member of the wrong
// type ends the read with its exception, leaving the members read before it
// changed. "pending_deletion" can only set the marker, never clear it.
void fs_entry::from_json(const rapidjson::Document& doc, cdl::validation_error_list&, cdl::api_version_t<int>,
                         cdl::print_type_t<int>, cdl::field_specs) {
  const cdl::field_specs rules(0);
  cdl::set_from_json(path, doc, "path", rules);
  cdl::set_from_json(key, doc, "key", rules);
  cdl::set_from_json(creation_ts, doc, "creation_ts", rules);
  cdl::set_from_json(start_ts, doc, "start_ts", rules);
  cdl::set_from_json(end_ts, doc, "end_ts", rules);
  cdl::set_from_json(file_size, doc, "file_size", rules);
  bool pending = false;
  if (cdl::set_from_json(pending, doc, "pending_deletion", rules) && pending) {
    deletion.store(deletion_by::requested);
  }
}

}  // namespace csl
