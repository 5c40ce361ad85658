#include "host/DemoPage.h"

namespace kestrin::host {

// Each file is its own request through XMLHttpRequest, so it has its own progress, cancel and
// answer; the answer is the same result page a form in a frame gets, and its message is read
// out of the page's script. The server's texts stay as they are: each known one is shown as a
// sentence, with the text itself beside it for whoever helps the person.
const std::string_view demoPageScript = R"js("use strict";
const largestBody = Number(document.documentElement.dataset.largestBody);
const maxInFlight = 3;
const route = document.getElementById("route");
const dropZone = document.getElementById("dropZone");
const dropFiles = document.getElementById("dropFiles");
const rows = document.getElementById("rows");
const summary = document.getElementById("summary");
const cancelAll = document.getElementById("cancelAll");
const announce = document.getElementById("announce");
const form = document.getElementById("uploadForm");
const formFiles = document.getElementById("files");
const formResult = document.getElementById("formResult");
const formFrame = document.getElementById("resultFrame");

// Powers of 1024, as the server's --max-body reads them: "1 GiB", "1.2 GiB", "300 KiB".
function formatBytes(bytes) {
  const units = ["KiB", "MiB", "GiB", "TiB"];
  if (bytes < 1024) {
    return bytes === 1 ? "1 byte" : `${bytes} bytes`;
  }
  let value = bytes / 1024;
  let unit = 0;
  while (value >= 1024 && unit < units.length - 1) {
    value /= 1024;
    unit += 1;
  }
  return `${value >= 100 ? Math.round(value) : Math.round(value * 10) / 10} ${units[unit]}`;
}

function formatSeconds(seconds) {
  if (seconds < 60) {
    return `${Math.max(1, Math.ceil(seconds))} s`;
  }
  if (seconds < 3600) {
    return `${Math.ceil(seconds / 60)} min`;
  }
  return `${Math.floor(seconds / 3600)} h ${Math.ceil((seconds % 3600) / 60)} min`;
}

function overLimit(size) {
  let file = formatBytes(size);
  let limit = formatBytes(largestBody);
  // Rounded alike, the two would read as equal: say them in bytes.
  if (file === limit) {
    file = `${size.toLocaleString("en")} bytes`;
    limit = `${largestBody.toLocaleString("en")}-byte`;
  }
  return `${file} is over the ${limit} limit. Send a smaller file, or split it.`;
}

// What a form wraps around a file's bytes: two boundary lines and the part's headers, with
// every byte of the name counted as if escaped. A file whose request would pass the server's
// limit is refused here, before any byte is sent.
function requestSize(file) {
  return file.size + 200 + file.type.length + 3 * new TextEncoder().encode(file.name).length;
}

const renameAndRetry = "Rename the file and try again.";
// The upload service's texts, as its answer pages carry them.
const serviceTexts = [
  [/^Refused file name '.*': it names a directory$/s, "refused",
   `This name stands for a folder and cannot name a file. ${renameAndRetry}`],
  [/^Refused file name: it is empty$/, "refused", "The file has no name. Give it one and try again."],
  [/^Refused file name: it is longer than (\d+) bytes$/, "refused",
   (m) => `The file name is too long: at most ${m[1]} bytes. Shorten it and try again.`],
  [/^Refused file name: it contains a (NUL byte|control character)$/, "refused",
   `The file name contains an invisible control character. ${renameAndRetry}`],
  [/^Refused file name '.*': it contains a path separator$/s, "refused",
   `File names cannot contain a slash (/). ${renameAndRetry}`],
  [/^Refused file name '.*': it is reserved for temporary files$/s, "refused",
   `Names starting with ".kestrin-upload-" are kept for the server's own use. ${renameAndRetry}`],
  [/^Refused file '.*': a file of that name already exists$/s, "refused",
   `A file of this name is already stored, and the server keeps it. ${renameAndRetry}`],
  [/^Refused file '.*': a file of that name exists, and /s, "refused",
   `A file of this name is already stored, and so are its numbered copies. ${renameAndRetry}`],
  [/^Refused file '.*': a directory of that name exists$/s, "refused",
   `A folder of this name is in the way on the server. ${renameAndRetry}`],
  [/^Refused file '.*': this request already stored (\d+) files/s, "refused",
   (m) => `One upload may store at most ${m[1]} files. Send the rest in another upload.`],
  [/^Refused path /, "refused", `The name would put the file outside the upload folder. ${renameAndRetry}`],
  [/^Invalid UTF-(8|16) in text$/, "refused", `The file name is not valid text. ${renameAndRetry}`],
  [/^Malformed multi-?part request/, "refused",
   "The server could not read the upload as a form. Try again; if it happens again, contact support."],
  [/^Request Body is corrupted or null$/, "refused", "No file data reached the server. Try again."],
  [/^Out of memory!$/, "failed", "The server ran out of memory for this file. Try again later."],
  [/^Cannot /, "failed",
   "The server could not write the file: its disk may be full. Try again later, or contact support."],
  [/^(Internal Error|Promise destroyed|Future state|Invalid Future)/, "failed",
   "The server failed while storing the file. Try again later, or contact support."],
];

// What the server's own plain-text answers mean, by status.
function hostOutcome(status, size) {
  switch (status) {
  case 401: return ["refused", "You need to sign in to upload. Reload the page and sign in."];
  case 403: return ["refused", "The server takes uploads only from its own pages."];
  case 404: return ["refused", "This destination does not exist on the server."];
  case 408: return ["failed", "The upload was too slow or paused too long, and the server gave up. Try again."];
  // Over the limit this page knows, or the server was restarted with a lower one since.
  case 413: return ["refused", size > largestBody ? overLimit(size)
    : `${formatBytes(size)} is over the server's limit, which is lower than when this page was loaded. Reload the page to see it.`];
  case 503: return ["failed", "The server is busy. Try again in a few seconds."];
  case 507: return ["failed", "The server's disk is full. Try again later, or contact support."];
  }
  if (status >= 500) {
    return ["failed", "The server failed. Try again later, or contact support."];
  }
  return ["refused", "The server could not read the request. Try again; if it happens again, contact support."];
}

// The text a result page hands to its parent, out of the string in its script.
function pageMessage(html) {
  const match = /parent\.postMessage\("((?:[^"\\]|\\.)*)"/.exec(html);
  if (!match) {
    return null;
  }
  const named = { n: "\n", r: "\r" };
  return match[1].replace(/\\(x[0-9A-Fa-f]{2}|u[0-9A-Fa-f]{4}|.)/g, (all, escape) =>
    escape.length > 1 ? String.fromCharCode(parseInt(escape.slice(1), 16)) : named[escape] ?? escape);
}

function messageOutcome(message) {
  if (message === "SUCCESS") {
    return { state: "stored", sentence: "Stored.", original: message };
  }
  for (const [pattern, state, sentence] of serviceTexts) {
    const match = pattern.exec(message);
    if (match) {
      return { state, sentence: typeof sentence === "function" ? sentence(match) : sentence, original: message };
    }
  }
  return { state: "refused", sentence: "The server did not store the file.", original: message };
}

function answerOutcome(request, size) {
  const type = request.getResponseHeader("Content-Type") || "";
  const message = type.startsWith("text/html") ? pageMessage(request.responseText) : null;
  if (message !== null) {
    return messageOutcome(message);
  }
  const [state, sentence] = hostOutcome(request.status, size);
  return { state, sentence, original: `${request.status} ${request.responseText.trim()}` };
}

function showOutcome(element, outcome) {
  element.className = `outcome ${outcome.state}`;
  element.replaceChildren();
  const sentence = document.createElement("span");
  sentence.className = "sentence";
  sentence.textContent = outcome.sentence;
  element.append(sentence);
  if (outcome.original) {
    const original = document.createElement("span");
    original.className = "original";
    const code = document.createElement("code");
    code.textContent = outcome.original;
    original.append("Server's answer: ", code);
    element.append(" ", original);
  }
}

// ---- one row per file, a queue of them, three in flight

const waiting = [];
const uploads = [];
let inFlight = 0;

function element(tag, className, parent) {
  const made = document.createElement(tag);
  made.className = className;
  parent.append(made);
  return made;
}

function addRow(file) {
  const row = element("li", "row", rows);
  const job = { file, destination: route.value, row, request: null, state: "", sentAll: false };
  const label = element("div", "label", row);
  element("span", "name", label).textContent = file.name;
  element("span", "size", label).textContent = formatBytes(file.size);
  const cancel = element("button", "cancel", row);
  cancel.type = "button";
  cancel.textContent = "Cancel";
  cancel.setAttribute("aria-label", `Cancel ${file.name}`);
  cancel.addEventListener("click", () => cancelUpload(job));
  const meter = element("div", "meter", row);
  job.bar = element("progress", "", meter);
  job.bar.max = 100;
  job.bar.value = 0;
  job.bar.setAttribute("aria-label", `Upload of ${file.name}`);
  job.percent = element("span", "percent", meter);
  job.numbers = element("span", "numbers", row);
  job.outcome = element("p", "outcome", row);
  job.cancel = cancel;
  uploads.push(job);
  return job;
}

function setState(job, state, numbers) {
  job.state = state;
  job.row.dataset.state = state;
  job.numbers.textContent = numbers;
  job.cancel.hidden = state !== "queued" && state !== "uploading";
}

function finish(job, outcome) {
  setState(job, outcome.state, "");
  showOutcome(job.outcome, outcome);
  announce.textContent = `${job.file.name}: ${outcome.sentence}`;
}

function addFiles(files) {
  for (const file of Array.from(files)) {
    const job = addRow(file);
    if (requestSize(file) > largestBody) {
      finish(job, { state: "refused", sentence: `Not sent: ${overLimit(file.size)}` });
    } else {
      setState(job, "queued", "Waiting for its turn");
      job.percent.textContent = "0%";
      waiting.push(job);
    }
  }
  pump();
}

function pump() {
  while (inFlight < maxInFlight && waiting.length > 0) {
    start(waiting.shift());
  }
  const done = uploads.filter((job) => job.state === "stored").length;
  const open = uploads.filter((job) => job.state === "queued" || job.state === "uploading" ||
                                       job.state === "storing").length;
  summary.textContent = uploads.length === 0 ? "No uploads yet."
    : `${done} of ${uploads.length} stored` + (open > 0 ? `, ${open} still open.` : ".");
  cancelAll.disabled = !uploads.some((job) => job.state === "queued" || job.state === "uploading");
}

function progress(job, loaded, total) {
  if (job.state !== "uploading") {
    return;
  }
  const fraction = total > 0 ? Math.min(1, loaded / total) : 0;
  const size = job.file.size;
  const sent = Math.round(size * fraction);
  const seconds = (performance.now() - job.started) / 1000;
  const rate = seconds > 0 ? sent / seconds : 0;
  const percent = Math.floor(fraction * 100);
  job.bar.value = percent;
  job.bar.setAttribute("aria-valuetext", `${percent}%, ${formatBytes(sent)} of ${formatBytes(size)}`);
  job.percent.textContent = `${percent}%`;
  const left = rate > 0 ? `about ${formatSeconds((size - sent) / rate)} left` : "";
  job.numbers.textContent = [`${formatBytes(sent)} of ${formatBytes(size)} sent`,
                             `${formatBytes(Math.round(rate))}/s`, left].filter(Boolean).join(" \u00b7 ");
}

function start(job) {
  inFlight += 1;
  setState(job, "uploading", "Starting\u2026");
  const request = new XMLHttpRequest();
  job.request = request;
  job.started = performance.now();
  request.open("POST", job.destination);
  request.upload.addEventListener("progress", (event) => progress(job, event.loaded, event.total));
  // The last byte is out; the server now stores the file, and a cancel can no longer stop it.
  request.upload.addEventListener("load", () => {
    job.sentAll = true;
    if (job.state === "uploading") {
      job.bar.removeAttribute("value");
      job.bar.setAttribute("aria-valuetext", "all sent, being stored");
      job.percent.textContent = "storing";
      setState(job, "storing", "All sent; the server is storing the file\u2026");
      pump();
    }
  });
  request.addEventListener("load", () => settle(job, answerOutcome(request, job.file.size)));
  request.addEventListener("error", () => settle(job, {
    state: "failed",
    sentence: "The connection to the server broke before it answered. Check the network and try again.",
  }));
  request.addEventListener("abort", () => settle(job, job.sentAll
    ? { state: "cancelled", sentence: "Cancelled after the last byte was sent: the server may have stored it." }
    : { state: "cancelled", sentence: "Cancelled. Nothing was stored." }));
  const data = new FormData();
  data.append("file", job.file, job.file.name);
  request.send(data);
}

function settle(job, outcome) {
  job.request = null;
  inFlight -= 1;
  finish(job, outcome);
  pump();
}

function cancelUpload(job) {
  if (job.state === "queued") {
    waiting.splice(waiting.indexOf(job), 1);
    finish(job, { state: "cancelled", sentence: "Cancelled before it was sent." });
    pump();
  } else if (job.state === "uploading") {
    job.request.abort();
  }
}

cancelAll.addEventListener("click", () => {
  // The queued ones first, so that no cancelled upload makes room for the next to start.
  for (const job of waiting.slice()) {
    cancelUpload(job);
  }
  for (const job of uploads.filter((each) => each.state === "uploading")) {
    cancelUpload(job);
  }
});

// ---- choosing and dropping

document.getElementById("limitText").textContent = formatBytes(largestBody);

dropZone.addEventListener("click", () => dropFiles.click());
dropZone.addEventListener("keydown", (event) => {
  if (event.key === "Enter" || event.key === " ") {
    event.preventDefault();
    dropFiles.click();
  }
});
dropFiles.addEventListener("change", () => {
  addFiles(dropFiles.files);
  dropFiles.value = "";
});
dropZone.addEventListener("dragover", (event) => {
  event.preventDefault();
  dropZone.classList.add("over");
});
dropZone.addEventListener("dragleave", () => dropZone.classList.remove("over"));
dropZone.addEventListener("drop", (event) => {
  event.preventDefault();
  dropZone.classList.remove("over");
  addFiles(event.dataTransfer.files);
});
// A file dropped beside the zone would otherwise replace the page and end its uploads.
window.addEventListener("dragover", (event) => event.preventDefault());
window.addEventListener("drop", (event) => event.preventDefault());

// ---- the plain form: one request into a hidden frame, its answer posted back

let formPending = false;

window.addEventListener("message", (event) => {
  if (event.source === formFrame.contentWindow) {
    formPending = false;
    showOutcome(formResult, messageOutcome(String(event.data)));
  }
});

form.addEventListener("submit", (event) => {
  if (formFiles.files.length === 0) {
    event.preventDefault();
    showOutcome(formResult, { state: "refused", sentence: "Choose at least one file first: nothing was sent." });
    return;
  }
  const chosen = Array.from(formFiles.files);
  if (chosen.reduce((sum, each) => sum + requestSize(each), 0) > largestBody) {
    event.preventDefault();
    const size = chosen.reduce((sum, each) => sum + each.size, 0);
    showOutcome(formResult, { state: "refused", sentence: `Not sent: ${overLimit(size)}` });
    return;
  }
  form.action = route.value;
  formPending = true;
  showOutcome(formResult, { state: "pending", sentence: "Uploading\u2026" });
});

// The server's own answers (too large, refused) are plain text and post no message; the frame
// cannot see their status, so it is read off the reason phrase they open with.
const reasons = { "Bad Request": 400, "Unauthorized": 401, "Forbidden": 403, "Not Found": 404,
                  "Request Timeout": 408, "Payload Too Large": 413, "Service Unavailable": 503,
                  "Insufficient Storage": 507 };
formFrame.addEventListener("load", () => {
  if (!formPending) {
    return;
  }
  formPending = false;
  const doc = formFrame.contentDocument;
  const text = doc && doc.body ? doc.body.textContent.trim() : "";
  const status = reasons[text.split(":")[0]] ?? 500;
  const size = Array.from(formFiles.files).reduce((sum, chosen) => sum + chosen.size, 0);
  const [state, sentence] = hostOutcome(status, size);
  showOutcome(formResult, { state, sentence, original: text || "no answer" });
});
)js";

} // namespace kestrin::host
