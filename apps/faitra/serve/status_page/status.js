// The status page: polls the daemon's JSON API and draws what it answers.
// The bearer token, when the daemon asks for one, lives in this tab's
// sessionStorage only. Every number shown carries its raw value in a
// data-value attribute.
"use strict";

const POLL_MS = Number(new URLSearchParams(location.search).get("interval")) || 2000;
const TOKEN_KEY = "faitra-token";
const $ = (id) => document.getElementById(id);

// Styles go through the CSSOM: the page's Content-Security-Policy refuses
// style attributes.
function el(tag, attrs, ...children) {
  const e = document.createElement(tag);
  for (const [k, v] of Object.entries(attrs || {})) {
    if (k === "style") Object.assign(e.style, v); else e.setAttribute(k, v);
  }
  for (const c of children) e.append(c instanceof Node ? c : String(c));
  return e;
}

function svg(tag, attrs) {
  const e = document.createElementNS("http://www.w3.org/2000/svg", tag);
  for (const [k, v] of Object.entries(attrs)) e.setAttribute(k, v);
  return e;
}

function bytes(n) {
  const units = ["B", "KiB", "MiB", "GiB", "TiB", "PiB"];
  let v = n, u = 0;
  while (v >= 1024 && u < units.length - 1) { v /= 1024; u++; }
  return (u === 0 ? v.toFixed(0) : v.toFixed(1)) + " " + units[u];
}

const percent = (f) => (100 * f).toFixed(1) + " %";
const when = (seconds) => seconds ? new Date(seconds * 1000).toISOString().replace("T", " ").slice(0, 19) + " UTC" : "-";
const fromNs = (ns) => ns === null || ns === undefined ? "-" : when(ns / 1e9);

function value(text, raw, field) {
  return el("span", field ? { "data-field": field, "data-value": String(raw) } : { "data-value": String(raw) }, text);
}

class AuthError extends Error {}

async function api(path) {
  const headers = {};
  const token = sessionStorage.getItem(TOKEN_KEY);
  if (token) headers.Authorization = "Bearer " + token;
  const res = await fetch(path, { headers, cache: "no-store" });
  if (res.status === 401) throw new AuthError("the token was refused");
  const body = await res.json();
  if (!res.ok) throw new Error(body.error || res.statusText);
  return body;
}

function drawRoot(r) {
  const used = r.usage.used, total = r.usage.total, fraction = r.usage.fraction;
  const gauge = el("div", { class: "gauge", title: bytes(used) + " of " + bytes(total) },
    el("div", { class: "used", style: { width: Math.min(100, 100 * fraction) + "%" } }),
    el("div", { class: "mark trigger", style: { left: 100 * r.trigger + "%" } }, el("span", {}, "trigger " + percent(r.trigger))),
    el("div", { class: "mark stop", style: { left: 100 * r.stop + "%" } }, el("span", {}, "stop " + percent(r.stop))));
  const state = r.cleanup_in_progress ? "cleanup running" : r.automatic_cleanup ? "automatic cleanup on" : "automatic cleanup off";
  return el("div", { class: "root", "data-root": r.root },
    el("div", {}, el("div", { class: "path" }, r.root), gauge,
      el("div", {}, value(bytes(used), used, "used"), " of ", value(bytes(total), total, "total"),
        " (", value(percent(fraction), fraction, "fraction"), ")")),
    el("div", {},
      el("div", {}, value(r.captures, r.captures, "captures"), " captures"),
      el("div", { class: "muted" }, state),
      r.retention ? el("div", { class: "muted" }, "back to " + fromNs(r.retention.oldest_start) + " (" +
        (r.retention.span_seconds / 3600).toFixed(1) + " h)") : "",
      el("div", { class: "muted" }, "watching " + (r.watch || []).join(", "))));
}

function drawTimeline(t) {
  const chart = $("timeline");
  chart.replaceChildren();
  const n = t.bytes.length;
  if (n === 0) {
    $("timeline-start").textContent = "no dated captures";
    $("timeline-peak").textContent = $("timeline-end").textContent = "";
    return;
  }
  const peak = Math.max(...t.bytes, 1);
  const w = 1000 / n;
  t.bytes.forEach((b, i) => {
    if (t.captures[i] === 0) {
      chart.append(svg("rect", { class: "gap", x: i * w, y: 174, width: Math.max(w - 0.5, 0.5), height: 6 }));
      return;
    }
    const h = Math.max(2, 160 * b / peak);
    const bar = svg("rect", { class: "bar", x: i * w + 0.5, y: 172 - h, width: Math.max(w - 1, 0.5), height: h });
    bar.append(svg("title", {}));
    bar.firstChild.textContent = fromNs(t.start + i * t.bucket_width) + ": " + t.captures[i] + " captures, " + bytes(b);
    chart.append(bar);
  });
  $("timeline-start").textContent = fromNs(t.start);
  $("timeline-peak").textContent = "peak " + bytes(peak) + " per " + (t.bucket_width / 60e9).toFixed(1) + " min";
  $("timeline-end").textContent = fromNs(t.end);
}

function drawRuns(runs) {
  const body = $("runs").tBodies[0];
  body.replaceChildren();
  if (runs.length === 0) body.append(el("tr", {}, el("td", { colspan: 6, class: "muted" }, "no cleanup has run since the daemon started")));
  for (const r of runs) {
    const failures = r.failures ? el("span", { class: "error", title: r.last_failure || "" }, r.failures + ": " + (r.last_failure || "")) : "0";
    body.append(el("tr", {},
      el("td", {}, when(r.started_at)), el("td", {}, r.finished_at ? when(r.finished_at) : "running"),
      el("td", { class: "num" }, percent(r.before.fraction)), el("td", { class: "num" }, r.after ? percent(r.after.fraction) : "-"),
      el("td", { class: "num" }, r.deleted), el("td", {}, failures)));
  }
}

function drawCounters(s) {
  const rows = [
    ["captures", s.captures, "captures"],
    ["cleanup runs", s.cleanup.runs, "cleanup.runs"],
    ["deleted by cleanup", s.cleanup.deleted_by_cleanup, "cleanup.deleted_by_cleanup"],
    ["deleted on request", s.cleanup.deleted_on_request, "cleanup.deleted_on_request"],
    ["removed by others", s.cleanup.removed_externally, "cleanup.removed_externally"],
    ["delete queue", s.cleanup.delete_queue, "cleanup.delete_queue"],
    ["metadata cleanup failures", s.cleanup.metadata_cleanup_failures, "cleanup.metadata_cleanup_failures"],
    ["reconcile runs", s.reconcile.runs, "reconcile.runs"],
    ["drift repaired (added / removed / updated)", [s.reconcile.added, s.reconcile.removed, s.reconcile.updated].join(" / "), "reconcile.drift"],
    ["files skipped at start", s.scan_problems.length, "scan_problems"],
    ["handler failures", s.handler_failures, "handler_failures"],
  ];
  const body = $("counters").tBodies[0];
  body.replaceChildren(...rows.map(([name, v, field]) =>
    el("tr", {}, el("td", {}, name), el("td", { class: "num" }, value(v, v, "counter." + field)))));
}

// The catalogue export to PostgreSQL, when the daemon runs one.
function drawExport(e) {
  $("export").hidden = !e;
  if (!e) return;
  const state = $("export-state");
  state.className = "badge " + (e.connected && !e.resync_needed ? "ok" : e.connected ? "busy" : "bad");
  state.textContent = e.connected ? (e.resync_needed ? "resync due" : "in step") : "disconnected";
  const rows = [
    ["sensor", e.sensor, "sensor"],
    ["database", e.server || "-", "server"],
    ["lag", e.lag_seconds.toFixed(2) + " s", "lag_seconds", e.lag_seconds],
    ["queue", e.queue_depth + " of " + e.queue_capacity, "queue_depth", e.queue_depth],
    ["last resync", when(e.last_resync) + " (" + e.last_resync_captures + " captures in " +
      e.last_resync_seconds.toFixed(2) + " s)", "last_resync", e.last_resync],
    ["resyncs / batches", e.resyncs + " / " + e.batches, "batches", e.batches],
    ["failures", e.failures + (e.last_error ? ": " + e.last_error : ""), "failures", e.failures],
  ];
  $("export-figures").tBodies[0].replaceChildren(...rows.map(([name, text, field, raw]) =>
    el("tr", {}, el("td", {}, name), el("td", {}, value(text, raw ?? text, "export." + field)))));
}

function drawRetention(w) {
  $("oldest").textContent = fromNs(w.oldest_start);
  $("oldest").dataset.value = w.oldest_start ?? "";
  $("newest").textContent = fromNs(w.newest_start);
  $("newest").dataset.value = w.newest_start ?? "";
  $("span").textContent = (w.span_seconds / 3600).toFixed(1) + " h";
  $("span").dataset.value = w.span_seconds;
}

function show(state, message) {
  document.body.dataset.state = state;
  $("login").hidden = state !== "login";
  $("content").hidden = state !== "ok";
  $("error").hidden = state !== "error";
  $("error").textContent = message || "";
  $("logout").hidden = !sessionStorage.getItem(TOKEN_KEY);
  const badge = $("health");
  badge.className = "badge " + (state === "ok" ? "ok" : state === "login" ? "busy" : "bad");
  badge.textContent = state === "ok" ? "running" : state === "login" ? "sign in" : "unreachable";
}

let timer = null;
let polls = 0;

async function refresh() {
  clearTimeout(timer);
  try {
    const [status, runs] = await Promise.all([api("/v1/status"), api("/v1/cleanup/runs")]);
    // About two captures a bucket, so that an empty bucket is a real gap
    // rather than the space between two captures.
    const buckets = Math.min(120, Math.max(10, Math.round(status.captures / 2)));
    const timeline = await api("/v1/timeline?buckets=" + buckets);
    $("version").textContent = "version " + status.version;
    $("roots").replaceChildren(...(status.roots || [status]).map(drawRoot));
    drawRetention(status.retention);
    drawTimeline(timeline);
    drawRuns(runs.runs);
    drawExport(status.export);
    drawCounters(status);
    $("updated").textContent = "updated " + new Date().toLocaleTimeString();
    document.body.dataset.polls = String(++polls);
    show("ok");
    if (status.cleanup_in_progress) $("health").textContent = "cleanup running";
  } catch (e) {
    if (e instanceof AuthError) {
      show("login");
      $("login-error").textContent = sessionStorage.getItem(TOKEN_KEY) ? e.message : "";
      return;  // polling resumes after signing in
    }
    show("error", "The daemon did not answer: " + e.message);
  }
  timer = setTimeout(refresh, POLL_MS);
}

$("login").addEventListener("submit", (ev) => {
  ev.preventDefault();
  sessionStorage.setItem(TOKEN_KEY, $("token").value.trim());
  $("token").value = "";
  refresh();
});
$("logout").addEventListener("click", () => { sessionStorage.removeItem(TOKEN_KEY); refresh(); });
refresh();
