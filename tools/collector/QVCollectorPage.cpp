#include "QVCollectorPage.h"

namespace qv::collector {

namespace {

// The script builds every element with textContent, never innerHTML, so text
// from a request cannot turn into markup.
constexpr const char* kPage = R"QVPAGE(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>qvcore-collector</title>
<link rel="icon" href="data:,">
<style>
  body { font: 14px/1.4 system-ui, sans-serif; margin: 0; display: flex; height: 100vh; color: #222; }
  #list { width: 52%; overflow: auto; border-right: 1px solid #ccc; }
  #detail { flex: 1; overflow: auto; padding: 0 16px 16px; }
  header { padding: 8px 12px; background: #234; color: #fff; }
  header h1 { font-size: 16px; margin: 0; display: inline; }
  header span { margin-left: 12px; opacity: .8; }
  table { border-collapse: collapse; width: 100%; }
  th, td { text-align: left; padding: 3px 6px; border-bottom: 1px solid #eee; vertical-align: top; }
  #requests tr { cursor: pointer; }
  #requests tr:hover { background: #f3f6fa; }
  #requests tr.selected { background: #dde8f5; }
  #requests td.target { max-width: 18em; overflow: hidden; text-overflow: ellipsis; }
  #requests td.check { max-width: 12em; overflow: hidden; text-overflow: ellipsis; white-space: nowrap; }
  #requests td { white-space: nowrap; }
  .bad { color: #b00020; }
  .good { color: #0a7a2f; }
  .mono, td.value, .tree { font-family: ui-monospace, monospace; font-size: 13px; }
  .num { text-align: right; }
  h2 { font-size: 16px; margin: 16px 0 6px; }
  h3 { font-size: 14px; margin: 12px 0 4px; }
  .session { border: 1px solid #ddd; border-radius: 4px; padding: 4px 10px 10px; margin: 8px 0; }
  .tree ul { list-style: none; margin: 0; padding-left: 18px; }
  .tree .key { color: #7a3e9d; }
  .tree .string { color: #1a5d1a; }
  .tree .number, .tree .boolean { color: #1c4fa0; }
  .empty { color: #888; padding: 12px; }
  #per-module { background: #f3f6fa; }
</style>
</head>
<body>
<div id="list">
  <header><h1>qvcore-collector</h1><span id="totals"></span></header>
  <table id="per-module"><tbody id="modules"></tbody></table>
  <table>
    <thead><tr><th>#</th><th>time</th><th>request</th><th>kind</th><th class="num">msgs</th>
      <th class="num">bytes</th><th>status</th><th>check</th></tr></thead>
    <tbody id="requests"></tbody>
  </table>
  <div id="none" class="empty" hidden>No requests yet. Point a module's PostMessageUrl here.</div>
</div>
<div id="detail"><p class="empty">Choose a request.</p></div>
<script>
"use strict";

function el(tag, attributes, ...children) {
  const node = document.createElement(tag);
  for (const [name, value] of Object.entries(attributes || {})) {
    if (name === "onclick") node.onclick = value; else node.setAttribute(name, value);
  }
  for (const child of children) {
    if (child === null || child === undefined) continue;
    node.append(child instanceof Node ? child : String(child));
  }
  return node;
}

function when(ms) {
  const date = new Date(ms);
  const two = (n) => String(n).padStart(2, "0");
  return date.getFullYear() + "-" + two(date.getMonth() + 1) + "-" + two(date.getDate()) + " " +
      two(date.getHours()) + ":" + two(date.getMinutes()) + ":" + two(date.getSeconds()) + "." +
      String(date.getMilliseconds()).padStart(3, "0");
}

function selectedId() {
  const hash = location.hash.replace(/^#/, "");
  if (/^\d+$/.test(hash)) return Number(hash);
  const id = new URLSearchParams(location.search).get("id");
  return id && /^\d+$/.test(id) ? Number(id) : null;
}

function kindText(request) {
  return request.kind + (request.encoding !== "identity" ? " (" + request.encoding + ")" : "");
}

function checkCell(request) {
  return request.ok ? el("td", {class: "good check"}, "ok")
                    : el("td", {class: "bad check", title: request.problem}, request.problem);
}

function target(request) {
  const query = request.query.length > 40 ? request.query.slice(0, 40) + "…" : request.query;
  return request.method + " " + request.path + (query ? "?" + query : "");
}

// What each module (the path it posts to) sent, and what was answered 2xx.
function moduleRow([module, totals]) {
  return el("tr", {class: "module"}, el("td", {class: "mono"}, module),
    el("td", {class: "num"}, totals.requests + " requests"),
    el("td", {class: "num"}, totals.messages + " messages"),
    el("td", {class: "num"}, totals.acceptedMessages + " answered 2xx"));
}

function row(request) {
  const attributes = {"data-id": request.id, onclick: () => { location.hash = "#" + request.id; }};
  if (request.id === selectedId()) attributes.class = "selected";
  return el("tr", attributes,
    el("td", {}, request.id),
    el("td", {title: when(request.receivedAt)}, when(request.receivedAt).slice(11)),
    el("td", {class: "mono target", title: target(request)}, target(request)),
    el("td", {}, kindText(request)),
    el("td", {class: "num"}, request.messages),
    el("td", {class: "num"}, request.rawBytes + " → " + request.decodedBytes),
    el("td", {class: request.status >= 400 ? "bad" : ""}, request.status), checkCell(request));
}

async function fetchJson(url) {
  const response = await fetch(url, {cache: "no-store"});
  if (!response.ok) throw new Error(url + " answered " + response.status);
  return response.json();
}

async function refreshList() {
  try {
    const [requests, totals] =
        await Promise.all([fetchJson("/_qv/api/requests"), fetchJson("/_qv/api/summary")]);
    document.getElementById("requests").replaceChildren(...requests.map(row));
    document.getElementById("none").hidden = requests.length > 0;
    document.getElementById("totals").textContent = totals.requests + " requests, " +
        totals.messages + " messages, " + totals.rawBytes + " bytes on the wire, " +
        totals.decodedBytes + " decoded";
    document.getElementById("modules").replaceChildren(...Object.entries(totals.modules).map(moduleRow));
  } catch (error) {
    document.getElementById("totals").textContent = "collector unreachable";
  }
}

function isContainer(value) { return value !== null && typeof value === "object"; }

function leaf(value) {
  const type = value === null ? "null" : typeof value;
  return el("span", {class: type}, type === "string" ? JSON.stringify(value) : String(value));
}

function tree(value, open) {
  if (!isContainer(value)) return leaf(value);
  const entries = Object.entries(value);
  const label = Array.isArray(value) ? "[" + entries.length + " items]" : "{" + entries.length + " keys}";
  const list = el("ul", {}, ...entries.map(([key, item]) =>
      el("li", {}, el("span", {class: "key"}, key), ": ", tree(item, false))));
  const details = el("details", {}, el("summary", {}, label), list);
  details.open = open;
  return details;
}

function compact(value) {
  return isContainer(value) ? JSON.stringify(value) : typeof value === "string" ? value : String(value);
}

function messagesTable(messages) {
  const columns = [];
  for (const message of messages) {
    if (!isContainer(message) || Array.isArray(message)) continue;
    for (const key of Object.keys(message)) if (!columns.includes(key)) columns.push(key);
  }
  const head = el("tr", {}, el("th", {}, "#"), ...columns.map((key) => el("th", {}, key)));
  const rows = messages.map((message, index) => el("tr", {class: "message"}, el("td", {}, index),
      ...columns.map((key) => el("td", {class: "value"},
          isContainer(message) && key in message ? compact(message[key]) : ""))));
  return el("table", {class: "messages"}, el("thead", {}, head), el("tbody", {}, ...rows));
}

function sessionView(session, index) {
  if (!isContainer(session)) return el("div", {class: "session bad"}, compact(session));
  const messages = Array.isArray(session.messages) ? session.messages : [];
  const started = typeof session.startTime === "number" ? when(session.startTime) : "?";
  return el("div", {class: "session"},
    el("h3", {}, "Session " + index + ": " + (session.id ?? "(no id)")),
    el("div", {}, "core session: ", el("span", {class: "mono"}, session.QVCoreSessionID ?? "(none)"),
       " · started ", started, " · ", messages.length, " messages"),
    session.clientEnvironment !== undefined
        ? el("div", {class: "tree"}, "clientEnvironment ", tree(session.clientEnvironment, false)) : null,
    messages.length ? messagesTable(messages) : null);
}

function payloadView(payload) {
  if (isContainer(payload) && Array.isArray(payload.sessions)) {
    const top = Object.entries(payload).filter(([key]) => key !== "sessions");
    return el("div", {},
      el("table", {}, ...top.map(([key, value]) =>
          el("tr", {}, el("th", {}, key), el("td", {class: "value"}, compact(value))))),
      ...payload.sessions.map(sessionView));
  }
  if (isContainer(payload) && !Array.isArray(payload)) {
    return el("table", {class: "fields"}, ...Object.entries(payload).map(([key, value]) =>
        el("tr", {}, el("th", {}, key), el("td", {class: "value tree"}, tree(value, true)))));
  }
  return el("div", {class: "tree"}, tree(payload, true));
}

function detailView(request) {
  const headers = el("table", {class: "headers"}, ...request.headers.map(([name, value]) =>
      el("tr", {}, el("th", {}, name), el("td", {class: "value"}, value))));
  return el("div", {id: "request-" + request.id},
    el("h2", {}, "#" + request.id + " " + request.method + " " + request.path),
    el("div", {}, when(request.receivedAt), " · answered ", request.status, " · ",
       kindText(request), " · ", request.messages, " messages · ", request.rawBytes,
       " bytes on the wire, ", request.decodedBytes, " decoded"),
    el("div", {class: request.ok ? "good check" : "bad check"},
       request.ok ? "Fits the payload format." : "Problem: " + request.problem),
    request.query ? el("div", {class: "mono"}, "query: " + request.query) : null,
    el("h2", {}, "Headers"), headers,
    el("h2", {}, request.kind === "urlencoded" ? "Query" : "Payload"),
    request.payload !== null ? payloadView(request.payload) : el("p", {class: "empty"}, "nothing decoded"),
    el("p", {}, el("a", {href: "/_qv/api/requests/" + request.id + "/body"}, "body as received"),
       request.inflated ? " · " : null,
       request.inflated ? el("a", {href: "/_qv/api/requests/" + request.id + "/decoded"}, "body inflated") : null,
       " · ", el("a", {href: "/_qv/api/requests/" + request.id}, "JSON")));
}

async function showSelected() {
  const id = selectedId();
  const detail = document.getElementById("detail");
  for (const tr of document.querySelectorAll("#requests tr")) {
    tr.classList.toggle("selected", Number(tr.dataset.id) === id);
  }
  if (id === null) return;
  try {
    detail.replaceChildren(detailView(await fetchJson("/_qv/api/requests/" + id)));
  } catch (error) {
    detail.replaceChildren(el("p", {class: "bad"}, "Request " + id + " cannot be shown: " + error.message));
  }
}

window.addEventListener("hashchange", showSelected);
refreshList();
showSelected();
setInterval(refreshList, 2000);
</script>
</body>
</html>
)QVPAGE";

}  // namespace

const std::string& QVCollectorPage::html() {
  static const std::string page = kPage;
  return page;
}

}  // namespace qv::collector
