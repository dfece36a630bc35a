#include "serve/api_request.hpp"

#include <faitra/host/escaped_bytes.hpp>

#include <cdl/exception.hpp>
#include <cdl/utils.hpp>

#include <httplib.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <algorithm>
#include <cctype>
#include <limits>
#include <set>

namespace faitra_cli {

namespace {

using faitra_host::NS_PER_SECOND;

// The parameters of the query string in `target`. httplib also files the
// fields of a form-encoded body under Request::params; the API never takes
// parameters from a body, so it reads the query string itself.
httplib::Params query_params(const std::string& target) {
  httplib::Params params;
  const auto question = target.find('?');
  if (question != std::string::npos) httplib::detail::parse_query_text(target.substr(question + 1), params);
  return params;
}

// Refuses parameters other than `allowed`, and any parameter given twice.
httplib::Params checked_params(const std::string& target, const std::set<std::string>& allowed) {
  httplib::Params params = query_params(target);
  for (const auto& [name, value] : params) {
    if (name.find('\0') != std::string::npos || value.find('\0') != std::string::npos) {
      throw api_error(400, "a parameter holds a NUL byte");
    }
    if (allowed.count(name) == 0 && name != ROOT_PARAM) throw api_error(400, "unknown parameter: " + name);
    if (params.count(name) > 1) throw api_error(400, "parameter given more than once: " + name);
  }
  return params;
}

std::optional<std::string> param(const httplib::Params& params, const std::string& name) {
  const auto it = params.find(name);
  if (it == params.end()) return std::nullopt;
  return it->second;
}

std::optional<unsigned long> unsigned_param(const httplib::Params& params, const std::string& name) {
  const auto text = param(params, name);
  if (!text) return std::nullopt;
  return parse_unsigned(name, *text);
}

std::optional<unsigned long> time_param(const httplib::Params& params, const std::string& name, uint64_t now_ns,
                                       bool seconds) {
  const auto text = param(params, name);
  if (!text) return std::nullopt;
  return parse_time_param(name, *text, now_ns, seconds);
}

// start and end together, or neither.
std::optional<time_range> range_params(const httplib::Params& params, uint64_t now_ns, bool seconds = false) {
  const auto start = time_param(params, "start", now_ns, seconds);
  const auto end = time_param(params, "end", now_ns, seconds);
  if (!start && !end) return std::nullopt;
  if (!start || !end) throw api_error(400, "start and end must be given together");
  if (*start > *end) throw api_error(400, "start must not be after end");
  return time_range{*start, *end};
}

// The body as a JSON object with the members `required`, and of `optional`
// those that it gives.
rapidjson::Document json_body(const std::string& body, const std::set<std::string>& required,
                              const std::set<std::string>& optional = {}) {
  rapidjson::Document doc;
  doc.Parse(body.data(), body.size());
  if (doc.HasParseError()) {
    throw api_error(400, std::string("malformed JSON body: ") + rapidjson::GetParseError_En(doc.GetParseError()) +
                             " at offset " + std::to_string(doc.GetErrorOffset()));
  }
  if (!doc.IsObject()) throw api_error(400, "the body must be a JSON object");
  // By index: comparing RapidJSON's member iterators is ambiguous in C++20.
  for (rapidjson::SizeType i = 0; i < doc.MemberCount(); ++i) {
    const auto& key = (doc.MemberBegin() + i)->name;
    const std::string name(key.GetString(), key.GetStringLength());
    if (required.count(name) == 0 && optional.count(name) == 0) {
      throw api_error(400, "unknown member in the body: " + name);
    }
  }
  for (const std::string& name : required) {
    if (!doc.HasMember(name.c_str())) throw api_error(400, "missing member in the body: " + name);
  }
  size_t given = required.size();
  for (const std::string& name : optional) given += doc.HasMember(name.c_str()) ? 1 : 0;
  if (doc.MemberCount() != given) throw api_error(400, "a member is given more than once");
  return doc;
}

// A body member that must be a string without NUL bytes.
std::string body_string(const rapidjson::Document& doc, const char* name) {
  const auto& v = doc[name];
  if (!v.IsString()) throw api_error(400, std::string(name) + " must be a string");
  const std::string text(v.GetString(), v.GetStringLength());
  if (text.find('\0') != std::string::npos) throw api_error(400, std::string(name) + " holds a NUL byte");
  return text;
}

// A string member without NUL bytes, of 1 to `limit` bytes.
std::string body_text(const rapidjson::Value& v, const std::string& name, size_t limit) {
  if (!v.IsString()) throw api_error(400, name + " must be a string");
  const std::string text(v.GetString(), v.GetStringLength());
  if (text.empty()) throw api_error(400, name + " is empty");
  if (text.size() > limit) throw api_error(400, name + " is longer than " + std::to_string(limit) + " bytes");
  if (text.find('\0') != std::string::npos) throw api_error(400, name + " contains a NUL byte");
  return text;
}

unsigned long body_unsigned(const rapidjson::Document& doc, const char* name) {
  const auto& v = doc[name];
  if (!v.IsUint64()) {
    throw api_error(400, std::string(name) + " must be a non-negative integer that fits 64 bits");
  }
  return v.GetUint64();
}

// A member holding a time: an integer in its own unit, or a time text
// converted to ns (or seconds).
unsigned long body_time(const rapidjson::Document& doc, const char* name, uint64_t now_ns, bool seconds) {
  const auto& v = doc[name];
  // Integers are JSON numbers: a string of digits would be ambiguous (ns or s).
  const std::string text = v.IsString() ? body_string(doc, name) : std::string();
  if (text.empty() || text.find_first_not_of("-0123456789") == std::string::npos) return body_unsigned(doc, name);
  std::string error;
  const auto ns = faitra_host::parse_time_ns(text, now_ns, error);
  if (!ns) throw api_error(400, std::string(name) + ": " + error);
  return seconds ? *ns / NS_PER_SECOND : *ns;
}

// A limit: at least 1; the largest unsigned long when not given.
unsigned long limit_param(const httplib::Params& params, const std::string& name) {
  const auto limit = unsigned_param(params, name);
  if (limit && *limit == 0) throw api_error(400, name + " must be at least 1");
  return limit.value_or(std::numeric_limits<unsigned long>::max());
}

}  // namespace

unsigned long parse_time_param(const std::string& name, const std::string& text, uint64_t now_ns, bool seconds) {
  const bool digits = text.find_first_not_of("0123456789") == std::string::npos;
  if (digits || (text[0] == '-' && text.find_first_not_of("0123456789", 1) == std::string::npos)) {
    return parse_unsigned(name, text);  // integers (and their refusals) as ever
  }
  std::string restored = text;
  if (restored[0] == ' ') restored[0] = '+';
  const size_t zone = restored.size() >= 6 ? restored.size() - 6 : 0;
  if (zone > 10 && restored[zone] == ' ' && restored[zone + 3] == ':') restored[zone] = '+';
  std::string error;
  const auto ns = faitra_host::parse_time_ns(restored, now_ns, error);
  if (!ns) throw api_error(400, name + ": " + error);
  return seconds ? *ns / NS_PER_SECOND : *ns;
}

unsigned long parse_unsigned(const std::string& name, const std::string& text) {
  if (text.empty()) throw api_error(400, name + " is empty");
  for (const char c : text) {
    if (c == '-') throw api_error(400, name + " must not be negative: " + text);
    if (c < '0' || c > '9') throw api_error(400, name + " is not a decimal integer: " + text);
  }
  try {
    unsigned long consumed = 0;
    const unsigned long value = cdl::from_str<unsigned long>(text, &consumed, 10);
    if (consumed != text.size()) throw api_error(400, name + " is not a decimal integer: " + text);
    return value;
  } catch (const cdl::not_in_range_error&) {
    throw api_error(400, name + " does not fit 64 bits: " + text);
  } catch (const cdl::unrecognized_value_error&) {
    throw api_error(400, name + " is not a decimal integer: " + text);
  }
}

void check_body_size(const std::string& body) {
  if (body.size() > MAX_BODY_BYTES) {
    throw api_error(413, "the body is larger than " + std::to_string(MAX_BODY_BYTES) + " bytes");
  }
}

list_request parse_list_request(const std::string& target, uint64_t now_ns) {
  const httplib::Params params = checked_params(target, {"start", "end", "match", "limit"});
  list_request out;
  out.range = range_params(params, now_ns);
  const auto match = param(params, "match");
  if (match && !out.range) throw api_error(400, "match applies only to a time range");
  if (match && *match != "overlap" && *match != "start") throw api_error(400, "match must be overlap or start");
  out.by_start = match && *match == "start";
  out.limit = limit_param(params, "limit");
  return out;
}

packets_request parse_packets_request(const std::string& target, uint64_t now_ns) {
  const httplib::Params params =
      checked_params(target, {"start", "end", "filter", "limit_packets", "limit_bytes"});
  const auto window = range_params(params, now_ns);
  if (!window) throw api_error(400, "start and end are required");
  packets_request out{*window, param(params, "filter").value_or(""), limit_param(params, "limit_packets"),
                      limit_param(params, "limit_bytes")};
  if (out.filter.size() > MAX_FILTER_BYTES) {
    throw api_error(400, "filter is longer than " + std::to_string(MAX_FILTER_BYTES) + " bytes");
  }
  if (out.filter.find('\0') != std::string::npos) throw api_error(400, "filter contains a NUL byte");
  return out;
}

lookup_request parse_lookup_request(const std::string& target) {
  const httplib::Params params = checked_params(target, {"path", "key"});
  const auto path = param(params, "path");
  const auto key = param(params, "key");
  if (path.has_value() == key.has_value()) throw api_error(400, "give exactly one of: path, key");
  lookup_request out;
  out.by_key = key.has_value();
  out.value = key ? *key : *path;
  if (out.value.empty()) throw api_error(400, std::string(out.by_key ? "key" : "path") + " is empty");
  return out;
}

std::vector<std::string> catalogued_forms(const std::string& sent) {
  if (!faitra_host::has_escaped_bytes(sent)) return {sent};
  return {sent, faitra_host::restore_escaped_bytes(sent)};
}

void check_authorization(const std::vector<std::string>& headers, const std::string& token) {
  if (headers.size() > 1) throw api_error(400, "more than one Authorization header");
  const api_error refused(401, "missing or wrong bearer token");
  if (headers.empty()) throw refused;
  const std::string& value = headers.front();
  if (value.find('\0') != std::string::npos) throw api_error(400, "the Authorization header holds a NUL byte");
  const std::string scheme = "bearer";
  if (value.size() <= scheme.size() || value[scheme.size()] != ' ') throw refused;
  for (size_t i = 0; i < scheme.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(value[i])) != scheme[i]) throw refused;
  }
  const size_t start = value.find_first_not_of(' ', scheme.size());
  const size_t end = value.find_last_not_of(" \t");
  const std::string sent = start == std::string::npos ? std::string() : value.substr(start, end + 1 - start);
  // Every byte of the longer text is looked at, whatever the lengths.
  unsigned char difference = sent.size() == token.size() ? 0 : 1;
  const size_t length = std::max(sent.size(), token.size());
  for (size_t i = 0; i < length; ++i) {
    const char a = i < sent.size() ? sent[i] : '\0';
    const char b = i < token.size() ? token[i] : '\0';
    difference |= static_cast<unsigned char>(a ^ b);
  }
  if (difference != 0) throw refused;
}

delete_request parse_delete_request(const std::string& target, uint64_t now_ns) {
  const httplib::Params params = checked_params(target, {"path", "start", "end", "by", "all"});
  const auto path = param(params, "path");
  const auto all = param(params, "all");
  const auto by = param(params, "by");
  const bool has_range = params.count("start") != 0 || params.count("end") != 0;
  const int forms = (path ? 1 : 0) + (all ? 1 : 0) + (has_range ? 1 : 0);
  if (forms != 1) throw api_error(400, "give exactly one of: path, start and end, all=true");
  if (by && !has_range) throw api_error(400, "by applies only to a time range");
  delete_request out;
  if (path) {
    if (path->empty()) throw api_error(400, "path is empty");
    out.what = delete_request::form::path;
    out.path = *path;
  } else if (all) {
    if (*all != "true") throw api_error(400, "all must be true");
    out.what = delete_request::form::all;
  } else {
    out.what = delete_request::form::range;
    if (by && *by == "creation") {
      out.by_start = false;
    } else if (by && *by != "start") {
      throw api_error(400, "by must be start or creation");
    }
    out.range = *range_params(params, now_ns, !out.by_start);
  }
  return out;
}

age_cleanup_request parse_age_cleanup_request(const std::string& target, const std::string& body,
                                              uint64_t now_ns) {
  checked_params(target, {});
  const rapidjson::Document doc = json_body(body, {"mode", "cutoff"}, {"dry_run"});
  age_cleanup_request out;
  out.mode_text = body_string(doc, "mode");
  if (out.mode_text == "files") {
    out.mode = csl::age_cleanup_state::files;
  } else if (out.mode_text == "metadata") {
    out.mode = csl::age_cleanup_state::metadata;
  } else if (out.mode_text == "both") {
    out.mode = csl::age_cleanup_state::both;
  } else {
    throw api_error(400, "mode must be files, metadata or both");
  }
  out.cutoff = body_time(doc, "cutoff", now_ns, true);
  if (out.mode != csl::age_cleanup_state::files &&
      out.cutoff > std::numeric_limits<unsigned long>::max() / NS_PER_SECOND) {
    throw api_error(400, "cutoff is too large to be expressed in nanoseconds");
  }
  if (doc.HasMember("dry_run")) {
    if (!doc["dry_run"].IsBool()) throw api_error(400, "dry_run must be true or false");
    out.dry_run = doc["dry_run"].GetBool();
  }
  return out;
}

time_range parse_metadata_cleanup_request(const std::string& target, const std::string& body,
                                          uint64_t now_ns) {
  checked_params(target, {});
  const rapidjson::Document doc = json_body(body, {"start", "end"});
  const unsigned long start = body_time(doc, "start", now_ns, false);
  const unsigned long end = body_time(doc, "end", now_ns, false);
  if (start > end) throw api_error(400, "start must not be after end");
  return time_range{start, end};
}

bool parse_automatic_request(const std::string& target, const std::string& body) {
  checked_params(target, {});
  const rapidjson::Document doc = json_body(body, {"enabled"});
  if (!doc["enabled"].IsBool()) throw api_error(400, "enabled must be true or false");
  return doc["enabled"].GetBool();
}

void parse_reconcile_request(const std::string& target, const std::string& body) {
  checked_params(target, {});
  if (!body.empty()) json_body(body, {});
}

timeline_request parse_timeline_request(const std::string& target, uint64_t now_ns) {
  const httplib::Params params = checked_params(target, {"buckets", "start", "end"});
  timeline_request out;
  out.range = range_params(params, now_ns);
  const auto buckets = unsigned_param(params, "buckets");
  if (buckets && (*buckets == 0 || *buckets > faitra_host::MAX_TIMELINE_BUCKETS)) {
    throw api_error(400, "buckets must be between 1 and " + std::to_string(faitra_host::MAX_TIMELINE_BUCKETS));
  }
  if (buckets) out.buckets = *buckets;
  return out;
}

faitra_host::hold_request parse_hold_request(const std::string& target, const std::string& body, uint64_t now_ns) {
  checked_params(target, {});
  const rapidjson::Document doc = json_body(body, {"reason"}, {"start", "end", "paths", "expires"});
  faitra_host::hold_request out;
  out.reason = body_text(doc["reason"], "reason", MAX_REASON_BYTES);
  const bool window = doc.HasMember("start") || doc.HasMember("end");
  if (window == doc.HasMember("paths")) throw api_error(400, "give either start and end, or paths");
  if (window) {
    if (!doc.HasMember("start") || !doc.HasMember("end")) throw api_error(400, "start and end must be given together");
    out.window = faitra_host::time_window{body_time(doc, "start", now_ns, false), body_time(doc, "end", now_ns, false)};
    if (out.window->start > out.window->end) throw api_error(400, "start must not be after end");
  } else {
    const auto& paths = doc["paths"];
    if (!paths.IsArray() || paths.Empty()) throw api_error(400, "paths must be a non-empty array of paths");
    if (paths.Size() > MAX_HOLD_PATHS) {
      throw api_error(400, "at most " + std::to_string(MAX_HOLD_PATHS) + " paths can be held at once");
    }
    for (const auto& path : paths.GetArray()) out.paths.push_back(body_text(path, "a path", MAX_BODY_BYTES));
  }
  if (doc.HasMember("expires") && !doc["expires"].IsNull()) out.expires_ns = body_time(doc, "expires", now_ns, false);
  return out;
}

unsigned long parse_hold_release_request(const std::string& target) {
  const auto id = unsigned_param(checked_params(target, {"id"}), "id");
  if (!id) throw api_error(400, "id is required");
  return *id;
}

void parse_plain_request(const std::string& target) { checked_params(target, {}); }

std::optional<std::string> parse_root_param(const std::string& target) {
  const httplib::Params params = query_params(target);
  if (params.count(ROOT_PARAM) > 1) throw api_error(400, std::string("parameter given more than once: ") + ROOT_PARAM);
  const auto root = param(params, ROOT_PARAM);
  if (root && root->empty()) throw api_error(400, "root is empty");
  if (root && root->find('\0') != std::string::npos) throw api_error(400, "a parameter holds a NUL byte");
  return root;
}

}  // namespace faitra_cli
