#include "serve/status_page.hpp"

namespace faitra_cli {

// Generated from serve/status_page/ at configure time.
extern const char* const STATUS_PAGE_HTML;
extern const char* const STATUS_PAGE_CSS;
extern const char* const STATUS_PAGE_JS;

const std::set<std::string> STATUS_PAGE_PATHS = {"/", "/status.css", "/status.js"};

namespace {

void serve_text(httplib::Response& res, const char* text, const char* type) {
  res.set_header("Content-Security-Policy",
                 "default-src 'self'; img-src 'self' data:; frame-ancestors 'none'; base-uri 'none'; "
                 "form-action 'none'");
  res.set_header("X-Content-Type-Options", "nosniff");
  res.set_header("Cache-Control", "no-cache");
  res.set_content(text, type);
}

}  // namespace

void install_status_page(httplib::Server& server) {
  server.Get("/", [](const httplib::Request&, httplib::Response& res) {
    serve_text(res, STATUS_PAGE_HTML, "text/html; charset=utf-8");
  });
  server.Get("/status.css", [](const httplib::Request&, httplib::Response& res) {
    serve_text(res, STATUS_PAGE_CSS, "text/css; charset=utf-8");
  });
  server.Get("/status.js", [](const httplib::Request&, httplib::Response& res) {
    serve_text(res, STATUS_PAGE_JS, "text/javascript; charset=utf-8");
  });
}

}  // namespace faitra_cli
