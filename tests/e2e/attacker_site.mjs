// A site of another origin for the browser test: a small HTTP server on 127.0.0.1 that the
// browser reaches as http://localhost:<port>/, so its pages are of another site than the upload
// server at http://127.0.0.1:<port>/, not only of another origin. Its one page tries to store a
// file on an upload server the way a hostile page would, and records what comes back to it.
import { createServer } from 'node:http';

// What the page tries to store, whatever the file's name.
export const plantedContent = 'planted by a page of another site\n';

// Loaded as /attack?upload=<upload URL>&name=<file name>. On load it posts a form with a file
// built in script into a frame, as attack pages do (a file input cannot be filled otherwise);
// `send` posts the same with fetch. Every request names its kind in the query, so the test can
// tell them apart in the upload server's log. Every message a frame posts lands in `messages`.
const attackPage = `<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<title>another site</title>
<link rel="icon" href="data:,">
</head>
<body>
<form id="plant" method="post" enctype="multipart/form-data" target="sink">
  <input id="file" type="file" name="file">
</form>
<iframe id="sink" name="sink" title="upload answer"></iframe>
<script>
"use strict";
const params = new URLSearchParams(location.search);
const upload = params.get("upload");
window.messages = [];
window.frameLoads = 0;
addEventListener("message", (event) => messages.push(String(event.data)));

function planted(name) {
  return new File([${JSON.stringify(plantedContent)}], name, { type: "text/plain" });
}

// Resolves to the response's type and status (an opaque one in no-cors mode) or the error's
// name (a CORS failure is a TypeError with no detail for the page).
window.send = async (name, mode) => {
  const data = new FormData();
  data.append("file", planted(name));
  try {
    const response = await fetch(upload + "?attack=" + mode, { method: "POST", body: data, mode });
    return response.type + " " + response.status;
  } catch (error) {
    return error.name;
  }
};

addEventListener("load", () => {
  const files = new DataTransfer();
  files.items.add(planted(params.get("name")));
  document.getElementById("file").files = files.files;
  // Counted from here: the frame's own first document is not an answer.
  document.getElementById("sink").addEventListener("load", () => ++window.frameLoads);
  const form = document.getElementById("plant");
  form.action = upload + "?attack=form";
  form.submit();
});
</script>
</body>
</html>
`;

// Starts the site; resolves to its origin, the address of its page aimed at an upload URL, and
// a close function.
export function startAttackerSite() {
  const server = createServer((request, response) => {
    if (request.method === 'GET' && request.url.startsWith('/attack?')) {
      response.writeHead(200, { 'Content-Type': 'text/html; charset=utf-8' });
      response.end(attackPage);
      return;
    }
    response.writeHead(404, { 'Content-Type': 'text/plain' });
    response.end('Not Found');
  });
  return new Promise((resolvePromise, reject) => {
    server.once('error', reject);
    server.listen(0, '127.0.0.1', () => {
      resolvePromise({
        origin: `http://localhost:${server.address().port}`,
        attack: (uploadUrl, name) => `http://localhost:${server.address().port}/attack?` +
          new URLSearchParams({ upload: uploadUrl, name }),
        close: () => {
          server.closeAllConnections();
          server.close();
        },
      });
    });
  });
}
