#include <faitra/host/hold_json.hpp>

#include <faitra/host/escaped_bytes.hpp>

#include <cdl/json_values.hpp>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

namespace faitra_host {

namespace {

constexpr unsigned STATE_VERSION = 1;

void optional_number(cdl::json_writer& w, const char* name, const std::optional<uint64_t>& v) {
  w.key(name, true);
  if (v) {
    w.value<unsigned long>(*v);
  } else {
    w.null_value();
  }
}

void number(cdl::json_writer& w, const char* name, unsigned long v) {
  w.key(name, true);
  w.value<unsigned long>(v);
}

void text(cdl::json_writer& w, const char* name, const std::string& v) {
  w.key(name, true);
  w.value<std::string>(v);
}

// Readers that raise a readable message on a member of the wrong type.
class bad_state : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

const rapidjson::Value& member(const rapidjson::Value& object, const char* name) {
  if (!object.IsObject() || !object.HasMember(name)) throw bad_state(std::string("missing member ") + name);
  return object[name];
}

uint64_t read_number(const rapidjson::Value& object, const char* name) {
  const auto& v = member(object, name);
  if (!v.IsUint64()) throw bad_state(std::string(name) + " is not a non-negative integer");
  return v.GetUint64();
}

std::optional<uint64_t> read_optional_number(const rapidjson::Value& object, const char* name) {
  if (member(object, name).IsNull()) return std::nullopt;
  return read_number(object, name);
}

std::string read_text(const rapidjson::Value& object, const char* name) {
  const auto& v = member(object, name);
  if (!v.IsString()) throw bad_state(std::string(name) + " is not a string");
  return std::string(v.GetString(), v.GetStringLength());
}

hold read_hold(const rapidjson::Value& v) {
  hold h;
  h.id = read_number(v, "id");
  h.reason = read_text(v, "reason");
  h.created_ns = read_number(v, "created");
  h.expires_ns = read_optional_number(v, "expires");
  if (!member(v, "window").IsNull()) h.window = time_window{read_number(v["window"], "start"), read_number(v["window"], "end")};
  const auto& captures = member(v, "captures");
  if (!captures.IsArray()) throw bad_state("captures is not an array");
  for (const auto& c : captures.GetArray()) {
    held_capture out;
    // Names are bytes; those that are not UTF-8 were written as \udcXX.
    out.path = restore_escaped_bytes(read_text(c, "path"));
    out.held_path = restore_escaped_bytes(read_text(c, "held_path"));
    if (!member(c, "key").IsNull()) out.key = restore_escaped_bytes(read_text(c, "key"));
    out.start_ts = read_optional_number(c, "start_ts");
    out.end_ts = read_optional_number(c, "end_ts");
    out.creation_ts = read_number(c, "creation_ts");
    out.file_size = read_number(c, "file_size");
    h.captures.push_back(std::move(out));
  }
  return h;
}

}  // namespace

void write_hold(cdl::json_writer& w, const hold& h) {
  w.begin_object();
  number(w, "id", h.id);
  text(w, "reason", h.reason);
  number(w, "created", h.created_ns);
  optional_number(w, "expires", h.expires_ns);
  w.key("window", true);
  if (h.window) {
    w.begin_object();
    number(w, "start", h.window->start);
    number(w, "end", h.window->end);
    w.end_object();
  } else {
    w.null_value();
  }
  unsigned long bytes = 0;
  for (const held_capture& c : h.captures) bytes += c.file_size;
  number(w, "bytes", bytes);
  w.key("captures", true);
  w.begin_array();
  for (const held_capture& c : h.captures) {
    w.begin_object();
    text(w, "path", c.path);
    text(w, "held_path", c.held_path);
    w.key("key", true);
    if (c.key) {
      w.value<std::string>(*c.key);
    } else {
      w.null_value();
    }
    optional_number(w, "start_ts", c.start_ts);
    optional_number(w, "end_ts", c.end_ts);
    number(w, "creation_ts", c.creation_ts);
    number(w, "file_size", c.file_size);
    w.end_object();
  }
  w.end_array();
  w.end_object();
}

std::string holds_to_json(const std::vector<hold>& holds, unsigned long next_id) {
  cdl::json_writer w;
  w.begin_object();
  number(w, "version", STATE_VERSION);
  number(w, "next_id", next_id);
  w.key("holds", true);
  w.begin_array();
  for (const hold& h : holds) write_hold(w, h);
  w.end_array();
  w.end_object();
  return w.take() + "\n";
}

bool holds_from_json(const std::string& text, std::vector<hold>& holds, unsigned long& next_id, std::string& error) {
  rapidjson::Document doc;
  doc.Parse(text.data(), text.size());
  if (doc.HasParseError()) {
    error = std::string("malformed JSON: ") + rapidjson::GetParseError_En(doc.GetParseError()) + " at offset " +
            std::to_string(doc.GetErrorOffset());
    return false;
  }
  try {
    if (read_number(doc, "version") != STATE_VERSION) throw bad_state("unknown version");
    next_id = read_number(doc, "next_id");
    const auto& list = member(doc, "holds");
    if (!list.IsArray()) throw bad_state("holds is not an array");
    holds.clear();
    for (const auto& h : list.GetArray()) {
      holds.push_back(read_hold(h));
      if (holds.back().id >= next_id) next_id = holds.back().id + 1;
    }
  } catch (const bad_state& e) {
    error = e.what();
    return false;
  }
  return true;
}

}  // namespace faitra_host
