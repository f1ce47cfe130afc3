// What a transaction records of the calls made on it: the faults the plug-in
// logged, the data-store calls and what is still open. The store keeps these
// very records; the host hands them out as they are, and every report
// (the isolated commit's messages, the checker's JSON, the tests' texts)
// writes and reads them through the one to_json/from_json pair below.
//
// The pair is written for any nlohmann basic_json, so that the store, which
// never serialises, does not need the JSON library to use the records.
#ifndef IPAPP_RECORDS_H
#define IPAPP_RECORDS_H

#include <cstdint>
#include <string>

namespace ipapp::host {

/// A fault the plug-in recorded with kxmw_gen_fault.
struct Fault {
  int kind = 0;
  std::string function;
  std::string file;
  int line = 0;
  std::string message;
};

/// One data-store call made by the plug-in.
struct TraceEntry {
  std::string call;    ///< e.g. "maapi_exists", "cdb_get_int32"
  std::string path;    ///< the path it named (empty when none)
  int result = 0;      ///< its return value
  std::string detail;  ///< value read or reason, in text (may be empty)
};

/// What is open in a transaction: what the element would leak if the
/// transaction ended now.
struct OpenResources {
  int cursors = 0;        ///< initialised and not destroyed
  int cdb_sessions = 0;   ///< started and not ended
  int dup_values = 0;     ///< values duplicated by a read and not freed
  int xpath_results = 0;  ///< empty XPath results handed out (never freed by the plug-ins)
  bool empty() const {
    return cursors == 0 && cdb_sessions == 0 && dup_values == 0 && xpath_results == 0;
  }
};

/// One open resource, as a leak report names it.
struct OpenItem {
  uint64_t id = 0;   ///< unique per transaction, in the order opened
  std::string kind;  ///< "cursor", "CDB session", "value", "XPath result"
  std::string call;  ///< the call that opened it, e.g. "maapi_init_cursor"
  std::string path;  ///< the path (an XPath result: "expr in context")
};

// JSON forms: an object with one member per field, named as the field.
// from_json throws the JSON library's exception for a missing member or one
// of the wrong type.

template <typename Json>
void to_json(Json &j, const Fault &f) {
  j = Json{{"kind", f.kind},
           {"function", f.function},
           {"file", f.file},
           {"line", f.line},
           {"message", f.message}};
}

template <typename Json>
void from_json(const Json &j, Fault &f) {
  j.at("kind").get_to(f.kind);
  j.at("function").get_to(f.function);
  j.at("file").get_to(f.file);
  j.at("line").get_to(f.line);
  j.at("message").get_to(f.message);
}

template <typename Json>
void to_json(Json &j, const TraceEntry &e) {
  j = Json{{"call", e.call}, {"path", e.path}, {"result", e.result}, {"detail", e.detail}};
}

template <typename Json>
void from_json(const Json &j, TraceEntry &e) {
  j.at("call").get_to(e.call);
  j.at("path").get_to(e.path);
  j.at("result").get_to(e.result);
  j.at("detail").get_to(e.detail);
}

template <typename Json>
void to_json(Json &j, const OpenResources &r) {
  j = Json{{"cursors", r.cursors},
           {"cdb_sessions", r.cdb_sessions},
           {"dup_values", r.dup_values},
           {"xpath_results", r.xpath_results}};
}

template <typename Json>
void from_json(const Json &j, OpenResources &r) {
  j.at("cursors").get_to(r.cursors);
  j.at("cdb_sessions").get_to(r.cdb_sessions);
  j.at("dup_values").get_to(r.dup_values);
  j.at("xpath_results").get_to(r.xpath_results);
}

template <typename Json>
void to_json(Json &j, const OpenItem &o) {
  j = Json{{"id", o.id}, {"kind", o.kind}, {"call", o.call}, {"path", o.path}};
}

template <typename Json>
void from_json(const Json &j, OpenItem &o) {
  j.at("id").get_to(o.id);
  j.at("kind").get_to(o.kind);
  j.at("call").get_to(o.call);
  j.at("path").get_to(o.path);
}

}  // namespace ipapp::host

#endif  // IPAPP_RECORDS_H
