// --log-format json: every log line as one JSON object on standard output.
//
// The logging front end (cdl/log.hpp) writes either a plain line to standard
// output or one syslog() call per line, and its format is fixed. For JSON,
// the daemon points its logs at syslog and this file's syslog() takes the
// call: the command defines the function, so the dynamic linker binds every
// shared library it loads (the library, the host library) to it rather than
// to the C library's. Until use_json_log() is called it forwards to the C
// library (vsyslog), so the default text and syslog output are unchanged.
//
// A line "<type> - <name> - <message>" becomes
//   {"time": "2024-05-01T12:00:00.123Z", "level": "info", "priority": 6,
//    "facility": "local0", "type": "app_logic", "component": "daemon",
//    "message": "..."}
// written with one write(2), so that lines from several threads never mix.
//
// Thread-safety: use_json_log() before threads start; syslog() from any
// thread.
#pragma once

namespace faitra_cli {

void use_json_log();

}  // namespace faitra_cli
