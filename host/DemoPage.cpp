#include "host/DemoPage.h"

namespace kestrin::host {

const std::string_view demoPage = R"page(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>kestrin file upload</title>
<link rel="icon" href="data:,">
<style>
  body { font-family: system-ui, sans-serif; max-width: 44rem; margin: 2rem auto; padding: 0 1rem;
         color: #222; }
  h1 { font-size: 1.4rem; }
  section { border: 1px solid #ccc; border-radius: 6px; padding: 1rem; margin-bottom: 1.5rem; }
  h2 { font-size: 1.1rem; margin-top: 0; }
  label { display: block; margin-bottom: 0.6rem; }
  button { padding: 0.3rem 1.2rem; }
  #dropZone { border: 2px dashed #888; border-radius: 6px; padding: 2rem; text-align: center;
              cursor: pointer; }
  #dropZone.over { border-color: #2a6; background: #efe; }
  progress { width: 100%; margin-top: 0.8rem; }
  .result { margin-top: 0.8rem; min-height: 1.4em; font-weight: bold; white-space: pre-wrap; }
  .result.ok { color: #1a7f37; }
  .result.error { color: #c62828; }
  .result.pending { color: #666; font-weight: normal; }
</style>
</head>
<body>
<h1>Upload files</h1>

<label>Destination
  <select id="route">
    <option value="/users">/users</option>
    <option value="/ORVANE Drive">/ORVANE Drive</option>
  </select>
</label>

<section>
  <h2>Choose files</h2>
  <form id="uploadForm" method="post" enctype="multipart/form-data" target="resultFrame"
        action="/users">
    <label><input id="files" type="file" name="file" multiple></label>
    <button id="submit" type="submit">Upload</button>
  </form>
  <div id="formResult" class="result" role="status"></div>
  <iframe id="resultFrame" name="resultFrame" title="upload result" hidden></iframe>
</section>

<section>
  <h2>Or drop files here</h2>
  <div id="dropZone" tabindex="0">Drop files here, or click to choose</div>
  <input id="dropFiles" type="file" multiple hidden>
  <progress id="dropProgress" max="1" value="0"></progress>
  <div id="dropResult" class="result" role="status"></div>
</section>

<script>
"use strict";
const route = document.getElementById("route");
const form = document.getElementById("uploadForm");
const formResult = document.getElementById("formResult");
const formFrame = document.getElementById("resultFrame");
const dropZone = document.getElementById("dropZone");
const dropFiles = document.getElementById("dropFiles");
const dropProgress = document.getElementById("dropProgress");
const dropResult = document.getElementById("dropResult");
let dropFrame = null;
let formPending = false;

// The result page's script hands over one message: "SUCCESS" or the error text.
function show(element, message) {
  element.textContent = message;
  element.className = "result " + (message === "SUCCESS" ? "ok" : "error");
}

function showPending(element, text) {
  element.textContent = text;
  element.className = "result pending";
}

window.addEventListener("message", (event) => {
  if (event.source === formFrame.contentWindow) {
    formPending = false;
    show(formResult, String(event.data));
  } else if (dropFrame && event.source === dropFrame.contentWindow) {
    show(dropResult, String(event.data));
  }
});

form.addEventListener("submit", () => {
  form.action = route.value;
  formPending = true;
  showPending(formResult, "Uploading\u2026");
});

// The server's own errors (too large, not found) are plain text and post no message.
formFrame.addEventListener("load", () => {
  if (!formPending) {
    return;
  }
  formPending = false;
  const doc = formFrame.contentDocument;
  const text = doc && doc.body ? doc.body.textContent.trim() : "";
  show(formResult, text || "No answer from the server");
});

function showResultPage(html) {
  if (dropFrame) {
    dropFrame.remove();
  }
  dropFrame = document.createElement("iframe");
  dropFrame.hidden = true;
  dropFrame.title = "drop upload result";
  // Its own origin: the page may run its one script and post its message, nothing more.
  dropFrame.setAttribute("sandbox", "allow-scripts");
  dropFrame.srcdoc = html;
  document.body.appendChild(dropFrame);
}

function upload(files) {
  if (!files || files.length === 0) {
    return;
  }
  const data = new FormData();
  for (const file of files) {
    data.append("file", file, file.name);
  }
  const request = new XMLHttpRequest();
  request.open("POST", route.value);
  request.upload.addEventListener("progress", (event) => {
    if (event.lengthComputable) {
      dropProgress.value = event.loaded / event.total;
    }
  });
  request.addEventListener("load", () => {
    dropProgress.value = 1;
    const type = request.getResponseHeader("Content-Type") || "";
    if (type.startsWith("text/html")) {
      showResultPage(request.responseText);
    } else {
      show(dropResult, request.status + " " + request.responseText.trim());
    }
  });
  request.addEventListener("error", () => show(dropResult, "The upload failed: no connection"));
  dropProgress.value = 0;
  showPending(dropResult, "Uploading " + files.length + " file(s)\u2026");
  request.send(data);
}

dropZone.addEventListener("dragover", (event) => {
  event.preventDefault();
  dropZone.classList.add("over");
});
dropZone.addEventListener("dragleave", () => dropZone.classList.remove("over"));
dropZone.addEventListener("drop", (event) => {
  event.preventDefault();
  dropZone.classList.remove("over");
  upload(event.dataTransfer.files);
});
dropZone.addEventListener("click", () => dropFiles.click());
dropZone.addEventListener("keydown", (event) => {
  if (event.key === "Enter" || event.key === " ") {
    dropFiles.click();
  }
});
dropFiles.addEventListener("change", () => {
  upload(Array.from(dropFiles.files));
  dropFiles.value = "";
});
</script>
</body>
</html>
)page";

} // namespace kestrin::host
